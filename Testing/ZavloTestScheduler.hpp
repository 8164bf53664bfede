#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <queue>
#include <string>
#include <vector>

#include "Platform/ZavloQueue.hpp"

/// Virtual time shared by every queue of a test platform. Nothing runs until the test
/// says so: runUntilIdle() runs what is due now, advanceBy() moves the clock and runs
/// timers in deadline order (ties in posting order) across all queues.
///
/// Threading contract: queues may be posted to from any thread; runUntilIdle and
/// advanceBy run work on the calling thread, which should be the test's.
class ZavloTestScheduler : public std::enable_shared_from_this<ZavloTestScheduler> {
 public:
  using Duration = ZavloQueue::Duration;

  static std::shared_ptr<ZavloTestScheduler> create();

  /// Virtual time elapsed since the scheduler was created.
  [[nodiscard]] Duration now() const;
  /// Runs every item that is due now, including items they post; returns how many ran
  /// (cancelled timers and work of destroyed queues are dropped, not counted).
  std::size_t runUntilIdle();
  /// Moves virtual time forward by delta, running everything that falls due on the way.
  std::size_t advanceBy(Duration delta);
  /// Items (plain work and live timers) not yet run.
  [[nodiscard]] std::size_t pendingCount() const;

  /// A new serial queue on this clock.
  std::shared_ptr<ZavloQueue> makeQueue(std::string label);

 private:
  struct QueueState;
  struct Item;
  class TestQueue;
  class TestTimer;

  ZavloTestScheduler() = default;
  void enqueue(const std::shared_ptr<QueueState>& queue, Duration delay, const std::shared_ptr<TestTimer>& timer);
  // Takes the earliest item due at or before limit (false when there is none) and runs
  // it unless it was cancelled; ran tells which.
  bool runOne(Duration limit, bool& ran);

  mutable std::mutex mutex_;
  Duration now_{0};
  std::uint64_t sequence_ = 0;
  std::vector<Item> heap_;
};
