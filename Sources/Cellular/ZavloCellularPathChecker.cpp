#include "Cellular/ZavloCellularPathChecker.hpp"

#include <algorithm>
#include <exception>
#include <string>
#include <utility>

// One check: the monitor and the time-out race to finish it; the lock makes the
// check-and-set of finished, the cancel and the dispatch of the verdict one step.
struct ZavloCellularPathChecker::Check {
  Check(ZavloQueue& main, Completion done) : mainQueue(main), completion(std::move(done)) {}

  ZavloQueue& mainQueue;
  std::shared_ptr<ZavloPathMonitor> monitor;
  std::shared_ptr<ZavloQueue> queue;  // the monitor queue outlives the check's time-out

  std::mutex lock;
  bool finished = false;                // guarded by lock
  Completion completion;                // guarded by lock
  std::shared_ptr<ZavloTimer> timeout;  // guarded by lock

  // Callers hold a strong reference, so the check outlives the timer's release below.
  void finish(Verdict verdict) {
    std::shared_ptr<ZavloTimer> pendingTimeout;
    {
      std::lock_guard guard(lock);
      if (finished) return;
      finished = true;
      if (monitor) monitor->cancel();
      mainQueue.post([done = std::move(completion), verdict = std::move(verdict)] {
        if (done) done(verdict);
      });
      pendingTimeout = std::move(timeout);
    }
    // The time-out would find the check finished; dropping it now frees the check sooner.
    if (pendingTimeout) pendingTimeout->cancel();
  }
};

std::shared_ptr<ZavloQueue> ZavloCellularPathChecker::monitorQueue() {
  std::lock_guard guard(queueMutex_);
  if (!queue_) queue_ = platform_.makeSerialQueue(std::string(kQueueLabel));
  return queue_;
}

void ZavloCellularPathChecker::requireDefaultPathIsCellular(Completion completion) {
  std::shared_ptr<Check> check;
  try {
    check = std::make_shared<Check>(platform_.mainQueue(), std::move(completion));
    check->queue = monitorQueue();
    check->monitor = platform_.makePathMonitor();
    check->monitor->setPathUpdateHandler([weak = std::weak_ptr<Check>(check)](const ZavloNetworkPath& path) {
      const auto current = weak.lock();
      if (!current || path.status != ZavloNetworkPath::Status::satisfied) return;
      const bool cellular = std::any_of(
          path.availableInterfaces.begin(), path.availableInterfaces.end(),
          [](const ZavloNetworkInterface& interface) { return interface.type == ZavloInterfaceType::cellular; });
      current->finish(cellular ? Verdict(ZavloVoid{}) : Verdict(zavloFailure(PreflightError::noCellularNetwork)));
    });
    // The timer holds the check until the verdict; the handler only refers to it. It is
    // set before the monitor starts, so that nothing can fail once updates may arrive.
    auto timeout = check->queue->postAfter(
        kTimeout, [check] { check->finish(Verdict(zavloFailure(PreflightError::noCellularNetwork))); });
    {
      std::lock_guard guard(check->lock);
      check->timeout = std::move(timeout);
    }
    check->monitor->start(check->queue);
  } catch (const std::exception&) {
    // Nothing could be started (no thread, no memory): the device cannot be shown to be
    // on cellular, and the caller still gets its one verdict. No handler call can be
    // under way here, so finishing on this thread cannot wait for one.
    if (check) {
      check->finish(Verdict(zavloFailure(PreflightError::noCellularNetwork)));
    } else if (completion) {
      platform_.mainQueue().post([completion = std::move(completion)] {
        completion(Verdict(zavloFailure(PreflightError::noCellularNetwork)));
      });
    }
  }
}

ZavloAuthException ZavloCellularPathChecker::authException(PreflightError error) {
  return ZavloPublicErrors::preflight(error);
}
