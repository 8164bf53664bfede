#pragma once

#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "Platform/ZavloOriginRules.hpp"

/// Where a posted message came from, as far as the web view vouches for it.
struct ZavloScriptMessageSource {
  /// The posting document's origin ("scheme://host[:port]", or "null" for an opaque one);
  /// empty for the host's own page when the view cannot name its origin (a stream).
  std::string origin;
  bool mainFrame = true;
};

/// The way back to the one document that posted a message: a web view that can tell
/// documents apart hands one out with each message.
///
/// Threading: answer() on the main queue; the object may be released on any thread. One
/// released unanswered settles the post's promise without a result.
class ZavloScriptMessageReply {
 public:
  ZavloScriptMessageReply() = default;
  ZavloScriptMessageReply(const ZavloScriptMessageReply&) = delete;
  ZavloScriptMessageReply& operator=(const ZavloScriptMessageReply&) = delete;
  virtual ~ZavloScriptMessageReply() = default;

  /// At most once: evaluates callbackScript (none when empty) in the document that posted
  /// and resolves the post's promise with result. When that document has gone (another
  /// page, a reload, a closed view) nothing happens and the answer is false.
  virtual bool answer(const std::string& callbackScript, const nlohmann::json& result) = 0;
};

/// One message a page posted.
struct ZavloScriptMessage {
  /// The value the page posted (any JSON type).
  nlohmann::json body;
  ZavloScriptMessageSource source;
  /// Null when the view cannot tell documents apart: answers are then evaluated in
  /// whatever the view shows.
  std::shared_ptr<ZavloScriptMessageReply> reply;
};

/// Receives the messages a page posts to one handler name.
class ZavloScriptMessageHandler {
 public:
  ZavloScriptMessageHandler() = default;
  ZavloScriptMessageHandler(const ZavloScriptMessageHandler&) = delete;
  ZavloScriptMessageHandler& operator=(const ZavloScriptMessageHandler&) = delete;
  virtual ~ZavloScriptMessageHandler() = default;

  virtual void didReceiveScriptMessage(const ZavloScriptMessage& message) = 0;
};

/// The host's web view, as far as the library scripts it: the page posts messages with
/// window.webkit.messageHandlers.NAME.postMessage(body), and the library answers by
/// evaluating JavaScript in the page.
///
/// Who may post is the view's to enforce, because only the view knows documents and
/// frames: a handler is reached from the top frame of a document whose origin the rules
/// allow, and from nothing else (no iframe, no other page). Rules that were not given
/// (default constructed) mean the host's own page: the page the view shows when the
/// handler is added, and pages of its origin.
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

  /// Makes window.webkit.messageHandlers.NAME reach handler from the documents allowed; an
  /// earlier handler of the same name is replaced, with its rules.
  virtual void addScriptMessageHandler(std::shared_ptr<ZavloScriptMessageHandler> handler, const std::string& name,
                                       const ZavloOriginRules& allowed) = 0;
  /// The same for the host's own page only.
  void addScriptMessageHandler(std::shared_ptr<ZavloScriptMessageHandler> handler, const std::string& name) {
    addScriptMessageHandler(std::move(handler), name, ZavloOriginRules());
  }
  /// Removes the handler of that name, if any; the page's posts to it go nowhere.
  virtual void removeScriptMessageHandler(const std::string& name) = 0;
  /// Evaluates the text in the page; its result and any script error are ignored.
  virtual void evaluateJavaScript(const std::string& script) = 0;
};
