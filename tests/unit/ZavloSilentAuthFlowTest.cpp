// Silent authentication end to end on the test platform: the wrapper, the session, the
// preflight, the cellular client hop by hop over scripted connections, telemetry.
#include <gtest/gtest.h>

#include "Cellular/ZavloCellularPathChecker.hpp"
#include "ZavloNativeGraph.hpp"

using nlohmann::json;
using namespace std::chrono_literals;
using IpVersion = ZavloConnectionParameters::IpVersion;
using Script = ZavloTestConnectionScript;

namespace {

class ZavloSilentAuthFlow : public ::testing::Test {
 protected:
  void SetUp() override {
    graph.wrapper.setup(graph.screen, ZavloAuthEnvironment::development);
    ZavloCompletions started;
    graph.wrapper.initAuth({{"requestId", "req-1"}}, started.collect(graph.platform));
    graph.platform.runUntilIdle();
    ASSERT_TRUE(started.results.at(0));
  }

  /// Runs startAuth to its end on virtual time and returns every completion it made.
  ZavloCompletions start(const std::string& url, ZavloQueue::Duration span = 0s) {
    ZavloCompletions done;
    graph.wrapper.startAuth(url, done.collect(graph.platform));
    graph.platform.runUntilIdle();
    if (span > 0s) graph.platform.advanceBy(span);
    return done;
  }

  /// Events of the silent authentication only (after the session start).
  std::vector<json> flowEvents() {
    auto events = graph.events();
    events.erase(events.begin(), events.begin() + 2);
    return events;
  }

  ZavloNativeGraph graph;
};

ZavloConnectionError refused() { return {111, "Connection refused"}; }

}  // namespace

TEST_F(ZavloSilentAuthFlow, FollowsRedirectsOverCellularOnlyConnectionsToTheToken) {
  auto& connections = graph.platform.connections();
  connections.script("op.test", 80,
                     Script::answering("HTTP/1.1 302 Found\r\nLocation: https://op.test:8443/b?x=1\r\n\r\n"));
  connections.script("op.test", 8443, Script::answering("HTTP/1.1 200 OK\r\n\r\n{\"snaToken\":\"tok\"}"));
  const auto done = start("  http://op.test/start\n");

  ASSERT_EQ(done.results.size(), 1U);
  EXPECT_TRUE(done.onMainQueue[0]);
  ASSERT_TRUE(done.results[0]) << done.results[0].error().errorMessage();
  EXPECT_EQ(done.results[0].value(), (json{{"status", "SUCCESS"}, {"httpStatusCode", 200}, {"snaToken", "tok"}}));

  const auto all = connections.all();
  ASSERT_EQ(all.size(), 2U);
  EXPECT_EQ(all[0]->sentText(),
            "GET /start HTTP/1.1\r\nHost: op.test\r\n"
            "Accept: text/html,application/json,application/xhtml+xml,application/xml,*/*\r\n"
            "User-Agent: ZavloAuthenticationSDK/1.0\r\nConnection: close\r\n\r\n");
  EXPECT_EQ(all[1]->sentText().rfind("GET /b?x=1 HTTP/1.1\r\nHost: op.test:8443\r\n", 0), 0U) << all[1]->sentText();
  for (const auto& connection : all) {
    const auto& parameters = connection->parameters();
    EXPECT_EQ(parameters.requiredInterfaceType, ZavloInterfaceType::cellular);
    EXPECT_EQ(parameters.prohibitedInterfaceTypes,
              (std::vector<ZavloInterfaceType>{ZavloInterfaceType::wifi, ZavloInterfaceType::loopback,
                                               ZavloInterfaceType::wiredEthernet}));
    EXPECT_EQ(parameters.serviceClass, ZavloConnectionParameters::ServiceClass::responsiveData);
    EXPECT_EQ(parameters.tcp.connectionTimeout, 5s);
    EXPECT_FALSE(parameters.tcp.enableKeepalive);
    EXPECT_EQ(parameters.ipVersion, IpVersion::v6);
    EXPECT_TRUE(connection->wasCancelled()) << "every hop's connection is closed by the client";
  }
  EXPECT_FALSE(all[0]->parameters().tls);
  EXPECT_FALSE(all[0]->parameters().tcp.enableFastOpen);
  EXPECT_TRUE(all[1]->parameters().tls);
  EXPECT_TRUE(all[1]->parameters().tcp.enableFastOpen);

  const auto events = flowEvents();
  ASSERT_EQ(events.size(), 4U);
  EXPECT_EQ(events[0].at("eventName"), "START_AUTH");
  EXPECT_EQ(events[0].at("authType"), "SNA");
  EXPECT_EQ(events[0].at("requestId"), "req-1");
  EXPECT_EQ(events[0].at("metaData").at("deviceType"), "iOS");
  EXPECT_EQ(events[1].at("eventName"), "SNA_HOP");
  EXPECT_EQ(events[1].at("metaData").at("responseUrl"), "https://op.test:8443/b?x=1");
  EXPECT_EQ(events[2].at("metaData").at("httpCode"), 200);
  EXPECT_EQ(events[3].at("eventName"), "START_AUTH_RESPONSE");
  EXPECT_EQ(events[3].at("status"), "SUCCESS");
  EXPECT_EQ(events[3].at("metaData"), (json{{"httpStatusCode", 200}, {"snaToken", "tok"}, {"sdkVersion", "1.1.1"}}));
}

TEST_F(ZavloSilentAuthFlow, BadUrlsAndMissingSessionsFailAtOnceWithoutTelemetry) {
  for (const auto* url :
       {"", "   \n", "ftp://op.test/x", "no url at all", "op.test/path", "http://op.test:99999/", "//op.test/x"}) {
    ZavloCompletions done;
    graph.wrapper.startSNA(url, done.collect(graph.platform));
    ASSERT_EQ(done.results.size(), 1U) << url;
    EXPECT_EQ(done.results[0].error(), ZavloAuthException::failure("INVALID_SNA_URI", "Invalid SNA URI provided"))
        << url;
  }
  graph.requests->clearSession();
  ZavloCompletions done;
  graph.wrapper.startAuth("http://op.test/", done.collect(graph.platform));
  ASSERT_EQ(done.results.size(), 1U);
  EXPECT_EQ(done.results[0].error().errorCode(), "SESSION_NOT_INITIALIZED");
  graph.platform.runUntilIdle();
  EXPECT_TRUE(flowEvents().empty());
  EXPECT_EQ(graph.platform.connections().count(), 0U);
}

// A URL with a scheme but no host passes the URL check: the flow runs (events, preflight)
// and the client refuses it before any connection.
TEST_F(ZavloSilentAuthFlow, AUrlWithoutAHostEndsInTheClientAfterTheStartEventAndThePreflight) {
  const auto monitorsBefore = graph.platform.pathMonitors().startedCount();
  for (const auto* url : {"http://", "https:///path"}) {
    const auto done = start(url);
    ASSERT_EQ(done.results.size(), 1U) << url;
    EXPECT_EQ(done.results[0].error(),
              ZavloAuthException::failure("SNA_CELLULAR_REQUEST_FAILED", "No scheme or host found"))
        << url;
  }
  EXPECT_EQ(graph.platform.pathMonitors().startedCount(), monitorsBefore + 2) << "one preflight per call";
  EXPECT_EQ(graph.platform.connections().count(), 0U);
  const auto events = flowEvents();
  ASSERT_EQ(events.size(), 4U);
  EXPECT_EQ(events[0].at("eventName"), "START_AUTH");
  EXPECT_EQ(events[1].at("eventName"), "START_AUTH_RESPONSE");
  EXPECT_EQ(events[1].at("failureReason"), "No scheme or host found");
  EXPECT_EQ(events[1].at("metaData").at("errorCode"), "SNA_CELLULAR_REQUEST_FAILED");
}

// The URL check reads the scheme in lower case; the connection is made only for a scheme
// that begins with "http" as written.
TEST_F(ZavloSilentAuthFlow, ASchemeInCapitalsPassesTheCheckButMakesNoConnection) {
  graph.platform.connections().script("op.test", 443, Script::answering("HTTP/1.1 200 OK\r\n\r\n{\"snaToken\":\"t\"}"));
  const auto done = start(" HTTPS://op.test/x ");
  ASSERT_EQ(done.results.size(), 1U);
  EXPECT_EQ(done.results[0].error(),
            ZavloAuthException::failure("SNA_CONNECTION_FAILED", "Problem creating a connection HTTPS://op.test/x"));
  EXPECT_EQ(graph.platform.connections().count(), 0U);
  const auto events = flowEvents();
  ASSERT_EQ(events.size(), 2U) << "no hop";
  EXPECT_EQ(events[0].at("eventName"), "START_AUTH");
  EXPECT_EQ(events[1].at("metaData").at("errorCode"), "SNA_CONNECTION_FAILED");
}

// "//host/path" names a host and no scheme: a URL in its own right, not a reference the
// client resolves against the hop's URL.
TEST_F(ZavloSilentAuthFlow, ALocationWithAHostButNoSchemeEndsTheChain) {
  auto& connections = graph.platform.connections();
  // Resolved against the hop's URL, the Location would lead to the token.
  connections.scriptNext("op.test", 80, Script::answering("HTTP/1.1 302 Found\r\nLocation: //op.test/next\r\n\r\n"));
  connections.script("op.test", 80, Script::answering("HTTP/1.1 200 OK\r\n\r\n{\"snaToken\":\"t\"}"));
  const auto done = start("http://op.test/");
  ASSERT_EQ(done.results.size(), 1U);
  EXPECT_EQ(done.results[0].error(),
            ZavloAuthException::failure("SNA_CELLULAR_REQUEST_FAILED", "URL has no Host or Scheme"));
  EXPECT_EQ(connections.count(), 1U);
  const auto events = flowEvents();
  ASSERT_EQ(events.size(), 3U);
  EXPECT_EQ(events[1].at("eventName"), "SNA_HOP");
  EXPECT_EQ(events[1].at("metaData").at("responseUrl"), "//op.test/next");
  EXPECT_EQ(events[2].at("metaData").at("errorMessage"), "URL has no Host or Scheme");
}

TEST_F(ZavloSilentAuthFlow, FallsBackOnceFromIPv6ToAnyVersion) {
  auto& connections = graph.platform.connections();
  connections.script("op.test", 80, Script::failing(refused()), IpVersion::v6);
  connections.script("op.test", 80, Script::answering("HTTP/1.1 200 OK\r\n\r\n{\"snaToken\":\"t\"}"), IpVersion::any);
  auto done = start("http://op.test/");
  ASSERT_EQ(done.results.size(), 1U);
  EXPECT_TRUE(done.results[0]);
  ASSERT_EQ(connections.count(), 2U);
  EXPECT_EQ(connections.all()[1]->parameters().ipVersion, IpVersion::any);

  connections.script("op.test", 80, Script::failing(refused()), IpVersion::any);
  done = start("http://op.test/");
  ASSERT_EQ(done.results.size(), 1U);
  EXPECT_EQ(done.results[0].error(),
            ZavloAuthException::failure("SNA_CELLULAR_REQUEST_FAILED", "Connection failed: Connection refused"));
  EXPECT_EQ(connections.count(), 4U) << "one fallback per hop, no more";
}

// A cancellation ends the chain where it is: given before the chain starts, no connection
// is made; while the operator holds a hop, that hop's connection is cancelled. Either way the
// completion reports the hop as failed, once, and no later hop runs.
TEST_F(ZavloSilentAuthFlow, ACancelledChainEndsWhereItIs) {
  auto& connections = graph.platform.connections();
  for (const bool beforeTheStart : {true, false}) {
    SCOPED_TRACE(beforeTheStart ? "cancelled before the start" : "cancelled while the operator holds the hop");
    connections.script("op.test", 80, Script::silent());
    const auto before = connections.count();
    auto cancellation = std::make_shared<ZavloCancellation>();
    if (beforeTheStart) cancellation->cancel();
    ZavloCompletions done;
    graph.wrapper.startAuth("http://op.test/", done.collect(graph.platform), cancellation);
    graph.platform.runUntilIdle();
    if (!beforeTheStart) {
      ASSERT_TRUE(done.results.empty());
      ASSERT_EQ(connections.count(), before + 1) << "the IPv6 try, held";
      cancellation->cancel();
      graph.platform.runUntilIdle();
      EXPECT_TRUE(connections.all().back()->wasCancelled());
    }
    graph.platform.advanceBy(60s);
    ASSERT_EQ(done.results.size(), 1U);
    EXPECT_EQ(done.results[0].error(),
              ZavloAuthException::failure("SNA_CELLULAR_REQUEST_FAILED", "Connection cancelled"));
    EXPECT_EQ(connections.count(), before + (beforeTheStart ? 0 : 1));
  }
}

TEST_F(ZavloSilentAuthFlow, EachHopIsBoundedByTheTimeOutAndLateResultsAreIgnored) {
  auto& connections = graph.platform.connections();
  connections.script("op.test", 80, Script::answering("HTTP/1.1 302 Found\r\nLocation: /slow\r\n\r\n"));
  auto silent = Script::silent();
  silent.answer = Script::Answer{std::vector<std::uint8_t>{'H'}, true, std::nullopt};
  silent.answerDelay = 30s;  // answers, but far too late
  connections.scriptNext("op.test", 80, Script::answering("HTTP/1.1 302 Found\r\nLocation: /slow\r\n\r\n"));
  connections.scriptNext("op.test", 80, silent);
  auto done = start("http://op.test/");
  graph.platform.advanceBy(9999ms);
  EXPECT_TRUE(done.results.empty()) << "the second hop has a fresh ten seconds";
  graph.platform.advanceBy(1ms);
  ASSERT_EQ(done.results.size(), 1U);
  EXPECT_EQ(done.results[0].error(),
            ZavloAuthException::failure("SNA_CONNECTION_FAILED", "Connection cancelled - time out"));
  EXPECT_TRUE(connections.last()->wasCancelled());
  graph.platform.advanceBy(60s);
  EXPECT_EQ(done.results.size(), 1U) << "exactly one completion";
  const auto events = flowEvents();
  EXPECT_EQ(events.back().at("metaData").at("errorCode"), "SNA_CONNECTION_FAILED");
  EXPECT_EQ(std::count_if(events.begin(), events.end(),
                          [](const json& e) { return e.at("eventName") == "START_AUTH_RESPONSE"; }),
            1);
}

TEST_F(ZavloSilentAuthFlow, ConnectionThatNeverGetsReadyTimesOut) {
  graph.platform.connections().script("op.test", 80, Script::waiting({101, "Network is unreachable"}));
  const auto done = start("http://op.test/", 10s);
  ASSERT_EQ(done.results.size(), 1U);
  EXPECT_EQ(done.results[0].error().errorMessage(), "Connection cancelled - time out");
}

TEST_F(ZavloSilentAuthFlow, FinalAnswersBecomeRecordsOrExceptions) {
  struct Case {
    std::string response;
    json expected;  // the record's dictionary, or {"exception": [code, message]}
  };
  const std::vector<Case> cases = {
      {"HTTP/1.1 401 Unauthorized\r\n\r\n{\"reason\":\"x\"}", {{"status", "FAILURE"}, {"httpStatusCode", 401}}},
      {"HTTP/1.1 200 OK\r\n\r\n{\"httpStatusCode\":399}", {{"status", "SUCCESS"}, {"httpStatusCode", 399}}},
      {"HTTP/1.1 200 OK\r\n\r\n{\"httpStatusCode\":\"200\"}", {{"status", "FAILURE"}, {"httpStatusCode", 0}}},
      {"HTTP/1.1 200 OK\r\n\r\n{\"snaToken\":7}", {{"status", "SUCCESS"}, {"httpStatusCode", 200}}},
      {"HTTP/1.1 204 No Content\r\n\r\n", {{"status", "SUCCESS"}, {"httpStatusCode", 204}}},
      {"HTTP/1.1 200 OK\r\n\r\n{\"error\":\"bad_token\",\"error_description\":\"x\"}",
       {{"exception", {"BAD_TOKEN", "x"}}}},
      {"HTTP/1.1 200 OK\r\n\r\n{\"error\":\"bad_token\"}", {{"exception", {"BAD_TOKEN", "Unknown error"}}}},
      {"HTTP/1.1 200 OK\r\n\r\n{\"error\":5,\"snaToken\":\"t\"}",
       {{"status", "SUCCESS"}, {"httpStatusCode", 200}, {"snaToken", "t"}}},
      {"HTTP/1.1 302 Found\r\n\r\n",
       {{"exception", {"SNA_INVALID_REDIRECT", "Invalid URL - unable to parse redirect"}}}},
      {"HTTP/1.1 404 Not Found\r\n\r\n",
       {{"exception", {"SNA_CELLULAR_REQUEST_FAILED", "Unexpected HTTP Status 404"}}}},
  };
  for (const auto& [response, expected] : cases) {
    graph.platform.connections().script("op.test", 80, Script::answering(response));
    const auto done = start("http://op.test/");
    ASSERT_EQ(done.results.size(), 1U) << response;
    if (expected.contains("exception")) {
      ASSERT_FALSE(done.results[0]) << response;
      EXPECT_EQ(done.results[0].error(), ZavloAuthException::failure(expected["exception"][0].get<std::string>(),
                                                                     expected["exception"][1].get<std::string>()))
          << response;
    } else {
      ASSERT_TRUE(done.results[0]) << response;
      EXPECT_EQ(done.results[0].value(), expected) << response;
    }
  }
}

TEST_F(ZavloSilentAuthFlow, PreflightFailureIsReportedAfterTheStartEvent) {
  graph.setPath({{"wlan0", ZavloInterfaceType::wifi}});
  const auto done = start("http://op.test/");
  ASSERT_EQ(done.results.size(), 1U);
  EXPECT_EQ(done.results[0].error().errorCode(), "SNA_CELLULAR_UNAVAILABLE");
  const auto events = flowEvents();
  ASSERT_EQ(events.size(), 2U);
  EXPECT_EQ(events[0].at("eventName"), "START_AUTH");
  EXPECT_EQ(events[1].at("status"), "FAILURE");
  EXPECT_EQ(events[1].at("authType"), "SNA");
  EXPECT_EQ(events[1].at("metaData"), ZavloAuthRequestManager::failureMetaData(ZavloCellularPathChecker::authException(
                                          ZavloCellularPathChecker::PreflightError::noCellularNetwork)));
  EXPECT_EQ(graph.platform.connections().count(), 0U);

  // Every preflight exception has a code today; one without would still be reported with
  // the key, empty.
  EXPECT_EQ(ZavloAuthRequestManager::failureMetaData(ZavloAuthException::failure(std::nullopt, "no code")),
            (json{{"errorCode", ""}, {"errorMessage", "no code"}, {"sdkVersion", "1.1.1"}}));
}

// The SNA names are the same operations: the same scripted network gives the same results
// and the same events through either pair.
TEST(ZavloSilentAuthAliases, InitSnaAndStartSnaBehaveExactlyAsInitAuthAndStartAuth) {
  using Run = std::pair<std::vector<json>, std::vector<json>>;  // results, events
  const auto run = [](bool snaNames) {
    ZavloNativeGraph graph;
    graph.wrapper.setup(graph.screen, ZavloAuthEnvironment::development);
    auto& connections = graph.platform.connections();
    connections.scriptNext("op.test", 80, Script::answering("HTTP/1.1 302 Found\r\nLocation: /final\r\n\r\n"));
    connections.scriptNext("op.test", 80, Script::answering("HTTP/1.1 200 OK\r\n\r\n{\"snaToken\":\"t\"}"));
    connections.scriptNext("op.test", 80, Script::answering("HTTP/1.1 401 Unauthorized\r\n\r\n{\"x\":1}"));
    ZavloCompletions done;
    const auto init = [&](const json& config) {
      snaNames ? graph.wrapper.initSNA(config, done.collect(graph.platform))
               : graph.wrapper.initAuth(config, done.collect(graph.platform));
      graph.platform.runUntilIdle();
    };
    const auto startChain = [&](const std::string& url) {
      snaNames ? graph.wrapper.startSNA(url, done.collect(graph.platform))
               : graph.wrapper.startAuth(url, done.collect(graph.platform));
      graph.platform.runUntilIdle();
    };
    startChain("http://op.test/");  // no session yet
    init({{"requestId", "alias"}});
    startChain("http://op.test/");
    startChain("http://op.test/");
    startChain("ftp://op.test/");
    graph.setPath({{"wlan0", ZavloInterfaceType::wifi}});
    init({{"requestId", "again"}});
    startChain("http://op.test/");

    Run outcome;
    for (const auto& result : done.results) {
      outcome.first.push_back(result ? result.value() : json(result.error()));
    }
    for (auto event : graph.events()) {
      event.erase("txnid");  // made fresh for every event
      event.erase("timestamp");
      outcome.second.push_back(std::move(event));
    }
    return outcome;
  };
  const Run auth = run(false);
  const Run sna = run(true);
  ASSERT_EQ(auth.first.size(), 7U);
  EXPECT_EQ(auth.first[2], (json{{"status", "SUCCESS"}, {"httpStatusCode", 200}, {"snaToken", "t"}}));
  EXPECT_EQ(auth.first[3], (json{{"status", "FAILURE"}, {"httpStatusCode", 401}}));
  EXPECT_EQ(sna.first, auth.first);
  EXPECT_EQ(sna.second.size(), 13U);
  EXPECT_EQ(sna.second, auth.second);
}
