#pragma once

#include <map>
#include <memory>
#include <string>

#include "Platform/ZavloWebView.hpp"

// WebKitGTK's own declarations, so that this header needs no WebKit include path.
typedef struct _WebKitWebView WebKitWebView;
typedef struct _WebKitUserContentManager WebKitUserContentManager;

/// The web view service over a WebKitGTK web view (webkit2gtk-4.1): the page posts with
/// window.webkit.messageHandlers.NAME.postMessage(body), as on a mobile web view.
///
/// Handler names are registered on the view's user content manager, whose
/// "script-message-received::NAME" signal delivers each posted value; the value is turned
/// into JSON text and then into the body by zavloParsePageMessage, and a value that has
/// no JSON form (undefined, a function, a cycle) or is nested too deeply is dropped. A
/// content manager shared by several views shares their handlers.
///
/// The widget may be destroyed before this object: from then on adding a handler and
/// evaluating do nothing, and removing only releases the handler. Destroying this object
/// unregisters its handlers and releases them.
///
/// Threading contract: GTK's; every operation, construction and destruction on the GTK
/// main thread, where handlers receive their messages (give the platform a
/// ZavloGLibMainQueue on the same context so that this is the main queue).
class ZavloWebKitWebView final : public ZavloWebView {
 public:
  explicit ZavloWebKitWebView(WebKitWebView* webView);
  ~ZavloWebKitWebView() override;

  void addScriptMessageHandler(std::shared_ptr<ZavloScriptMessageHandler> handler, const std::string& name) override;
  void removeScriptMessageHandler(const std::string& name) override;
  void evaluateJavaScript(const std::string& script) override;

  /// The web view, or nullptr once it has been destroyed.
  [[nodiscard]] WebKitWebView* webView() const noexcept { return webView_; }

 private:
  struct Registration;

  static void webViewDestroyed(WebKitWebView* webView, ZavloWebKitWebView* self);
  void unregister(Registration& registration);

  WebKitWebView* webView_;  // cleared when the widget is destroyed (which finalizing it does too)
  unsigned long destroyHandler_ = 0;
  // Held strongly so that handlers can still be unregistered after the view has gone.
  WebKitUserContentManager* contentManager_;
  std::map<std::string, std::unique_ptr<Registration>> registrations_;
};
