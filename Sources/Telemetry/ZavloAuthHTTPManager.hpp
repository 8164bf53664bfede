#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "Telemetry/ZavloAuthHttpError.hpp"
#include "Core/ZavloResult.hpp"
#include "Platform/ZavloHttpSession.hpp"

class ZavloPlatform;

/// The library's ordinary (non-cellular) HTTP client: posts a JSON object to a URL and
/// reports the response bytes or a ZavloAuthHttpError. It owns one HTTP session, which
/// cleanup() shuts down and the next post (or rebuildIfNeeded) recreates.
///
/// Threading contract: every method may be called from any thread. The state (session and
/// shut-down flag) lives under one mutex, the serial state queue "zavlo.http.manager.state",
/// never held while a request runs or a completion is called. Failures found before
/// anything is sent (invalid URL, unserialisable body) reach the completion at once, on the
/// caller's thread; network outcomes reach it on the session's reporting context (the
/// Linux session's worker thread; on the test platform, the thread that answers). A manager
/// destroyed while a request is in flight never calls that request's completion. Do not
/// call cleanup() or destroy the manager from inside one of its completions while another
/// thread waits on it (the session's worker would wait for itself).
class ZavloAuthHTTPManager : public std::enable_shared_from_this<ZavloAuthHTTPManager> {
 public:
  using Bytes = std::vector<std::uint8_t>;
  /// Header fields in the order they are set (a later field of the same name replaces an
  /// earlier one, compared without regard to ASCII case).
  using Headers = std::vector<std::pair<std::string, std::string>>;
  using Completion = std::function<void(ZavloResult<Bytes, ZavloAuthHttpError>)>;

  static constexpr const char* kStateQueueLabel = "zavlo.http.manager.state";
  /// The idle time-out every post carries.
  static constexpr std::chrono::seconds kRequestTimeoutInterval{60};
  /// The configuration of every session the manager creates: 30 s idle, 60 s whole
  /// transfer, no local cache.
  static ZavloHttpSessionConfiguration sessionConfiguration();

  /// The process-wide manager: the process-wide graph's (ZavloAuthenticationGraph).
  static std::shared_ptr<ZavloAuthHTTPManager> shared();
  /// A manager whose sessions come from this platform, which must outlive it.
  static std::shared_ptr<ZavloAuthHTTPManager> create(ZavloPlatform& platform);

  ZavloAuthHTTPManager(const ZavloAuthHTTPManager&) = delete;
  ZavloAuthHTTPManager& operator=(const ZavloAuthHTTPManager&) = delete;
  /// Cleans up like cleanup(): outstanding requests are cancelled and never reported.
  ~ZavloAuthHTTPManager();

  /// Creates a session when there is none or the manager was shut down; true when it did.
  bool rebuildIfNeeded();
  /// Posts body (a JSON object) as "application/json" with "Accept: application/json",
  /// then the given headers. Returns at once.
  void post(const std::string& url, const nlohmann::json& body, const std::optional<Headers>& headers,
            Completion completion);
  /// Invalidates the session, cancelling its outstanding requests (their completions
  /// receive networkError), and marks the manager shut down.
  void cleanup();
  /// Waits until every request sent so far has completed, or the timeout passes; true when
  /// nothing is outstanding. Used by hosts that must not exit before telemetry leaves.
  bool waitForOutstandingPosts(std::chrono::milliseconds timeout);
  [[nodiscard]] bool isShutdown() const;

 private:
  explicit ZavloAuthHTTPManager(ZavloPlatform& platform);

  // Under stateQueue_: a new session if needed; the one replaced is handed back so that it
  // is destroyed after the lock is released.
  bool rebuildLocked(std::shared_ptr<ZavloHttpSession>& replaced);
  std::shared_ptr<ZavloHttpSession> makeSession() noexcept;
  std::shared_ptr<ZavloHttpSession> takeSessionForShutdown();
  // Sends the request, taking the completion; or returns the failure found before
  // sending, leaving the completion with the caller.
  std::optional<ZavloAuthHttpError> start(const std::string& url, const nlohmann::json& body,
                                          const std::optional<Headers>& headers, Completion& completion);

  ZavloPlatform& platform_;
  mutable std::mutex stateQueue_;  // "zavlo.http.manager.state"
  std::shared_ptr<ZavloHttpSession> urlSession_;
  bool isShutdown_ = false;
};
