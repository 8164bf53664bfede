#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <queue>
#include <thread>
#include <vector>

#include "Platform/ZavloQueue.hpp"

/// A run loop the host runs on its main thread (run, runUntil, stop). Also the engine of
/// the Linux serial queues, which run one on a thread of their own.
///
/// A work item that throws (a host's completion, say) does not end the loop: the
/// exception goes to the exception handler and the loop goes on with the next item.
class ZavloLinuxRunLoop final : public ZavloQueue {
 public:
  /// Told of each exception that escaped a work item, on the loop's thread.
  using ExceptionHandler = std::function<void(std::exception_ptr)>;

  ZavloLinuxRunLoop() = default;
  ~ZavloLinuxRunLoop() override;

  void post(Work work) override;
  std::shared_ptr<ZavloTimer> postAfter(Duration delay, Work work) override;
  [[nodiscard]] bool isCurrent() const override;

  /// Runs work until stop() is called.
  void run();
  /// Runs work until done() holds (checked after each item) or the timeout passes;
  /// returns done(). A pending stop() also ends it.
  bool runUntil(const std::function<bool()>& done, Duration timeout);
  /// Makes run() or runUntil() return after the current item. Callable from any thread.
  void stop();
  /// Replaces the exception handler; the default writes one line to standard error.
  /// Call before the loop runs.
  void setExceptionHandler(ExceptionHandler handler);
  /// The default handler: "zavlo: a task on a run loop threw: WHAT" on standard error.
  static void reportToStandardError(std::exception_ptr exception) noexcept;

 private:
  struct Timer;
  struct Scheduled {
    std::chrono::steady_clock::time_point deadline;
    std::uint64_t sequence;
    std::shared_ptr<Timer> timer;
    bool operator>(const Scheduled& other) const {
      return deadline != other.deadline ? deadline > other.deadline : sequence > other.sequence;
    }
  };

  // Runs items until stop or until done() holds; a deadline bounds the wait.
  bool loop(const std::function<bool()>* done, std::chrono::steady_clock::time_point deadline);
  // Takes the next runnable item, waiting until one is due or the deadline passes.
  bool next(Work& work, std::chrono::steady_clock::time_point deadline);
  void runGuarded(Work& work) noexcept;

  mutable std::mutex mutex_;
  std::condition_variable wake_;
  struct Ready {
    std::chrono::steady_clock::time_point postedAt;
    Work work;
  };
  std::deque<Ready> ready_;
  std::priority_queue<Scheduled, std::vector<Scheduled>, std::greater<>> timers_;
  std::uint64_t sequence_ = 0;
  bool stopRequested_ = false;
  std::atomic<std::thread::id> runningThread_{};
  ExceptionHandler exceptionHandler_ = reportToStandardError;
};
