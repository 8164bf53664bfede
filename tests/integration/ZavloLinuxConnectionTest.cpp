// The Linux connection over loopback, with lo declared cellular so that the pinning has
// an interface to pin to.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>

#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "Testing/Contracts/ZavloConnectionRecorder.hpp"
#include "Testing/Network/ZavloClosedPort.hpp"
#include "Testing/Network/ZavloTestServer.hpp"
#include "tools/peers/ZavloTestCertificates.hpp"

using namespace std::chrono_literals;
using IpVersion = ZavloConnectionParameters::IpVersion;

namespace {

constexpr auto kRequest = "GET /auth HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n";

// The error a report carried, as one comparable text.
std::string describe(const std::optional<ZavloConnectionError>& error) {
  return error ? std::to_string(error->code) + " " + error->localizedDescription : "none";
}

// One hop to a server of its own: where it ends, with which error, and what it read.
struct HopCase {
  const char* what;
  ZavloTestServerReply reply;
  std::string host;
  ZavloConnectionParameters parameters;
  std::string ending;  ///< "ready", "waiting" or "failed"
  std::string error;   ///< the state's or else the receive's error, as describe() writes it
  std::string received;
};

class ZavloLinuxConnectionTest : public ::testing::Test {
 protected:
  explicit ZavloLinuxConnectionTest(std::vector<std::string> cellular = {"lo"})
      : platform(ZavloLinuxPlatform::Options{.hostApplicationVersion = {}, .cellularInterfaces = std::move(cellular)}) {
  }

  ZavloConnectionRecorder connect(const std::string& host, std::uint16_t port,
                                  ZavloConnectionParameters parameters = zavloCellularParameters()) {
    return ZavloConnectionRecorder(platform.makeConnection(host, port, std::move(parameters)), platform.runLoop());
  }
  bool runUntil(const std::function<bool()>& done) { return platform.runLoop().runUntil(done, 10s); }

  // Starts, and once ready sends the request and makes one receive; true once it ended
  // (or waits, which only the caller ends).
  bool hop(ZavloConnectionRecorder& recorder, std::size_t maximum = 65536) {
    recorder.start();
    if (!runUntil([&] { return recorder.has("ready") || recorder.has("failed") || recorder.has("waiting"); })) {
      return false;
    }
    if (!recorder.has("ready")) return true;
    recorder.send(kRequest);
    recorder.receive(1, maximum);
    return runUntil([&] { return recorder.receiveCalls() > 0; });
  }

  void cancel(ZavloConnectionRecorder& recorder) {
    recorder.connection().cancel();
    EXPECT_TRUE(runUntil([&] { return recorder.has("cancelled"); }));
  }

  // Runs the case against a server of its own; returns the names the server was given.
  std::vector<std::string> checkHop(const HopCase& c, const ZavloTestServer::Options& options = {}) {
    SCOPED_TRACE(c.what);
    ZavloTestServer server(c.reply, options);
    auto recorder = connect(c.host, server.port(), c.parameters);
    EXPECT_TRUE(hop(recorder));
    EXPECT_TRUE(recorder.has(c.ending));
    EXPECT_EQ(describe(recorder.stateError() ? recorder.stateError() : recorder.receiveError()), c.error);
    EXPECT_EQ(recorder.received(), c.received);
    if (c.ending == "ready") {
      EXPECT_TRUE(server.waitForServed(1));
      EXPECT_EQ(server.requests().front(), kRequest);
    } else if (c.ending == "waiting") {
      EXPECT_EQ(server.acceptedCount(), 0U) << "never connected";
    } else {
      for (const auto& request : server.requests()) EXPECT_EQ(request, "") << "no request went out";
    }
    cancel(recorder);
    return server.serverNames();
  }

  ZavloLinuxPlatform platform;
};

class ZavloLinuxConnectionWithoutCellularTest : public ZavloLinuxConnectionTest {
 protected:
  ZavloLinuxConnectionWithoutCellularTest() : ZavloLinuxConnectionTest({}) {}
};

// The states reported, with the extra tries of a waiting connection left out: whatever
// changes in this machine's network meanwhile makes it try again (preparing, waiting).
std::vector<std::string> withoutRetries(std::vector<std::string> events) {
  for (std::size_t i = 1; i + 2 < events.size();) {
    if (events[i] == "waiting" && events[i + 1] == "preparing" && events[i + 2] == "waiting") {
      events.erase(events.begin() + static_cast<std::ptrdiff_t>(i) + 1,
                   events.begin() + static_cast<std::ptrdiff_t>(i) + 3);
    } else {
      ++i;
    }
  }
  return events;
}

TEST_F(ZavloLinuxConnectionTest, AHopEndsReadyWaitingOrFailedAsItsPeerAndParametersDecide) {
  const std::string ok = "HTTP/1.1 200 OK\r\n\r\n{\"snaToken\":\"x\"}";
  const auto any = zavloCellularParameters(IpVersion::any);
  auto prohibited = zavloCellularParameters();
  prohibited.prohibitedInterfaceTypes.push_back(ZavloInterfaceType::cellular);
  const HopCase cases[] = {
      {"a plain answer", ZavloTestServerReply::answer(ok), "localhost", zavloCellularParameters(), "ready", "none", ok},
      {"a split answer: what arrived first", ZavloTestServerReply::split({"HTTP/1.1 200 OK\r\n", "\r\n{}"}, 200ms),
       "127.0.0.1", zavloCellularParameters(), "ready", "none", "HTTP/1.1 200 OK\r\n"},
      // localhost may resolve to ::1 first, where nothing listens; 127.0.0.1 must still be reached.
      {"any version tries the next address", ZavloTestServerReply::answer(ok), "localhost", any, "ready", "none", ok},
      {"a reset by the peer fails the receive", ZavloTestServerReply::reset(), "127.0.0.1", zavloCellularParameters(),
       "ready", std::to_string(ECONNRESET) + " Connection reset by peer", ""},
      {"a prohibited type is never used, even when required", ZavloTestServerReply::answer(ok), "127.0.0.1", prohibited,
       "waiting", std::to_string(ENETUNREACH) + " No usable cellular interface", ""},
  };
  for (const auto& c : cases) checkHop(c);

  auto unknown = connect("no-such-host.invalid", 80, any);
  ASSERT_TRUE(hop(unknown));
  ASSERT_TRUE(unknown.has("failed"));
  EXPECT_EQ(describe(unknown.stateError()),
            std::to_string(EHOSTUNREACH) + " The host name could not be resolved: Host not found (authoritative)");
  cancel(unknown);
}

// The first receive meets the end of the stream: complete, without data or error.
TEST_F(ZavloLinuxConnectionTest, APeerEndingTheStreamCompletesTheReceiveWithoutData) {
  ZavloTestServer server(ZavloTestServerReply::split({}, 0ms));
  auto recorder = connect("127.0.0.1", server.port());
  ASSERT_TRUE(hop(recorder));
  EXPECT_EQ(recorder.received(), "");
  EXPECT_TRUE(recorder.read([](const auto& log) { return log.receivedComplete && !log.receiveError; }));
  cancel(recorder);
}

// Another path might lead to a peer that listens, so a refusal is waited through: only
// the caller ends it. What was asked meanwhile waits for ready and goes with the cancel.
TEST_F(ZavloLinuxConnectionTest, RefusedConnectionWaitsUntilCancelled) {
  const ZavloClosedPort closed;
  auto recorder = connect("127.0.0.1", closed.port());
  ASSERT_TRUE(hop(recorder));
  ASSERT_TRUE(recorder.has("waiting"));
  EXPECT_EQ(recorder.stateError()->code, ECONNREFUSED);
  EXPECT_EQ(recorder.stateError()->localizedDescription, "Connection refused");
  recorder.send(kRequest);
  recorder.receive(1, 65536);
  platform.runLoop().runUntil([] { return false; }, 100ms);
  EXPECT_EQ(withoutRetries(recorder.events()), (std::vector<std::string>{"preparing", "waiting"}));
  std::weak_ptr<ZavloConnection> weak = recorder.shared();
  cancel(recorder);
  platform.runLoop().runUntil([] { return false; }, 50ms);
  EXPECT_EQ(withoutRetries(recorder.events()), (std::vector<std::string>{"preparing", "waiting", "cancelled"}));
  EXPECT_EQ(weak.use_count(), 1) << "a cancelled waiting connection keeps nothing of itself alive";
}

TEST_F(ZavloLinuxConnectionTest, SilentServerLeavesTheReceivePendingUntilCancelled) {
  ZavloTestServer server(ZavloTestServerReply::neverAnswer());
  auto recorder = connect("127.0.0.1", server.port());
  recorder.start();
  ASSERT_TRUE(runUntil([&] { return recorder.has("ready"); }));
  recorder.send(kRequest);
  recorder.receive(1, 65536);
  ASSERT_TRUE(server.waitForServed(1));
  platform.runLoop().runUntil([] { return false; }, 200ms);
  EXPECT_EQ(recorder.receiveCalls(), 0U);
  std::weak_ptr<ZavloConnection> weak = recorder.shared();
  cancel(recorder);
  platform.runLoop().runUntil([] { return false; }, 100ms);
  EXPECT_EQ(recorder.events(), (std::vector<std::string>{"preparing", "ready", "sent", "cancelled"}));
  // Only the recorder holds it now: a cancelled connection keeps nothing of itself alive.
  EXPECT_EQ(weak.use_count(), 1);
}

TEST_F(ZavloLinuxConnectionWithoutCellularTest, NoCellularInterfaceWaitsWithoutConnecting) {
  ZavloTestServer server(ZavloTestServerReply::answer("HTTP/1.1 200 OK\r\n\r\n"));
  auto recorder = connect("127.0.0.1", server.port());
  ASSERT_TRUE(hop(recorder));
  ASSERT_TRUE(recorder.has("waiting"));
  EXPECT_EQ(recorder.stateError(), (ZavloConnectionError{ENETUNREACH, "No usable cellular interface"}));
  EXPECT_EQ(server.acceptedCount(), 0U);
  cancel(recorder);
  EXPECT_EQ(withoutRetries(recorder.events()), (std::vector<std::string>{"preparing", "waiting", "cancelled"}));
}

TEST_F(ZavloLinuxConnectionTest, IpVersionChoosesTheAddressFamily) {
  if (!ZavloTestServer::ipv6LoopbackAvailable()) GTEST_SKIP() << "this machine cannot listen on ::1";
  ZavloTestServer server(ZavloTestServerReply::answer("HTTP/1.1 204 No Content\r\n\r\n"),
                         ZavloTestServer::Options{.address = "::1", .port = 0, .tls = {}});
  auto overV6 = connect("[::1]", server.port(), zavloCellularParameters(IpVersion::v6));
  ASSERT_TRUE(hop(overV6));
  EXPECT_EQ(overV6.received(), "HTTP/1.1 204 No Content\r\n\r\n");
  cancel(overV6);

  auto v4Only = connect("::1", server.port(), zavloCellularParameters(IpVersion::v4));
  ASSERT_TRUE(hop(v4Only));
  ASSERT_TRUE(v4Only.has("failed"));
  EXPECT_EQ(v4Only.stateError()->code, EAFNOSUPPORT);
  cancel(v4Only);
  EXPECT_EQ(server.acceptedCount(), 1U);
}

// The first connection of a platform has no interface list yet and learns the failure from
// the I/O thread; later ones learn it when they start. Both must look the same to the caller,
// sends and receives made before the start included.
TEST_F(ZavloLinuxConnectionTest, ALiteralOfAnExcludedFamilyFailsTheSameWithOrWithoutARecentInterfaceList) {
  ZavloTestServer server(ZavloTestServerReply::answer("HTTP/1.1 200 OK\r\n\r\n"));
  const auto excluded = [&] {
    auto recorder = connect("127.0.0.1", server.port(), zavloCellularParameters(IpVersion::v6));
    recorder.send(kRequest);
    recorder.receive(1, 65536);
    recorder.start();
    EXPECT_TRUE(runUntil([&] { return recorder.receiveCalls() > 0; }));
    EXPECT_EQ(recorder.events(), (std::vector<std::string>{"preparing", "failed", "send failed", "receive failed"}));
    const ZavloConnectionError expected{EAFNOSUPPORT, std::strerror(EAFNOSUPPORT)};
    EXPECT_EQ(recorder.stateError(), expected);
    EXPECT_EQ(recorder.read([](const auto& log) { return log.sendError; }), expected);
    EXPECT_EQ(recorder.receiveError(), expected);
    EXPECT_FALSE(recorder.offQueue());
    std::weak_ptr<ZavloConnection> weak = recorder.shared();
    cancel(recorder);
    EXPECT_EQ(recorder.events().back(), "cancelled");
    platform.runLoop().runUntil([] { return false; }, 50ms);
    EXPECT_EQ(weak.use_count(), 1) << "a failed connection keeps nothing of itself alive";
  };
  excluded();  // a fresh platform: the I/O thread lists the interfaces first

  auto reachable = connect("127.0.0.1", server.port(), zavloCellularParameters(IpVersion::v4));
  ASSERT_TRUE(hop(reachable));
  EXPECT_EQ(reachable.received(), "HTTP/1.1 200 OK\r\n\r\n");
  cancel(reachable);
  excluded();  // the list that connection made is recent

  // Cancelled at once: the failure decided at the start never reaches the caller.
  auto cancelled = connect("127.0.0.1", server.port(), zavloCellularParameters(IpVersion::v6));
  cancelled.start();
  cancelled.connection().cancel();
  EXPECT_TRUE(runUntil([&] { return cancelled.has("cancelled"); }));
  platform.runLoop().runUntil([] { return false; }, 50ms);
  EXPECT_EQ(cancelled.events(), (std::vector<std::string>{"cancelled"}));
  EXPECT_EQ(server.acceptedCount(), 1U);
}

TEST_F(ZavloLinuxConnectionTest, CancelAtAnyMomentNeverReportsAfterCancelled) {
  // Cancel after a growing number of loop turns, so that it lands in resolving, connecting,
  // handshaking and reading; each must end with exactly one `cancelled`, last.
  ZavloTestCertificateAuthority authority;
  ZavloTestServer server(
      ZavloTestServerReply::answer("HTTP/1.1 200 OK\r\n\r\n"),
      ZavloTestServer::Options{
          .address = "127.0.0.1", .port = 0, .tls = authority.issueServerIdentity({"localhost", "127.0.0.1"})});
  for (int turns = 0; turns < 12; ++turns) {
    auto parameters = zavloCellularParameters(IpVersion::v4, true);
    parameters.tls->additionalTrustAnchorsPem = {authority.certificatePem()};
    auto recorder = connect("localhost", server.port(), parameters);
    recorder.start();
    recorder.send(kRequest);
    recorder.receive(1, 65536);
    for (int i = 0; i < turns; ++i) {
      platform.runLoop().runUntil([] { return false; }, std::chrono::microseconds(200 * i));
    }
    recorder.connection().cancel();
    ASSERT_TRUE(runUntil([&] { return recorder.has("cancelled"); }));
    platform.runLoop().runUntil([] { return false; }, 20ms);
    const auto events = recorder.events();
    EXPECT_EQ(std::count(events.begin(), events.end(), "cancelled"), 1) << turns;
    EXPECT_EQ(events.back(), "cancelled") << turns;
  }
}

TEST_F(ZavloLinuxConnectionTest, CancelFromAnotherThreadEndsCleanlyWhateverTheConnectionIsDoing) {
  ZavloTestServer server(ZavloTestServerReply::neverAnswer());
  for (int round = 0; round < 20; ++round) {
    // Odd rounds race the families: ::1, refused, then 127.0.0.1 at once.
    const bool racing = round % 2 == 1;
    auto recorder = connect(racing ? "localhost" : "127.0.0.1", server.port(),
                            zavloCellularParameters(racing ? IpVersion::any : IpVersion::v4));
    recorder.start();
    recorder.send(kRequest);
    recorder.receive(1, 65536);
    std::thread canceller([&recorder, delay = std::chrono::microseconds(50 * round)] {
      std::this_thread::sleep_for(delay);
      recorder.connection().cancel();
    });
    const bool cancelled = runUntil([&] { return recorder.has("cancelled"); });
    canceller.join();
    ASSERT_TRUE(cancelled) << round;
    platform.runLoop().runUntil([] { return false; }, 5ms);
    const auto events = recorder.events();
    EXPECT_EQ(std::count(events.begin(), events.end(), "cancelled"), 1) << round;
    EXPECT_EQ(events.back(), "cancelled") << round;
    EXPECT_FALSE(recorder.offQueue());
  }
}

TEST(ZavloLinuxConnectionLifetime, PlatformMayGoWhileConnectionsAreInFlight) {
  ZavloTestServer server(ZavloTestServerReply::neverAnswer());
  std::shared_ptr<ZavloConnection> survivor;
  {
    ZavloLinuxPlatform platform(
        ZavloLinuxPlatform::Options{.hostApplicationVersion = {}, .cellularInterfaces = {"lo"}});
    survivor = platform.makeConnection("127.0.0.1", server.port(), zavloCellularParameters());
    auto other = platform.makeConnection("127.0.0.1", server.port(), zavloCellularParameters());
    survivor->start(platform.runLoop());
    other->start(platform.runLoop());
    other->receive(1, 10, [](auto, bool, const auto&) {});
    platform.runLoop().runUntil([] { return false; }, 20ms);
  }
  // The service is gone: the connection reports nothing and stays safe to use and drop.
  survivor->send({1, 2, 3}, [](const auto&) { ADD_FAILURE() << "no report after the platform went"; });
  survivor->cancel();
  survivor.reset();
}

// --- TLS

class ZavloLinuxTlsConnectionTest : public ZavloLinuxConnectionTest {
 protected:
  ZavloConnectionParameters tlsParameters(bool withTestAnchor = true) {
    auto parameters = zavloCellularParameters(IpVersion::v4, true);
    if (withTestAnchor) parameters.tls->additionalTrustAnchorsPem = {authority.certificatePem()};
    return parameters;
  }
  ZavloTestServer::Options serverFor(const std::vector<std::string>& names) {
    return {.address = "127.0.0.1", .port = 0, .tls = authority.issueServerIdentity(names)};
  }

  ZavloTestCertificateAuthority authority;
};

TEST_F(ZavloLinuxTlsConnectionTest, TheServerIsVerifiedByNameOrAddressAgainstTheAnchorsGiven) {
  const std::string ok = "HTTP/1.1 200 OK\r\n\r\n{}";
  const std::string unverified = std::to_string(EPROTO) + " The server's certificate could not be verified: ";
  const std::vector<std::string> localhost = {"localhost"};
  const struct {
    HopCase hop;
    std::vector<std::string> names;  ///< the server certificate's
  } cases[] = {
      {{"a name with the test anchor", ZavloTestServerReply::answer(ok), "localhost", tlsParameters(), "ready", "none",
        ok},
       localhost},
      {{"an address, checked against the certificate's address entries", ZavloTestServerReply::answer(ok), "127.0.0.1",
        tlsParameters(), "ready", "none", ok},
       {"localhost", "127.0.0.1"}},
      {{"without the test anchor", ZavloTestServerReply::answer(ok), "localhost", tlsParameters(false), "failed",
        unverified + "unable to get local issuer certificate", ""},
       localhost},
      {{"a certificate for another name", ZavloTestServerReply::answer(ok), "localhost", tlsParameters(), "failed",
        unverified + "hostname mismatch", ""},
       {"operator.example"}},
  };
  std::vector<std::vector<std::string>> serverNames;
  for (const auto& c : cases) serverNames.push_back(checkHop(c.hop, serverFor(c.names)));
  EXPECT_EQ(serverNames[0], localhost) << "the name goes with the handshake";

  auto badAnchor = tlsParameters();
  badAnchor.tls->additionalTrustAnchorsPem = {"not a certificate"};
  auto refused = connect("localhost", 443, badAnchor);
  ASSERT_TRUE(hop(refused));
  ASSERT_TRUE(refused.has("failed"));
  EXPECT_EQ(refused.stateError()->code, EINVAL);
  cancel(refused);
}

TEST_F(ZavloLinuxTlsConnectionTest, OneReceiveTakesEveryRecordThatHasArrivedUpToTheMaximum) {
  const std::string head = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n\r\n";
  const std::string token = R"({"snaToken":"split"})";
  // Three body records of 9 KiB: more than a TLS stream takes from the socket in one read,
  // so the last ones are still in the socket when the first record is decrypted.
  const std::string padding(std::size_t{9} * 1024, 'p');
  const std::vector<std::string> bodyParts = {R"({"snaToken":"three","a":")" + padding, padding, padding + "\"}"};
  const struct {
    const char* what;
    std::vector<std::string> writes;
  } cases[] = {
      {"headers and body in two records", {head, token}},
      {"the body in three records", {head, bodyParts[0], bodyParts[1], bodyParts[2]}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ZavloTestServer server(ZavloTestServerReply::together(c.writes), serverFor({"localhost"}));
    std::string whole;
    for (const auto& part : c.writes) whole += part;
    auto recorder = connect("localhost", server.port(), tlsParameters());
    ASSERT_TRUE(hop(recorder));
    const auto received = recorder.received();
    EXPECT_EQ(received.size(), whole.size());
    EXPECT_TRUE(received == whole) << received.substr(0, 80);
    EXPECT_EQ(recorder.receiveCalls(), 1U);
    cancel(recorder);
  }

  // The maximum still bounds one receive; the rest waits for the next.
  ZavloTestServer server(ZavloTestServerReply::together({head, token}), serverFor({"localhost"}));
  auto recorder = connect("localhost", server.port(), tlsParameters());
  ASSERT_TRUE(hop(recorder, head.size() + 5));
  EXPECT_EQ(recorder.received(), head + token.substr(0, 5));
  recorder.receive(1, 65536);
  ASSERT_TRUE(runUntil([&] { return recorder.receiveCalls() > 1; }));
  EXPECT_EQ(recorder.received(), head + token);
  cancel(recorder);
}

TEST_F(ZavloLinuxTlsConnectionTest, LaterConnectionToTheSameServerResumesTheSession) {
  ZavloTestServer server(ZavloTestServerReply::answer("HTTP/1.1 200 OK\r\n\r\n{}"), serverFor({"localhost"}));
  for (int round = 0; round < 2; ++round) {
    auto recorder = connect("localhost", server.port(), tlsParameters());
    recorder.start();
    recorder.send(kRequest);
    // Read to the end, so that the session tickets sent after the handshake are taken in.
    for (int reads = 0; reads < 10 && !recorder.read([](const auto& log) { return log.receivedComplete; }); ++reads) {
      const auto before = recorder.receiveCalls();
      recorder.receive(1, 65536);
      ASSERT_TRUE(runUntil([&] { return recorder.receiveCalls() > before; })) << recorder.events().back();
    }
    EXPECT_EQ(recorder.received(), "HTTP/1.1 200 OK\r\n\r\n{}");
    cancel(recorder);
  }
  ASSERT_TRUE(server.waitForServed(2));
  EXPECT_EQ(server.resumedHandshakes(), 1U);
}

}  // namespace

TEST(ZavloChooseBinding, PinsToAUsableInterfaceOfTheRequiredTypeAndNeverAProhibitedOne) {
  using Type = ZavloInterfaceType;
  const std::vector<ZavloLinuxInterface> interfaces = {
      {"lo", 1, Type::loopback, true, true, true},      {"eth0", 2, Type::wiredEthernet, true, true, true},
      {"wwan0", 3, Type::cellular, false, true, true},   // down
      {"wwan1", 4, Type::cellular, true, true, false},   // IPv4 only
      {"rmnet0", 5, Type::cellular, true, false, true},  // IPv6 only
  };
  const auto cellular = zavloCellularParameters();
  EXPECT_EQ(zavloChooseBinding(interfaces, cellular, false).interfaceName, "wwan1");
  EXPECT_EQ(zavloChooseBinding(interfaces, cellular, true).interfaceName, "rmnet0");

  auto forbidden = cellular;
  forbidden.prohibitedInterfaceTypes.push_back(Type::cellular);
  EXPECT_EQ(zavloChooseBinding(interfaces, forbidden, false).kind, ZavloLinuxBinding::Kind::none);

  ZavloConnectionParameters onlyProhibitions;
  onlyProhibitions.prohibitedInterfaceTypes = {Type::loopback};
  EXPECT_EQ(zavloChooseBinding(interfaces, onlyProhibitions, false).interfaceName, "eth0");
  EXPECT_EQ(zavloChooseBinding(interfaces, ZavloConnectionParameters{}, false).kind, ZavloLinuxBinding::Kind::unbound);
}

TEST(ZavloLinuxSpecialUseNameTest, OnlyLocalhostAndInvalidAndNamesUnderThemAreSpecial) {
  using Name = ZavloLinuxSpecialName;
  for (const auto* host : {"localhost", "LOCALHOST", "localhost.", "a.b.localhost", "x.LocalHost."}) {
    EXPECT_EQ(zavloSpecialUseName(host), Name::localhost) << host;
  }
  for (const auto* host : {"invalid", "nonexistent.invalid", "a.INVALID."}) {
    EXPECT_EQ(zavloSpecialUseName(host), Name::invalid) << host;
  }
  for (const auto* host : {"", ".", "notlocalhost", "localhost.example", "myinvalid", "invalid.example", "127.0.0.1",
                           "localhostx", "example.com"}) {
    EXPECT_EQ(zavloSpecialUseName(host), Name::none) << host;
  }
}

// Addresses as the resolver gave them (IPv6 has a colon), and the order they are raced in.
TEST(ZavloInterleaveFamiliesTest, TheFirstAddressFamilyStartsThenTheFamiliesAlternateEachInItsOwnOrder) {
  using Addresses = std::vector<std::string>;
  const struct {
    Addresses resolved;
    Addresses raced;
  } cases[] = {
      {{"6a::", "6b::", "4a", "4b", "4c"}, {"6a::", "4a", "6b::", "4b", "4c"}},
      {{"4a", "6a::", "6b::", "6c::"}, {"4a", "6a::", "6b::", "6c::"}},
      {{"4a", "4b", "6a::", "4c"}, {"4a", "6a::", "4b", "4c"}},
      {{"6a::", "6b::"}, {"6a::", "6b::"}},
      {{}, {}},
  };
  const auto isIpv6 = [](const std::string& address) { return address.find(':') != std::string::npos; };
  for (const auto& c : cases) {
    EXPECT_EQ(zavloInterleaveFamilies(c.resolved, isIpv6), c.raced) << ::testing::PrintToString(c.resolved);
  }
}
