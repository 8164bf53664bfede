#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "Core/ZavloAuthException.hpp"
#include "Platform/ZavloWebView.hpp"
#include "Session/ZavloAuthInitConfig.hpp"

class ZavloAuthenticationOperations;
class ZavloQueue;

/// The script-message handler a page talks to: decodes each posted message, runs the
/// operation it names and answers by calling the page's named callback with the result.
///
/// Threading: messages, cleanup() and the handlers run on the main queue (the web view's
/// contract). Operations may complete on any thread; every answer is evaluated in the
/// page later, on the main queue, in the order the answers were given.
class ZavloAuthenticationBridge final : public ZavloScriptMessageHandler,
                                        public std::enable_shared_from_this<ZavloAuthenticationBridge> {
 public:
  /// The handler name the page posts to.
  static constexpr std::string_view kHandlerName = "zavlo_authentication_bridge";

  /// What the bridge runs operations with: members of one graph, whose main queue
  /// outlives the bridge.
  struct Services {
    ZavloQueue& mainQueue;
    std::shared_ptr<ZavloAuthenticationOperations> operations;
  };

  /// Holds the web view and the host's screen weakly; install it with
  /// ZavloWebView::addScriptMessageHandler under kHandlerName.
  static std::shared_ptr<ZavloAuthenticationBridge> create(std::weak_ptr<ZavloWebView> webView,
                                                           std::weak_ptr<void> viewController, Services services);

  /// Whom an answer goes to: the page's callback and, when the web view tells documents
  /// apart, the document that asked, and its origin.
  struct Asker {
    Asker(std::string callbackName) : callbackName(std::move(callbackName)) {}  // NOLINT: a name alone is an asker
    Asker(std::string callbackName, std::shared_ptr<ZavloScriptMessageReply> reply, std::string origin)
        : callbackName(std::move(callbackName)), reply(std::move(reply)), origin(std::move(origin)) {}
    std::string callbackName;
    std::shared_ptr<ZavloScriptMessageReply> reply;
    std::string origin;
  };

  /// One page message: an object with a string "method" and a string "callback", else
  /// ignored (there is nobody to answer).
  void didReceiveScriptMessage(const ZavloScriptMessage& message) override;
  /// The same for a body from the host's own page, answered in whatever the view shows.
  void didReceiveScriptMessage(const nlohmann::json& body) { didReceiveScriptMessage(ZavloScriptMessage{body, {}, {}}); }
  /// Whether body is a message the bridge answers: exactly once, as long as the bridge and
  /// its web view exist. A message with a callback that is not a plain identifier still
  /// runs its operation, but its answer is never evaluated.
  static bool expectsAnswer(const nlohmann::json& body);
  /// Removes the handler from the web view, if it still exists, and forgets the
  /// configuration of the last initAuth.
  void cleanup();

  /// Calls the page's global function name with jsonObject's JSON text, later on the main
  /// queue, if the name is a plain identifier, the object serialises, and the bridge and
  /// its web view still exist then. Callable from any thread; failures are silent.
  void invokeJsonStringCallback(const std::string& name, const nlohmann::json& jsonObject);

  /// Answers asker with jsonObject, later on the main queue, if the bridge and its web view
  /// still exist then: through its reply when it has one (the callback, if its name is a
  /// plain identifier, and the promise), else as invokeJsonStringCallback. Any thread.
  void answer(const Asker& asker, const nlohmann::json& jsonObject);

  void handleInitAuth(const nlohmann::json& body, const Asker& asker);
  void handleStartAuth(const nlohmann::json& body, const Asker& asker);
  void handleGetDeviceBindingState(const nlohmann::json& body, const Asker& asker);
  void handleEnrollDeviceBinding(const nlohmann::json& body, const Asker& asker);
  void handleSignDeviceBindingChallenge(const nlohmann::json& body, const Asker& asker);

  /// body["config"] as an object, given as one or as JSON text; otherwise answers
  /// INVALID_JSON_CONFIGURATION to the asker and returns absent.
  std::optional<nlohmann::json> deviceBindingConfig(const nlohmann::json& body, const Asker& asker);
  /// dictionary[key] as a list of non-empty trimmed texts (one string is one element).
  static std::vector<std::string> stringListValue(const nlohmann::json& dictionary, std::string_view key);

  /// The configuration of the last initAuth whose initConfig parsed, until cleanup().
  [[nodiscard]] std::shared_ptr<ZavloAuthInitConfig> initConfig() const { return initConfig_; }
  [[nodiscard]] std::weak_ptr<ZavloWebView> webView() const { return webView_; }

 private:
  ZavloAuthenticationBridge(std::weak_ptr<ZavloWebView> webView, std::weak_ptr<void> viewController, Services services);

  void answerFailure(const Asker& asker, const ZavloAuthException& exception);

  std::weak_ptr<ZavloWebView> webView_;
  std::weak_ptr<void> viewController_;
  Services services_;
  std::shared_ptr<ZavloAuthInitConfig> initConfig_;
};
