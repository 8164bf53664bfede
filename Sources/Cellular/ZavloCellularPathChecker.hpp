#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string_view>

#include "Core/ZavloAuthException.hpp"
#include "Core/ZavloPublicErrors.hpp"
#include "Core/ZavloResult.hpp"
#include "Platform/ZavloPlatform.hpp"

/// The one-shot check, run before a session starts and before a silent authentication,
/// that the device has a usable cellular data interface: the request must reach the
/// operator over the cellular network or there is no point in sending it.
///
/// Threading contract: requireDefaultPathIsCellular may be called from any thread and
/// returns at once. Path updates and the time-out of every check run on the checker's one
/// serial queue ("com.zavlo.auth.sna.pathmonitor", made on first use and kept for the
/// checker's life); the verdict reaches the completion exactly once, always on the
/// platform's main queue. The platform must outlive the checker and its checks.
class ZavloCellularPathChecker {
 public:
  using PreflightError = ZavloPreflightError;
  using Verdict = ZavloResult<ZavloVoid, PreflightError>;
  using Completion = std::function<void(Verdict)>;

  static constexpr std::string_view kQueueLabel = "com.zavlo.auth.sna.pathmonitor";
  /// How long a check waits for a satisfied path.
  static constexpr std::chrono::milliseconds kTimeout{2000};

  explicit ZavloCellularPathChecker(ZavloPlatform& platform) : platform_(platform) {}
  ZavloCellularPathChecker(const ZavloCellularPathChecker&) = delete;
  ZavloCellularPathChecker& operator=(const ZavloCellularPathChecker&) = delete;

  /// Success as soon as a satisfied path lists a cellular interface among its available
  /// interfaces; noCellularNetwork as soon as a satisfied path lists none, or when no
  /// satisfied path arrives within kTimeout. Unsatisfied paths are waited through.
  void requireDefaultPathIsCellular(Completion completion);

  /// The error that the public surface reports for a failed check (ZavloPublicErrors').
  static ZavloAuthException authException(PreflightError error);

 private:
  struct Check;

  std::shared_ptr<ZavloQueue> monitorQueue();

  ZavloPlatform& platform_;
  std::mutex queueMutex_;
  std::shared_ptr<ZavloQueue> queue_;
};
