// The pinning, proved on links of our own (ZavloDecoyNetwork): a client namespace with a
// link declared cellular that leads to the operator, and an Ethernet-like link that
// carries the default route to a decoy answering at the same address and port.
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>

#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "Testing/Contracts/ZavloConnectionRecorder.hpp"
#include "Testing/Network/ZavloTestServer.hpp"
#include "ZavloDecoyNetwork.hpp"

using namespace std::chrono_literals;

namespace {

constexpr auto kServerAddress = ZavloDecoyNetwork::kServerAddress;
constexpr auto kOperatorAnswer = "HTTP/1.1 200 OK\r\n\r\n{\"from\":\"operator\"}";
constexpr auto kDecoyAnswer = "HTTP/1.1 200 OK\r\n\r\n{\"from\":\"decoy\"}";

struct HopResult {
  std::vector<std::string> events;
  std::optional<ZavloConnectionError> stateError;
  std::string received;
};

// Connects, sends one GET, reads one answer and cancels, on the platform's run loop.
HopResult exchange(ZavloLinuxPlatform& platform, const std::string& host, std::uint16_t port,
                   ZavloConnectionParameters parameters) {
  HopResult result;
  ZavloConnectionRecorder recorder(platform.makeConnection(host, port, std::move(parameters)), platform.runLoop());
  auto& loop = platform.runLoop();
  recorder.start();
  loop.runUntil([&] { return recorder.has("ready") || recorder.has("failed") || recorder.has("waiting"); }, 10s);
  if (recorder.has("ready")) {
    recorder.send("GET / HTTP/1.1\r\nHost: " + host + "\r\nConnection: close\r\n\r\n");
    recorder.receive(1, 65536);
    loop.runUntil([&] { return recorder.receiveCalls() > 0; }, 10s);
  }
  recorder.connection().cancel();
  loop.runUntil([&] { return recorder.has("cancelled"); }, 10s);
  recorder.read([&](const ZavloConnectionRecorder::Log& log) {
    result.events = log.events;
    result.stateError = log.stateError;
    result.received = log.received;
    return 0;
  });
  return result;
}

class ZavloConnectionNamespaceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string whyNot;
    network = ZavloDecoyNetwork::create(whyNot);
    if (!network) GTEST_SKIP() << "cannot test in network namespaces: " << whyNot;
    network->operatorSide().runInside([&] {
      operatorServer = std::make_unique<ZavloTestServer>(ZavloTestServerReply::answer(kOperatorAnswer),
                                                         ZavloTestServer::Options{kServerAddress, 0, {}});
    });
    network->decoySide().runInside([&] {
      decoyServer =
          std::make_unique<ZavloTestServer>(ZavloTestServerReply::answer(kDecoyAnswer),
                                            ZavloTestServer::Options{kServerAddress, operatorServer->port(), {}});
    });
  }

  // One hop from inside the client namespace on a fresh platform that knows cell0 as
  // cellular.
  HopResult hopFromClient(ZavloConnectionParameters parameters = zavloCellularParameters()) {
    HopResult result;
    network->client().runInside([&] {
      ZavloLinuxPlatform::Options options;
      options.cellularInterfaces = {"cell0"};
      ZavloLinuxPlatform platform(options);
      result = exchange(platform, kServerAddress, operatorServer->port(), parameters);
    });
    return result;
  }

  std::unique_ptr<ZavloDecoyNetwork> network;
  std::unique_ptr<ZavloTestServer> operatorServer;
  std::unique_ptr<ZavloTestServer> decoyServer;
};

// The cellular link has IPv4 only: an IPv6-only connection cannot use it now or after any
// wait, so it fails at once and the client's fallback to any IP version can run.
TEST_F(ZavloConnectionNamespaceTest, AnIpVersionTheCellularLinkLacksFailsAtOnce) {
  const auto hop = hopFromClient(zavloCellularParameters(ZavloConnectionParameters::IpVersion::v6));
  EXPECT_EQ(hop.events, (std::vector<std::string>{"preparing", "failed", "cancelled"}));
  EXPECT_EQ(hop.stateError, (ZavloConnectionError{EADDRNOTAVAIL, "No usable cellular interface has an IPv6 address"}));
  EXPECT_EQ(decoyServer->acceptedCount(), 0U);
  EXPECT_EQ(operatorServer->acceptedCount(), 0U);
}

TEST_F(ZavloConnectionNamespaceTest, UnansweredConnectTimesOutOnTheCellularLink) {
  // Frames for the cellular gateway go to an address nobody has, so the SYN is lost.
  network->client().ip(
      {"neigh", "replace", "198.18.1.1", "lladdr", "02:00:00:00:00:99", "dev", "cell0", "nud", "permanent"});
  auto parameters = zavloCellularParameters();
  parameters.tcp.connectionTimeout = 1s;
  const auto hop = hopFromClient(parameters);
  ASSERT_TRUE(hop.stateError);
  EXPECT_EQ(hop.stateError->code, ETIMEDOUT);
  EXPECT_EQ(hop.stateError->localizedDescription, "Connection timed out");
  EXPECT_EQ(decoyServer->acceptedCount(), 0U);
}

// Special-use names are answered by the connection itself. Inside a namespace with no
// route anywhere, the system resolver could only fail ("try again later"), so a
// connection that works here, or fails as authoritatively unknown, asked no name server.
class ZavloConnectionSpecialNamesNamespaceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string whyNot;
    ns = ZavloNetworkNamespace::create(whyNot, "names");
    if (!ns) GTEST_SKIP() << "cannot test in a network namespace: " << whyNot;
  }

  // One hop from inside the namespace, lo declared cellular.
  HopResult hopInside(const std::string& host, std::uint16_t port, ZavloConnectionParameters::IpVersion version) {
    HopResult result;
    ns->runInside([&] {
      ZavloLinuxPlatform platform(ZavloLinuxPlatform::Options{
          .hostApplicationVersion = {}, .cellularInterfaces = {"lo"}, .additionalTrustAnchorsPem = {}});
      result = exchange(platform, host, port, zavloCellularParameters(version));
    });
    return result;
  }

  std::unique_ptr<ZavloNetworkNamespace> ns;
};

TEST_F(ZavloConnectionSpecialNamesNamespaceTest, LocalhostIsLoopbackForEitherFamilyWithoutTheResolver) {
  std::unique_ptr<ZavloTestServer> v4;
  std::unique_ptr<ZavloTestServer> v6;
  ns->runInside([&] {
    v4 = std::make_unique<ZavloTestServer>(ZavloTestServerReply::answer("HTTP/1.1 200 OK\r\n\r\nv4"));
    if (ZavloTestServer::ipv6LoopbackAvailable()) {
      v6 = std::make_unique<ZavloTestServer>(ZavloTestServerReply::answer("HTTP/1.1 200 OK\r\n\r\nv6"),
                                             ZavloTestServer::Options{.address = "::1", .port = 0, .tls = {}});
    }
  });
  using IpVersion = ZavloConnectionParameters::IpVersion;
  EXPECT_EQ(hopInside("localhost", v4->port(), IpVersion::v4).received, "HTTP/1.1 200 OK\r\n\r\nv4");
  // Any version: ::1 first, where nothing listens on this port, then 127.0.0.1.
  EXPECT_EQ(hopInside("LocalHost.", v4->port(), IpVersion::any).received, "HTTP/1.1 200 OK\r\n\r\nv4");
  if (!v6) GTEST_SKIP() << "this namespace cannot listen on ::1";
  EXPECT_EQ(hopInside("api.localhost", v6->port(), IpVersion::v6).received, "HTTP/1.1 200 OK\r\n\r\nv6");
}

TEST_F(ZavloConnectionSpecialNamesNamespaceTest, InvalidNamesFailAsUnknownWithoutTheResolver) {
  const auto hop = hopInside("nonexistent.invalid", 80, ZavloConnectionParameters::IpVersion::any);
  ASSERT_TRUE(hop.stateError);
  EXPECT_EQ(hop.stateError->code, EHOSTUNREACH);
  EXPECT_EQ(hop.stateError->localizedDescription,
            "The host name could not be resolved: Host not found (authoritative)");
  EXPECT_EQ(hop.events, (std::vector<std::string>{"preparing", "failed", "cancelled"}));
}

}  // namespace
