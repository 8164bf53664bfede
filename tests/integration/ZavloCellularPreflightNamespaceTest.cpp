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

// A laptop on Ethernet with a VPN up: neither link is a cellular network unless the host
// declares it one (a modem's link may well be a TUN device), and a satisfied path decides at once.
TEST_F(ZavloCellularPreflightInNamespace, OnlyALinkDeclaredCellularPassesAndOtherLinksFailAtOnce) {
  ZavloTunDevice tunnel(*ns, "ztun0");
  ns->ip({"link", "set", "ztun0", "up"});
  ns->ip({"address", "add", "10.202.0.1/32", "dev", "ztun0"});
  makeVeth("zeth0");
  const struct {
    const char* what;
    std::vector<std::string> declared;
    bool passes;
  } cases[] = {{"nothing declared", {}, false},
               {"the tunnel declared", {"ztun0"}, true},
               {"the Ethernet link declared", {"zeth0"}, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const auto outcome = check(c.declared);
    ASSERT_TRUE(outcome.verdict);
    EXPECT_EQ(outcome.verdict->hasValue(), c.passes);
    if (!c.passes) {
      EXPECT_EQ(outcome.verdict->error(), ZavloCellularPathChecker::PreflightError::noCellularNetwork);
    }
    EXPECT_TRUE(outcome.onMainThread);
    EXPECT_LT(outcome.elapsed, 1s);
  }
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
