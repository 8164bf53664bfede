#include "Bridge/ZavloAuthenticationWrapper.hpp"

#include "Operations/ZavloAuthenticationOperations.hpp"

ZavloAuthenticationWrapper::ZavloAuthenticationWrapper(ZavloAuthenticationBridge::Services services)
    : services_(std::move(services)) {}

void ZavloAuthenticationWrapper::setupWebView(const std::shared_ptr<ZavloWebView>& webView,
                                              std::weak_ptr<void> viewController, ZavloAuthEnvironment environment,
                                              const ZavloOriginRules& allowedOrigins) {
  if (bridge_) {
    bridge_->cleanup();
    bridge_.reset();
  }
  services_.operations->configureTelemetry(environment);
  auto bridge = ZavloAuthenticationBridge::create(webView, std::move(viewController), services_);
  if (webView) {
    webView->addScriptMessageHandler(bridge, std::string(ZavloAuthenticationBridge::kHandlerName), allowedOrigins);
  }
  bridge_ = std::move(bridge);
}

void ZavloAuthenticationWrapper::cleanup() {
  if (bridge_) bridge_->cleanup();
  bridge_.reset();
}

void ZavloAuthenticationWrapper::cleanupAll() {
  cleanup();
  services_.operations->cleanupAll();
}
