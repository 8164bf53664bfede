// Silent authentication over loopback on the real Linux platform, lo declared cellular:
// the cellular client against scripted servers and the local operator chain, hop by hop
// over real sockets, and once through the whole native object graph.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Cellular/ZavloCellularPathChecker.hpp"
#include "Telemetry/ZavloAuthHTTPManager.hpp"
#include "Telemetry/ZavloAuthLogManager.hpp"
#include "Native/ZavloAuthRequestManager.hpp"
#include "Native/ZavloAuthenticationGraph.hpp"
#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "tools/peers/ZavloChainServer.hpp"
#include "Testing/Network/ZavloClosedPort.hpp"
#include "tools/peers/ZavloHttpTestServer.hpp"
#include "tools/peers/ZavloTestCertificates.hpp"
#include "Testing/Network/ZavloTestServer.hpp"
#include "ZavloSnaChainRun.hpp"

using nlohmann::json;
using namespace std::chrono_literals;

namespace {

// Long enough for any late connection report to turn up as a second completion.
constexpr auto kLinger = 100ms;
constexpr auto kBound = 10s;

ZavloLinuxPlatform::Options loopbackCellular(std::vector<std::string> trustAnchors = {}) {
  return {
      .hostApplicationVersion = {}, .cellularInterfaces = {"lo"}, .additionalTrustAnchorsPem = std::move(trustAnchors)};
}

std::string url(const ZavloTestServer& server, const std::string& path = "/sna") {
  return "http://127.0.0.1:" + std::to_string(server.port()) + path;
}

json failure(const std::string& code, const std::string& description) {
  return {{"error", code}, {"error_description", description}};
}

// One chain, which must have completed exactly once, on the main queue.
ZavloSnaChainOutcome runChain(ZavloLinuxPlatform& platform, const std::string& text, double timeOut = 5.0) {
  auto outcome = zavloRunSnaChain(platform, text, timeOut, kLinger, kBound);
  EXPECT_TRUE(outcome.urlParsed) << text;
  EXPECT_EQ(outcome.completions.size(), 1U) << text;
  EXPECT_TRUE(outcome.allOnMainQueue());
  return outcome;
}

class ZavloSilentAuthLoopbackTest : public ::testing::Test {
 protected:
  ZavloSnaChainOutcome run(const std::string& text, double timeOut = 5.0) { return runChain(platform, text, timeOut); }

  ZavloLinuxPlatform platform{loopbackCellular()};
};

TEST_F(ZavloSilentAuthLoopbackTest, RedirectChainsWithRelativeAndAbsoluteLocationsEndWithTheToken) {
  for (const bool absolute : {false, true}) {
    SCOPED_TRACE(absolute ? "absolute Location" : "relative Location");
    ZavloChainServerOptions options;
    options.absoluteLocation = absolute;
    options.token = "chain-token";
    ZavloChainServer chain(options);
    const auto outcome = run(chain.chainUrl(4, "sna?session=s1"));
    EXPECT_EQ(outcome.only(), (json{{"httpStatusCode", 200}, {"snaToken", "chain-token"}}));

    const auto base = chain.baseUrl();
    const auto requests = chain.recentRequests();
    ASSERT_EQ(requests.size(), 4U);
    for (unsigned i = 0; i < 4; ++i) {
      const auto line = "GET /chain/" + std::to_string(3 - i) +
                        "/sna?session=s1 HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(chain.port()) + "\r\n";
      EXPECT_EQ(requests[i].rfind(line, 0), 0U) << requests[i];
    }
    ASSERT_EQ(outcome.hops.size(), 4U);
    for (unsigned i = 0; i < 3; ++i) {
      EXPECT_EQ(outcome.hopMeta(i)["httpCode"], 302);
      EXPECT_EQ(outcome.hopMeta(i)["responseUrl"], base + "/chain/" + std::to_string(2 - i) + "/sna?session=s1");
    }
    EXPECT_EQ(outcome.hopMeta(3)["responseBody"], R"({"snaToken":"chain-token"})");
  }
}

TEST_F(ZavloSilentAuthLoopbackTest, SpacesInALocationAreSentAsPlusSigns) {
  ZavloChainServerOptions options;
  options.token = "after-spaces";
  ZavloChainServer chain(options);
  ZavloTestServer first(
      ZavloTestServerReply::answer("HTTP/1.1 302 Found\r\nlocation: " + chain.baseUrl() + "/chain/0/a b c\r\n\r\n"));
  EXPECT_EQ(run(url(first)).only(), (json{{"httpStatusCode", 200}, {"snaToken", "after-spaces"}}));
  const auto requests = chain.recentRequests();
  ASSERT_EQ(requests.size(), 1U);
  EXPECT_EQ(requests[0].rfind("GET /chain/0/a+b+c HTTP/1.1\r\n", 0), 0U) << requests[0];
}

// "//host/path" has a host and no scheme, so it is a URL of its own that no hop can use,
// not a reference resolved against the hop's URL.
TEST_F(ZavloSilentAuthLoopbackTest, ALocationWithAHostButNoSchemeIsNotFollowed) {
  ZavloChainServer chain;
  const auto target = "//127.0.0.1:" + std::to_string(chain.port()) + "/chain/0/next";
  ZavloTestServer first(ZavloTestServerReply::answer("HTTP/1.1 302 Found\r\nLocation: " + target + "\r\n\r\n"));
  const auto outcome = run(url(first));
  EXPECT_EQ(outcome.only(), failure("SNA_CELLULAR_REQUEST_FAILED", "URL has no Host or Scheme"));
  ASSERT_EQ(outcome.hops.size(), 1U);
  EXPECT_EQ(outcome.hopMeta(0)["responseUrl"], target);
  EXPECT_TRUE(chain.recentRequests().empty());
}

TEST_F(ZavloSilentAuthLoopbackTest, FinalAnswersBecomeTheirDictionaries) {
  const std::string object = R"({"snaToken":"chunked-token"})";
  char size[16];
  std::snprintf(size, sizeof size, "%zx", object.size());
  const struct {
    const char* what;
    std::string answer;
    json expected;
  } cases[] = {
      {"a chunked 200 holding one JSON object",
       "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + std::string(size) + "\r\n" + object + "\r\n0\r\n\r\n",
       {{"httpStatusCode", 200}, {"snaToken", "chunked-token"}}},
      {"204, whose body is never looked at",
       "HTTP/1.1 204 No Content\r\n\r\n{\"snaToken\":\"ignored\"}",
       {{"httpStatusCode", 204}}},
      {"a 4xx with a JSON body",
       "HTTP/1.1 401 Unauthorized\r\n\r\n{\"reason\":\"subscriber unknown\"}",
       {{"httpStatusCode", 401}, {"reason", "subscriber unknown"}}},
      {"a 4xx without a body", "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n",
       failure("SNA_CELLULAR_REQUEST_FAILED", "Unexpected HTTP Status 404")},
      {"a redirect without a Location", "HTTP/1.1 302 Found\r\n\r\n",
       failure("SNA_INVALID_REDIRECT", "Invalid URL - unable to parse redirect")},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ZavloTestServer server(ZavloTestServerReply::answer(c.answer));
    EXPECT_EQ(run(url(server)).only(), c.expected);
    ASSERT_TRUE(server.waitForServed(1));
    EXPECT_EQ(server.requests().at(0),
              "GET /sna HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(server.port()) +
                  "\r\nAccept: text/html,application/json,application/xhtml+xml,application/xml,*/*\r\n"
                  "User-Agent: ZavloAuthenticationSDK/1.0\r\nConnection: close\r\n\r\n");
  }
}

TEST_F(ZavloSilentAuthLoopbackTest, ASplitAnswerIsJudgedOnItsFirstSegment) {
  // The status line alone: a 200 without a header end has no body, so no token.
  ZavloTestServer statusFirst(
      ZavloTestServerReply::split({"HTTP/1.1 200 OK\r\n", "\r\n{\"snaToken\":\"too-late\"}"}, 300ms));
  const auto outcome = run(url(statusFirst));
  EXPECT_EQ(outcome.only(), (json{{"httpStatusCode", 200}}));
  EXPECT_EQ(outcome.hopMeta(0)["responseBody"], "");

  // Half a status line: no status at all.
  ZavloTestServer halfStatus(ZavloTestServerReply::split({"HTTP/1.", "1 200 OK\r\n\r\n{\"snaToken\":\"x\"}"}, 300ms));
  EXPECT_EQ(run(url(halfStatus)).only(), failure("SNA_CELLULAR_REQUEST_FAILED", "Unexpected HTTP Status 0"));
}

TEST_F(ZavloSilentAuthLoopbackTest, AnAnswerLongerThanOneReceiveIsCutThere) {
  const std::string head = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n\r\n";
  const std::string body = R"({"snaToken":"never-seen","padding":")" + std::string(std::size_t{100} * 1024, 'p') + "\"}";
  ZavloTestServer server(ZavloTestServerReply::answer(head + body));
  const auto outcome = run(url(server));
  // The JSON object is cut, so it adds nothing; the token never arrives.
  EXPECT_EQ(outcome.only(), (json{{"httpStatusCode", 200}}));
  ASSERT_EQ(outcome.hops.size(), 1U);
  const auto seen = outcome.hopMeta(0)["responseBody"].get<std::string>();
  EXPECT_FALSE(seen.empty());
  EXPECT_LE(head.size() + seen.size(), 65536U);
  EXPECT_EQ(body.rfind(seen, 0), 0U) << "the hop saw the start of the body";
}

TEST_F(ZavloSilentAuthLoopbackTest, AServerThatNeverAnswersEndsAtTheHopTimeOut) {
  ZavloTestServer server(ZavloTestServerReply::neverAnswer());
  const auto outcome = run(url(server), 0.3);
  EXPECT_EQ(outcome.only(), failure("SNA_CONNECTION_FAILED", "Connection cancelled - time out"));
  EXPECT_GE(outcome.elapsed, 300ms);
  EXPECT_LT(outcome.elapsed, 2s);
  EXPECT_TRUE(server.waitForServed(1)) << "the request was delivered; only the answer was missing";
  EXPECT_TRUE(outcome.hops.empty()) << "a time-out is no hop";
}

TEST_F(ZavloSilentAuthLoopbackTest, AConnectionEndedWithoutAnswerOrByResetFails) {
  // Reads the request, then closes its side: the one receive finds the end of the stream.
  ZavloTestServer silent(ZavloTestServerReply::split({}, 0ms));
  const auto noData = run(url(silent));
  EXPECT_EQ(noData.only(), failure("SNA_CELLULAR_REQUEST_FAILED", "Response has no data or corrupt"));
  EXPECT_EQ(noData.hopMeta(0)["failureReason"], "Response has no data or is corrupt");

  ZavloTestServer resetting(ZavloTestServerReply::reset());
  const auto reset = run(url(resetting));
  EXPECT_EQ(reset.only(), failure("SNA_CELLULAR_REQUEST_FAILED", "Connection reset by peer"));
  EXPECT_EQ(reset.hopMeta(0)["failureReason"], "Connection reset by peer");

  // Closing before reading: the request may reach the closed socket first and draw a
  // reset, so either ending is right, but exactly one.
  ZavloTestServer closing(ZavloTestServerReply::closeAtOnce());
  const auto closed = run(url(closing));
  ASSERT_EQ(closed.completions.size(), 1U);
  EXPECT_EQ(closed.only()["error"], "SNA_CELLULAR_REQUEST_FAILED");
  const std::set<std::string> endings = {"Response has no data or corrupt", "Connection reset by peer", "Broken pipe"};
  EXPECT_TRUE(endings.contains(closed.only().value("error_description", ""))) << closed.only();
}

TEST_F(ZavloSilentAuthLoopbackTest, ARefusalWaitsForTheHopTimeOutWhileOtherFailuresEndAtOnce) {
  // Over IPv6 an IPv4 literal cannot even be tried; the fallback reaches the closed port and
  // waits there, since another path might lead to a peer that listens: the time-out ends it.
  const ZavloClosedPort closed;
  const auto refused = run("http://127.0.0.1:" + std::to_string(closed.port()) + "/sna", 0.3);
  EXPECT_EQ(refused.only(), failure("SNA_CONNECTION_FAILED", "Connection cancelled - time out"));
  EXPECT_TRUE(refused.hops.empty());

  // A special-use name that never exists: answered on the machine, no name server asked.
  const auto unknown = run("http://nonexistent.invalid/sna");
  EXPECT_EQ(unknown.only(),
            failure("SNA_CELLULAR_REQUEST_FAILED",
                    "Connection failed: The host name could not be resolved: Host not found (authoritative)"));
  EXPECT_LT(unknown.elapsed, 1s);
}

TEST_F(ZavloSilentAuthLoopbackTest, AnAnswerThatIsNotUtf8IsReadByteForByte) {
  // An operator's redirect page in Latin-1: 0xE9 is no UTF-8, yet the hop is followed, and
  // the hop event shows the page with that byte as the character it stands for.
  ZavloChainServerOptions options;
  options.token = "after-latin1";
  ZavloChainServer chain(options);
  ZavloTestServer redirecting(ZavloTestServerReply::answer(
      "HTTP/1.1 302 Found\r\nContent-Type: text/html; charset=iso-8859-1\r\nLocation: " + chain.baseUrl() +
      "/chain/0/next\r\n\r\n<p>Redirig\xE9</p>"));
  const auto followed = run(url(redirecting));
  EXPECT_EQ(followed.only(), (json{{"httpStatusCode", 200}, {"snaToken", "after-latin1"}}));
  ASSERT_EQ(followed.hops.size(), 2U);
  EXPECT_EQ(followed.hopMeta(0)["responseBody"], "<p>Redirig\u00e9</p>");
  EXPECT_EQ(followed.hopMeta(0)["responseUrl"], chain.baseUrl() + "/chain/0/next");

  // A final answer whose JSON holds such a byte: the token keeps the character.
  ZavloTestServer finalHop(ZavloTestServerReply::answer("HTTP/1.1 200 OK\r\n\r\n{\"snaToken\":\"caf\xE9\"}"));
  const auto token = run(url(finalHop));
  EXPECT_EQ(token.only(), (json{{"httpStatusCode", 200}, {"snaToken", "caf\u00e9"}}));
  EXPECT_EQ(token.hopMeta(0)["responseBody"], "{\"snaToken\":\"caf\u00e9\"}");
}

TEST(ZavloSilentAuthLoopbackTlsTest, AnAnswerWrittenInSeveralTlsRecordsIsJudgedWhole) {
  ZavloTestCertificateAuthority authority;
  ZavloLinuxPlatform trusting(loopbackCellular({authority.certificatePem()}));
  const std::string head = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n\r\n";
  const std::string padding(16, 'p');
  const struct {
    const char* what;
    std::vector<std::string> writes;
    json expected;
  } cases[] = {
      {"headers, then the body",
       {head, R"({"snaToken":"two-records"})"},
       {{"httpStatusCode", 200}, {"snaToken", "two-records"}}},
      {"headers, then the body in three records",
       {head, R"({"snaToken":"three-records","pad":")", padding, padding + "\"}"},
       {{"httpStatusCode", 200}, {"snaToken", "three-records"}, {"pad", padding + padding}}},
      {"a refusal, then its body",
       {"HTTP/1.1 401 Unauthorized\r\n\r\n", R"({"reason":"unknown"})"},
       {{"httpStatusCode", 401}, {"reason", "unknown"}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ZavloTestServer server(ZavloTestServerReply::together(c.writes),
                           ZavloTestServer::Options{
                               .address = "localhost", .port = 0, .tls = authority.issueServerIdentity({"localhost"})});
    EXPECT_EQ(runChain(trusting, "https://localhost:" + std::to_string(server.port()) + "/sna").only(), c.expected);
  }
}

TEST(ZavloSilentAuthLoopbackTlsTest, AHopOverTlsNeedsTheServersAuthorityToBeTrusted) {
  ZavloTestCertificateAuthority authority;
  ZavloTestServer server(
      ZavloTestServerReply::answer("HTTP/1.1 200 OK\r\n\r\n{\"snaToken\":\"over-tls\"}"),
      ZavloTestServer::Options{.address = "localhost", .port = 0, .tls = authority.issueServerIdentity({"localhost"})});
  const auto target = "https://localhost:" + std::to_string(server.port()) + "/";

  ZavloLinuxPlatform trusting(loopbackCellular({authority.certificatePem()}));
  EXPECT_EQ(runChain(trusting, target).only(), (json{{"httpStatusCode", 200}, {"snaToken", "over-tls"}}));
  ASSERT_TRUE(server.waitForServed(1));
  EXPECT_EQ(
      server.requests().at(0).rfind("GET / HTTP/1.1\r\nHost: localhost:" + std::to_string(server.port()) + "\r\n", 0),
      0U)
      << server.requests().at(0);
  EXPECT_EQ(server.serverNames(), std::vector<std::string>{"localhost"});

  // A refused certificate fails at once, over IPv6 and again in the fallback.
  ZavloLinuxPlatform plain(loopbackCellular());
  EXPECT_EQ(runChain(plain, target).only(),
            failure("SNA_CELLULAR_REQUEST_FAILED",
                    "Connection failed: The server's certificate could not be verified: unable to get local issuer "
                    "certificate"));
  const auto expectedHandshakes = ZavloTestServer::ipv6LoopbackAvailable() ? 2U : 1U;
  ASSERT_TRUE(server.waitForServed(1 + expectedHandshakes));
  EXPECT_EQ(server.failedHandshakes(), expectedHandshakes);
  EXPECT_EQ(server.requests().at(1), "") << "the refused handshake carried no request";
}

// ---------------------------------------------------------------------------------------
// The whole native graph on the Linux platform: real preflight (netlink), real telemetry
// (libcurl) to a loopback collector, the client over real sockets.

struct LinuxNativeGraph {
  explicit LinuxNativeGraph(std::vector<std::string> trustAnchors = {})
      : platform(loopbackCellular(std::move(trustAnchors))) {
    wrapper.setup(screen, ZavloAuthEnvironment::development);
    // Telemetry stays on this machine.
    log->configure(ZavloAuthEnvironment::development, collector.url("/auth-tracking"));
  }
  ~LinuxNativeGraph() { wrapper.cleanupAll(); }

  // Runs one call of the wrapper until its completion (and a moment longer).
  std::vector<ZavloResult<json>> call(const std::function<void(ZavloAuthenticationNativeWrapper::Completion)>& start) {
    auto results = std::make_shared<std::vector<ZavloResult<json>>>();
    start([results](ZavloResult<json> result) { results->push_back(std::move(result)); });
    EXPECT_TRUE(platform.runLoop().runUntil([&] { return !results->empty(); }, kBound));
    platform.runLoop().runUntil([] { return false; }, kLinger);
    return *results;
  }

  // The event names the collector received, in sorted order (posts run in parallel).
  std::vector<std::string> eventNames(const std::string& requestId) {
    EXPECT_TRUE(log->waitForPendingEvents(5s));
    std::vector<std::string> names;
    for (const auto& request : collector.requests()) {
      const auto event = json::parse(request.body, nullptr, false);
      EXPECT_EQ(event.value("requestId", ""), requestId) << request.body;
      names.push_back(event.value("eventName", "?"));
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  ZavloHttpTestServer collector;
  ZavloLinuxPlatform platform;
  ZavloAuthenticationGraph graph{platform};
  const std::shared_ptr<ZavloAuthLogManager>& log = graph.logManager;
  ZavloAuthenticationNativeWrapper& wrapper = graph.nativeWrapper;
  std::shared_ptr<int> screen = std::make_shared<int>(0);
};

TEST(ZavloSilentAuthLinuxGraphTest, InitAuthThenStartAuthFollowATlsChainToTheToken) {
  ZavloChainServerOptions options;
  options.tls = true;
  options.token = "graph-token";
  ZavloChainServer chain(options);
  LinuxNativeGraph graph({chain.trustAnchorPem()});

  const auto init = graph.call([&](auto done) { graph.wrapper.initAuth({{"requestId", "req-graph"}}, done); });
  ASSERT_EQ(init.size(), 1U);
  ASSERT_TRUE(init[0]) << init[0].error().errorMessage();

  const auto start = graph.call([&](auto done) { graph.wrapper.startAuth(chain.chainUrl(3), done); });
  ASSERT_EQ(start.size(), 1U);
  ASSERT_TRUE(start[0]) << start[0].error().errorMessage();
  EXPECT_EQ(start[0].value(), (json{{"status", "SUCCESS"}, {"httpStatusCode", 200}, {"snaToken", "graph-token"}}));
  EXPECT_EQ(chain.recentRequests().size(), 3U);  // recorded before each answer, unlike requestsServed()
  for (const auto& request : chain.recentRequests()) {
    EXPECT_NE(request.find("\r\nHost: localhost:" + std::to_string(chain.port()) + "\r\n"), std::string::npos);
  }

  EXPECT_EQ(graph.eventNames("req-graph"),
            (std::vector<std::string>{"INIT_AUTH", "INIT_AUTH_RESPONSE", "SNA_HOP", "SNA_HOP", "SNA_HOP", "START_AUTH",
                                      "START_AUTH_RESPONSE"}));
}

TEST(ZavloSilentAuthLinuxGraphTest, FinalStatusAndUrlCheckReachTheHostAsRecordAndException) {
  LinuxNativeGraph graph;
  const auto init = graph.call([&](auto done) { graph.wrapper.initAuth({{"requestId", "req-status"}}, done); });
  ASSERT_EQ(init.size(), 1U);
  ASSERT_TRUE(init[0]) << init[0].error().errorMessage();

  // A 4xx with a JSON body is a result with status FAILURE, not an exception.
  ZavloTestServer refusing(ZavloTestServerReply::answer("HTTP/1.1 401 Unauthorized\r\n\r\n{\"reason\":\"unknown\"}"));
  const auto refused = graph.call([&](auto done) { graph.wrapper.startAuth(url(refusing), done); });
  ASSERT_EQ(refused.size(), 1U);
  ASSERT_TRUE(refused[0]) << refused[0].error().errorMessage();
  EXPECT_EQ(refused[0].value(), (json{{"status", "FAILURE"}, {"httpStatusCode", 401}}));

  // A port out of range never makes a URL: refused at once, on the caller's thread.
  std::vector<ZavloResult<json>> badPort;
  graph.wrapper.startAuth("http://127.0.0.1:70000/sna",
                          [&](ZavloResult<json> result) { badPort.push_back(std::move(result)); });
  ASSERT_EQ(badPort.size(), 1U) << "completed before startAuth returned";
  ASSERT_FALSE(badPort[0]);
  EXPECT_EQ(badPort[0].error().errorCode(), "INVALID_SNA_URI");
  EXPECT_EQ(badPort[0].error().errorMessage(), "Invalid SNA URI provided");

  EXPECT_EQ(graph.eventNames("req-status"), (std::vector<std::string>{"INIT_AUTH", "INIT_AUTH_RESPONSE", "SNA_HOP",
                                                                      "START_AUTH", "START_AUTH_RESPONSE"}))
      << "the refused URL sends nothing";
}

}  // namespace
