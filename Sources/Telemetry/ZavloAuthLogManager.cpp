#include "Telemetry/ZavloAuthLogManager.hpp"

#include <algorithm>
#include <exception>

#include "Core/ZavloAuthVersion.hpp"
#include "Telemetry/ZavloAuthEnvironmentSecurity.hpp"

namespace {

std::string userAgent() {
  std::string agent = "ZavloAuthSDK/";
  agent.append(ZavloAuthSDKVersion).append(" iOS");
  return agent;
}

void report(const ZavloAuthLogManager::Completion& completion, ZavloResult<ZavloVoid, ZavloAuthHttpError> result) {
  if (!completion) return;
  try {
    completion(std::move(result));
  } catch (...) {
    // The caller's own exception stops here rather than cross the library's surface.
  }
}

}  // namespace

ZavloAuthLogManager::ZavloAuthLogManager(std::shared_ptr<ZavloAuthHTTPManager> transport)
    : transport_(std::move(transport)) {}

ZavloAuthLogManager::~ZavloAuthLogManager() { cleanup(); }

void ZavloAuthLogManager::configure(ZavloAuthEnvironment environment, std::string endpoint) {
  {
    std::lock_guard lock(stateQueue_);
    currentEnvironment_ = environment;
    loggingEndpoint_ = std::move(endpoint);
    isConfigured_ = true;
    httpManager_ = nullptr;
  }
  ensureHttpManager();  // so that the transport is ready for the first event
}

bool ZavloAuthLogManager::configureWithTrackingEndpoint(ZavloAuthEnvironment environment) {
  auto endpoint = ZavloAuthEnvironmentSecurity::trackingEndpoint(environment);
  if (!ZavloAuthEnvironmentSecurity::isValidLoggingURL(endpoint, environment)) return false;
  configure(environment, std::move(endpoint));
  return true;
}

std::optional<std::string> ZavloAuthLogManager::getLoggingEndpoint() const {
  std::lock_guard lock(stateQueue_);
  if (!isConfigured_) return std::nullopt;
  return loggingEndpoint_;
}

ZavloAuthEnvironment ZavloAuthLogManager::currentEnvironment() const {
  std::lock_guard lock(stateQueue_);
  return currentEnvironment_;
}

std::shared_ptr<ZavloAuthHTTPManager> ZavloAuthLogManager::ensureHttpManager() {
  std::shared_ptr<ZavloAuthHTTPManager> manager;
  {
    std::lock_guard lock(stateQueue_);
    manager = httpManager_;
  }
  if (manager) {
    manager->rebuildIfNeeded();
    return manager;
  }
  if (!transport_) return nullptr;
  transport_->rebuildIfNeeded();
  std::lock_guard lock(stateQueue_);
  httpManager_ = transport_;
  return transport_;
}

void ZavloAuthLogManager::sendEventLog(const std::shared_ptr<ZavloAuthEventLog>& eventLog, Completion completion) {
  try {
    const auto endpoint = getLoggingEndpoint();
    if (!endpoint) {
      // Dropped, not queued.
      return report(completion, zavloFailure(ZavloAuthHttpError::invalidURL(std::string(kNotConfigured))));
    }
    if (!eventLog) {
      return report(completion, zavloFailure(ZavloAuthHttpError::encodingError({"There is no event to send."})));
    }

    ZavloAuthHTTPManager::Headers headers{
        {"Content-Type", "application/json"},
        {"Accept", "application/json"},
        {"User-Agent", userAgent()},
    };
    Observer observer;
    {
      std::lock_guard lock(stateQueue_);
      headers.emplace_back("X-Environment", std::string(currentEnvironment_.description()));
      observer = observer_;
    }
    const auto transport = ensureHttpManager();
    if (!transport) {
      return report(completion, zavloFailure(ZavloAuthHttpError::invalidURL(std::string(kNotConfigured))));
    }
    const auto body = eventLog->toDictionary();
    if (observer) observer(*eventLog, *endpoint);
    transport->post(*endpoint, body, headers, [completion = std::move(completion)](auto result) {
      // The response body is of no interest: success carries no value.
      if (result) return report(completion, ZavloVoid{});
      report(completion, zavloFailure(std::move(result).error()));
    });
  } catch (const std::exception& error) {
    // Telemetry never fails an operation; an event that cannot even be built is lost.
    // (Once handed to the transport the completion is no longer here to call.)
    report(completion,
           zavloFailure(ZavloAuthHttpError::networkError({ZavloHttpTransportError::Code::other, error.what()})));
  }
}

void ZavloAuthLogManager::sendEventLogOn(ZavloQueue& queue, std::function<std::shared_ptr<ZavloAuthEventLog>()> build) {
  // Counted until the job has posted its event, or until a queue that drops it lets it go.
  struct Counted {
    explicit Counted(std::shared_ptr<HandedOver> handed) : handedOver(std::move(handed)) {
      std::lock_guard lock(handedOver->mutex);
      ++handedOver->count;
    }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;
    ~Counted() {
      std::lock_guard lock(handedOver->mutex);
      if (--handedOver->count == 0) handedOver->none.notify_all();
    }
    std::shared_ptr<HandedOver> handedOver;
  };
  auto counted = std::make_shared<Counted>(handedOver_);
  std::weak_ptr<ZavloAuthLogManager> weak = weak_from_this();
  queue.post([weak = std::move(weak), build = std::move(build), counted = std::move(counted)] {
    const auto self = weak.lock();
    if (!self) return;
    try {
      self->sendEventLog(build());
    } catch (...) {
      // An event that cannot be built is lost; telemetry never fails an operation.
    }
  });
}

void ZavloAuthLogManager::cleanup() {
  std::shared_ptr<ZavloAuthHTTPManager> manager;
  {
    std::lock_guard lock(stateQueue_);
    manager = std::exchange(httpManager_, nullptr);
    isConfigured_ = false;
    loggingEndpoint_.reset();
  }
  // The transport is shut down after the state lock is released: the completions of the
  // posts it cancels run during its cleanup and may send events again.
  if (manager) manager->cleanup();
}

void ZavloAuthLogManager::setObserver(Observer observer) {
  std::lock_guard lock(stateQueue_);
  observer_ = std::move(observer);
}

bool ZavloAuthLogManager::waitForPendingEvents(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  {
    std::unique_lock lock(handedOver_->mutex);
    if (!handedOver_->none.wait_until(lock, deadline, [this] { return handedOver_->count == 0; })) return false;
  }
  timeout = std::max(std::chrono::milliseconds(0),
                     std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()));
  std::shared_ptr<ZavloAuthHTTPManager> manager;
  {
    std::lock_guard lock(stateQueue_);
    manager = httpManager_;
  }
  return !manager || manager->waitForOutstandingPosts(timeout);
}
