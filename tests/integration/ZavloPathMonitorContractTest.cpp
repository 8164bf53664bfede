// The path monitor contract on the test platform's scripted monitor and on the Linux
// rtnetlink monitor (inside a network namespace of its own, where the test can change
// links without touching the machine's), so that the double cannot drift.
#include <gtest/gtest.h>

#include <thread>

#include "Platform/Linux/Loop/ZavloLinuxSerialQueue.hpp"
#include "Platform/Linux/Network/ZavloLinuxPathMonitor.hpp"
#include "Testing/Contracts/ZavloPathMonitorContract.hpp"
#include "Testing/Network/ZavloNetworkNamespace.hpp"
#include "Testing/ZavloTestPlatform.hpp"

using namespace std::chrono_literals;

namespace {

const ZavloNetworkPath kSatisfied =
    ZavloTestPathMonitorController::satisfiedPath({{"zc0", ZavloInterfaceType::wiredEthernet}});

struct TestPlatformDriver {
  ZavloTestPlatform platform;
  std::shared_ptr<ZavloQueue> queue = platform.makeSerialQueue("contract");

  bool prepare(std::string&) {
    platform.pathMonitors().setCurrentPath(ZavloTestPathMonitorController::unsatisfiedPath());
    return true;
  }
  std::shared_ptr<ZavloPathMonitor> make() { return platform.makePathMonitor(); }
  void start(ZavloPathMonitor& monitor) { monitor.start(queue); }
  void connect() { platform.pathMonitors().setCurrentPath(kSatisfied); }
  static ZavloNetworkPath connectedPath() { return kSatisfied; }
  bool waitFor(const std::function<bool()>& done) {
    platform.runUntilIdle();
    return done();
  }
  void settle() { platform.runUntilIdle(); }
};

// A namespace with a veth pair that is up but has no address: unsatisfied until
// connect() gives zc0 an address.
struct LinuxNamespaceDriver {
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
  static ZavloNetworkPath connectedPath() { return kSatisfied; }
  static bool waitFor(const std::function<bool()>& done) {
    for (int i = 0; i < 5000 && !done(); ++i) std::this_thread::sleep_for(1ms);
    return done();
  }
  // Long enough for the kernel's notification and the reader's post to arrive.
  static void settle() { std::this_thread::sleep_for(150ms); }
};

// The prefix names the contract in ctest's names, which keep only the prefix and the type.
INSTANTIATE_TYPED_TEST_SUITE_P(PathMonitorContract, ZavloPathMonitorContract, TestPlatformDriver);
// "Namespace" in the name: ctest runs the tests that make namespaces one at a time.
INSTANTIATE_TYPED_TEST_SUITE_P(PathMonitorContractNamespace, ZavloPathMonitorContract, LinuxNamespaceDriver);

}  // namespace
