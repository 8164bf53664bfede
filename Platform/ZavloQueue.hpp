#pragma once

#include <chrono>
#include <functional>
#include <memory>

/// A timer returned by postAfter; cancelling it before it fires means its work never runs.
class ZavloTimer {
 public:
  virtual ~ZavloTimer() = default;
  /// Idempotent and safe from any thread. Cancelling from inside the queue before the
  /// deadline guarantees the work does not run.
  virtual void cancel() = 0;
};

/// A serial queue of work: the main queue of the host, or a private serial queue.
///
/// Threading contract: post and postAfter may be called from any thread and never run the
/// work inline; work items run one at a time, in the order posted (timers in deadline
/// order, ties in posting order). isCurrent is true only while this queue runs work.
class ZavloQueue {
 public:
  using Work = std::function<void()>;
  using Duration = std::chrono::nanoseconds;

  ZavloQueue() = default;
  ZavloQueue(const ZavloQueue&) = delete;
  ZavloQueue& operator=(const ZavloQueue&) = delete;
  virtual ~ZavloQueue() = default;

  virtual void post(Work work) = 0;
  virtual std::shared_ptr<ZavloTimer> postAfter(Duration delay, Work work) = 0;
  [[nodiscard]] virtual bool isCurrent() const = 0;
};
