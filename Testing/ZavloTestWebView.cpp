#include "Testing/ZavloTestWebView.hpp"

void ZavloTestWebView::addScriptMessageHandler(std::shared_ptr<ZavloScriptMessageHandler> handler,
                                               const std::string& name, const ZavloOriginRules& allowed) {
  handlers_[name] = {std::move(handler), allowed};
}

void ZavloTestWebView::removeScriptMessageHandler(const std::string& name) { handlers_.erase(name); }

void ZavloTestWebView::post(const std::string& name, nlohmann::json body) {
  postMessage(name, ZavloScriptMessage{std::move(body), {}, {}});
}

void ZavloTestWebView::postMessage(const std::string& name, ZavloScriptMessage message) {
  mainQueue_.post([weakSelf = weak_from_this(), name, message = std::move(message)] {
    auto self = weakSelf.lock();
    if (!self) return;
    // Held for the call: the handler may remove itself while it runs.
    if (auto handler = self->handler(name)) handler->didReceiveScriptMessage(message);
  });
}

std::shared_ptr<ZavloScriptMessageHandler> ZavloTestWebView::handler(const std::string& name) const {
  const auto found = handlers_.find(name);
  return found == handlers_.end() ? nullptr : found->second.first;
}

const ZavloOriginRules* ZavloTestWebView::allowedOrigins(const std::string& name) const {
  const auto found = handlers_.find(name);
  return found == handlers_.end() ? nullptr : &found->second.second;
}
