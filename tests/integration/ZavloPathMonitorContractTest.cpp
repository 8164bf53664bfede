// The path monitor contract, run on the test platform's scripted monitor and on the
// Linux rtnetlink monitor (inside a network namespace of its own, where the test can
// change links without touching the machine's), so that the double cannot drift.
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "Platform/Linux/Network/ZavloLinuxPathMonitor.hpp"
#include "Platform/Linux/Loop/ZavloLinuxSerialQueue.hpp"
#include "Platform/Linux/Loop/ZavloLinuxRunLoop.hpp"
#include "Testing/Network/ZavloNetworkNamespace.hpp"
#include "Testing/ZavloTestPlatform.hpp"

using namespace std::chrono_literals;

namespace {

const ZavloNetworkPath kSatisfied =
    ZavloTestPathMonitorController::satisfiedPath({{"zc0", ZavloInterfaceType::wiredEthernet}});

struct TestPlatformDriver {
  static constexpr const char* kName = "TestPlatform";
  ZavloTestPlatform platform;
  std::shared_ptr<ZavloQueue> queue = platform.makeSerialQueue("contract");

  bool prepare(std::string&) {
    platform.pathMonitors().setCurrentPath(ZavloTestPathMonitorController::unsatisfiedPath());
    return true;
  }
  std::shared_ptr<ZavloPathMonitor> make() { return platform.makePathMonitor(); }
  void start(ZavloPathMonitor& monitor) { monitor.start(queue); }
  void connect() { platform.pathMonitors().setCurrentPath(kSatisfied); }
  bool waitFor(const std::function<bool()>& done) {
    platform.runUntilIdle();
    return done();
  }
  void settle() { platform.runUntilIdle(); }
};

// A namespace with a veth pair that is up but has no address: unsatisfied until
// connect() gives zc0 an address.
struct LinuxNamespaceDriver {
  static constexpr const char* kName = "LinuxNamespace";
  std::unique_ptr<ZavloNetworkNamespace> ns;
  std::shared_ptr<ZavloQueue> queue = std::make_shared<ZavloLinuxSerialQueue>("contract");

  bool prepare(std::string& whyNot) {
    ns = ZavloNetworkNamespace::create(whyNot);
    if (!ns) return false;
    ns->ip({"link", "add", "zc0", "type", "veth", "peer", "name", "zc1"});
    ns->ip({"link", "set", "zc0", "up"});
    ns->ip({"link", "set", "zc1", "up"});
    return true;
  }
  std::shared_ptr<ZavloPathMonitor> make() {
    return std::make_shared<ZavloLinuxPathMonitor>(ZavloLinuxInterfaceClassifier());
  }
  void start(ZavloPathMonitor& monitor) {
    ns->runInside([&] { monitor.start(queue); });
  }
  void connect() { ns->ip({"address", "add", "10.201.0.1/24", "dev", "zc0"}); }
  static bool waitFor(const std::function<bool()>& done) {
    for (int i = 0; i < 5000 && !done(); ++i) std::this_thread::sleep_for(1ms);
    return done();
  }
  // Long enough for the kernel's notification and the reader's post to arrive.
  static void settle() { std::this_thread::sleep_for(150ms); }
};

struct DriverNames {
  template <class Driver>
  static std::string GetName(int) {
    return Driver::kName;
  }
};

// Paths a handler received, and whether each arrived on the monitor's queue.
struct Received {
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
    if (!driver.prepare(whyNot)) GTEST_SKIP() << "no network namespace for the Linux monitor: " << whyNot;
  }

  ZavloPathMonitor::UpdateHandler recordInto(const std::shared_ptr<Received>& received) {
    return [this, received](const ZavloNetworkPath& path) {
      std::lock_guard lock(received->mutex);
      received->paths.push_back(path);
      if (!driver.queue->isCurrent()) received->allOnQueue = false;
    };
  }

  Driver driver;
};

using Drivers = ::testing::Types<TestPlatformDriver, LinuxNamespaceDriver>;
TYPED_TEST_SUITE(ZavloPathMonitorContract, Drivers, DriverNames);

TYPED_TEST(ZavloPathMonitorContract, DeliversTheFirstPathThenChangesOnTheQueue) {
  auto received = std::make_shared<Received>();
  auto monitor = this->driver.make();
  monitor->setPathUpdateHandler(this->recordInto(received));
  this->driver.start(*monitor);
  ASSERT_TRUE(this->driver.waitFor([&] { return received->count() >= 1; }));
  EXPECT_EQ(received->last(), ZavloNetworkPath{}) << "first: unsatisfied, nothing available";

  this->driver.connect();
  ASSERT_TRUE(this->driver.waitFor([&] { return received->last() == kSatisfied; }));
  EXPECT_TRUE(received->allOnQueue);
  monitor->cancel();
}

TYPED_TEST(ZavloPathMonitorContract, DeliversNothingAfterCancelOrDestruction) {
  auto cancelledAtOnce = std::make_shared<Received>();
  auto first = this->driver.make();
  first->setPathUpdateHandler(this->recordInto(cancelledAtOnce));
  this->driver.start(*first);
  first->cancel();  // the first path may already be on its way, or even being handled
  const auto countAtCancel = cancelledAtOnce->count();

  auto cancelledInHandler = std::make_shared<Received>();
  auto second = this->driver.make();
  std::weak_ptr<ZavloPathMonitor> weakSecond = second;
  const auto record = this->recordInto(cancelledInHandler);
  second->setPathUpdateHandler([record, weakSecond](const ZavloNetworkPath& path) {
    record(path);
    if (const auto self = weakSecond.lock()) self->cancel();
  });
  this->driver.start(*second);

  auto destroyed = std::make_shared<Received>();
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

TYPED_TEST(ZavloPathMonitorContract, CancelFromAnotherThreadWaitsForAHandlerCallInProgress) {
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

}  // namespace
