#include "Core/ZavloCancellation.hpp"

#include <utility>

void ZavloCancellation::cancel() {
  std::function<void()> stop;
  {
    std::lock_guard lock(mutex_);
    if (cancelled_) return;
    cancelled_ = true;
    stop = std::exchange(stop_, nullptr);
  }
  // Outside the lock: the work may ask isCancelled() while it stops.
  if (stop) stop();
}

bool ZavloCancellation::isCancelled() const {
  std::lock_guard lock(mutex_);
  return cancelled_;
}

void ZavloCancellation::onCancel(std::function<void()> stop) {
  {
    std::lock_guard lock(mutex_);
    if (!cancelled_) {
      stop_ = std::move(stop);
      return;
    }
  }
  if (stop) stop();
}
