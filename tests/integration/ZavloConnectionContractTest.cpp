// The connection contract, run on the scripted test connection and on the Linux
// connection, so that the double cannot drift from the real thing: the exchange over
// loopback (with lo declared cellular), and the interface rules on links of our own in
// network namespaces.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>

#include "Platform/Linux/Network/ZavloLinuxInterfaces.hpp"
#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "Testing/Network/ZavloNetworkNamespace.hpp"
#include "Testing/Network/ZavloTestServer.hpp"
#include "Testing/ZavloTestPlatform.hpp"
#include "ZavloConnectionRecorder.hpp"

using namespace std::chrono_literals;
using State = ZavloConnection::State;

// Readable failures; internal to this file, found by argument-dependent lookup.
static void PrintTo(ZavloInterfaceType type, std::ostream* out) { *out << toString(type); }
static void PrintTo(const ZavloConnectionError& error, std::ostream* out) {
  *out << error.code << " \"" << error.localizedDescription << '"';
}

namespace {

constexpr auto kAnswer = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";

struct TestDoubleDriver {
  ZavloTestPlatform platform;
  ZavloQueue& queue() { return platform.mainQueue(); }
  // A peer that answers the request with answer, or never answers when it is empty.
  std::shared_ptr<ZavloConnection> connect(const std::string& answer) {
    platform.connections().script(
        "operator.test", 80,
        answer.empty() ? ZavloTestConnectionScript::silent() : ZavloTestConnectionScript::answering(answer));
    return platform.makeConnection("operator.test", 80, zavloCellularParameters());
  }
  bool runUntil(const std::function<bool()>& done) {
    for (int i = 0; i < 100 && !done(); ++i) platform.advanceBy(10ms);
    return done();
  }
  void settle() { platform.advanceBy(10s); }
};

struct LinuxDriver {
  ZavloLinuxPlatform platform{ZavloLinuxPlatform::Options{.hostApplicationVersion = {}, .cellularInterfaces = {"lo"}}};
  std::unique_ptr<ZavloTestServer> server;
  ZavloQueue& queue() { return platform.runLoop(); }
  std::shared_ptr<ZavloConnection> connect(const std::string& answer) {
    server = std::make_unique<ZavloTestServer>(answer.empty() ? ZavloTestServerReply::neverAnswer()
                                                              : ZavloTestServerReply::answer(answer));
    return platform.makeConnection("127.0.0.1", server->port(), zavloCellularParameters());
  }
  bool runUntil(const std::function<bool()>& done) { return platform.runLoop().runUntil(done, 10s); }
  // Gives late reports, which must not come, the time to arrive.
  void settle() {
    platform.runLoop().runUntil([] { return false; }, 100ms);
  }
};

template <class Driver>
class ZavloConnectionContract : public ::testing::Test {
 protected:
  Driver driver;
};

using Drivers = ::testing::Types<TestDoubleDriver, LinuxDriver>;
TYPED_TEST_SUITE(ZavloConnectionContract, Drivers);

TYPED_TEST(ZavloConnectionContract, ReadyThenSendThenReceiveGivesThePeersBytesOnTheQueue) {
  ZavloConnectionRecorder recorder(this->driver.connect(kAnswer), this->driver.queue());
  recorder.start();
  ASSERT_TRUE(this->driver.runUntil([&] { return recorder.has("ready"); }))
      << ::testing::PrintToString(recorder.events());
  recorder.send("GET / HTTP/1.1\r\nHost: operator.test\r\n\r\n");
  recorder.receive(1, 65536);
  ASSERT_TRUE(this->driver.runUntil([&] { return recorder.has("received") && recorder.has("sent"); }));
  EXPECT_EQ(recorder.received(), kAnswer);
  EXPECT_FALSE(recorder.receiveError());
  const auto events = recorder.events();
  ASSERT_GE(events.size(), 2U);
  EXPECT_EQ(events[0], "preparing");
  EXPECT_EQ(events[1], "ready");
  EXPECT_FALSE(recorder.offQueue());

  recorder.connection().cancel();
  ASSERT_TRUE(this->driver.runUntil([&] { return recorder.has("cancelled"); }));
  EXPECT_EQ(recorder.events().back(), "cancelled");
}

TYPED_TEST(ZavloConnectionContract, CancelWhileReceivingReportsCancelledOnceAndDropsTheReceive) {
  ZavloConnectionRecorder recorder(this->driver.connect(""), this->driver.queue());
  recorder.start();
  ASSERT_TRUE(this->driver.runUntil([&] { return recorder.has("ready"); }));
  recorder.send("GET / HTTP/1.1\r\n\r\n");
  recorder.receive(1, 65536);
  ASSERT_TRUE(this->driver.runUntil([&] { return recorder.has("sent"); }));
  this->driver.settle();
  EXPECT_EQ(recorder.receiveCalls(), 0U);  // the peer never answers

  recorder.connection().cancel();
  recorder.connection().cancel();  // a second cancel changes nothing
  ASSERT_TRUE(this->driver.runUntil([&] { return recorder.has("cancelled"); }));
  this->driver.settle();
  EXPECT_EQ(recorder.events(), (std::vector<std::string>{"preparing", "ready", "sent", "cancelled"}));
  EXPECT_FALSE(recorder.offQueue());
}

TYPED_TEST(ZavloConnectionContract, CancelRightAfterStartReportsOnlyCancelled) {
  ZavloConnectionRecorder recorder(this->driver.connect(kAnswer), this->driver.queue());
  recorder.start();
  recorder.send("GET / HTTP/1.1\r\n\r\n");
  recorder.receive(1, 65536);
  recorder.connection().cancel();
  ASSERT_TRUE(this->driver.runUntil([&] { return recorder.has("cancelled"); }));
  this->driver.settle();
  EXPECT_EQ(recorder.events(), (std::vector<std::string>{"cancelled"}));
}

TYPED_TEST(ZavloConnectionContract, CancelBeforeStartIsReportedOnceStarted) {
  ZavloConnectionRecorder recorder(this->driver.connect(kAnswer), this->driver.queue());
  recorder.connection().cancel();
  recorder.start();
  ASSERT_TRUE(this->driver.runUntil([&] { return recorder.has("cancelled"); }));
  this->driver.settle();
  EXPECT_EQ(recorder.events(), (std::vector<std::string>{"cancelled"}));
}

TYPED_TEST(ZavloConnectionContract, ReceiveAfterThePeerFinishedReportsCompleteWithoutData) {
  ZavloConnectionRecorder recorder(this->driver.connect(kAnswer), this->driver.queue());
  recorder.start();
  recorder.send("GET / HTTP/1.1\r\n\r\n");
  // Reads until the peer's end, however the bytes were cut.
  for (int round = 0; round < 10 && !recorder.read([](const auto& log) { return log.receivedComplete; }); ++round) {
    const auto before = recorder.receiveCalls();
    recorder.receive(1, 65536);
    ASSERT_TRUE(this->driver.runUntil([&] { return recorder.receiveCalls() > before; }));
  }
  EXPECT_EQ(recorder.received(), kAnswer);
  EXPECT_TRUE(recorder.read([](const auto& log) { return log.receivedComplete; }));
  recorder.receive(1, 65536);
  const auto calls = recorder.receiveCalls();
  ASSERT_TRUE(this->driver.runUntil([&] { return recorder.receiveCalls() > calls; }));
  EXPECT_EQ(recorder.received(), kAnswer);  // nothing more
  EXPECT_TRUE(recorder.read([](const auto& log) { return log.receivedComplete && !log.receiveError; }));
  recorder.connection().cancel();
  ASSERT_TRUE(this->driver.runUntil([&] { return recorder.has("cancelled"); }));
}

// --- Interface rules -------------------------------------------------------------------
//
// Each driver builds a network where the given interface types are present, every one of
// them a way to the same server address, with the routes preferring any link over the
// cellular one; a hop then tells which types it went through.

using Type = ZavloInterfaceType;

constexpr auto kRulesServer = "198.18.0.1";
constexpr std::uint16_t kRulesPort = 80;  // the double's; the Linux servers share one free port

struct HopOutcome {
  std::vector<std::string> events;
  std::optional<ZavloConnectionError> stateError;
  std::vector<Type> reached;  ///< the types whose links carried the connection
  std::string problem;        ///< why the hop says nothing (the network is not as built)
};

ZavloConnectionParameters prohibiting(std::vector<Type> types) {
  ZavloConnectionParameters parameters = zavloCellularParameters();
  parameters.requiredInterfaceType.reset();
  parameters.prohibitedInterfaceTypes = std::move(types);
  return parameters;
}

// One connection: start, one request and one read once ready, then cancel. runFor drives
// the queue until its condition holds, within a bound. whenWaiting, if given, runs once the
// connection waits, and the connection is given the time to go on.
HopOutcome runHop(std::shared_ptr<ZavloConnection> connection, ZavloQueue& queue,
                  const std::function<void(const std::function<bool()>&)>& runFor,
                  const std::function<void()>& whenWaiting = {}) {
  ZavloConnectionRecorder recorder(std::move(connection), queue);
  recorder.start();
  runFor([&] { return recorder.has("ready") || recorder.has("failed") || recorder.has("waiting"); });
  if (recorder.has("waiting") && whenWaiting) {
    whenWaiting();
    runFor([&] { return recorder.has("ready") || recorder.has("failed"); });
  }
  if (recorder.has("ready")) {
    recorder.send("GET / HTTP/1.1\r\nHost: operator.test\r\nConnection: close\r\n\r\n");
    recorder.receive(1, 65536);
    runFor([&] { return recorder.receiveCalls() > 0; });
  }
  recorder.connection().cancel();
  runFor([&] { return recorder.has("cancelled"); });
  HopOutcome outcome;
  outcome.events = recorder.events();
  outcome.stateError = recorder.stateError();
  return outcome;
}

struct TestDoubleNetwork {
  ZavloTestPlatform platform;
  std::vector<Type> present;

  bool build(const std::vector<Type>& types, std::string& /*whyNot*/) {
    present = types;
    setPath();
    platform.connections().script(kRulesServer, kRulesPort, ZavloTestConnectionScript::answering(kAnswer));
    return true;
  }

  void setPath() {
    std::vector<ZavloNetworkInterface> interfaces;
    interfaces.reserve(present.size());
    for (const auto type : present) interfaces.push_back({std::string(toString(type)) + "0", type});
    // Loopback comes first, as lo does among Linux interfaces.
    std::stable_partition(interfaces.begin(), interfaces.end(),
                          [](const auto& interface) { return interface.type == Type::loopback; });
    platform.pathMonitors().setCurrentPath(ZavloTestPathMonitorController::satisfiedPath(interfaces));
  }

  HopOutcome hop(ZavloConnectionParameters parameters, std::optional<Type> addedWhileWaiting = std::nullopt) {
    auto connection = platform.connections().make(kRulesServer, kRulesPort, std::move(parameters));
    std::function<void()> whenWaiting;
    if (addedWhileWaiting) {
      whenWaiting = [this, type = *addedWhileWaiting] {
        present.push_back(type);
        setPath();
      };
    }
    auto outcome = runHop(
        connection, platform.mainQueue(),
        [this](const std::function<bool()>& done) {
          for (int i = 0; i < 100 && !done(); ++i) platform.advanceBy(10ms);
        },
        whenWaiting);
    const bool wasReady = std::find(outcome.events.begin(), outcome.events.end(), "ready") != outcome.events.end();
    if (wasReady && connection->usedInterface()) outcome.reached.push_back(connection->usedInterface()->type);
    return outcome;
  }
};

// A client namespace whose links of each present type lead to their own namespace, where
// a server at kRulesServer names that type in its answer. Loopback present: lo is up;
// absent: lo is down. The cellular link is a veth declared cellular; the Wi-Fi one a veth
// that sysfs, remounted for the hop's thread alone, reports as DEVTYPE=wlan.
class LinuxNamespaceNetwork {
 public:
  ~LinuxNamespaceNetwork() {
    servers_.clear();
    if (!fakeUevent_.empty()) ::unlink(fakeUevent_.c_str());
  }

  bool build(const std::vector<Type>& present, std::string& whyNot) {
    client_ = ZavloNetworkNamespace::create(whyNot, "rules");
    if (!client_) return false;
    const auto has = [&](Type type) { return std::find(present.begin(), present.end(), type) != present.end(); };
    try {
      if (!has(Type::loopback)) client_->ip({"link", "set", "lo", "down"});
      int subnet = 1;
      for (const auto type : present) {
        if (type == Type::loopback) continue;
        if (!addPeer(type, subnet++, whyNot)) return false;
      }
    } catch (const std::exception& error) {
      whyNot = std::string("cannot build the test links: ") + error.what();
      return false;
    }
    if (has(Type::wifi)) {
      fakeUevent_ = "/tmp/zavlo-wifi-uevent-" + std::to_string(::getpid());
      std::ofstream(fakeUevent_) << "DEVTYPE=wlan\nINTERFACE=" << linkName(Type::wifi) << "\n";
    }
    present_ = present;
    return true;
  }

  HopOutcome hop(ZavloConnectionParameters parameters, std::optional<Type> addedWhileWaiting = std::nullopt) {
    HopOutcome outcome;
    client_->runInside([&] {
      if (!fakeUevent_.empty()) outcome.problem = fakeWifi();
      if (outcome.problem.empty()) outcome.problem = checkTypes();
      if (!outcome.problem.empty()) return;
      ZavloLinuxPlatform platform(ZavloLinuxPlatform::Options{.hostApplicationVersion = {},
                                                              .cellularInterfaces = {linkName(Type::cellular)},
                                                              .additionalTrustAnchorsPem = {}});
      auto& loop = platform.runLoop();
      std::function<void()> whenWaiting;
      if (addedWhileWaiting) {
        whenWaiting = [this, type = *addedWhileWaiting] {
          std::string whyNot;
          if (!addPeer(type, static_cast<int>(present_.size()) + 1, whyNot)) throw std::runtime_error(whyNot);
          present_.push_back(type);
        };
      }
      outcome = runHop(
          platform.makeConnection(kRulesServer, port_, std::move(parameters)), loop,
          [&loop](const std::function<bool()>& done) { loop.runUntil(done, 10s); }, whenWaiting);
    });
    for (const auto& [type, server] : servers_) {
      if (server->acceptedCount() > 0) outcome.reached.push_back(type);
    }
    return outcome;
  }

 private:
  static std::string linkName(Type type) {
    switch (type) {
      case Type::cellular:
        return "cell0";
      case Type::wifi:
        return "wl0";
      case Type::wiredEthernet:
        return "eth0";
      default:
        return "other0";
    }
  }

  bool addPeer(Type type, int subnet, std::string& whyNot) {
    auto peer = ZavloNetworkNamespace::create(whyNot, toString(type));
    if (!peer) return false;
    const auto net = "198.18." + std::to_string(subnet) + ".";
    const auto link = linkName(type);
    // Any other link is preferred by the routes over the cellular one.
    const auto metric = type == Type::cellular ? "300" : std::to_string(100 + subnet);
    client_->ip({"link", "add", link, "type", "veth", "peer", "name", "peer0", "netns", peer->name()});
    client_->ip({"addr", "add", net + "2/24", "dev", link});
    client_->ip({"link", "set", link, "up"});
    client_->ip({"route", "add", "default", "via", net + "1", "dev", link, "metric", metric});
    peer->ip({"addr", "add", net + "1/24", "dev", "peer0"});
    peer->ip({"addr", "add", std::string(kRulesServer) + "/32", "dev", "lo"});
    peer->ip({"link", "set", "peer0", "up"});
    peer->runInside([&] {
      servers_[type] = std::make_unique<ZavloTestServer>(ZavloTestServerReply::answer(kAnswer),
                                                         ZavloTestServer::Options{kRulesServer, port_, {}});
      port_ = servers_[type]->port();
    });
    peers_.push_back(std::move(peer));
    return true;
  }

  // The calling thread (and threads it starts) gets its own mount namespace and a sysfs of
  // the client namespace in which the Wi-Fi link's uevent says wlan.
  std::string fakeWifi() const {
    if (::unshare(CLONE_NEWNS) != 0) return std::string("unshare(CLONE_NEWNS): ") + std::strerror(errno);
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
      return std::string("making mounts private: ") + std::strerror(errno);
    }
    if (::mount("sysfs", "/sys", "sysfs", 0, nullptr) != 0) {
      return std::string("mounting sysfs: ") + std::strerror(errno);
    }
    const auto target = "/sys/class/net/" + linkName(Type::wifi) + "/uevent";
    if (::mount(fakeUevent_.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0) {
      return "binding " + target + ": " + std::strerror(errno);
    }
    return {};
  }

  // The classifier must see each link as the type it stands for, or the hop proves nothing.
  std::string checkTypes() const {
    const auto listed = ZavloLinuxInterfaceClassifier({linkName(Type::cellular)}).listInterfaces();
    for (const auto type : present_) {
      const auto name = type == Type::loopback ? std::string("lo") : linkName(type);
      const auto found = std::find_if(listed.begin(), listed.end(), [&](const auto& i) { return i.name == name; });
      if (found == listed.end() || found->type != type || !found->usable()) {
        return name + " is not a usable " + std::string(toString(type)) + " interface here";
      }
    }
    return {};
  }

  std::unique_ptr<ZavloNetworkNamespace> client_;
  std::vector<std::unique_ptr<ZavloNetworkNamespace>> peers_;
  std::map<Type, std::unique_ptr<ZavloTestServer>> servers_;
  std::uint16_t port_ = 0;
  std::vector<Type> present_;
  std::string fakeUevent_;
};

template <class Network>
class ZavloConnectionInterfaceRulesNamespaceTest : public ::testing::Test {
 protected:
  // A fresh network with these types present, or null with the reason.
  static std::unique_ptr<Network> networkWith(const std::vector<Type>& present, std::string& whyNot) {
    auto network = std::make_unique<Network>();
    if (!network->build(present, whyNot)) return nullptr;
    return network;
  }

  static void expectWaitingForAnInterface(const HopOutcome& hop, const std::string& description) {
    ASSERT_EQ(hop.problem, "");
    EXPECT_EQ(hop.events, (std::vector<std::string>{"preparing", "waiting", "cancelled"}));
    EXPECT_EQ(hop.stateError, (ZavloConnectionError{ENETUNREACH, description}));
    EXPECT_EQ(hop.reached, std::vector<Type>{});
  }

  static void expectReachedOnlyThroughCellular(const HopOutcome& hop) {
    ASSERT_EQ(hop.problem, "");
    EXPECT_EQ(hop.events, (std::vector<std::string>{"preparing", "ready", "sent", "received", "cancelled"}));
    EXPECT_FALSE(hop.stateError);
    EXPECT_EQ(hop.reached, std::vector<Type>{Type::cellular});
  }
};

using Networks = ::testing::Types<TestDoubleNetwork, LinuxNamespaceNetwork>;
TYPED_TEST_SUITE(ZavloConnectionInterfaceRulesNamespaceTest, Networks);

TYPED_TEST(ZavloConnectionInterfaceRulesNamespaceTest, RequiredCellularWithoutACellularLinkWaits) {
  for (const auto& present : std::vector<std::vector<Type>>{
           {Type::wifi}, {Type::wiredEthernet}, {Type::loopback}, {Type::loopback, Type::wiredEthernet, Type::wifi}}) {
    SCOPED_TRACE("present: " + ::testing::PrintToString(present));
    std::string whyNot;
    auto network = this->networkWith(present, whyNot);
    if (!network) GTEST_SKIP() << "needs network namespaces (root): " << whyNot;
    this->expectWaitingForAnInterface(network->hop(zavloCellularParameters()), "No usable cellular interface");
    // Requiring cellular is enough, even with nothing prohibited.
    auto requiredOnly = zavloCellularParameters();
    requiredOnly.prohibitedInterfaceTypes.clear();
    this->expectWaitingForAnInterface(network->hop(requiredOnly), "No usable cellular interface");
  }
}

TYPED_TEST(ZavloConnectionInterfaceRulesNamespaceTest, AWaitingConnectionGoesOnOnceACellularLinkAppears) {
  std::string whyNot;
  auto network = this->networkWith({Type::loopback, Type::wiredEthernet}, whyNot);
  if (!network) GTEST_SKIP() << "needs network namespaces (root): " << whyNot;
  const auto hop = network->hop(zavloCellularParameters(), Type::cellular);
  ASSERT_EQ(hop.problem, "");
  ASSERT_GE(hop.events.size(), 6U) << ::testing::PrintToString(hop.events);
  EXPECT_EQ(hop.events[0], "preparing");
  EXPECT_EQ(hop.events[1], "waiting");
  // A real network may change in several steps, each a try that waits again.
  EXPECT_EQ(std::vector<std::string>(hop.events.end() - 5, hop.events.end()),
            (std::vector<std::string>{"preparing", "ready", "sent", "received", "cancelled"}));
  EXPECT_EQ(std::count(hop.events.begin(), hop.events.end(), "failed"), 0);
  EXPECT_EQ(hop.reached, std::vector<Type>{Type::cellular});
}

TYPED_TEST(ZavloConnectionInterfaceRulesNamespaceTest, RequiredCellularUsesTheCellularLinkThoughRoutesPreferOthers) {
  std::string whyNot;
  auto network = this->networkWith({Type::loopback, Type::wiredEthernet, Type::wifi, Type::cellular}, whyNot);
  if (!network) GTEST_SKIP() << "needs network namespaces (root): " << whyNot;
  this->expectReachedOnlyThroughCellular(network->hop(zavloCellularParameters()));
}

TYPED_TEST(ZavloConnectionInterfaceRulesNamespaceTest, ProhibitedTypesAreSkippedEvenWhenTheyComeFirst) {
  std::string whyNot;
  auto network = this->networkWith({Type::loopback, Type::wiredEthernet, Type::wifi, Type::cellular}, whyNot);
  if (!network) GTEST_SKIP() << "needs network namespaces (root): " << whyNot;
  // Nothing required: only the prohibitions keep the connection off the other links.
  this->expectReachedOnlyThroughCellular(network->hop(prohibiting({Type::loopback, Type::wiredEthernet, Type::wifi})));
}

TYPED_TEST(ZavloConnectionInterfaceRulesNamespaceTest, OnlyProhibitedTypesPresentWaitsWithoutARequiredType) {
  std::string whyNot;
  auto network = this->networkWith({Type::loopback, Type::wiredEthernet, Type::wifi}, whyNot);
  if (!network) GTEST_SKIP() << "needs network namespaces (root): " << whyNot;
  this->expectWaitingForAnInterface(network->hop(prohibiting({Type::wifi, Type::wiredEthernet, Type::loopback})),
                                    "No usable network interface");
}

}  // namespace
