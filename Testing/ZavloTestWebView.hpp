#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Platform/ZavloQueue.hpp"
#include "Platform/ZavloWebView.hpp"

/// A web view with no page: it records the handlers installed and every script evaluated,
/// and lets the test post messages as a page would.
///
/// Threading: as ZavloWebView; post() may be called from the test's thread at any time and
/// delivers on the main queue given, like a real web view.
class ZavloTestWebView final : public ZavloWebView, public std::enable_shared_from_this<ZavloTestWebView> {
 public:
  explicit ZavloTestWebView(ZavloQueue& mainQueue) : mainQueue_(mainQueue) {}

  using ZavloWebView::addScriptMessageHandler;
  /// Records the rules; filtering by them is a real view's work, so post() delivers anyway.
  void addScriptMessageHandler(std::shared_ptr<ZavloScriptMessageHandler> handler, const std::string& name,
                               const ZavloOriginRules& allowed) override;
  void removeScriptMessageHandler(const std::string& name) override;
  void evaluateJavaScript(const std::string& script) override { evaluatedScripts_.push_back(script); }

  /// Posts body to the handler of name, delivered on the main queue when it runs; a name
  /// with no handler at delivery time drops it, as a page's post to nothing does.
  void post(const std::string& name, nlohmann::json body);
  /// The same with the source and the reply a real view would give.
  void postMessage(const std::string& name, ZavloScriptMessage message);

  [[nodiscard]] bool hasHandler(const std::string& name) const { return handlers_.count(name) != 0; }
  [[nodiscard]] std::shared_ptr<ZavloScriptMessageHandler> handler(const std::string& name) const;
  /// The rules the handler of name was added with.
  [[nodiscard]] const ZavloOriginRules* allowedOrigins(const std::string& name) const;
  [[nodiscard]] const std::vector<std::string>& evaluatedScripts() const { return evaluatedScripts_; }
  /// The scripts evaluated so far, forgotten.
  std::vector<std::string> takeEvaluatedScripts() { return std::exchange(evaluatedScripts_, {}); }

 private:
  ZavloQueue& mainQueue_;
  std::map<std::string, std::pair<std::shared_ptr<ZavloScriptMessageHandler>, ZavloOriginRules>, std::less<>>
      handlers_;
  std::vector<std::string> evaluatedScripts_;
};
