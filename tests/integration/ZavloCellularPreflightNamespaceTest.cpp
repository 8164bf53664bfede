// The cellular preflight on the Linux platform, inside network namespaces made for each
// test: a TUN link declared cellular stands for a modem (it reports the no-ARP link type of
// raw-IP modems), an undeclared one for a VPN, a veth pair for wired Ethernet.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <thread>

#include "Cellular/ZavloCellularPathChecker.hpp"
#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "Testing/Network/ZavloNetworkNamespace.hpp"

using namespace std::chrono_literals;
using Verdict = ZavloCellularPathChecker::Verdict;
using Clock = std::chrono::steady_clock;

namespace {

struct Outcome {
  std::optional<Verdict> verdict;
  Clock::duration elapsed{};
  bool onMainThread = false;
};

class ZavloCellularPreflightInNamespace : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string whyNot;
    ns = ZavloNetworkNamespace::create(whyNot);
    if (!ns) GTEST_SKIP() << "cannot test in a network namespace: " << whyNot;
  }

  // Runs one check whose path monitor lives in the namespace; meanwhile (if given) runs
  // on the test thread while the check waits.
  Outcome check(const std::vector<std::string>& cellularInterfaces = {}, const std::function<void()>& meanwhile = {}) {
    ZavloLinuxPlatform platform(ZavloLinuxPlatform::Options{.cellularInterfaces = cellularInterfaces});
    auto outcome = std::make_shared<Outcome>();
    {
      ZavloCellularPathChecker checker(platform);
      const auto started = Clock::now();
      ns->runInside([&] {
        checker.requireDefaultPathIsCellular([&platform, outcome, started](Verdict verdict) {
          outcome->elapsed = Clock::now() - started;
          outcome->onMainThread = platform.mainQueue().isCurrent();
          outcome->verdict = verdict;
        });
      });
      if (meanwhile) meanwhile();
      platform.runLoop().runUntil([&] { return outcome->verdict.has_value(); }, 5s);
    }
    return *outcome;
  }

  void makeVeth(const std::string& name) {
    ns->ip({"link", "add", name, "type", "veth", "peer", "name", name + "p"});
    ns->ip({"link", "set", name + "p", "up"});
    ns->ip({"link", "set", name, "up"});
    ns->ip({"address", "add", "10.203.0.1/24", "dev", name});
  }

  std::unique_ptr<ZavloNetworkNamespace> ns;
};

TEST_F(ZavloCellularPreflightInNamespace, AModemLinkThatIsUpPasses) {
  ZavloTunDevice modem(*ns, "zmodem0");
  ns->ip({"link", "set", "zmodem0", "up"});
  ns->ip({"address", "add", "10.202.0.1/32", "dev", "zmodem0"});
  makeVeth("zeth0");  // Wi-Fi or Ethernet beside the modem does not matter

  const auto outcome = check({"zmodem0"});
  ASSERT_TRUE(outcome.verdict);
  EXPECT_TRUE(outcome.verdict->hasValue());
  EXPECT_TRUE(outcome.onMainThread);
  EXPECT_LT(outcome.elapsed, 1s);
}

// A laptop on Ethernet with a VPN up: the tunnel is no cellular network.
TEST_F(ZavloCellularPreflightInNamespace, AVpnTunnelIsNoModem) {
  ZavloTunDevice vpn(*ns, "ztun0");
  ns->ip({"link", "set", "ztun0", "up"});
  ns->ip({"address", "add", "10.202.0.1/32", "dev", "ztun0"});
  makeVeth("zeth0");

  const auto outcome = check();
  ASSERT_TRUE(outcome.verdict);
  ASSERT_FALSE(outcome.verdict->hasValue());
  EXPECT_EQ(outcome.verdict->error(), ZavloCellularPathChecker::PreflightError::noCellularNetwork);
  EXPECT_LT(outcome.elapsed, 1s) << "a satisfied path without cellular does not wait for the time-out";
}

TEST_F(ZavloCellularPreflightInNamespace, EthernetAloneFailsAtOnceUnlessDeclaredCellular) {
  makeVeth("zeth0");

  const auto plain = check();
  ASSERT_TRUE(plain.verdict);
  ASSERT_FALSE(plain.verdict->hasValue());
  EXPECT_EQ(plain.verdict->error(), ZavloCellularPathChecker::PreflightError::noCellularNetwork);
  EXPECT_LT(plain.elapsed, 1s) << "a satisfied path without cellular does not wait for the time-out";

  const auto declared = check({"zeth0"});
  ASSERT_TRUE(declared.verdict);
  EXPECT_TRUE(declared.verdict->hasValue());
}

TEST_F(ZavloCellularPreflightInNamespace, NoUsableLinkFailsAtTheTimeOut) {
  ns->ip({"link", "set", "lo", "up"});  // loopback alone is no network
  ZavloTunDevice modem(*ns, "zmodem0");
  ns->ip({"address", "add", "10.202.0.1/32", "dev", "zmodem0"});  // but the link stays down

  const auto outcome = check({"zmodem0"});
  ASSERT_TRUE(outcome.verdict);
  ASSERT_FALSE(outcome.verdict->hasValue());
  EXPECT_EQ(outcome.verdict->error(), ZavloCellularPathChecker::PreflightError::noCellularNetwork);
  EXPECT_GE(outcome.elapsed, 1900ms);
  EXPECT_LT(outcome.elapsed, 3s);
}

TEST_F(ZavloCellularPreflightInNamespace, AModemComingUpDuringTheCheckPasses) {
  ZavloTunDevice modem(*ns, "zmodem0");
  ns->ip({"address", "add", "10.202.0.1/32", "dev", "zmodem0"});

  const auto outcome = check({"zmodem0"}, [&] {
    std::this_thread::sleep_for(300ms);
    ns->ip({"link", "set", "zmodem0", "up"});
  });
  ASSERT_TRUE(outcome.verdict);
  EXPECT_TRUE(outcome.verdict->hasValue());
  EXPECT_GE(outcome.elapsed, 300ms);
  EXPECT_LT(outcome.elapsed, 1900ms);
}

}  // namespace
