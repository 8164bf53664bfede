#include "Session/ZavloAuthRequestManager.hpp"

#include <algorithm>
#include <cctype>

#include "Cellular/ZavloCellularPathChecker.hpp"
#include "Cellular/ZavloCellularSnaClient.hpp"
#include "Cellular/ZavloChainDictionary.hpp"
#include "Core/ZavloAuthValidationUtils.hpp"
#include "Core/ZavloAuthVersion.hpp"
#include "Core/ZavloPublicErrors.hpp"
#include "Core/ZavloUrl.hpp"
#include "Telemetry/ZavloAuthEventLog.hpp"
#include "Telemetry/ZavloAuthLogManager.hpp"

namespace {

constexpr const char* kProvider = "NATIVE_SNA";

std::string lowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

// How a finished chain reaches the caller. A final answer is read as its dictionary has
// it: a server's "error" word fails the chain whatever the status.
ZavloResult<ZavloSnaStartResponse> startResponse(const ZavloChainOutcome& outcome) {
  using namespace ZavloPublicErrors;
  if (const auto* error = std::get_if<ZavloNetworkError>(&outcome)) {
    return zavloFailure(exception(networkFailure(error->kind, error->message)));
  }
  if (std::holds_alternative<ZavloChainAbandoned>(outcome)) return zavloFailure(exception(clientGone()));
  auto answer = ZavloFinalAnswer::read(std::get<ZavloConnectionResponse>(outcome));
  if (answer.error) return zavloFailure(exception(serverFailure(*answer.error, answer.errorDescription)));
  const bool success = answer.httpStatusCode >= 200 && answer.httpStatusCode <= 399;
  return ZavloSnaStartResponse{success ? "SUCCESS" : "FAILURE", answer.httpStatusCode, std::move(answer.snaToken)};
}

}  // namespace

nlohmann::json ZavloAuthRequestManager::failureMetaData(const ZavloAuthException& exception) {
  return {{"errorCode", exception.errorCode().value_or("")},
          {"errorMessage", exception.errorMessage()},
          {"sdkVersion", ZavloAuthSDKVersion}};
}

std::shared_ptr<ZavloAuthRequestManager> ZavloAuthRequestManager::create(
    ZavloPlatform& platform, std::shared_ptr<ZavloAuthLogManager> logManager,
    std::shared_ptr<ZavloCellularPathChecker> pathChecker) {
  return std::shared_ptr<ZavloAuthRequestManager>(
      new ZavloAuthRequestManager(platform, std::move(logManager), std::move(pathChecker)));
}

ZavloAuthRequestManager::ZavloAuthRequestManager(ZavloPlatform& platform,
                                                 std::shared_ptr<ZavloAuthLogManager> logManager,
                                                 std::shared_ptr<ZavloCellularPathChecker> pathChecker)
    : platform_(platform),
      logManager_(std::move(logManager)),
      telemetry_(platform.makeSerialQueue("com.zavlo.auth.telemetry")),
      pathChecker_(std::move(pathChecker)) {}

ZavloAuthRequestManager::~ZavloAuthRequestManager() { clearSession(); }

void ZavloAuthRequestManager::setHopObserver(ZavloCellularSnaClient::HopObserver observer) {
  std::lock_guard lock(observerMutex_);
  hopObserver_ = std::move(observer);
}

void ZavloAuthRequestManager::clearSession() {
  std::lock_guard lock(stateLock_);
  storedRequestId_.reset();
  isSessionInitialized_ = false;
}

ZavloAuthRequestManager::SessionSnapshot ZavloAuthRequestManager::sessionSnapshot() const {
  std::lock_guard lock(stateLock_);
  return {isSessionInitialized_, storedRequestId_};
}

void ZavloAuthRequestManager::sendStartEvent(const char* eventName, const std::optional<std::string>& requestId,
                                             bool snaType) {
  auto event = std::make_shared<ZavloAuthEventLog>();
  event->requestId = requestId;
  event->authProvider = kProvider;
  if (snaType) event->authType = "SNA";
  event->eventName = eventName;
  auto metaData = ZavloAuthEventLog::createDeviceMetadata(platform_.deviceInfo());
  metaData["sdkVersion"] = ZavloAuthSDKVersion;
  event->metaData = std::move(metaData);
  logManager_->sendEventLogOn(*telemetry_, [event = std::move(event)] { return event; });
}

void ZavloAuthRequestManager::sendOutcomeEvent(const char* eventName, const std::optional<std::string>& requestId,
                                               bool snaType, const char* status,
                                               const std::optional<std::string>& failureReason,
                                               nlohmann::json metaData) {
  auto event = std::make_shared<ZavloAuthEventLog>();
  event->requestId = requestId;
  event->authProvider = kProvider;
  if (snaType) event->authType = "SNA";
  event->eventName = eventName;
  event->status = status;
  event->failureReason = failureReason;
  event->metaData = std::move(metaData);
  logManager_->sendEventLogOn(*telemetry_, [event = std::move(event)] { return event; });
}

void ZavloAuthRequestManager::performCellularPreflightCheck(const std::optional<std::string>& /*requestId*/,
                                                            const std::string& /*eventName*/,
                                                            std::function<void()> onSuccess,
                                                            std::function<void(ZavloAuthException)> onFailure) {
  pathChecker_->requireDefaultPathIsCellular(
      [onSuccess = std::move(onSuccess), onFailure = std::move(onFailure)](ZavloCellularPathChecker::Verdict verdict) {
        if (verdict) {
          onSuccess();
        } else {
          onFailure(ZavloPublicErrors::preflight(verdict.error()));
        }
      });
}

void ZavloAuthRequestManager::initialize(std::optional<std::string> requestId, std::shared_ptr<void> viewController,
                                         InitCompletion completion) {
  platform_.mainQueue().post([self = shared_from_this(), requestId = std::move(requestId),
                              viewController = std::move(viewController), completion = std::move(completion)] {
    if (!viewController) {
      if (completion) {
        completion(zavloFailure(ZavloPublicErrors::exception(ZavloPublicError::noViewController)));
      }
      return;
    }
    self->sendStartEvent("INIT_AUTH", requestId, false);
    self->performCellularPreflightCheck(
        requestId, "INIT_AUTH",
        [self, requestId, completion] {
          {
            std::lock_guard lock(self->stateLock_);
            self->storedRequestId_ = requestId;
            self->isSessionInitialized_ = true;
          }
          self->sendOutcomeEvent("INIT_AUTH_RESPONSE", requestId, false, "SUCCESS", std::nullopt,
                                 {{"mcc", ""}, {"mnc", ""}, {"sdkVersion", ZavloAuthSDKVersion}});
          if (completion) completion(ZavloAuthInitSuccessResponse{"SUCCESS", "200", "", ""});
        },
        [self, requestId, completion](ZavloAuthException exception) {
          self->sendOutcomeEvent("INIT_AUTH_RESPONSE", requestId, false, "FAILURE", exception.errorMessage(),
                                 failureMetaData(exception));
          if (completion) completion(zavloFailure(std::move(exception)));
        });
  });
}

void ZavloAuthRequestManager::startSilentNetworkAuth(const std::string& snaURLString, const SnaCompletion& completion,
                                                     std::shared_ptr<ZavloCancellation> cancellation) {
  const auto session = sessionSnapshot();
  if (!session.isSessionInitialized) {
    if (completion) {
      completion(zavloFailure(ZavloPublicErrors::exception(ZavloPublicError::sessionNotInitialized)));
    }
    return;
  }
  const auto sanitized = ZavloAuthValidationUtils::sanitizeString(snaURLString);
  auto url = sanitized.empty() ? std::nullopt : ZavloUrl::parse(sanitized);
  // Only this check reads the scheme in lower case; a URL without a host passes it and is
  // refused by the client, after the start event and the preflight.
  const auto scheme = url ? lowerCase(url->scheme()) : std::string();
  if (!url || (scheme != "http" && scheme != "https")) {
    if (completion) {
      completion(zavloFailure(ZavloPublicErrors::exception(ZavloPublicError::invalidSnaUri)));
    }
    return;
  }

  const auto requestId = session.storedRequestId;
  sendStartEvent("START_AUTH", requestId, true);
  auto onFailure = [self = shared_from_this(), requestId, completion](ZavloAuthException exception) {
    self->sendOutcomeEvent("START_AUTH_RESPONSE", requestId, true, "FAILURE", exception.errorMessage(),
                           failureMetaData(exception));
    if (completion) completion(zavloFailure(std::move(exception)));
  };
  auto onSuccess = [self = shared_from_this(), requestId, completion, url = std::move(*url), cancellation] {
    // Handed over here and built on the telemetry queue with the session's other events, so
    // that the collector gets them in order; the host's wait for pending events covers them
    // from the moment they are handed over.
    std::weak_ptr<ZavloAuthLogManager> logManager = self->logManager_;
    auto client = ZavloCellularSnaClient::create(
        self->platform_, [logManager, telemetry = self->telemetry_](ZavloCellularSnaClient::HopEvent event) {
          if (auto manager = logManager.lock()) {
            manager->sendEventLogOn(*telemetry, [event = std::move(event)] { return event.toEventLog(); });
          }
        });
    client->CONNECTION_TIME_OUT = kSnaHopTimeOut;
    {
      std::lock_guard lock(self->observerMutex_);
      client->hopObserver = self->hopObserver_;
    }
    // Before open: a cancel that came first is then the chain's first step, and no
    // connection is made.
    if (cancellation) {
      cancellation->onCancel([weak = std::weak_ptr<ZavloCellularSnaClient>(client)] {
        if (const auto chain = weak.lock()) chain->cancel();
      });
    }
    client->open(url, requestId, [self, requestId, completion](const ZavloChainOutcome& outcome) {
      auto result = startResponse(outcome);
      if (!result) {
        const auto& exception = result.error();
        self->sendOutcomeEvent("START_AUTH_RESPONSE", requestId, true, "FAILURE", exception.errorMessage(),
                               failureMetaData(exception));
      } else {
        const auto& response = result.value();
        nlohmann::json metaData = {{"httpStatusCode", response.httpStatusCode}, {"sdkVersion", ZavloAuthSDKVersion}};
        if (response.snaToken) metaData["snaToken"] = *response.snaToken;
        self->sendOutcomeEvent("START_AUTH_RESPONSE", requestId, true, response.status.c_str(), std::nullopt,
                               std::move(metaData));
      }
      if (completion) completion(std::move(result));
    });
  };
  performCellularPreflightCheck(requestId, "START_AUTH", std::move(onSuccess), std::move(onFailure));
}
