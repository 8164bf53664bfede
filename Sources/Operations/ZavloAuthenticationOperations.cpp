#include "Operations/ZavloAuthenticationOperations.hpp"

#include "Core/ZavloAuthResponseUtils.hpp"
#include "Core/ZavloConfigValues.hpp"
#include "DeviceBinding/ZavloDeviceBindingManager.hpp"
#include "Session/ZavloAuthenticationRepository.hpp"
#include "Telemetry/ZavloAuthEnvironmentSecurity.hpp"
#include "Telemetry/ZavloAuthLogManager.hpp"

namespace {

// Hands a record on as its dictionary and an exception unchanged, on the thread it
// arrives. A record that cannot be converted still counts as a success, with nothing in it.
template <class Record>
std::function<void(ZavloResult<Record>)> answering(ZavloAuthenticationOperations::Completion completion) {
  return [completion = std::move(completion)](ZavloResult<Record> result) {
    if (!completion) return;
    if (result) {
      completion(ZavloAuthResponseUtils::jsonObject(result.value()).value_or(nlohmann::json::object()));
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

ZavloAuthenticationOperations::ZavloAuthenticationOperations(
    std::shared_ptr<ZavloAuthenticationRepository> repository, std::shared_ptr<ZavloAuthLogManager> logManager,
    std::shared_ptr<ZavloDeviceBindingManager> deviceBindingManager)
    : repository_(std::move(repository)),
      logManager_(std::move(logManager)),
      deviceBindingManager_(std::move(deviceBindingManager)) {}

void ZavloAuthenticationOperations::configureTelemetry(ZavloAuthEnvironment environment) {
  const auto endpoint = ZavloAuthEnvironmentSecurity::trackingEndpoint(environment);
  if (ZavloAuthEnvironmentSecurity::isValidLoggingURL(endpoint, environment)) {
    logManager_->configure(environment, endpoint);
  }
}

void ZavloAuthenticationOperations::initAuth(std::optional<std::string> requestId, std::shared_ptr<void> viewController,
                                             Completion completion) {
  repository_->requestManager->initialize(std::move(requestId), std::move(viewController),
                                          answering<ZavloAuthInitSuccessResponse>(std::move(completion)));
}

void ZavloAuthenticationOperations::startAuth(const std::string& snaUrl, Completion completion,
                                              std::shared_ptr<ZavloCancellation> cancellation) {
  repository_->requestManager->startSilentNetworkAuth(snaUrl, answering<ZavloSnaStartResponse>(std::move(completion)),
                                                      std::move(cancellation));
}

nlohmann::json ZavloAuthenticationOperations::capabilities() {
  return ZavloAuthResponseUtils::capabilitiesDictionary();
}

void ZavloAuthenticationOperations::getDeviceBindingState(const nlohmann::json& config, Completion completion) {
  deviceBindingManager_->getState(ZavloConfigValues::text(config, "keyId", ""),
                                  answering<ZavloDeviceBindingStateResponse>(std::move(completion)));
}

void ZavloAuthenticationOperations::enrollDeviceBinding(const nlohmann::json& config, Completion completion,
                                                        std::string requestingOrigin) {
  auto texts = PromptTexts::from(config);
  deviceBindingManager_->enroll(ZavloConfigValues::text(config, "attestationChallenge"), texts.title, texts.subtitle,
                                std::move(texts.requestId), std::move(texts.entityId),
                                answering<ZavloDeviceBindingEnrollResponse>(std::move(completion)),
                                std::move(requestingOrigin));
}

void ZavloAuthenticationOperations::signDeviceBindingChallenge(const nlohmann::json& config, Completion completion,
                                                               std::string requestingOrigin) {
  auto texts = PromptTexts::from(config);
  deviceBindingManager_->signChallenge(
      ZavloConfigValues::stringListValue(config, "allowedKeyIds"), ZavloConfigValues::text(config, "challenge", ""),
      texts.title, texts.subtitle, std::move(texts.requestId), std::move(texts.entityId),
      answering<ZavloDeviceBindingSignResponse>(std::move(completion)), std::move(requestingOrigin));
}

void ZavloAuthenticationOperations::clearSession() { repository_->requestManager->clearSession(); }

void ZavloAuthenticationOperations::cleanupAll() {
  clearSession();
  logManager_->cleanup();
  clearSession();
}

void ZavloAuthenticationOperations::setHopObserver(ZavloCellularSnaClient::HopObserver observer) {
  repository_->requestManager->setHopObserver(std::move(observer));
}
