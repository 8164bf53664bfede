// ModemManager's modems on the Linux platform, with ModemManager played by python-dbusmock
// and the project's template on a private bus. The link a bearer names is a veth link in a
// namespace of the test's own, which the kernel shows as plain Ethernet.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Platform/Linux/Network/ZavloLinuxPathMonitor.hpp"
#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "Testing/Network/ZavloNetworkNamespace.hpp"
#include "ZavloModemManagerMock.hpp"

using namespace std::chrono_literals;

namespace {

constexpr const char* kLink = "eth-like";
constexpr unsigned kUmts = 1U << 5;
constexpr unsigned kHspaPlus = 1U << 9;

using Type = ZavloInterfaceType;
using Types = std::vector<std::optional<Type>>;  // the link's type in each path, if present

ZavloLinuxPlatform::Options onBus(const std::string& address) { return {.modemManagerBusAddress = address}; }

class ZavloLinuxModemsTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!ZavloLinuxModems::supported()) GTEST_SKIP() << "the tests link no ::LinuxModems";
    if (const auto why = ZavloModemManagerMock::missing()) GTEST_SKIP() << *why;
  }
};

class ZavloLinuxModemsNamespaceTest : public ZavloLinuxModemsTest {
 protected:
  void SetUp() override {
    ZavloLinuxModemsTest::SetUp();
    if (IsSkipped()) return;
    std::string whyNot;
    ns = ZavloNetworkNamespace::create(whyNot, "modems");
    if (!ns) GTEST_SKIP() << "cannot test in a network namespace: " << whyNot;
    ns->ip({"link", "add", kLink, "type", "veth", "peer", "name", "eth-likep"});
    // No IPv6 link-local addresses, whose duplicate detection would change the links later.
    for (const auto* link : {kLink, "eth-likep"}) ns->ip({"link", "set", link, "addrgenmode", "none", "up"});
    ns->ip({"address", "add", "10.205.0.1/24", "dev", kLink});
    // The kernel reports the link running a moment after both ends are up.
    const auto usable = [&] {
      const auto listed = ns->run([] { return ZavloLinuxInterfaceClassifier().listInterfaces(); });
      return std::any_of(listed.begin(), listed.end(), [](const auto& i) { return i.name == kLink && i.usable(); });
    };
    for (int tries = 0; tries < 200 && !usable(); ++tries) std::this_thread::sleep_for(10ms);
  }

  // Starts the monitor inside the namespace; returns once its first path has come.
  void start(ZavloLinuxPlatform& platform, ZavloLinuxPathMonitor& monitor, Types& seen) {
    monitor.setPathUpdateHandler([&seen](const ZavloNetworkPath& path) {
      const auto& available = path.availableInterfaces;
      const auto link = std::find_if(available.begin(), available.end(), [](const auto& i) { return i.name == kLink; });
      seen.push_back(link == available.end() ? std::nullopt : std::optional<Type>(link->type));
    });
    ns->runInside([&] { monitor.start(std::shared_ptr<ZavloQueue>(std::shared_ptr<void>(), &platform.mainQueue())); });
    platform.runLoop().runUntil([&] { return !seen.empty(); }, 10s);
  }

  std::unique_ptr<ZavloNetworkNamespace> ns;
};

}  // namespace

// Only ModemManager's word that a bearer on the link is connected makes the link cellular;
// without ModemManager the kernel's evidence stands, and no answer is waited for in vain.
TEST_F(ZavloLinuxModemsNamespaceTest, ALinkIsCellularWhileAConnectedBearerUsesIt) {
  const struct {
    const char* what;
    std::optional<nlohmann::json> modemManager;  // the template's parameters; none: no ModemManager
    bool noBus;
    Type expected;
  } cases[] = {
      {"no ModemManager on the bus", std::nullopt, false, Type::wiredEthernet},
      {"no bus at all", std::nullopt, true, Type::wiredEthernet},
      {"its bearer disconnected", nlohmann::json{{"interface", kLink}, {"connected", false}}, false,
       Type::wiredEthernet},
      {"its bearer connected", nlohmann::json{{"interface", kLink}, {"connected", true}}, false, Type::cellular},
      {"another link's bearer connected", nlohmann::json{{"interface", "wwan7"}, {"connected", true}}, false,
       Type::wiredEthernet},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ZavloModemManagerMock modemManager(c.modemManager);
    const auto address = c.noBus ? "unix:path=/nonexistent/zavlo-modems-bus" : modemManager.address();
    // Each on a platform of its own, so that each is the first to ask ModemManager.
    ZavloLinuxPlatform listing(onBus(address));
    std::optional<Type> listed;
    ns->runInside([&] {
      for (const auto& interface : listing.interfaceClassifier().listInterfaces()) {
        if (interface.name == kLink && interface.usable()) listed = interface.type;
      }
    });
    EXPECT_EQ(listed, c.expected);
    ZavloLinuxPlatform monitoring(onBus(address));
    Types seen;
    ZavloLinuxPathMonitor monitor(monitoring.interfaceClassifier());
    start(monitoring, monitor, seen);
    EXPECT_EQ(seen, Types{c.expected}) << "the first path";
    ASSERT_TRUE(listing.modems()->hasFirstReading()) << "ModemManager's absence must be known, not waited out";
    EXPECT_EQ(listing.modems()->reading().reached, c.modemManager.has_value());
  }
}

// A bearer's changes reach the path monitor as link changes do: connect, disconnect, and the
// modem's removal and return (InterfacesRemoved, InterfacesAdded).
TEST_F(ZavloLinuxModemsNamespaceTest, ThePathMonitorFollowsTheBearer) {
  ZavloModemManagerMock modemManager(nlohmann::json{{"interface", kLink}});
  ZavloLinuxPlatform platform(onBus(modemManager.address()));
  Types seen;
  ZavloLinuxPathMonitor monitor(platform.interfaceClassifier());
  start(platform, monitor, seen);
  ASSERT_EQ(seen, Types{Type::wiredEthernet});
  const struct {
    const char* method;
    std::vector<std::string> arguments;
    Type expected;
  } steps[] = {{"SetBearerConnected", {"boolean:true"}, Type::cellular},
               {"SetBearerConnected", {"boolean:false"}, Type::wiredEthernet},
               {"SetBearerConnected", {"boolean:true"}, Type::cellular},
               {"RemoveModem", {}, Type::wiredEthernet},
               {"AddModem", {}, Type::cellular}};
  for (const auto& step : steps) {
    SCOPED_TRACE(step.method + (step.arguments.empty() ? std::string() : " " + step.arguments[0]));
    const auto before = seen.size();
    modemManager.call(step.method, step.arguments);
    platform.runLoop().runUntil([&] { return seen.size() > before; }, 10s);
    ASSERT_EQ(seen.size(), before + 1) << "one path per change";
    EXPECT_EQ(seen.back(), step.expected);
  }
  monitor.cancel();
}

// A connection that waits for a cellular link tries again when a bearer connects, as it does
// when the kernel's links change, and then uses the bearer's link.
TEST_F(ZavloLinuxModemsNamespaceTest, AWaitingConnectionTriesAgainWhenTheBearerConnects) {
  using State = ZavloConnection::State;
  ZavloModemManagerMock modemManager(nlohmann::json{{"interface", kLink}});
  std::vector<State> states;
  ns->runInside([&] {
    ZavloLinuxPlatform platform(onBus(modemManager.address()));
    ZavloConnectionParameters parameters;
    parameters.requiredInterfaceType = ZavloInterfaceType::cellular;
    const auto connection = platform.makeConnection("10.205.0.2", 9, parameters);
    connection->setStateUpdateHandler([&](State state, const auto&) { states.push_back(state); });
    connection->start(platform.mainQueue());
    const auto awaitStates = [&](std::size_t count) {
      platform.runLoop().runUntil([&] { return states.size() >= count; }, 10s);
    };
    awaitStates(2);
    modemManager.call("SetBearerConnected", {"boolean:true"});
    awaitStates(3);
    connection->cancel();
    platform.runLoop().runUntil([&] { return !states.empty() && states.back() == State::cancelled; }, 10s);
  });
  // Tried again on the bearer's link, whose connect the cancel ends (its peer has no address).
  EXPECT_EQ(states, (std::vector<State>{State::preparing, State::waiting, State::preparing, State::cancelled}));
}

// The name servers the resolver asks for a link are its connected bearer's (IPv4 first), and
// a reading follows the network's and the bearer's changes.
TEST_F(ZavloLinuxModemsTest, NameServersAndReadingsFollowTheBearerAndTheNetwork) {
  ZavloModemManagerMock modemManager(nlohmann::json{
      {"interface", "wwan-zt"}, {"connected", true}, {"dns", {"10.64.0.53"}}, {"dns6", {"fd00:64::53"}}});
  const auto modems = std::make_shared<ZavloLinuxModems>(modemManager.address());
  ASSERT_TRUE(zavloAwaitModems(*modems, [](const auto& reading) { return reading.reached; }));
  EXPECT_EQ(modems->dnsServers("wwan-zt"), (std::vector<std::string>{"10.64.0.53", "fd00:64::53"}));
  EXPECT_TRUE(modems->dnsServers("eth0").empty());

  modemManager.call("SetOperator", {"string:00102", "string:Other Network"});
  modemManager.call("SetSignal", {"uint32:40", "uint32:" + std::to_string(kUmts | kHspaPlus)});
  modemManager.call("SetBearerConnected", {"boolean:false"});
  ASSERT_TRUE(zavloAwaitModems(*modems, [](const auto& reading) {
    return reading.modems.size() == 1 && !reading.modems[0].bearers.at(0).connected;
  }));
  const auto modem = modems->reading().modems.at(0);
  EXPECT_EQ(modem.operatorCode, "00102");
  EXPECT_EQ(modem.operatorName, "Other Network");
  EXPECT_EQ(modem.signalQuality, 40U);
  EXPECT_EQ(modem.accessTechnologies, (std::vector<std::string>{"umts", "hspa-plus"}));
  EXPECT_TRUE(modems->dnsServers("wwan-zt").empty());
}
