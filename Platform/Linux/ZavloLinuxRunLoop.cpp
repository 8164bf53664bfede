#include "Platform/Linux/ZavloLinuxRunLoop.hpp"
#include "Platform/Linux/ZavloLinuxTimerWork.hpp"

#include <cstdio>
#include <utility>

struct ZavloLinuxRunLoop::Timer final : ZavloLinuxTimerWork {};

ZavloLinuxRunLoop::~ZavloLinuxRunLoop() = default;

// Notifying under the lock: once the loop may see the work, the poster no longer touches
// the loop, which its owner may destroy as soon as that work has run.
void ZavloLinuxRunLoop::post(Work work) {
  std::lock_guard lock(mutex_);
  ready_.push_back({std::chrono::steady_clock::now(), std::move(work)});
  wake_.notify_one();
}

std::shared_ptr<ZavloTimer> ZavloLinuxRunLoop::postAfter(Duration delay, Work work) {
  auto timer = std::make_shared<Timer>();
  timer->work = std::move(work);
  std::lock_guard lock(mutex_);
  timers_.push({std::chrono::steady_clock::now() + std::max(delay, Duration::zero()), sequence_++, timer});
  wake_.notify_one();
  return timer;
}

bool ZavloLinuxRunLoop::isCurrent() const { return runningThread_.load() == std::this_thread::get_id(); }

void ZavloLinuxRunLoop::run() { loop(nullptr, std::chrono::steady_clock::time_point::max()); }

bool ZavloLinuxRunLoop::runUntil(const std::function<bool()>& done, Duration timeout) {
  return loop(&done, std::chrono::steady_clock::now() + timeout);
}

void ZavloLinuxRunLoop::stop() {
  std::lock_guard lock(mutex_);
  stopRequested_ = true;
  wake_.notify_all();
}

bool ZavloLinuxRunLoop::loop(const std::function<bool()>* done, std::chrono::steady_clock::time_point deadline) {
  const auto previous = runningThread_.exchange(std::this_thread::get_id());
  bool finished = done && (*done)();
  Work work;
  while (!finished && next(work, deadline)) {
    runGuarded(work);
    work = nullptr;  // release captures before waiting again
    finished = done && (*done)();
  }
  runningThread_.store(previous);
  return finished;
}

void ZavloLinuxRunLoop::setExceptionHandler(ExceptionHandler handler) {
  std::lock_guard lock(mutex_);
  exceptionHandler_ = handler ? std::move(handler) : ExceptionHandler(reportToStandardError);
}

void ZavloLinuxRunLoop::reportToStandardError(std::exception_ptr exception) noexcept {
  try {
    std::rethrow_exception(std::move(exception));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "zavlo: a task on a run loop threw: %s\n", error.what());
  } catch (...) {
    std::fprintf(stderr, "zavlo: a task on a run loop threw an exception of an unknown type\n");
  }
}

// An exception must not unwind through the loop: its state (the running thread, the
// item being run) would be left wrong, and every later completion would be lost.
void ZavloLinuxRunLoop::runGuarded(Work& work) noexcept {
  try {
    work();
  } catch (...) {
    ExceptionHandler handler;
    {
      std::lock_guard lock(mutex_);
      handler = exceptionHandler_;
    }
    try {
      handler(std::current_exception());
    } catch (...) {
      reportToStandardError(std::current_exception());
    }
  }
}

bool ZavloLinuxRunLoop::next(Work& work, std::chrono::steady_clock::time_point deadline) {
  std::unique_lock lock(mutex_);
  for (;;) {
    if (stopRequested_) {
      stopRequested_ = false;
      return false;
    }
    const auto now = std::chrono::steady_clock::now();
    // Due timers go before plain work posted after their deadline, and after work posted
    // before it: a slow item must not let a timer overtake work that was already waiting.
    while (!timers_.empty() && timers_.top().deadline <= now &&
           (ready_.empty() || timers_.top().deadline < ready_.front().postedAt)) {
      auto timer = timers_.top().timer;
      timers_.pop();
      if ((work = timer->take())) return true;
    }
    if (!ready_.empty()) {
      work = std::move(ready_.front().work);
      ready_.pop_front();
      return true;
    }
    if (now >= deadline) return false;
    auto wakeAt = deadline;
    if (!timers_.empty()) wakeAt = std::min(wakeAt, timers_.top().deadline);
    if (wakeAt == std::chrono::steady_clock::time_point::max()) {
      wake_.wait(lock);
    } else {
      wake_.wait_until(lock, wakeAt);
    }
  }
}
