#include "Testing/ZavloTestWebView.hpp"

void ZavloTestWebView::addScriptMessageHandler(std::shared_ptr<ZavloScriptMessageHandler> handler,
                                               const std::string& name) {
  handlers_[name] = std::move(handler);
}

void ZavloTestWebView::removeScriptMessageHandler(const std::string& name) { handlers_.erase(name); }

void ZavloTestWebView::post(const std::string& name, nlohmann::json body) {
  mainQueue_.post([weakSelf = weak_from_this(), name, body = std::move(body)] {
    auto self = weakSelf.lock();
    if (!self) return;
    // Held for the call: the handler may remove itself while it runs.
    if (auto handler = self->handler(name)) handler->didReceiveScriptMessage(body);
  });
}

std::shared_ptr<ZavloScriptMessageHandler> ZavloTestWebView::handler(const std::string& name) const {
  const auto found = handlers_.find(name);
  return found == handlers_.end() ? nullptr : found->second;
}
