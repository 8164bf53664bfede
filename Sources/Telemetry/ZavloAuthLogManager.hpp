#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "Core/ZavloAuthEnvironment.hpp"
#include "Core/ZavloResult.hpp"
#include "Platform/ZavloQueue.hpp"
#include "Telemetry/ZavloAuthEventLog.hpp"
#include "Telemetry/ZavloAuthHTTPManager.hpp"

/// The telemetry sink: posts each event's dictionary form as JSON to the configured
/// tracking endpoint through the HTTP manager, fire and forget. Until configure() (and
/// after cleanup()) events are dropped with "Logger not configured".
///
/// Threading contract: every method may be called from any thread, the main thread
/// included; none waits for the network (except waitForPendingEvents, which is meant to).
/// The configuration lives under one mutex, the serial state queue
/// "zavlo.auth.log.manager.state", held only for reads and writes of the fields, never
/// across a call out, so the lock order log manager -> HTTP manager can never be reversed.
/// A completion runs where the HTTP manager reports (at once on the caller's thread for a
/// failure found before sending). The observer runs on the sending thread.
class ZavloAuthLogManager : public std::enable_shared_from_this<ZavloAuthLogManager> {
 public:
  using Completion = std::function<void(ZavloResult<ZavloVoid, ZavloAuthHttpError>)>;
  /// Told of every event as it is handed to the transport, with the URL it goes to.
  using Observer = std::function<void(const ZavloAuthEventLog& event, const std::string& endpoint)>;

  static constexpr const char* kStateQueueLabel = "zavlo.auth.log.manager.state";
  static constexpr std::string_view kNotConfigured = "Logger not configured";

  /// The process-wide log manager: the process-wide graph's (ZavloAuthenticationGraph).
  static std::shared_ptr<ZavloAuthLogManager> shared();

  /// transport: the HTTP manager taken (and rebuilt if needed) whenever one is needed.
  explicit ZavloAuthLogManager(std::shared_ptr<ZavloAuthHTTPManager> transport);
  ZavloAuthLogManager(const ZavloAuthLogManager&) = delete;
  ZavloAuthLogManager& operator=(const ZavloAuthLogManager&) = delete;
  /// Cleans up like cleanup().
  ~ZavloAuthLogManager();

  /// Sends later events to endpoint, announcing environment; no check of the endpoint
  /// (the entry points check built-in endpoints with isValidLoggingURL first).
  void configure(ZavloAuthEnvironment environment, std::string endpoint);
  /// What the entry points do: configure with the environment's tracking endpoint if
  /// isValidLoggingURL accepts it. True when it did; otherwise nothing changes.
  bool configureWithTrackingEndpoint(ZavloAuthEnvironment environment);
  /// Posts the event's dictionary form. The completion (optional; the library's flows pass
  /// none) receives success, or the HTTP manager's error unchanged, or invalidURL("Logger
  /// not configured") at once when nothing is configured. A null event is refused with
  /// encodingError at once.
  void sendEventLog(const std::shared_ptr<ZavloAuthEventLog>& eventLog, Completion completion = {});
  /// Builds an event on queue and sends it from there, in the order handed over, so that the
  /// caller's queue (the one running a chain) only hands it over. waitForPendingEvents counts
  /// it from this call on; a job the queue drops unrun stops counting.
  void sendEventLogOn(ZavloQueue& queue, std::function<std::shared_ptr<ZavloAuthEventLog>()> build);
  /// Shuts the transport down (the next post rebuilds it) and forgets the configuration;
  /// the environment stays as it was.
  void cleanup();

  /// The endpoint while configured, else absent.
  [[nodiscard]] std::optional<std::string> getLoggingEndpoint() const;
  /// The transport to use, rebuilt if it was shut down.
  std::shared_ptr<ZavloAuthHTTPManager> ensureHttpManager();
  [[nodiscard]] ZavloAuthEnvironment currentEnvironment() const;

  /// Replaces the observer (an empty function removes it).
  void setObserver(Observer observer);
  /// Waits until every event handed over or posted so far has been answered or has failed,
  /// or until the timeout passes; true when nothing is left in flight.
  bool waitForPendingEvents(std::chrono::milliseconds timeout);

 private:
  // Events handed to a queue and not yet posted; shared with the jobs, which may outlive us.
  struct HandedOver {
    std::mutex mutex;
    std::condition_variable none;
    std::size_t count = 0;
  };
  const std::shared_ptr<HandedOver> handedOver_ = std::make_shared<HandedOver>();
  const std::shared_ptr<ZavloAuthHTTPManager> transport_;
  mutable std::mutex stateQueue_;  // "zavlo.auth.log.manager.state"
  std::shared_ptr<ZavloAuthHTTPManager> httpManager_;
  ZavloAuthEnvironment currentEnvironment_ = ZavloAuthEnvironment::production;
  std::optional<std::string> loggingEndpoint_;
  bool isConfigured_ = false;
  Observer observer_;
};
