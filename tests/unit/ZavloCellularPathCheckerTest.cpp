#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <vector>

#include "Cellular/ZavloCellularPathChecker.hpp"
#include "Platform/ZavloPlatformWrapper.hpp"
#include "Testing/ZavloTestPlatform.hpp"

using namespace std::chrono_literals;
using PreflightError = ZavloCellularPathChecker::PreflightError;
using Verdict = ZavloCellularPathChecker::Verdict;

namespace {

const ZavloNetworkInterface kWifi{"en0", ZavloInterfaceType::wifi};
const ZavloNetworkInterface kCellular{"wwan0", ZavloInterfaceType::cellular};

// Every verdict a check delivered, and whether each came on the main queue.
struct Verdicts {
  std::vector<Verdict> received;
  std::vector<bool> onMainQueue;
};

class ZavloCellularPathCheckerTest : public ::testing::Test {
 protected:
  std::shared_ptr<Verdicts> check(ZavloCellularPathChecker& checker) {
    auto verdicts = std::make_shared<Verdicts>();
    checker.requireDefaultPathIsCellular([this, verdicts](Verdict verdict) {
      verdicts->received.push_back(verdict);
      verdicts->onMainQueue.push_back(platform.mainQueue().isCurrent());
    });
    return verdicts;
  }
  std::shared_ptr<Verdicts> check() { return check(checker); }

  static bool isNoCellular(const Verdict& verdict) {
    return !verdict.hasValue() && verdict.error() == PreflightError::noCellularNetwork;
  }

  ZavloTestPlatform platform;
  ZavloCellularPathChecker checker{platform};
};

// A satisfied path decides at once, by whether cellular is among its interfaces, and the
// monitor and the time-out both go with the verdict.
TEST_F(ZavloCellularPathCheckerTest, SatisfiedPathDecidesAtOnceOnTheMainQueueAndCancelsTheMonitor) {
  const std::vector<std::pair<std::vector<ZavloNetworkInterface>, bool>> cases = {{{kWifi, kCellular}, true},
                                                                                  {{kWifi}, false}};
  for (const auto& [interfaces, passes] : cases) {
    SCOPED_TRACE(interfaces.size());
    ZavloTestPlatform local;
    ZavloCellularPathChecker localChecker(local);
    local.pathMonitors().setCurrentPath(ZavloTestPathMonitorController::satisfiedPath(interfaces));
    std::vector<Verdict> verdicts;
    std::vector<bool> onMainQueue;
    localChecker.requireDefaultPathIsCellular([&](Verdict verdict) {
      verdicts.push_back(verdict);
      onMainQueue.push_back(local.mainQueue().isCurrent());
    });
    EXPECT_TRUE(verdicts.empty()) << "the verdict never arrives inline";

    local.runUntilIdle();
    ASSERT_EQ(verdicts.size(), 1U);
    EXPECT_TRUE(passes ? verdicts[0].hasValue() : isNoCellular(verdicts[0]));
    EXPECT_TRUE(onMainQueue[0]);
    EXPECT_EQ(local.scheduler().now(), 0s);
    EXPECT_EQ(local.pathMonitors().startedCount(), 1U);
    EXPECT_EQ(local.pathMonitors().cancelledCount(), 1U);
    EXPECT_EQ(local.pathMonitors().liveCount(), 0U);

    local.advanceBy(5s);
    EXPECT_EQ(verdicts.size(), 1U) << "the time-out found the check finished";
    EXPECT_EQ(local.scheduler().pendingCount(), 0U);
  }
}

TEST_F(ZavloCellularPathCheckerTest, WithoutASatisfiedPathFailsAtExactlyTwoSeconds) {
  using Mode = ZavloTestPathMonitorController::StartMode;
  for (const auto mode : {Mode::deliverCurrentPath, Mode::deliverNothing}) {
    ZavloTestPlatform local;
    ZavloCellularPathChecker localChecker(local);
    local.pathMonitors().setStartMode(mode);
    local.pathMonitors().setCurrentPath(ZavloTestPathMonitorController::unsatisfiedPath());
    std::vector<Verdict> verdicts;
    localChecker.requireDefaultPathIsCellular([&](Verdict verdict) { verdicts.push_back(verdict); });

    local.advanceBy(1s);
    local.pathMonitors().setCurrentPath(ZavloTestPathMonitorController::unsatisfiedPath());
    local.advanceBy(999ms);
    EXPECT_TRUE(verdicts.empty()) << "still waiting at 1.999 s";
    EXPECT_EQ(local.pathMonitors().liveCount(), 1U);

    local.advanceBy(1ms);
    ASSERT_EQ(verdicts.size(), 1U);
    EXPECT_TRUE(isNoCellular(verdicts[0]));
    EXPECT_EQ(local.pathMonitors().cancelledCount(), 1U);
    EXPECT_EQ(local.pathMonitors().liveCount(), 0U);
  }
}

TEST_F(ZavloCellularPathCheckerTest, ConcurrentChecksAreIndependent) {
  platform.pathMonitors().setCurrentPath(ZavloTestPathMonitorController::unsatisfiedPath());
  const auto first = check();
  platform.advanceBy(1s);
  const auto second = check();
  platform.pathMonitors().setCurrentPath(ZavloTestPathMonitorController::satisfiedPath({kWifi}));
  platform.runUntilIdle();
  ASSERT_EQ(first->received.size(), 1U);
  ASSERT_EQ(second->received.size(), 1U);
  EXPECT_TRUE(isNoCellular(first->received[0]));

  platform.pathMonitors().setCurrentPath(ZavloTestPathMonitorController::satisfiedPath({kCellular}));
  const auto third = check();  // after the others finished, on the same monitor queue
  platform.runUntilIdle();
  ASSERT_EQ(third->received.size(), 1U);
  EXPECT_TRUE(third->received[0].hasValue());
  EXPECT_EQ(platform.pathMonitors().startedCount(), 3U);
  EXPECT_EQ(platform.pathMonitors().liveCount(), 0U);
}

TEST_F(ZavloCellularPathCheckerTest, ACheckOutlivesItsChecker) {
  platform.pathMonitors().setCurrentPath(ZavloTestPathMonitorController::unsatisfiedPath());
  auto local = std::make_unique<ZavloCellularPathChecker>(platform);
  const auto verdicts = check(*local);
  local.reset();
  platform.advanceBy(2s);
  ASSERT_EQ(verdicts->received.size(), 1U);
  EXPECT_TRUE(isNoCellular(verdicts->received[0]));
}

// A path source that keeps talking after it was cancelled, to prove that the check
// itself, not the monitor, guarantees a single verdict.
class TalkativeMonitor final : public ZavloPathMonitor {
 public:
  void setPathUpdateHandler(UpdateHandler handler) override { handler_ = std::move(handler); }
  void start(std::shared_ptr<ZavloQueue> queue) override { queue_ = std::move(queue); }
  void cancel() override { ++cancels; }
  void deliver(const ZavloNetworkPath& path) {
    queue_->post([handler = handler_, path] { handler(path); });
  }
  int cancels = 0;

 private:
  UpdateHandler handler_;
  std::shared_ptr<ZavloQueue> queue_;
};

class TalkativePlatform final : public ZavloPlatformWrapper {
 public:
  TalkativePlatform() : ZavloPlatformWrapper(base) {}
  std::shared_ptr<ZavloPathMonitor> makePathMonitor() override {
    monitor = std::make_shared<TalkativeMonitor>();
    return monitor;
  }
  ZavloTestPlatform base;
  std::shared_ptr<TalkativeMonitor> monitor;
};

TEST(ZavloCellularPathChecker, UpdatesAfterTheVerdictAreIgnored) {
  TalkativePlatform platform;
  ZavloCellularPathChecker checker(platform);
  std::vector<Verdict> verdicts;
  checker.requireDefaultPathIsCellular([&](Verdict verdict) { verdicts.push_back(verdict); });
  ASSERT_TRUE(platform.monitor);
  platform.monitor->deliver(ZavloTestPathMonitorController::satisfiedPath({kCellular}));
  platform.monitor->deliver(ZavloTestPathMonitorController::satisfiedPath({kWifi}));
  platform.base.runUntilIdle();
  platform.monitor->deliver(ZavloTestPathMonitorController::satisfiedPath({kCellular}));
  platform.base.advanceBy(3s);

  ASSERT_EQ(verdicts.size(), 1U);
  EXPECT_TRUE(verdicts[0].hasValue());
  EXPECT_EQ(platform.monitor->cancels, 1);

  // The time-out's verdict first, then a satisfied path with cellular: still one verdict.
  std::vector<Verdict> timedOut;
  checker.requireDefaultPathIsCellular([&](Verdict verdict) { timedOut.push_back(verdict); });
  platform.base.advanceBy(ZavloCellularPathChecker::kTimeout);
  ASSERT_EQ(timedOut.size(), 1U);
  platform.monitor->deliver(ZavloTestPathMonitorController::satisfiedPath({kCellular}));
  platform.monitor->deliver(ZavloTestPathMonitorController::satisfiedPath({kCellular}));
  platform.base.advanceBy(3s);
  ASSERT_EQ(timedOut.size(), 1U);
  EXPECT_FALSE(timedOut[0].hasValue());
  EXPECT_EQ(platform.monitor->cancels, 1) << "the second check's own monitor, cancelled once";
}

TEST(ZavloCellularPathChecker, MapsEachErrorToTheExceptionTheCallerReports) {
  EXPECT_EQ(ZavloCellularPathChecker::authException(PreflightError::noCellularNetwork),
            ZavloAuthException::failure("SNA_CELLULAR_UNAVAILABLE",
                                        "No cellular network available. Please ensure cellular data is enabled."));
  EXPECT_EQ(ZavloCellularPathChecker::authException(PreflightError::notOnMobileData),
            ZavloAuthException::failure("SNA_DEVICE_NOT_ON_MOBILE_DATA",
                                        "Not connected to mobile data. Please disable WiFi and use cellular network."));
}

}  // namespace
