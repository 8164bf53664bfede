// The connection contracts on the scripted test connection and on the Linux connection,
// so that the double cannot drift from the real thing: the exchange over loopback (with lo
// declared cellular), and the interface rules on links of our own in network namespaces.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <thread>

#include "Platform/Linux/Network/ZavloLinuxInterfaces.hpp"
#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "Testing/Contracts/ZavloConnectionContract.hpp"
#include "Testing/Network/ZavloNetworkNamespace.hpp"
#include "Testing/Network/ZavloTestServer.hpp"
#include "Testing/ZavloTestPlatform.hpp"

using namespace std::chrono_literals;

namespace {

struct TestDoubleDriver {
  ZavloTestPlatform platform;
  ZavloQueue& queue() { return platform.mainQueue(); }
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
  void settle() {
    platform.runLoop().runUntil([] { return false; }, 100ms);
  }
};

// The prefix names the contract in ctest's names, which keep only the prefix and the type.
using Drivers = ::testing::Types<TestDoubleDriver, LinuxDriver>;
INSTANTIATE_TYPED_TEST_SUITE_P(ConnectionContract, ZavloConnectionContract, Drivers);

// --- Interface rules: each network's links all lead to the same server address ----------

using Type = ZavloInterfaceType;

constexpr auto kRulesAnswer = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
constexpr auto kRulesServer = "198.18.0.1";
constexpr std::uint16_t kRulesPort = 80;  // the double's; the Linux servers share one free port

struct TestDoubleNetwork {
  ZavloTestPlatform platform;
  std::vector<Type> present;

  bool build(const std::vector<Type>& types, std::string& /*whyNot*/) {
    present = types;
    setPath();
    platform.connections().script(kRulesServer, kRulesPort, ZavloTestConnectionScript::answering(kRulesAnswer));
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

  ZavloHopOutcome hop(ZavloConnectionParameters parameters, std::optional<Type> addedWhileWaiting = std::nullopt) {
    auto connection = platform.connections().make(kRulesServer, kRulesPort, std::move(parameters));
    std::function<void()> whenWaiting;
    if (addedWhileWaiting) {
      whenWaiting = [this, type = *addedWhileWaiting] {
        present.push_back(type);
        setPath();
      };
    }
    auto outcome = zavloRunHop(
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

  ZavloHopOutcome hop(ZavloConnectionParameters parameters, std::optional<Type> addedWhileWaiting = std::nullopt) {
    ZavloHopOutcome outcome;
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
      outcome = zavloRunHop(
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
      servers_[type] = std::make_unique<ZavloTestServer>(ZavloTestServerReply::answer(kRulesAnswer),
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
  // A veth link is running only once the kernel has seen both ends up, a moment after the
  // commands return: it gets up to two seconds to get there.
  std::string checkTypes() const {
    std::string problem;
    for (int attempt = 0; attempt < 40; ++attempt) {
      if (attempt > 0) std::this_thread::sleep_for(std::chrono::milliseconds(50));
      problem.clear();
      const auto listed = ZavloLinuxInterfaceClassifier({linkName(Type::cellular)}).listInterfaces();
      for (const auto type : present_) {
        const auto name = type == Type::loopback ? std::string("lo") : linkName(type);
        const auto found = std::find_if(listed.begin(), listed.end(), [&](const auto& i) { return i.name == name; });
        if (found == listed.end() || found->type != type || !found->usable()) {
          problem = name + " is not a usable " + std::string(toString(type)) + " interface here";
          break;
        }
      }
      if (problem.empty()) break;
    }
    return problem;
  }

  std::unique_ptr<ZavloNetworkNamespace> client_;
  std::vector<std::unique_ptr<ZavloNetworkNamespace>> peers_;
  std::map<Type, std::unique_ptr<ZavloTestServer>> servers_;
  std::uint16_t port_ = 0;
  std::vector<Type> present_;
  std::string fakeUevent_;
};

// "Namespace" in the name: ctest runs the tests that make namespaces one at a time.
INSTANTIATE_TYPED_TEST_SUITE_P(InterfaceRulesContract, ZavloConnectionInterfaceRulesContract, TestDoubleNetwork);
INSTANTIATE_TYPED_TEST_SUITE_P(InterfaceRulesContractNamespace, ZavloConnectionInterfaceRulesContract,
                               LinuxNamespaceNetwork);

}  // namespace
