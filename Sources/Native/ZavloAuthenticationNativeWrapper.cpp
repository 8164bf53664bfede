#include "Native/ZavloAuthenticationNativeWrapper.hpp"

#include "Core/ZavloPublicErrors.hpp"

ZavloAuthenticationNativeWrapper::ZavloAuthenticationNativeWrapper(
    std::shared_ptr<ZavloAuthenticationOperations> operations)
    : operations_(std::move(operations)) {}

void ZavloAuthenticationNativeWrapper::setup(std::weak_ptr<void> viewController, ZavloAuthEnvironment environment) {
  viewController_ = std::move(viewController);
  environment_ = environment;
  operations_->configureTelemetry(environment);
}

void ZavloAuthenticationNativeWrapper::initAuth(const nlohmann::json& config, Completion completion) {
  auto viewController = viewController_.lock();
  if (!viewController) {
    if (completion) {
      completion(zavloFailure(ZavloPublicErrors::exception(ZavloPublicError::noViewController)));
    }
    return;
  }
  initConfig_ = ZavloAuthInitConfig::from(config);
  operations_->initAuth(initConfig_->requestId(), std::move(viewController), std::move(completion));
}

void ZavloAuthenticationNativeWrapper::startAuth(const std::string& snaUrl, Completion completion,
                                                 std::shared_ptr<ZavloCancellation> cancellation) {
  operations_->startAuth(snaUrl, std::move(completion), std::move(cancellation));
}

nlohmann::json ZavloAuthenticationNativeWrapper::getCapabilities() const {
  return ZavloAuthenticationOperations::capabilities();
}

void ZavloAuthenticationNativeWrapper::getDeviceBindingState(const nlohmann::json& config, Completion completion) {
  operations_->getDeviceBindingState(config, std::move(completion));
}

void ZavloAuthenticationNativeWrapper::enrollDeviceBinding(const nlohmann::json& config, Completion completion) {
  operations_->enrollDeviceBinding(config, std::move(completion));
}

void ZavloAuthenticationNativeWrapper::signDeviceBindingChallenge(const nlohmann::json& config, Completion completion) {
  operations_->signDeviceBindingChallenge(config, std::move(completion));
}

void ZavloAuthenticationNativeWrapper::cleanupAll() {
  initConfig_.reset();
  operations_->cleanupAll();
}
