#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "Cellular/ZavloCellularSnaClient.hpp"
#include "Core/ZavloAuthException.hpp"
#include "Core/ZavloAuthInitSuccessResponse.hpp"
#include "Core/ZavloCancellation.hpp"
#include "Core/ZavloResult.hpp"
#include "Core/ZavloSnaStartResponse.hpp"
#include "Platform/ZavloPlatform.hpp"

class ZavloAuthLogManager;
class ZavloCellularPathChecker;

/// Holds the one session of the library (has initAuth succeeded, and for which request
/// id), starts sessions, and runs silent network authentication, which needs a session.
///
/// Threading: initialize and startSilentNetworkAuth may be called from any thread; their
/// completions run on the main queue, except the synchronous session and URL failures of
/// startSilentNetworkAuth, which run on the caller's thread. stateLock_ guards the session
/// and is never held across a call out.
class ZavloAuthRequestManager : public std::enable_shared_from_this<ZavloAuthRequestManager> {
 public:
  using InitCompletion = std::function<void(ZavloResult<ZavloAuthInitSuccessResponse>)>;
  using SnaCompletion = std::function<void(ZavloResult<ZavloSnaStartResponse>)>;

  struct SessionSnapshot {
    bool isSessionInitialized = false;
    std::optional<std::string> storedRequestId;
  };

  static std::shared_ptr<ZavloAuthRequestManager> create(ZavloPlatform& platform,
                                                         std::shared_ptr<ZavloAuthLogManager> logManager,
                                                         std::shared_ptr<ZavloCellularPathChecker> pathChecker);
  /// The process-wide instance: the process-wide graph's (ZavloAuthenticationGraph).
  static std::shared_ptr<ZavloAuthRequestManager> shared();
  ~ZavloAuthRequestManager();

  /// Starts a session on the main queue: telemetry, the cellular preflight, then the
  /// session is recorded. viewController is the host's screen; absent fails at once.
  void initialize(std::optional<std::string> requestId, std::shared_ptr<void> viewController,
                  InitCompletion completion);
  void clearSession();
  [[nodiscard]] SessionSnapshot sessionSnapshot() const;

  /// Runs one silent network authentication chain against snaURLString. A cancellation,
  /// when given, ends the chain where it is (its completion then reports the failed hop).
  void startSilentNetworkAuth(const std::string& snaURLString, const SnaCompletion& completion,
                              std::shared_ptr<ZavloCancellation> cancellation = nullptr);

  /// Told about every hop of every chain this manager starts (a host's diagnostics, set
  /// through ZavloAuthenticationOperations); callable from any thread, takes effect for
  /// chains started afterwards.
  void setHopObserver(ZavloCellularSnaClient::HopObserver observer);

  /// Per-hop time-out of the chains this manager starts.
  static constexpr double kSnaHopTimeOut = 10.0;

  /// The metaData of every failure's outcome event (INIT_AUTH_RESPONSE and
  /// START_AUTH_RESPONSE): the exception's code, the empty string when it has none, its
  /// message and the library version.
  static nlohmann::json failureMetaData(const ZavloAuthException& exception);

 private:
  ZavloAuthRequestManager(ZavloPlatform& platform, std::shared_ptr<ZavloAuthLogManager> logManager,
                          std::shared_ptr<ZavloCellularPathChecker> pathChecker);
  void performCellularPreflightCheck(const std::optional<std::string>& requestId, const std::string& eventName,
                                     std::function<void()> onSuccess,
                                     std::function<void(ZavloAuthException)> onFailure);
  void sendOutcomeEvent(const char* eventName, const std::optional<std::string>& requestId, bool snaType,
                        const char* status, const std::optional<std::string>& failureReason, nlohmann::json metaData);
  void sendStartEvent(const char* eventName, const std::optional<std::string>& requestId, bool snaType);

  ZavloPlatform& platform_;
  std::shared_ptr<ZavloAuthLogManager> logManager_;
  // Every event of this manager is built and sent here, in order: the main queue, which
  // runs the chains, only hands them over.
  const std::shared_ptr<ZavloQueue> telemetry_;
  std::shared_ptr<ZavloCellularPathChecker> pathChecker_;

  std::mutex observerMutex_;
  ZavloCellularSnaClient::HopObserver hopObserver_;

  mutable std::mutex stateLock_;
  std::optional<std::string> storedRequestId_;
  bool isSessionInitialized_ = false;
};
