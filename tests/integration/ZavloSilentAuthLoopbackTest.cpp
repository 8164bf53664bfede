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
#include "Graph/ZavloAuthenticationGraph.hpp"
#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "tools/peers/ZavloChainServer.hpp"
#include "Testing/Network/ZavloClosedPort.hpp"
#include "tools/peers/ZavloHttpTestServer.hpp"
#include "tools/peers/ZavloTestCertificates.hpp"
#include "Telemetry/ZavloAuthLogManager.hpp"
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

TEST_F(ZavloSilentAuthLoopbackTest, ALocationIsFollowedAsWrittenOrNotAtAll) {
  ZavloChainServerOptions options;
  options.token = "after-location";
  ZavloChainServer chain(options);
  const auto found = [](const std::string& rest) {
    return ZavloTestServerReply::answer("HTTP/1.1 302 Found\r\n" + rest);
  };
  const json token = {{"httpStatusCode", 200}, {"snaToken", "after-location"}};
  const auto hostOnly = "//127.0.0.1:" + std::to_string(chain.port()) + "/chain/0/next";
  const struct {
    const char* what;
    ZavloTestServerReply reply;
    json expected;
    std::string requested;  ///< the start of the request the chain server got; empty: none
    json firstHop;          ///< entries of the first hop event's metaData
  } cases[] = {
      {"spaces are sent as plus signs", found("location: " + chain.baseUrl() + "/chain/0/a b c\r\n\r\n"), token,
       "GET /chain/0/a+b+c HTTP/1.1\r\n", json::object()},
      // 0xE9 is no UTF-8, yet the hop is followed, and its event shows the character it stands for.
      {"a redirect page in Latin-1",
       found("Content-Type: text/html; charset=iso-8859-1\r\nLocation: " + chain.baseUrl() +
             "/chain/0/next\r\n\r\n<p>Redirig\xE9</p>"),
       token,
       "GET /chain/0/next HTTP/1.1\r\n",
       {{"responseBody", "<p>Redirig\u00e9</p>"}, {"responseUrl", chain.baseUrl() + "/chain/0/next"}}},
      // A host and no scheme: a URL of its own that no hop can use, not a reference
      // resolved against the hop's URL.
      {"a host but no scheme",
       found("Location: " + hostOnly + "\r\n\r\n"),
       failure("SNA_CELLULAR_REQUEST_FAILED", "URL has no Host or Scheme"),
       "",
       {{"responseUrl", hostOnly}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const auto before = chain.recentRequests().size();
    ZavloTestServer first(c.reply);
    const auto outcome = run(url(first));
    EXPECT_EQ(outcome.only(), c.expected);
    for (const auto& [key, value] : c.firstHop.items()) EXPECT_EQ(outcome.hopMeta(0)[key], value) << key;
    const auto requests = chain.recentRequests();
    ASSERT_EQ(requests.size(), before + (c.requested.empty() ? 0 : 1));
    if (!c.requested.empty()) {
      EXPECT_EQ(requests.back().rfind(c.requested, 0), 0U) << requests.back();
    }
  }
}

TEST_F(ZavloSilentAuthLoopbackTest, FinalAnswersBecomeTheirDictionaries) {
  using Reply = ZavloTestServerReply;
  const std::string object = R"({"snaToken":"chunked-token"})";
  char size[16];
  std::snprintf(size, sizeof size, "%zx", object.size());
  const struct {
    const char* what;
    ZavloTestServerReply reply;
    json expected;
    json firstHop = json::object();  ///< entries of the hop event's metaData
  } cases[] = {
      {"a chunked 200 holding one JSON object",
       Reply::answer("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + std::string(size) + "\r\n" + object +
                     "\r\n0\r\n\r\n"),
       {{"httpStatusCode", 200}, {"snaToken", "chunked-token"}}},
      {"204, whose body is never looked at",
       Reply::answer("HTTP/1.1 204 No Content\r\n\r\n{\"snaToken\":\"ignored\"}"),
       {{"httpStatusCode", 204}}},
      {"a 4xx with a JSON body",
       Reply::answer("HTTP/1.1 401 Unauthorized\r\n\r\n{\"reason\":\"subscriber unknown\"}"),
       {{"httpStatusCode", 401}, {"reason", "subscriber unknown"}}},
      {"a 4xx without a body", Reply::answer("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n"),
       failure("SNA_CELLULAR_REQUEST_FAILED", "Unexpected HTTP Status 404")},
      {"a redirect without a Location", Reply::answer("HTTP/1.1 302 Found\r\n\r\n"),
       failure("SNA_INVALID_REDIRECT", "Invalid URL - unable to parse redirect")},
      {"a token holding a byte that is no UTF-8",
       Reply::answer("HTTP/1.1 200 OK\r\n\r\n{\"snaToken\":\"caf\xE9\"}"),
       {{"httpStatusCode", 200}, {"snaToken", "caf\u00e9"}},
       {{"responseBody", "{\"snaToken\":\"caf\u00e9\"}"}}},
      // An answer is judged on its first segment: the status line alone has no body.
      {"a status line, the rest later",
       Reply::split({"HTTP/1.1 200 OK\r\n", "\r\n{\"snaToken\":\"too-late\"}"}, 300ms),
       {{"httpStatusCode", 200}},
       {{"responseBody", ""}}},
      {"half a status line, the rest later", Reply::split({"HTTP/1.", "1 200 OK\r\n\r\n{\"snaToken\":\"x\"}"}, 300ms),
       failure("SNA_CELLULAR_REQUEST_FAILED", "Unexpected HTTP Status 0")},
      {"the end of the stream, no answer",
       Reply::split({}, 0ms),
       failure("SNA_CELLULAR_REQUEST_FAILED", "Response has no data or corrupt"),
       {{"failureReason", "Response has no data or is corrupt"}}},
      {"a reset",
       Reply::reset(),
       failure("SNA_CELLULAR_REQUEST_FAILED", "Connection reset by peer"),
       {{"failureReason", "Connection reset by peer"}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ZavloTestServer server(c.reply);
    const auto outcome = run(url(server));
    EXPECT_EQ(outcome.only(), c.expected);
    for (const auto& [key, value] : c.firstHop.items()) EXPECT_EQ(outcome.hopMeta(0)[key], value) << key;
    ASSERT_TRUE(server.waitForServed(1));
    EXPECT_EQ(server.requests().at(0),
              "GET /sna HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(server.port()) +
                  "\r\nAccept: text/html,application/json,application/xhtml+xml,application/xml,*/*\r\n"
                  "User-Agent: ZavloAuthenticationSDK/1.0\r\nConnection: close\r\n\r\n");
  }
}

TEST_F(ZavloSilentAuthLoopbackTest, AnAnswerLongerThanOneReceiveIsJudgedOnThatReceive) {
  const std::string head = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n\r\n";
  const std::size_t mebibyte = std::size_t{1} << 20;
  const struct {
    const char* what;
    std::string body;
    json expected;
  } cases[] = {
      // The object is cut where the receive ends, so it is no JSON and adds nothing.
      {"the token, then a mebibyte of padding inside the object",
       R"({"snaToken":"cut-off","padding":")" + std::string(mebibyte, 'p') + "\"}",
       {{"httpStatusCode", 200}}},
      // The object is whole within the receive; the white space after it is trimmed.
      {"a whole object, then a mebibyte of white space",
       R"({"snaToken":"whole"})" + std::string(mebibyte, ' '),
       {{"httpStatusCode", 200}, {"snaToken", "whole"}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ZavloTestServer server(ZavloTestServerReply::answer(head + c.body));
    const auto outcome = run(url(server));
    EXPECT_EQ(outcome.only(), c.expected);
    ASSERT_EQ(outcome.hops.size(), 1U);
    const auto seen = outcome.hopMeta(0)["responseBody"].get<std::string>();
    EXPECT_FALSE(seen.empty());
    EXPECT_LE(head.size() + seen.size(), 65536U);
    EXPECT_EQ(c.body.rfind(seen.substr(0, 64), 0), 0U) << "the hop saw the start of the body";
  }
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

// Closing before reading: the request may reach the closed socket first and draw a reset,
// so either ending is right, but exactly one.
TEST_F(ZavloSilentAuthLoopbackTest, APeerClosingBeforeReadingFailsTheHopOnce) {
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
