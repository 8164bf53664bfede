#pragma once

// The queue contract: what the library relies on from every ZavloQueue, the main queue
// and serial queues alike. A host with queues of its own instantiates it with a driver
// per queue:
//
//   struct MyDriver {
//     ZavloQueue& queue();
//     // Runs the queue (or waits for it) until done() holds, letting at least `span` of
//     // the queue's time pass; returns done().
//     bool drain(const std::function<bool()>& done, ZavloQueue::Duration span);
//   };
//   INSTANTIATE_TYPED_TEST_SUITE_P(My, ZavloQueueContract, ::testing::Types<MyDriver>);
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "Platform/ZavloQueue.hpp"

template <class Driver>
class ZavloQueueContract : public ::testing::Test {
 protected:
  Driver driver;
};

TYPED_TEST_SUITE_P(ZavloQueueContract);

TYPED_TEST_P(ZavloQueueContract, RunsWorkInOrderOnTheQueueAndTimersByDeadline) {
  using namespace std::chrono_literals;
  auto& queue = this->driver.queue();
  std::mutex mutex;
  std::vector<int> order;
  std::atomic<bool> allOnQueue{true};
  const auto record = [&](int n) {
    return [&, n] {
      if (!queue.isCurrent()) allOnQueue = false;
      std::lock_guard lock(mutex);
      order.push_back(n);
    };
  };
  queue.postAfter(30ms, record(5));
  queue.postAfter(10ms, record(4));
  queue.post(record(1));
  queue.post(record(2));
  queue.post(record(3));
  ASSERT_TRUE(this->driver.drain(
      [&] {
        std::lock_guard lock(mutex);
        return order.size() == 5;
      },
      30ms));
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4, 5}));
  EXPECT_TRUE(allOnQueue);
  EXPECT_FALSE(queue.isCurrent());
}

TYPED_TEST_P(ZavloQueueContract, CancelledTimerNeverRunsAndPostsFromOtherThreadsArrive) {
  using namespace std::chrono_literals;
  auto& queue = this->driver.queue();
  std::atomic<int> cancelledRuns{0};
  std::atomic<int> arrived{0};
  auto timer = queue.postAfter(5ms, [&] { ++cancelledRuns; });
  timer->cancel();
  std::vector<std::thread> posters;
  for (int t = 0; t < 4; ++t) {
    posters.emplace_back([&] {
      for (int i = 0; i < 50; ++i) queue.post([&] { ++arrived; });
    });
  }
  for (auto& poster : posters) poster.join();
  std::atomic<bool> after{false};
  queue.postAfter(20ms, [&] { after = true; });
  ASSERT_TRUE(this->driver.drain([&] { return arrived == 200 && after; }, 20ms));
  EXPECT_EQ(cancelledRuns, 0);
}

REGISTER_TYPED_TEST_SUITE_P(ZavloQueueContract, RunsWorkInOrderOnTheQueueAndTimersByDeadline,
                            CancelledTimerNeverRunsAndPostsFromOtherThreadsArrive);
