#pragma once

// The path monitor contract: the first path and its changes arrive on the monitor's queue,
// nothing arrives after cancel() or destruction, and cancel() from another thread waits
// for a handler call in progress. A host instantiates it with a driver per monitor:
//
//   struct MyDriver {
//     std::shared_ptr<ZavloQueue> queue;             // the queue monitors start on
//     bool prepare(std::string& whyNot);             // false: the suite skips, saying why
//     std::shared_ptr<ZavloPathMonitor> make();      // a fresh monitor
//     void start(ZavloPathMonitor& monitor);         // monitor.start(queue), wherever it must run
//     void connect();                                // the unsatisfied path becomes connectedPath()
//     ZavloNetworkPath connectedPath();
//     bool waitFor(const std::function<bool()>& done);  // drains the queue until done(); returns done()
//     void settle();                                 // gives late deliveries the time to arrive
//   };
//   INSTANTIATE_TYPED_TEST_SUITE_P(My, ZavloPathMonitorContract, ::testing::Types<MyDriver>);
//
// prepare() leaves the path unsatisfied with nothing available.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Platform/ZavloPathMonitor.hpp"

/// Paths a handler received, and whether each arrived on the monitor's queue.
struct ZavloReceivedPaths {
  std::mutex mutex;
  std::vector<ZavloNetworkPath> paths;
  bool allOnQueue = true;

  std::size_t count() {
    std::lock_guard lock(mutex);
    return paths.size();
  }
  ZavloNetworkPath last() {
    std::lock_guard lock(mutex);
    return paths.empty() ? ZavloNetworkPath{} : paths.back();
  }
};

template <class Driver>
class ZavloPathMonitorContract : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string whyNot;
    if (!driver.prepare(whyNot)) GTEST_SKIP() << "the monitor cannot run here: " << whyNot;
  }

  ZavloPathMonitor::UpdateHandler recordInto(const std::shared_ptr<ZavloReceivedPaths>& received) {
    return [this, received](const ZavloNetworkPath& path) {
      std::lock_guard lock(received->mutex);
      received->paths.push_back(path);
      if (!driver.queue->isCurrent()) received->allOnQueue = false;
    };
  }

  Driver driver;
};

TYPED_TEST_SUITE_P(ZavloPathMonitorContract);

TYPED_TEST_P(ZavloPathMonitorContract, DeliversTheFirstPathThenChangesOnTheQueue) {
  auto received = std::make_shared<ZavloReceivedPaths>();
  auto monitor = this->driver.make();
  monitor->setPathUpdateHandler(this->recordInto(received));
  this->driver.start(*monitor);
  ASSERT_TRUE(this->driver.waitFor([&] { return received->count() >= 1; }));
  EXPECT_EQ(received->last(), ZavloNetworkPath{}) << "first: unsatisfied, nothing available";

  this->driver.connect();
  const auto connected = this->driver.connectedPath();
  ASSERT_TRUE(this->driver.waitFor([&] { return received->last() == connected; }));
  EXPECT_TRUE(received->allOnQueue);
  monitor->cancel();
}

TYPED_TEST_P(ZavloPathMonitorContract, DeliversNothingAfterCancelOrDestruction) {
  auto cancelledAtOnce = std::make_shared<ZavloReceivedPaths>();
  auto first = this->driver.make();
  first->setPathUpdateHandler(this->recordInto(cancelledAtOnce));
  this->driver.start(*first);
  first->cancel();  // the first path may already be on its way, or even being handled
  const auto countAtCancel = cancelledAtOnce->count();

  auto cancelledInHandler = std::make_shared<ZavloReceivedPaths>();
  auto second = this->driver.make();
  std::weak_ptr<ZavloPathMonitor> weakSecond = second;
  const auto record = this->recordInto(cancelledInHandler);
  second->setPathUpdateHandler([record, weakSecond](const ZavloNetworkPath& path) {
    record(path);
    if (const auto self = weakSecond.lock()) self->cancel();
  });
  this->driver.start(*second);

  auto destroyed = std::make_shared<ZavloReceivedPaths>();
  auto third = this->driver.make();
  third->setPathUpdateHandler(this->recordInto(destroyed));
  this->driver.start(*third);
  third.reset();
  const auto countAtDestruction = destroyed->count();

  ASSERT_TRUE(this->driver.waitFor([&] { return cancelledInHandler->count() >= 1; }));
  this->driver.connect();
  this->driver.settle();
  EXPECT_EQ(cancelledAtOnce->count(), countAtCancel);
  EXPECT_EQ(cancelledInHandler->count(), 1U);
  EXPECT_EQ(destroyed->count(), countAtDestruction);
  first->cancel();  // idempotent
}

TYPED_TEST_P(ZavloPathMonitorContract, CancelFromAnotherThreadWaitsForAHandlerCallInProgress) {
  using namespace std::chrono_literals;
  std::atomic<bool> entered{false};
  std::atomic<bool> returned{false};
  auto monitor = this->driver.make();
  monitor->setPathUpdateHandler([&](const ZavloNetworkPath&) {
    entered = true;
    std::this_thread::sleep_for(50ms);
    returned = true;
  });
  this->driver.start(*monitor);
  // The handler runs wherever the driver drains the queue: here, not on the test thread.
  std::thread drainer([&] { this->driver.waitFor([&] { return entered.load(); }); });
  for (int i = 0; i < 5000 && !entered; ++i) std::this_thread::sleep_for(1ms);
  EXPECT_TRUE(entered);
  monitor->cancel();
  EXPECT_EQ(returned, entered.load());
  drainer.join();
}

REGISTER_TYPED_TEST_SUITE_P(ZavloPathMonitorContract, DeliversTheFirstPathThenChangesOnTheQueue,
                            DeliversNothingAfterCancelOrDestruction,
                            CancelFromAnotherThreadWaitsForAHandlerCallInProgress);
