// A connection that may use either IP version races the families: an IPv6 path that
// drops packets costs the connection-attempt delay, not the 5 s time-out. Each case runs in
// a namespace of its own with lo declared cellular and "localhost" as the host, which the
// connection answers itself with ::1 first, then 127.0.0.1. Where IPv6 drops, ::1 leaves lo
// and is routed into a TUN device that nobody reads, so that its SYNs vanish.
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>

#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "Testing/Contracts/ZavloConnectionRecorder.hpp"
#include "Testing/Network/ZavloNetworkNamespace.hpp"
#include "Testing/Network/ZavloTestServer.hpp"
#include "tools/peers/ZavloTestCertificates.hpp"

using namespace std::chrono_literals;

namespace {

constexpr auto kDroppingLink = "zdrop0";

// The calling thread's TCP sockets (of one family) that are connecting or connected to port:
// a closed attempt has none.
int openSocketsTo(std::uint16_t port, bool ipv6) {
  std::ifstream table(ipv6 ? "/proc/thread-self/net/tcp6" : "/proc/thread-self/net/tcp");
  std::string line;
  std::getline(table, line);  // the heading
  int count = 0;
  while (std::getline(table, line)) {
    std::istringstream fields(line);
    std::string slot, local, remote, state;
    fields >> slot >> local >> remote >> state;
    const bool connectingOrConnected = state == "01" || state == "02";
    if (connectingOrConnected && std::stoul(remote.substr(remote.find(':') + 1), nullptr, 16) == port) ++count;
  }
  return count;
}

enum class Ipv6Path { answers, drops, acceptsButStallsTls };

TEST(ZavloDualStackNamespaceTest, TheFirstFamilyToBeReadyWinsAndTheOtherAttemptIsClosed) {
  const struct {
    const char* what;
    Ipv6Path ipv6;
    bool tls;
    const char* winner;  ///< the family whose server answers: "v4" or "v6"
    const char* key;     ///< of the time to ready in the test's XML or JSON report
  } cases[] = {
      {"IPv6 drops: IPv4 starts after the delay and wins", Ipv6Path::drops, false, "v4", "msToReadyDropped"},
      {"IPv6 drops, TLS with Fast Open", Ipv6Path::drops, true, "v4", "msToReadyDroppedTls"},
      {"IPv6 answers first", Ipv6Path::answers, false, "v6", "msToReadyAnswered"},
      {"IPv6 answers first over TLS", Ipv6Path::answers, true, "v6", "msToReadyAnsweredTls"},
      // A Fast Open connect, or a path that carries SYNs but loses larger packets, proves
      // nothing: the race lasts until a handshake is done.
      {"IPv6 accepts but its TLS handshake stalls", Ipv6Path::acceptsButStallsTls, true, "v4", "msToReadyStalledTls"},
  };
  ZavloTestCertificateAuthority authority;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::string whyNot;
    const auto ns = ZavloNetworkNamespace::create(whyNot, "race");
    if (!ns) GTEST_SKIP() << "cannot test in a network namespace: " << whyNot;
    std::unique_ptr<ZavloTunDevice> nobodyReads;
    if (c.ipv6 == Ipv6Path::drops) {
      try {
        nobodyReads = std::make_unique<ZavloTunDevice>(*ns, kDroppingLink);
      } catch (const std::exception& error) {
        GTEST_SKIP() << error.what();
      }
      ns->ip({"link", "set", kDroppingLink, "up"});
      ns->ip({"-6", "address", "add", "fd00:250::1/64", "dev", kDroppingLink, "nodad"});
      ns->ip({"-6", "address", "delete", "::1/128", "dev", "lo"});
      ns->ip({"-6", "route", "add", "::1/128", "dev", kDroppingLink});
    } else if (!ns->run([] { return ZavloTestServer::ipv6LoopbackAvailable(); })) {
      GTEST_SKIP() << "this namespace cannot listen on ::1";
    }

    std::optional<ZavloTestTlsIdentity> identity;
    if (c.tls) identity = authority.issueServerIdentity({"localhost"});
    ns->runInside([&] {
      const ZavloTestServer v4(ZavloTestServerReply::answer("HTTP/1.1 200 OK\r\n\r\nv4"), {"127.0.0.1", 0, identity});
      std::optional<ZavloTestServer> v6;
      if (c.ipv6 == Ipv6Path::answers) {
        v6.emplace(ZavloTestServerReply::answer("HTTP/1.1 200 OK\r\n\r\nv6"),
                   ZavloTestServer::Options{"::1", v4.port(), identity});
      } else if (c.ipv6 == Ipv6Path::acceptsButStallsTls) {
        v6.emplace(ZavloTestServerReply::neverAnswer(), ZavloTestServer::Options{"::1", v4.port(), {}});
      }
      ZavloLinuxPlatform platform(ZavloLinuxPlatform::Options{
          .hostApplicationVersion = {}, .cellularInterfaces = {"lo", kDroppingLink}, .additionalTrustAnchorsPem = {}});
      auto parameters = zavloCellularParameters(ZavloConnectionParameters::IpVersion::any, c.tls);
      if (c.tls) parameters.tls->additionalTrustAnchorsPem = {authority.certificatePem()};
      ASSERT_EQ(parameters.tcp.connectionTimeout, 5s);
      auto& loop = platform.runLoop();
      ZavloConnectionRecorder recorder(platform.makeConnection("localhost", v4.port(), parameters), loop);
      const auto started = std::chrono::steady_clock::now();
      recorder.start();
      loop.runUntil([&] { return recorder.has("ready") || recorder.has("failed") || recorder.has("waiting"); }, 10s);
      const auto elapsed = std::chrono::steady_clock::now() - started;
      ::testing::Test::RecordProperty(
          c.key, static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count()));
      ASSERT_EQ(recorder.events(), (std::vector<std::string>{"preparing", "ready"}));
      EXPECT_LT(elapsed, 2s) << "far below the 5 s time-out of an attempt";
      const bool ipv6Won = std::string(c.winner) == "v6";
      EXPECT_EQ(openSocketsTo(v4.port(), true), ipv6Won ? 1 : 0);
      EXPECT_EQ(openSocketsTo(v4.port(), false), ipv6Won ? 0 : 1);
      if (ipv6Won) {
        EXPECT_EQ(v4.acceptedCount(), 0U) << "IPv4 was never tried";
      }

      recorder.send("GET / HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n");
      recorder.receive(1, 65536);
      loop.runUntil([&] { return recorder.receiveCalls() > 0; }, 10s);
      EXPECT_EQ(recorder.received(), std::string("HTTP/1.1 200 OK\r\n\r\n") + c.winner);
      recorder.connection().cancel();
      EXPECT_TRUE(loop.runUntil([&] { return recorder.has("cancelled"); }, 10s));
    });
  }
}

}  // namespace
