#include "Platform/Linux/Loop/ZavloLinuxRunLoop.hpp"

#include <algorithm>
#include <asio.hpp>
#include <cstdio>
#include <utility>

#include "Platform/Linux/Loop/ZavloLinuxTimerWork.hpp"

using Clock = std::chrono::steady_clock;

namespace {

// An io_context whose owner may shut it down: the handlers still queued are destroyed at
// once, releasing what they hold (connections, say), though objects made on the context
// may keep it alive for longer.
class ZavloShutdownableIo final : public asio::io_context {
 public:
  ZavloShutdownableIo() : asio::io_context(1) {}  // one thread runs it: the loop's
  using asio::io_context::shutdown;
};

}  // namespace

struct ZavloLinuxRunLoop::Timer final : ZavloLinuxTimerWork {};

struct ZavloLinuxRunLoop::Engine {
  explicit Engine(asio::io_context& io) : guard(asio::make_work_guard(io)), alarm(io) {}
  // Keeps run_one() waiting when nothing is queued, instead of returning.
  asio::executor_work_guard<asio::io_context::executor_type> guard;
  // Wakes the loop for the earliest timer; touched only on the loop's thread.
  asio::steady_timer alarm;
};

ZavloLinuxRunLoop::ZavloLinuxRunLoop()
    : io_(std::make_shared<ZavloShutdownableIo>()), engine_(std::make_unique<Engine>(*io_)) {}

ZavloLinuxRunLoop::~ZavloLinuxRunLoop() {
  engine_.reset();
  static_cast<ZavloShutdownableIo&>(*io_).shutdown();
}

// Queuing the pump under the lock: once the loop may see the work, the poster no longer
// touches the loop, which its owner may destroy as soon as that work has run.
void ZavloLinuxRunLoop::post(Work work) {
  std::lock_guard lock(mutex_);
  ready_.push_back({Clock::now(), std::move(work)});
  schedulePumpLocked();
}

std::shared_ptr<ZavloTimer> ZavloLinuxRunLoop::postAfter(Duration delay, Work work) {
  auto timer = std::make_shared<Timer>();
  timer->work = std::move(work);
  const auto deadline = Clock::now() + std::max(delay, Duration::zero());
  std::lock_guard lock(mutex_);
  if (timers_.size() >= sweepAt_) sweepTimersLocked();
  timers_.push_back({deadline, sequence_++, timer});
  std::push_heap(timers_.begin(), timers_.end(), std::greater<>());
  // A new earliest deadline: the alarm is set again, on the loop's thread.
  if (deadline < alarmAt_ && timers_.front().timer == timer) schedulePumpLocked();
  return timer;
}

void ZavloLinuxRunLoop::sweepTimersLocked() {
  std::erase_if(timers_, [](const Scheduled& scheduled) { return !scheduled.timer->pending(); });
  std::make_heap(timers_.begin(), timers_.end(), std::greater<>());
  sweepAt_ = std::max(kFirstSweep, 2 * timers_.size());
}

bool ZavloLinuxRunLoop::isCurrent() const { return runningThread_.load() == std::this_thread::get_id(); }

void ZavloLinuxRunLoop::run() { loop(nullptr, Clock::time_point::max()); }

bool ZavloLinuxRunLoop::runUntil(const std::function<bool()>& done, Duration timeout) {
  return loop(&done, Clock::now() + timeout);
}

void ZavloLinuxRunLoop::stop() { io_->stop(); }

void ZavloLinuxRunLoop::schedulePumpLocked() {
  if (pumpQueued_) return;
  pumpQueued_ = true;
  asio::post(*io_, [this] { pump(); });
}

// One item per pump, and the next pump queued behind the I/O completions that are ready
// by then, so that neither can starve the other.
void ZavloLinuxRunLoop::pump() {
  Work work;
  {
    std::lock_guard lock(mutex_);
    pumpQueued_ = false;
    const auto now = Clock::now();
    // Due timers go before plain work posted after their deadline, and after work posted
    // before it: a slow item must not let a timer overtake work that was already waiting.
    while (!work && !timers_.empty() && timers_.front().deadline <= now &&
           (ready_.empty() || timers_.front().deadline < ready_.front().postedAt)) {
      std::pop_heap(timers_.begin(), timers_.end(), std::greater<>());
      work = timers_.back().timer->take();  // nothing when cancelled
      timers_.pop_back();
    }
    if (!work && !ready_.empty()) {
      work = std::move(ready_.front().work);
      ready_.pop_front();
    }
    if (!ready_.empty() || (!timers_.empty() && timers_.front().deadline <= now)) {
      schedulePumpLocked();
    } else if (!timers_.empty() && timers_.front().deadline != alarmAt_) {
      alarmAt_ = timers_.front().deadline;
      engine_->alarm.expires_at(alarmAt_);  // a wait already set ends with operation_aborted
      engine_->alarm.async_wait([this](const std::error_code& error) {
        if (error) return;
        std::lock_guard alarmLock(mutex_);
        alarmAt_ = Clock::time_point::max();
        schedulePumpLocked();
      });
    }
  }
  if (work) runGuarded(work);
}

bool ZavloLinuxRunLoop::loop(const std::function<bool()>* done, Clock::time_point deadline) {
  const auto previous = runningThread_.exchange(std::this_thread::get_id());
  bool finished = done && (*done)();
  while (!finished) {
    if (io_->stopped()) {  // a stop() made before this item, or before the loop ran
      io_->restart();
      break;
    }
    std::size_t ran = 0;
    try {
      ran = deadline == Clock::time_point::max() ? io_->run_one() : io_->run_one_until(deadline);
      // Past the deadline what is ready still runs, as it would have before it.
      if (ran == 0 && !io_->stopped()) ran = io_->poll_one();
    } catch (...) {
      // Work items are guarded in pump(); this is an I/O handler. The context stays usable.
      report(std::current_exception());
      ran = 1;
    }
    if (ran == 0) {
      if (io_->stopped()) io_->restart();
      break;
    }
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
    report(std::current_exception());
  }
  work = nullptr;  // the captures go before the next item
}

void ZavloLinuxRunLoop::report(std::exception_ptr exception) noexcept {
  ExceptionHandler handler;
  {
    std::lock_guard lock(mutex_);
    handler = exceptionHandler_;
  }
  try {
    handler(std::move(exception));
  } catch (...) {
    reportToStandardError(std::current_exception());
  }
}
