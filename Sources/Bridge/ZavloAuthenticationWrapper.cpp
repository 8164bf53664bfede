#include "Bridge/ZavloAuthenticationWrapper.hpp"

#include "Telemetry/ZavloAuthEnvironmentSecurity.hpp"
#include "Telemetry/ZavloAuthLogManager.hpp"
#include "Native/ZavloAuthenticationRepository.hpp"

ZavloAuthenticationWrapper::ZavloAuthenticationWrapper(ZavloAuthenticationBridge::Services services,
                                                       std::shared_ptr<ZavloAuthLogManager> logManager)
    : services_(std::move(services)), logManager_(std::move(logManager)) {}

void ZavloAuthenticationWrapper::setupWebView(const std::shared_ptr<ZavloWebView>& webView,
                                              std::weak_ptr<void> viewController, ZavloAuthEnvironment environment) {
  if (bridge_) {
    bridge_->cleanup();
    bridge_.reset();
  }
  const auto endpoint = ZavloAuthEnvironmentSecurity::trackingEndpoint(environment);
  if (ZavloAuthEnvironmentSecurity::isValidLoggingURL(endpoint, environment)) {
    logManager_->configure(environment, endpoint);
  }
  auto bridge = ZavloAuthenticationBridge::create(webView, std::move(viewController), services_);
  if (webView) webView->addScriptMessageHandler(bridge, std::string(ZavloAuthenticationBridge::kHandlerName));
  bridge_ = std::move(bridge);
}

void ZavloAuthenticationWrapper::cleanup() {
  if (bridge_) bridge_->cleanup();
  bridge_.reset();
}

void ZavloAuthenticationWrapper::cleanupAll() {
  cleanup();
  services_.repository->requestManager->clearSession();
  (void)ZavloAuthenticationManger::shared();
  logManager_->cleanup();
  // The repository's manager is the process's session manager; clearing twice is harmless.
  services_.repository->requestManager->clearSession();
}
