#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "Platform/ZavloWebView.hpp"

// WebKitGTK's own declarations, so that this header needs no WebKit include path.
typedef struct _WebKitWebView WebKitWebView;
typedef struct _WebKitUserContentManager WebKitUserContentManager;

/// The web view service over a WebKitGTK web view (webkit2gtk-4.1, 2.40 or later): the page
/// posts with window.webkit.messageHandlers.NAME.postMessage(body), as on a mobile web
/// view, and the post also returns a promise of the answer.
///
/// WebKitGTK tells a handler neither the frame nor the origin of a message, so no handler
/// is registered where the page runs. Each is registered, with replies, in an isolated
/// script world of the library's own (kScriptWorld), which page scripts cannot reach. Two
/// user scripts go into the top frame only, and only of pages the rules' URI patterns
/// cover: in the page's world, the postMessage the page calls; in the isolated world, a
/// relay that hands each post on with the document's origin. Here a post is then refused
/// unless it comes from the top frame, its origin is that of the page shown, and the rules
/// allow it. An iframe has no postMessage at all and cannot dispatch events into the top
/// document of another origin.
///
/// Every accepted message carries a reply tied to the document that posted it: the
/// document is counted out when another one commits (a navigation, a reload), and an
/// answer to a document that has gone is dropped. Answers evaluate the callback in the
/// page's world behind a check of the document's random token, so that even an answer in
/// flight during a navigation finds the token gone, and settle the promise through the
/// reply.
///
/// The widget may be destroyed before this object: from then on adding a handler and
/// evaluating do nothing, answers are dropped, and removing only releases the handler.
/// Destroying this object unregisters its handlers and removes its scripts.
///
/// Threading contract: GTK's; every operation, construction and destruction on the GTK
/// main thread, where handlers receive their messages (give the platform a
/// ZavloGLibMainQueue on the same context so that this is the main queue).
class ZavloWebKitWebView final : public ZavloWebView {
 public:
  /// The isolated script world the handlers live in.
  static constexpr const char* kScriptWorld = "zavlo-authentication";

  /// What a host may watch, for diagnostics: every call on the GTK main thread.
  struct Observer {
    /// A post that reached no handler: its origin ("" when the page did not say), whether
    /// it came from the top frame, and why it was refused.
    std::function<void(const std::string& origin, bool mainFrame, const std::string& why)> refused;
    /// An answer delivered: the document's origin, whether a callback was evaluated, the result.
    std::function<void(const std::string& origin, bool callback, const nlohmann::json& result)> answered;
    /// An answer dropped because the document that asked has gone.
    std::function<void(const std::string& origin)> dropped;
  };

  explicit ZavloWebKitWebView(WebKitWebView* webView, Observer observer = {});
  ~ZavloWebKitWebView() override;

  using ZavloWebView::addScriptMessageHandler;
  void addScriptMessageHandler(std::shared_ptr<ZavloScriptMessageHandler> handler, const std::string& name,
                               const ZavloOriginRules& allowed) override;
  void removeScriptMessageHandler(const std::string& name) override;
  void evaluateJavaScript(const std::string& script) override;

  /// The web view, or nullptr once it has been destroyed.
  [[nodiscard]] WebKitWebView* webView() const noexcept;

  struct State;
  struct Registration;

 private:
  void unregister(Registration& registration);

  std::shared_ptr<State> state_;  // shared with the replies still owed
  std::map<std::string, std::unique_ptr<Registration>> registrations_;
};
