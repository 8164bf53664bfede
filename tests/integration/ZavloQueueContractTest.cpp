// The queue contract on the test platform, the Linux run loop and serial queue and the
// GLib main queue, so that the double cannot drift from the real things; and what only the
// Linux run loop and serial queue promise.
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Platform/Linux/Loop/ZavloGLibMainQueue.hpp"
#include "Platform/Linux/Loop/ZavloLinuxSerialQueue.hpp"
#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "Testing/Contracts/ZavloQueueContract.hpp"
#include "Testing/ZavloTestPlatform.hpp"
#include "ZavloGLibIteration.hpp"

using namespace std::chrono_literals;

namespace {

// Each driver owns a queue and can run it until a condition holds.
struct TestDriver {
  ZavloTestPlatform platform;
  ZavloQueue& queue() { return platform.mainQueue(); }
  bool drain(const std::function<bool()>& done, ZavloQueue::Duration span) {
    platform.advanceBy(span);
    return done();
  }
};

struct LinuxRunLoopDriver {
  ZavloLinuxRunLoop loop;
  ZavloQueue& queue() { return loop; }
  bool drain(const std::function<bool()>& done, ZavloQueue::Duration span) {
    return loop.runUntil(done, span + 5s);  // generous bound; returns as soon as done
  }
};

struct LinuxSerialQueueDriver {
  ZavloLinuxSerialQueue serial{"contract"};
  ZavloQueue& queue() { return serial; }
  bool drain(const std::function<bool()>& done, ZavloQueue::Duration span) {
    const auto until = std::chrono::steady_clock::now() + span + 5s;
    while (!done() && std::chrono::steady_clock::now() < until) std::this_thread::sleep_for(1ms);
    return done();
  }
};

// A private context, iterated by the test's thread as a GTK host's main loop would.
struct GLibMainQueueDriver {
  ZavloGLibContext context;
  ZavloGLibMainQueue glib{context.get()};
  ZavloQueue& queue() { return glib; }
  bool drain(const std::function<bool()>& done, ZavloQueue::Duration span) {
    return zavloIterateUntil(context.get(), done, span + 5s);
  }
};

// The prefix names the contract in ctest's names, which keep only the prefix and the type.
using Drivers = ::testing::Types<TestDriver, LinuxRunLoopDriver, LinuxSerialQueueDriver, GLibMainQueueDriver>;
INSTANTIATE_TYPED_TEST_SUITE_P(QueueContract, ZavloQueueContract, Drivers);

}  // namespace

TEST(ZavloLinuxRunLoop, RunUntilReturnsFalseAtTheTimeoutAndStopEndsRun) {
  ZavloLinuxRunLoop loop;
  EXPECT_FALSE(loop.runUntil([] { return false; }, 20ms));

  std::thread stopper([&] {
    std::this_thread::sleep_for(10ms);
    loop.stop();
  });
  loop.run();  // returns only because of stop()
  stopper.join();

  bool ran = false;
  loop.post([&] {
    ran = true;
    loop.stop();
  });
  loop.run();
  EXPECT_TRUE(ran);
}

TEST(ZavloLinuxSerialQueue, MayBeDestroyedByItsOwnWork) {
  auto queue = std::make_shared<ZavloLinuxSerialQueue>("self-release");
  std::atomic<bool> done{false};
  std::weak_ptr<ZavloLinuxSerialQueue> weak = queue;
  queue->post([queue, &done]() mutable {
    queue.reset();  // may or may not be the last owner
    done = true;
  });
  queue.reset();
  for (int i = 0; i < 5000 && !done; ++i) std::this_thread::sleep_for(1ms);
  EXPECT_TRUE(done);
  for (int i = 0; i < 5000 && !weak.expired(); ++i) std::this_thread::sleep_for(1ms);
  EXPECT_TRUE(weak.expired());
}

// A host's completion that throws must not take the loop, or every later completion,
// down with it: the item is reported and the next one runs, plain work and timers alike.
TEST(ZavloLinuxRunLoop, AThrowingTaskIsReportedAndTheLoopGoesOn) {
  ZavloLinuxRunLoop loop;
  std::vector<std::string> reported;
  loop.setExceptionHandler([&](std::exception_ptr exception) {
    try {
      std::rethrow_exception(std::move(exception));
    } catch (const std::exception& error) {
      reported.emplace_back(error.what());
    } catch (...) {
      reported.emplace_back("?");
    }
  });
  std::vector<int> ran;
  loop.post([] { throw std::runtime_error("completion failed"); });
  loop.post([&] { ran.push_back(1); });
  loop.postAfter(1ms, [] { throw 42; });
  loop.postAfter(2ms, [&] {
    ran.push_back(2);
    EXPECT_TRUE(loop.isCurrent());
  });
  EXPECT_TRUE(loop.runUntil([&] { return ran.size() == 2; }, 5s));
  EXPECT_EQ(ran, (std::vector<int>{1, 2}));
  EXPECT_EQ(reported, (std::vector<std::string>{"completion failed", "?"}));
  EXPECT_FALSE(loop.isCurrent()) << "the loop's thread mark is restored after it returns";
}

// Without a handler of the host's the report goes to standard error, as the command-line
// host shows it.
TEST(ZavloLinuxRunLoop, ReportsToStandardErrorByDefault) {
  ZavloLinuxRunLoop loop;
  bool after = false;
  testing::internal::CaptureStderr();
  loop.post([] { throw std::logic_error("host bug"); });
  loop.post([&] { after = true; });
  loop.runUntil([&] { return after; }, 5s);
  const auto text = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(after);
  EXPECT_EQ(text, "zavlo: a task on a run loop threw: host bug\n");
}
