#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "Platform/ZavloQueue.hpp"

namespace asio {
class io_context;
}

/// A run loop the host runs on its main thread (run, runUntil, stop). Also the engine of
/// the Linux serial queues, which run one on a thread of their own.
///
/// The loop is an Asio io_context: asynchronous I/O started on ioContext() (the Linux
/// connections of a platform whose main queue this is) completes on the loop's thread,
/// between its work items, so a connection event reaches the library without crossing
/// threads. Work and timers keep the queue's own order; I/O completions that became ready
/// meanwhile run between two items.
///
/// A work item that throws (a host's completion, say) does not end the loop: the
/// exception goes to the exception handler and the loop goes on with the next item.
class ZavloLinuxRunLoop final : public ZavloQueue {
 public:
  /// Told of each exception that escaped a work item, on the loop's thread.
  using ExceptionHandler = std::function<void(std::exception_ptr)>;

  ZavloLinuxRunLoop();
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

  /// The Asio context the loop runs. Shared so that I/O objects made on it may outlive the
  /// loop: once the loop is destroyed their handlers are dropped, never run.
  [[nodiscard]] const std::shared_ptr<asio::io_context>& ioContext() const noexcept { return io_; }

 private:
  struct Timer;
  struct Engine;
  struct Scheduled {
    std::chrono::steady_clock::time_point deadline;
    std::uint64_t sequence;
    std::shared_ptr<Timer> timer;
    bool operator>(const Scheduled& other) const {
      return deadline != other.deadline ? deadline > other.deadline : sequence > other.sequence;
    }
  };
  struct Ready {
    std::chrono::steady_clock::time_point postedAt;
    Work work;
  };

  // Runs handlers until stop or until done() holds; a deadline bounds the wait.
  bool loop(const std::function<bool()>* done, std::chrono::steady_clock::time_point deadline);
  // One handler of the io_context: runs the next item of the queue, if one is due.
  void pump();
  // Makes sure a pump is queued on the io_context; mutex_ held.
  void schedulePumpLocked();
  // The timer heap without the timers cancelled so far; mutex_ held.
  void sweepTimersLocked();
  void runGuarded(Work& work) noexcept;
  void report(std::exception_ptr exception) noexcept;

  std::shared_ptr<asio::io_context> io_;
  std::unique_ptr<Engine> engine_;  // the work guard and the alarm for the earliest timer

  mutable std::mutex mutex_;
  std::deque<Ready> ready_;
  std::vector<Scheduled> timers_;  // a heap, earliest first
  // A cancelled timer stays in the heap until its deadline; once the heap has grown to this
  // size they are swept out, so that short-lived work does not pin memory for long.
  std::size_t sweepAt_ = kFirstSweep;
  static constexpr std::size_t kFirstSweep = 64;
  std::uint64_t sequence_ = 0;
  bool pumpQueued_ = false;
  std::chrono::steady_clock::time_point alarmAt_ = std::chrono::steady_clock::time_point::max();
  std::atomic<std::thread::id> runningThread_{};
  ExceptionHandler exceptionHandler_ = reportToStandardError;
};
