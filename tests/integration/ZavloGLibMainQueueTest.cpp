// The GLib main queue beyond the common queue contract: what a GTK host relies on (the
// context's owner runs the work, exceptions stay in the queue, destruction drops work),
// and the Linux platform delivering a whole silent authentication on a GLib context.
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "Cellular/ZavloCellularSnaClient.hpp"
#include "Cellular/ZavloChainDictionary.hpp"
#include "Core/ZavloUrl.hpp"
#include "Platform/Linux/Loop/ZavloGLibMainQueue.hpp"
#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "ZavloGLibIteration.hpp"
#include "tools/peers/ZavloChainServer.hpp"

using namespace std::chrono_literals;

TEST(ZavloGLibMainQueue, AThrowingItemIsReportedAndTheNextOnesRun) {
  ZavloGLibContext context;
  ZavloGLibMainQueue queue(context.get());
  std::vector<std::string> reported;
  queue.setExceptionHandler([&](std::exception_ptr exception) {
    try {
      std::rethrow_exception(std::move(exception));
    } catch (const std::exception& error) {
      reported.emplace_back(error.what());
    } catch (...) {
      reported.emplace_back("?");
    }
  });
  std::vector<int> ran;
  queue.post([] { throw std::runtime_error("completion failed"); });
  queue.post([&] {
    ran.push_back(1);
    queue.postAfter(0ms, [] { throw 42; });
    queue.postAfter(0ms, [&] {
      ran.push_back(2);
      EXPECT_TRUE(queue.isCurrent());
    });
  });
  EXPECT_TRUE(zavloIterateUntil(
      context.get(), [&] { return ran.size() == 2; }, 5s));
  EXPECT_EQ(ran, (std::vector<int>{1, 2}));
  EXPECT_EQ(reported, (std::vector<std::string>{"completion failed", "?"}));
  EXPECT_FALSE(queue.isCurrent());

  // Without a handler of the host's: one line on standard error, as the run loop writes.
  queue.setExceptionHandler(nullptr);
  bool after = false;
  testing::internal::CaptureStderr();
  queue.post([] { throw std::logic_error("host bug"); });
  queue.post([&] { after = true; });
  zavloIterateUntil(
      context.get(), [&] { return after; }, 5s);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "zavlo: a task on a run loop threw: host bug\n");
}

// Timers due in the same iteration: the first cancels the second, which must not run
// even though GLib had already found the source ready.
TEST(ZavloGLibMainQueue, ATimerCancelledFromInsideTheQueueNeverRunsAndCancelIsIdempotent) {
  ZavloGLibContext context;
  ZavloGLibMainQueue queue(context.get());
  std::vector<std::string> ran;
  std::shared_ptr<ZavloTimer> second;
  auto first = queue.postAfter(0ms, [&] {
    ran.emplace_back("first");
    second->cancel();
    second->cancel();
  });
  second = queue.postAfter(0ms, [&] { ran.emplace_back("second"); });
  queue.postAfter(0ms, [&] { ran.emplace_back("last"); });
  ASSERT_TRUE(zavloIterateUntil(
      context.get(), [&] { return !ran.empty() && ran.back() == "last"; }, 5s));
  first->cancel();  // after it ran: nothing happens
  EXPECT_EQ(ran, (std::vector<std::string>{"first", "last"}));
}

TEST(ZavloGLibMainQueue, RunsOnTheThreadDefaultContextUnlessGivenOne) {
  EXPECT_EQ(ZavloGLibMainQueue().context(), g_main_context_default());

  ZavloGLibContext context;
  g_main_context_push_thread_default(context.get());
  ZavloGLibMainQueue queue;
  g_main_context_pop_thread_default(context.get());
  EXPECT_EQ(queue.context(), context.get());
  bool ran = false;
  queue.post([&] { ran = true; });
  EXPECT_TRUE(zavloIterateUntil(
      context.get(), [&] { return ran; }, 5s));
}

// Work still waiting when the queue goes never runs and its captures are released; the
// queue may go from inside its own work, and the context goes on without it.
TEST(ZavloGLibMainQueue, DestructionDropsWaitingWorkEvenFromInsideItsOwnWork) {
  ZavloGLibContext context;
  auto capture = std::make_shared<int>(0);
  std::weak_ptr<int> watched = capture;
  std::shared_ptr<ZavloTimer> keptTimer;
  {
    ZavloGLibMainQueue queue(context.get());
    queue.post([capture] { ++*capture; });
    keptTimer = queue.postAfter(0ms, [capture] { ++*capture; });
  }
  capture.reset();
  EXPECT_TRUE(watched.expired());
  EXPECT_FALSE(g_main_context_iteration(context.get(), FALSE)) << "nothing of the queue is left to dispatch";

  auto queue = std::make_unique<ZavloGLibMainQueue>(context.get());
  int ran = 0;
  bool destroyed = false;
  queue->post([&] {
    ++ran;
    queue.reset();
    destroyed = true;
  });
  queue->post([&] { ++ran; });
  EXPECT_TRUE(zavloIterateUntil(
      context.get(), [&] { return destroyed; }, 5s));
  EXPECT_FALSE(g_main_context_iteration(context.get(), FALSE));
  EXPECT_EQ(ran, 1);
}

TEST(ZavloGLibMainQueue, WorkPostedFromOtherThreadsWakesTheBlockedOwner) {
  ZavloGLibContext context;
  ZavloGLibMainQueue queue(context.get());
  std::vector<std::thread::id> ranOn;
  std::thread poster([&] {
    queue.post([&] { ranOn.push_back(std::this_thread::get_id()); });
    queue.postAfter(1ms, [&] { ranOn.push_back(std::this_thread::get_id()); });
  });
  EXPECT_TRUE(zavloIterateUntil(
      context.get(), [&] { return ranOn.size() == 2; }, 5s));
  poster.join();
  EXPECT_EQ(ranOn, (std::vector<std::thread::id>(2, std::this_thread::get_id())));
}

// Connection events, the per-hop timers and the completion all reach the platform's main
// queue: the run loop is never run here, so anything posted there would be lost and the
// chain would not complete.
TEST(ZavloGLibMainQueue, TheLinuxPlatformDeliversASilentAuthenticationOnTheContext) {
  ZavloGLibContext context;
  auto queue = std::make_shared<ZavloGLibMainQueue>(context.get());
  ZavloLinuxPlatform::Options options;
  options.cellularInterfaces = {"lo"};
  options.mainQueue = queue;
  ZavloLinuxPlatform platform(std::move(options));
  EXPECT_EQ(&platform.mainQueue(), queue.get());

  ZavloChainServerOptions serverOptions;
  serverOptions.token = "glib-token";
  ZavloChainServer chain(serverOptions);
  std::vector<nlohmann::json> completions;
  bool onQueue = false;
  auto client = ZavloCellularSnaClient::create(platform, [](const ZavloCellularSnaClient::HopEvent&) {});
  client->open(*ZavloUrl::parse(chain.chainUrl(3)), "req-glib", [&](const ZavloChainOutcome& outcome) {
    onQueue = queue->isCurrent();
    completions.push_back(ZavloChainDictionary::of(outcome));
  });
  client.reset();
  ASSERT_TRUE(zavloIterateUntil(
      context.get(), [&] { return !completions.empty(); }, 10s));
  EXPECT_EQ(completions.front(), (nlohmann::json{{"httpStatusCode", 200}, {"snaToken", "glib-token"}}));
  EXPECT_TRUE(onQueue);
}
