#pragma once

#include <memory>
#include <string>

#include <nlohmann/json.hpp>

/// Receives the message bodies a page posts to one handler name.
class ZavloScriptMessageHandler {
 public:
  ZavloScriptMessageHandler() = default;
  ZavloScriptMessageHandler(const ZavloScriptMessageHandler&) = delete;
  ZavloScriptMessageHandler& operator=(const ZavloScriptMessageHandler&) = delete;
  virtual ~ZavloScriptMessageHandler() = default;

  /// One posted body, as the JSON value the page posted (any type).
  virtual void didReceiveScriptMessage(const nlohmann::json& body) = 0;
};

/// The host's web view, as far as the library scripts it: the page posts messages with
/// window.webkit.messageHandlers.NAME.postMessage(body), and the library answers by
/// evaluating JavaScript in the page.
///
/// Threading contract: every operation is called on the main queue, and handlers receive
/// messages there. The web view retains each handler until it is removed or replaced, so a
/// handler must not hold its web view strongly.
class ZavloWebView {
 public:
  ZavloWebView() = default;
  ZavloWebView(const ZavloWebView&) = delete;
  ZavloWebView& operator=(const ZavloWebView&) = delete;
  virtual ~ZavloWebView() = default;

  /// Makes window.webkit.messageHandlers.NAME reach handler; an earlier handler of the
  /// same name is replaced.
  virtual void addScriptMessageHandler(std::shared_ptr<ZavloScriptMessageHandler> handler, const std::string& name) = 0;
  /// Removes the handler of that name, if any; the page's posts to it go nowhere.
  virtual void removeScriptMessageHandler(const std::string& name) = 0;
  /// Evaluates the text in the page; its result and any script error are ignored.
  virtual void evaluateJavaScript(const std::string& script) = 0;
};
