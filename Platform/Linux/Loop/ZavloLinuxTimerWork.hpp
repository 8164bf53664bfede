#pragma once

#include <mutex>
#include <utility>

#include "Platform/ZavloQueue.hpp"

/// The work of one timer of a Linux queue: taken once by the queue when it falls due, or
/// dropped by cancel() from any thread, whichever comes first.
struct ZavloLinuxTimerWork : ZavloTimer {
  std::mutex mutex;
  ZavloQueue::Work work;

  void cancel() override {
    ZavloQueue::Work dropped;
    {
      const std::lock_guard lock(mutex);
      dropped.swap(work);
    }
    // The captures are released here, outside the lock.
  }
  ZavloQueue::Work take() {
    const std::lock_guard lock(mutex);
    return std::exchange(work, nullptr);
  }
  /// Neither taken nor cancelled yet.
  bool pending() {
    const std::lock_guard lock(mutex);
    return static_cast<bool>(work);
  }
};
