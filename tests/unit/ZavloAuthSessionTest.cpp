#include <gtest/gtest.h>

#include "Core/ZavloAuthResponseUtils.hpp"
#include "ZavloNativeGraph.hpp"

using nlohmann::json;
using namespace std::chrono_literals;

namespace {

const std::vector<ZavloNetworkInterface> kWifiOnly{{"wlan0", ZavloInterfaceType::wifi}};
const std::vector<ZavloNetworkInterface> kWifiAndCellular{{"wlan0", ZavloInterfaceType::wifi},
                                                          {"wwan0", ZavloInterfaceType::cellular}};

}  // namespace

TEST(ZavloAuthSession, InitAuthWithoutALiveScreenFailsAtOnceAndSendsNothing) {
  ZavloNativeGraph graph;
  ZavloCompletions done;
  graph.wrapper.initAuth({{"requestId", "r1"}}, done.collect(graph.platform));  // setup never called
  ASSERT_EQ(done.results.size(), 1U) << "synchronous, before initAuth returns";
  EXPECT_EQ(done.results[0].error(),
            ZavloAuthException::failure("NO_VIEW_CONTROLLER", "ViewController is required but not provided"));
  EXPECT_FALSE(done.onMainQueue[0]);

  graph.wrapper.setup(graph.screen, ZavloAuthEnvironment::development);
  graph.screen.reset();  // the host's screen went away
  graph.wrapper.initAuth({{"requestId", "r2"}}, done.collect(graph.platform));
  graph.platform.runUntilIdle();
  ASSERT_EQ(done.results.size(), 2U);
  EXPECT_EQ(done.results[1].error().errorCode(), "NO_VIEW_CONTROLLER");
  EXPECT_FALSE(graph.wrapper.initConfig()) << "the configuration is left as it was";
  EXPECT_TRUE(graph.events().empty());
}

TEST(ZavloAuthSession, SuccessfulStartSendsBothEventsAndCompletesOnceOnTheMainQueue) {
  ZavloNativeGraph graph;
  graph.platform.testDeviceInfo().setHostApplicationVersion("3.2.1");
  graph.wrapper.setup(graph.screen, ZavloAuthEnvironment::development);
  graph.setPath(kWifiAndCellular);
  ZavloCompletions done;
  graph.wrapper.initAuth({{"requestId", " r1\n"}, {"entityId", "tenant"}}, done.collect(graph.platform));
  EXPECT_TRUE(done.results.empty()) << "the work runs on the main queue, after initAuth returns";
  graph.platform.runUntilIdle();

  ASSERT_EQ(done.results.size(), 1U);
  EXPECT_TRUE(done.onMainQueue[0]);
  ASSERT_TRUE(done.results[0]) << done.results[0].error().errorMessage();
  EXPECT_EQ(done.results[0].value(), (json{{"status", "SUCCESS"}, {"statusCode", "200"}, {"mcc", ""}, {"mnc", ""}}));
  EXPECT_TRUE(graph.requests->sessionSnapshot().isSessionInitialized);
  EXPECT_EQ(graph.requests->sessionSnapshot().storedRequestId, "r1");

  const auto events = graph.events();
  ASSERT_EQ(events.size(), 2U);
  const auto& start = events[0];
  EXPECT_EQ(start.at("eventName"), "INIT_AUTH");
  EXPECT_EQ(start.at("requestId"), "r1");
  EXPECT_EQ(start.at("authProvider"), "NATIVE_SNA");
  EXPECT_FALSE(start.contains("status"));
  EXPECT_FALSE(start.contains("entityId")) << "the configuration's entity id is never reported";
  EXPECT_FALSE(start.contains("authType"));
  EXPECT_EQ(start.at("metaData"),
            (json{{"clientAppVersion", "3.2.1"}, {"sdkVersion", "1.1.1"}, {"deviceType", "iOS"}, {"os", "17.4.1"}}));
  const auto& outcome = events[1];
  EXPECT_EQ(outcome.at("eventName"), "INIT_AUTH_RESPONSE");
  EXPECT_EQ(outcome.at("status"), "SUCCESS");
  EXPECT_FALSE(outcome.contains("failureReason"));
  EXPECT_EQ(outcome.at("metaData"), (json{{"mcc", ""}, {"mnc", ""}, {"sdkVersion", "1.1.1"}}));

  const auto exchange = graph.platform.http().exchanges().at(0);
  EXPECT_EQ(exchange.request.url, "https://sandbox-auth.zavlo.in/redirection/api/auth-tracking");
  EXPECT_EQ(exchange.header("X-Environment"), "DEVELOPMENT");
}

TEST(ZavloAuthSession, FailedPreflightKeepsTheEarlierSessionAndReportsTheMappedError) {
  ZavloNativeGraph graph;
  graph.wrapper.setup(graph.screen, ZavloAuthEnvironment::production);
  ZavloCompletions done;
  graph.wrapper.initSNA({{"requestId", "first"}}, done.collect(graph.platform));
  graph.platform.runUntilIdle();
  ASSERT_TRUE(done.results.at(0));

  graph.setPath(kWifiOnly);
  graph.wrapper.initAuth({{"requestId", "second"}}, done.collect(graph.platform));
  graph.platform.runUntilIdle();
  ASSERT_EQ(done.results.size(), 2U);
  EXPECT_EQ(done.results[1].error(),
            ZavloAuthException::failure("SNA_CELLULAR_UNAVAILABLE",
                                        "No cellular network available. Please ensure cellular data is enabled."));
  EXPECT_EQ(graph.platform.scheduler().now(), 0s) << "a satisfied path without cellular fails at once";
  EXPECT_EQ(graph.requests->sessionSnapshot().storedRequestId, "first");

  const auto events = graph.events();
  ASSERT_EQ(events.size(), 4U);
  EXPECT_EQ(events[3].at("status"), "FAILURE");
  EXPECT_EQ(events[3].at("failureReason"), "No cellular network available. Please ensure cellular data is enabled.");
  EXPECT_EQ(events[3].at("metaData"),
            (json{{"errorCode", "SNA_CELLULAR_UNAVAILABLE"},
                  {"errorMessage", "No cellular network available. Please ensure cellular data is enabled."},
                  {"sdkVersion", "1.1.1"}}));
}

// Telemetry does not depend on anyone waiting for the answer.
TEST(ZavloAuthSession, WithoutACompletionTheOperationsStillRunAndSendTheirEvents) {
  ZavloNativeGraph graph;
  graph.wrapper.setup(graph.screen, ZavloAuthEnvironment::development);
  graph.requests->initialize("quiet", graph.screen, nullptr);
  graph.platform.runUntilIdle();
  EXPECT_EQ(graph.requests->sessionSnapshot().storedRequestId, "quiet");
  EXPECT_EQ(graph.eventNames(), (std::vector<std::string>{"INIT_AUTH", "INIT_AUTH_RESPONSE"}));
  EXPECT_EQ(graph.events()[1].at("status"), "SUCCESS");

  graph.platform.connections().script("op.test", 80,
                                      ZavloTestConnectionScript::answering("HTTP/1.1 404 Not Found\r\n\r\n"));
  graph.requests->startSilentNetworkAuth("http://op.test/", nullptr);
  graph.platform.runUntilIdle();
  graph.setPath(kWifiOnly);
  graph.requests->initialize("failing", graph.screen, nullptr);
  graph.platform.runUntilIdle();

  const auto events = graph.events();
  ASSERT_EQ(events.size(), 7U);
  EXPECT_EQ(graph.eventNames(), (std::vector<std::string>{"INIT_AUTH", "INIT_AUTH_RESPONSE", "START_AUTH", "SNA_HOP",
                                                          "START_AUTH_RESPONSE", "INIT_AUTH", "INIT_AUTH_RESPONSE"}));
  EXPECT_EQ(events[4].at("metaData").at("errorMessage"), "Unexpected HTTP Status 404");
  EXPECT_EQ(events[6].at("status"), "FAILURE");
  EXPECT_EQ(events[6].at("metaData").at("errorCode"), "SNA_CELLULAR_UNAVAILABLE");
}

TEST(ZavloAuthSession, ASessionWithoutARequestIdSendsEventsWithoutTheKey) {
  ZavloNativeGraph graph;
  graph.wrapper.setup(graph.screen, ZavloAuthEnvironment::development);
  graph.platform.connections().script(
      "op.test", 80, ZavloTestConnectionScript::answering("HTTP/1.1 200 OK\r\n\r\n{\"snaToken\":\"t\"}"));
  ZavloCompletions done;
  graph.wrapper.initAuth({{"entityId", "tenant"}}, done.collect(graph.platform));
  graph.platform.runUntilIdle();
  graph.wrapper.startAuth("http://op.test/", done.collect(graph.platform));
  graph.platform.runUntilIdle();
  ASSERT_EQ(done.results.size(), 2U);
  ASSERT_TRUE(done.results[1]) << done.results[1].error().errorMessage();

  EXPECT_EQ(graph.eventNames(), (std::vector<std::string>{"INIT_AUTH", "INIT_AUTH_RESPONSE", "START_AUTH", "SNA_HOP",
                                                          "START_AUTH_RESPONSE"}));
  for (const auto& event : graph.events()) {
    EXPECT_FALSE(event.contains("requestId")) << event.dump();
  }
}

TEST(ZavloAuthSession, NoSatisfiedPathFailsAtTheTimeOutOfVirtualTime) {
  ZavloNativeGraph graph;
  graph.wrapper.setup(graph.screen, ZavloAuthEnvironment::development);
  graph.platform.pathMonitors().setCurrentPath(ZavloTestPathMonitorController::unsatisfiedPath());
  ZavloCompletions done;
  graph.wrapper.initAuth(json::object(), done.collect(graph.platform));
  graph.platform.advanceBy(1999ms);
  EXPECT_TRUE(done.results.empty());
  graph.platform.advanceBy(1ms);
  ASSERT_EQ(done.results.size(), 1U);
  EXPECT_EQ(done.results[0].error().errorCode(), "SNA_CELLULAR_UNAVAILABLE");
  graph.setPath(kWifiAndCellular);  // a late path changes nothing
  graph.platform.advanceBy(10s);
  EXPECT_EQ(done.results.size(), 1U);
  EXPECT_EQ(graph.eventNames(), (std::vector<std::string>{"INIT_AUTH", "INIT_AUTH_RESPONSE"}));
}

TEST(ZavloAuthSession, CleanupAllEndsTheSessionAndTelemetryButKeepsTheScreen) {
  ZavloNativeGraph graph;
  graph.wrapper.setup(graph.screen, ZavloAuthEnvironment::development);
  ZavloCompletions done;
  graph.wrapper.initAuth({{"requestId", "r"}}, done.collect(graph.platform));
  graph.platform.runUntilIdle();
  ASSERT_TRUE(done.results.at(0));
  const auto sentBefore = graph.events().size();

  graph.wrapper.cleanupAll();
  EXPECT_FALSE(graph.requests->sessionSnapshot().isSessionInitialized);
  EXPECT_FALSE(graph.wrapper.initConfig());
  EXPECT_FALSE(graph.log->getLoggingEndpoint());
  graph.wrapper.startAuth("http://op.test/", done.collect(graph.platform));
  ASSERT_EQ(done.results.size(), 2U);
  EXPECT_EQ(
      done.results[1].error(),
      ZavloAuthException::failure("SESSION_NOT_INITIALIZED", "Session not initialized. Please call initAuth first."));

  graph.wrapper.initAuth(json::object(), done.collect(graph.platform));  // no new setup needed
  graph.platform.runUntilIdle();
  ASSERT_EQ(done.results.size(), 3U);
  EXPECT_TRUE(done.results[2]);
  EXPECT_TRUE(graph.requests->sessionSnapshot().isSessionInitialized);
  EXPECT_FALSE(graph.requests->sessionSnapshot().storedRequestId);
  EXPECT_EQ(graph.events().size(), sentBefore) << "telemetry stays off until the next setup";
}

TEST(ZavloAuthSession, SetupChoosesTheEnvironmentsEndpointAndASecondSetupReplacesIt) {
  ZavloNativeGraph graph;
  graph.wrapper.setup(graph.screen, ZavloAuthEnvironment::development);
  EXPECT_EQ(graph.log->getLoggingEndpoint(), "https://sandbox-auth.zavlo.in/redirection/api/auth-tracking");
  graph.wrapper.setup(graph.screen, ZavloAuthEnvironment::production);
  EXPECT_EQ(graph.log->getLoggingEndpoint(), "https://auth.zavlo.in/redirection/api/auth-tracking");
  EXPECT_EQ(graph.wrapper.getCapabilities(), ZavloAuthResponseUtils::capabilitiesDictionary());
}
