#include "Native/ZavloAuthenticationNativeWrapper.hpp"

#include "Core/ZavloAuthEnvironmentSecurity.hpp"
#include "Core/ZavloAuthLogManager.hpp"
#include "Core/ZavloAuthResponseUtils.hpp"

namespace {

// A record that cannot be converted still counts as a success, with nothing in it.
template <class Record>
nlohmann::json dictionaryOf(const Record& record) {
  return ZavloAuthResponseUtils::jsonObject(record).value_or(nlohmann::json::object());
}

}  // namespace

ZavloAuthenticationNativeWrapper::ZavloAuthenticationNativeWrapper(
    std::shared_ptr<ZavloAuthenticationRepository> repository, std::shared_ptr<ZavloAuthLogManager> logManager)
    : repository(std::move(repository)), logManager_(std::move(logManager)) {}

void ZavloAuthenticationNativeWrapper::setup(std::weak_ptr<void> viewController, ZavloAuthEnvironment environment) {
  viewController_ = std::move(viewController);
  environment_ = environment;
  const auto endpoint = ZavloAuthEnvironmentSecurity::trackingEndpoint(environment);
  if (ZavloAuthEnvironmentSecurity::isValidLoggingURL(endpoint, environment)) {
    logManager_->configure(environment, endpoint);
  }
}

void ZavloAuthenticationNativeWrapper::initAuth(const nlohmann::json& config, Completion completion) {
  auto viewController = viewController_.lock();
  if (!viewController) {
    if (completion) {
      completion(zavloFailure(
          ZavloAuthException::failure("NO_VIEW_CONTROLLER", "ViewController is required but not provided")));
    }
    return;
  }
  initConfig_ = ZavloAuthInitConfig::from(config);
  repository->requestManager->initialize(initConfig_->requestId(), std::move(viewController),
                                         [completion = std::move(completion)](auto result) {
                                           if (!completion) return;
                                           if (result) {
                                             completion(dictionaryOf(result.value()));
                                           } else {
                                             completion(zavloFailure(result.error()));
                                           }
                                         });
}

void ZavloAuthenticationNativeWrapper::startAuth(const std::string& snaUrl, Completion completion) {
  repository->requestManager->startSilentNetworkAuth(snaUrl, [completion = std::move(completion)](auto result) {
    if (!completion) return;
    if (result) {
      completion(dictionaryOf(result.value()));
    } else {
      completion(zavloFailure(result.error()));
    }
  });
}

nlohmann::json ZavloAuthenticationNativeWrapper::getCapabilities() const {
  return ZavloAuthResponseUtils::capabilitiesDictionary();
}

void ZavloAuthenticationNativeWrapper::cleanup() {
  initConfig_.reset();
  repository->requestManager->clearSession();
}

void ZavloAuthenticationNativeWrapper::cleanupAll() {
  cleanup();
  (void)ZavloAuthenticationManger::shared();
  logManager_->cleanup();
  // The repository's manager is the session manager; clearing twice is harmless and kept.
  repository->requestManager->clearSession();
}
