#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Testing/ZavloTestPlatform.hpp"

using namespace std::chrono_literals;

TEST(ZavloTestScheduler, NothingRunsUntilTheTestDrainsAndPostsNeverRunInline) {
  ZavloTestPlatform platform;
  std::vector<std::string> log;
  platform.mainQueue().post([&] {
    log.push_back("a");
    platform.mainQueue().post([&] { log.push_back("c"); });
    log.push_back("b");
  });
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(platform.runUntilIdle(), 2U);
  EXPECT_EQ(log, (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_EQ(platform.scheduler().now(), 0s);
}

TEST(ZavloTestScheduler, TimersFireInDeadlineOrderAcrossQueuesOnVirtualTime) {
  ZavloTestPlatform platform;
  auto serial = platform.makeSerialQueue("serial");
  std::vector<std::string> log;
  ZavloTestScheduler::Duration firedAt{};
  platform.mainQueue().postAfter(10s, [&] { log.push_back("main10"); });
  serial->postAfter(2s, [&] {
    log.push_back("serial2");
    firedAt = platform.scheduler().now();
    platform.mainQueue().postAfter(1s, [&] { log.push_back("main3"); });
  });
  platform.mainQueue().postAfter(2s, [&] { log.push_back("main2"); });

  EXPECT_EQ(platform.advanceBy(1999ms), 0U);
  EXPECT_EQ(platform.advanceBy(1ms), 2U);
  EXPECT_EQ(firedAt, 2s);
  EXPECT_EQ(log, (std::vector<std::string>{"serial2", "main2"}));  // equal deadlines: posting order
  platform.advanceBy(8s);
  EXPECT_EQ(log, (std::vector<std::string>{"serial2", "main2", "main3", "main10"}));
  EXPECT_EQ(platform.scheduler().now(), 10s);
  EXPECT_EQ(platform.scheduler().pendingCount(), 0U);
}

TEST(ZavloTestScheduler, CancelledTimersAndDestroyedQueuesDropTheirWork) {
  ZavloTestPlatform platform;
  int fired = 0;
  auto captured = std::make_shared<int>(0);
  auto timer = platform.mainQueue().postAfter(2s, [&fired, captured] { ++fired; });
  timer->cancel();
  EXPECT_EQ(captured.use_count(), 1) << "cancel releases the work's captures at once";
  timer->cancel();  // idempotent

  {
    auto serial = platform.makeSerialQueue("gone");
    serial->post([&] { ++fired; });
    serial->postAfter(1s, [&] { ++fired; });
  }
  EXPECT_EQ(platform.scheduler().pendingCount(), 0U);
  platform.advanceBy(5s);
  EXPECT_EQ(fired, 0);
}

TEST(ZavloTestScheduler, IsCurrentOnlyWhileTheQueueRunsWork) {
  ZavloTestPlatform platform;
  auto serial = platform.makeSerialQueue("serial");
  EXPECT_FALSE(platform.mainQueue().isCurrent());
  bool mainSeesMain = false;
  bool mainSeesSerial = true;
  bool serialSeesSerial = false;
  platform.mainQueue().post([&] {
    mainSeesMain = platform.mainQueue().isCurrent();
    mainSeesSerial = serial->isCurrent();
  });
  serial->post([&] { serialSeesSerial = serial->isCurrent(); });
  platform.runUntilIdle();
  EXPECT_TRUE(mainSeesMain);
  EXPECT_FALSE(mainSeesSerial);
  EXPECT_TRUE(serialSeesSerial);
  EXPECT_FALSE(serial->isCurrent());
}

TEST(ZavloTestScheduler, TimerCancelledByEarlierWorkAtTheSameDeadlineDoesNotRun) {
  ZavloTestPlatform platform;
  bool late = false;
  std::shared_ptr<ZavloTimer> timeout;
  platform.mainQueue().postAfter(2s, [&] { timeout->cancel(); });
  timeout = platform.mainQueue().postAfter(2s, [&] { late = true; });
  platform.advanceBy(2s);
  EXPECT_FALSE(late);
}
