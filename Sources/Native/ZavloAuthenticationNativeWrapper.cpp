#include "Native/ZavloAuthenticationNativeWrapper.hpp"

#include "Telemetry/ZavloAuthEnvironmentSecurity.hpp"
#include "Telemetry/ZavloAuthLogManager.hpp"
#include "Core/ZavloAuthResponseUtils.hpp"
#include "Core/ZavloConfigValues.hpp"
#include "DeviceBinding/ZavloDeviceBindingManager.hpp"

namespace {

// A record that cannot be converted still counts as a success, with nothing in it.
template <class Record>
nlohmann::json dictionaryOf(const Record& record) {
  return ZavloAuthResponseUtils::jsonObject(record).value_or(nlohmann::json::object());
}

// Hands a record on as its dictionary and an exception unchanged, on the thread it arrives.
template <class Record>
std::function<void(ZavloResult<Record>)> answering(ZavloAuthenticationNativeWrapper::Completion completion) {
  return [completion = std::move(completion)](ZavloResult<Record> result) {
    if (!completion) return;
    if (result) {
      completion(dictionaryOf(result.value()));
    } else {
      completion(zavloFailure(result.error()));
    }
  };
}

struct PromptTexts {
  std::string title;
  std::string subtitle;
  std::optional<std::string> requestId;
  std::optional<std::string> entityId;

  static PromptTexts from(const nlohmann::json& config) {
    return {ZavloConfigValues::text(config, "promptTitle", ZavloDeviceBindingManager::kDefaultPromptTitle),
            ZavloConfigValues::text(config, "promptSubtitle", ZavloDeviceBindingManager::kDefaultPromptSubtitle),
            ZavloConfigValues::text(config, "requestId"), ZavloConfigValues::text(config, "entityId")};
  }
};

}  // namespace

ZavloAuthenticationNativeWrapper::ZavloAuthenticationNativeWrapper(
    std::shared_ptr<ZavloAuthenticationRepository> repository, std::shared_ptr<ZavloAuthLogManager> logManager,
    std::shared_ptr<ZavloDeviceBindingManager> deviceBindingManager)
    : repository(std::move(repository)),
      deviceBindingManager(std::move(deviceBindingManager)),
      logManager_(std::move(logManager)) {}

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

void ZavloAuthenticationNativeWrapper::getDeviceBindingState(const nlohmann::json& config, Completion completion) {
  deviceBindingManager->getState(ZavloConfigValues::text(config, "keyId", ""),
                                 answering<ZavloDeviceBindingStateResponse>(std::move(completion)));
}

void ZavloAuthenticationNativeWrapper::enrollDeviceBinding(const nlohmann::json& config, Completion completion) {
  auto texts = PromptTexts::from(config);
  deviceBindingManager->enroll(ZavloConfigValues::text(config, "attestationChallenge"), texts.title, texts.subtitle,
                               std::move(texts.requestId), std::move(texts.entityId),
                               answering<ZavloDeviceBindingEnrollResponse>(std::move(completion)));
}

void ZavloAuthenticationNativeWrapper::signDeviceBindingChallenge(const nlohmann::json& config, Completion completion) {
  auto texts = PromptTexts::from(config);
  deviceBindingManager->signChallenge(ZavloConfigValues::stringListValue(config, "allowedKeyIds"),
                                      ZavloConfigValues::text(config, "challenge", ""), texts.title, texts.subtitle,
                                      std::move(texts.requestId), std::move(texts.entityId),
                                      answering<ZavloDeviceBindingSignResponse>(std::move(completion)));
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
