#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Telemetry/ZavloAuthEnvironmentSecurity.hpp"
#include "Telemetry/ZavloAuthLogManager.hpp"
#include "Testing/ZavloTestPlatform.hpp"

using namespace std::chrono_literals;

namespace {

using Result = ZavloResult<ZavloVoid, ZavloAuthHttpError>;
using Kind = ZavloAuthHttpError::Kind;

class ZavloAuthLogManagerTest : public ::testing::Test {
 protected:
  static std::shared_ptr<ZavloAuthEventLog> event(const std::string& name) {
    auto event = std::make_shared<ZavloAuthEventLog>();
    event->eventName = name;
    event->requestId = "req-1";
    event->metaData = nlohmann::json{{"sdkVersion", "1.1.1"}, {"nested", {{"k", true}}}};
    return event;
  }
  ZavloAuthLogManager::Completion collect(std::vector<Result>& into) {
    return [&into](Result result) { into.push_back(std::move(result)); };
  }

  ZavloTestPlatform platform;
  ZavloTestHttp& http = platform.http();
  std::shared_ptr<ZavloAuthHTTPManager> transport = ZavloAuthHTTPManager::create(platform);
  std::shared_ptr<ZavloAuthLogManager> logManager = std::make_shared<ZavloAuthLogManager>(transport);
  const std::string endpoint = "https://collector.test/redirection/api/auth-tracking";
};

TEST(ZavloAuthEnvironmentSecurity, AcceptsOnlyEachEnvironmentsOwnHttpsHost) {
  using Env = ZavloAuthEnvironment;
  const auto production = ZavloAuthEnvironmentSecurity::trackingEndpoint(Env::production);
  const auto development = ZavloAuthEnvironmentSecurity::trackingEndpoint(Env::development);
  EXPECT_EQ(production, "https://auth.zavlo.in/redirection/api/auth-tracking");
  EXPECT_EQ(development, "https://sandbox-auth.zavlo.in/redirection/api/auth-tracking");
  EXPECT_EQ(ZavloAuthEnvironmentSecurity::loggingURLPattern(Env::production), "^https://auth\\.zavlo\\.in/.*");

  struct Case {
    std::string url;
    Env environment;
    bool valid;
  };
  const std::vector<Case> cases{
      {production, Env::production, true},
      {development, Env::development, true},
      {"https://auth.zavlo.in/", Env::production, true},
      {production, Env::development, false},
      {development, Env::production, false},
      {"http://auth.zavlo.in/redirection/api/auth-tracking", Env::production, false},
      {"HTTPS://auth.zavlo.in/x", Env::production, false},
      {"https://authXzavlo.in/x", Env::production, false},  // the dots are literal
      {"https://auth.zavlo.in", Env::production, false},
      {"https://auth.zavlo.in.evil.example/x", Env::production, false},
      {"https://auth.zavlo.in:443/x", Env::production, false},
      {" https://auth.zavlo.in/x", Env::production, false},
      {"https://evil.example/?https://auth.zavlo.in/", Env::production, false},
      {"https://sandbox-auth.zavlo.in/x\nhttps://auth.zavlo.in/", Env::production, false},
      {"https://auth.zavlo.in/" + std::string(1 << 20, 'a'), Env::production, true},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ZavloAuthEnvironmentSecurity::isValidLoggingURL(c.url, c.environment), c.valid)
        << c.url.substr(0, 80) << " for " << c.environment.description();
  }
}

TEST_F(ZavloAuthLogManagerTest, DropsEventsUntilConfiguredAndAfterCleanup) {
  std::vector<Result> results;
  logManager->sendEventLog(event("E"), collect(results));
  logManager->sendEventLog(event("E"));  // no completion: silently dropped
  ASSERT_EQ(results.size(), 1U);
  EXPECT_EQ(results[0].error().kind(), Kind::invalidURL);
  EXPECT_EQ(results[0].error().errorDescription(), "Invalid URL: Logger not configured");
  EXPECT_FALSE(logManager->getLoggingEndpoint());

  logManager->configure(ZavloAuthEnvironment::development, endpoint);
  EXPECT_EQ(logManager->getLoggingEndpoint(), endpoint);
  logManager->cleanup();
  EXPECT_FALSE(logManager->getLoggingEndpoint());
  EXPECT_EQ(logManager->currentEnvironment(), ZavloAuthEnvironment::development) << "kept across cleanup";
  logManager->sendEventLog(event("E"), collect(results));
  EXPECT_EQ(results.size(), 2U);
  EXPECT_EQ(http.requestCount(), 0U);
}

TEST_F(ZavloAuthLogManagerTest, PostsTheEventDictionaryWithTheFixedHeaders) {
  logManager->configure(ZavloAuthEnvironment::development, endpoint);
  std::vector<Result> results;
  const auto sent = event("INIT_AUTH");
  logManager->sendEventLog(sent, collect(results));
  ASSERT_EQ(http.requestCount(), 1U);
  const auto exchange = http.exchanges()[0];
  EXPECT_EQ(exchange.request.url, endpoint);
  const std::vector<std::pair<std::string, std::string>> headers{{"Content-Type", "application/json"},
                                                                 {"Accept", "application/json"},
                                                                 {"User-Agent", "ZavloAuthSDK/1.1.1 iOS"},
                                                                 {"X-Environment", "DEVELOPMENT"}};
  EXPECT_EQ(exchange.request.headers, headers);
  const auto body = nlohmann::json::parse(exchange.bodyText());
  EXPECT_EQ(body, sent->toDictionary());
  EXPECT_TRUE(body.at("metaData").is_object());

  EXPECT_TRUE(results.empty());
  http.respond(0, 200, "{\"ignored\":true}");
  ASSERT_EQ(results.size(), 1U);
  EXPECT_TRUE(results[0].hasValue());

  // A failure reaches the completion unchanged.
  logManager->sendEventLog(event("E"), collect(results));
  http.respond(1, 404, "not found");
  EXPECT_EQ(results.at(1).error().errorDescription(), "HTTP 404: not found");

  // Reconfiguring replaces endpoint and environment; two events are two posts.
  logManager->configure(ZavloAuthEnvironment::production, endpoint + "/2");
  logManager->sendEventLog(event("A"));
  logManager->sendEventLog(event("B"));
  ASSERT_EQ(http.requestCount(), 4U);
  for (std::size_t i : {2U, 3U}) {
    EXPECT_EQ(http.exchanges()[i].header("X-Environment"), "PRODUCTION");
    EXPECT_EQ(http.exchanges()[i].request.url, endpoint + "/2");
  }
}

TEST_F(ZavloAuthLogManagerTest, ConfiguresItselfOnlyForAnAcceptedTrackingEndpoint) {
  EXPECT_TRUE(logManager->configureWithTrackingEndpoint(ZavloAuthEnvironment::development));
  EXPECT_EQ(logManager->getLoggingEndpoint(),
            ZavloAuthEnvironmentSecurity::trackingEndpoint(ZavloAuthEnvironment::development));
  logManager->sendEventLog(event("E"));
  EXPECT_EQ(http.exchanges().at(0).header("X-Environment"), "DEVELOPMENT");
}

TEST_F(ZavloAuthLogManagerTest, CleanupShutsTheTransportDownAndAnotherConfigureRebuildsIt) {
  logManager->configure(ZavloAuthEnvironment::production, endpoint);
  std::vector<Result> results;
  logManager->sendEventLog(event("E"), collect(results));
  logManager->cleanup();
  EXPECT_TRUE(transport->isShutdown());
  ASSERT_EQ(results.size(), 1U);
  EXPECT_EQ(results[0].error().kind(), Kind::networkError) << "the cancelled post still reports";

  logManager->configure(ZavloAuthEnvironment::production, endpoint);
  EXPECT_FALSE(transport->isShutdown()) << "configure readies the transport";
  logManager->sendEventLog(event("E"), collect(results));
  EXPECT_EQ(http.sessionCount(), 2U);
  http.respond(1, 200);
  EXPECT_TRUE(results.at(1).hasValue());
}

TEST_F(ZavloAuthLogManagerTest, CompletionsOfCancelledEventsMayUseTheManagerDuringCleanup) {
  logManager->configure(ZavloAuthEnvironment::production, endpoint);
  std::vector<Result> late;
  logManager->sendEventLog(event("E"), [&](Result) {
    // Runs inside cleanup(): neither lock may be held here.
    logManager->sendEventLog(event("AFTER"), collect(late));
    EXPECT_FALSE(logManager->getLoggingEndpoint());
  });
  logManager->cleanup();
  ASSERT_EQ(late.size(), 1U);
  EXPECT_EQ(late[0].error().errorDescription(), "Invalid URL: Logger not configured");
}

TEST_F(ZavloAuthLogManagerTest, TellsTheObserverOfEverySentEventAndWaitsForPendingOnes) {
  std::vector<std::string> seen;
  logManager->setObserver([&](const ZavloAuthEventLog& sent, const std::string& url) {
    seen.push_back(sent.eventName.value_or("") + " " + url);
  });
  logManager->sendEventLog(event("DROPPED"));
  EXPECT_TRUE(logManager->waitForPendingEvents(0ms));
  logManager->configure(ZavloAuthEnvironment::production, endpoint);
  logManager->sendEventLog(event("ONE"));
  logManager->sendEventLog(nullptr);
  EXPECT_EQ(seen, (std::vector<std::string>{"ONE " + endpoint}));
  EXPECT_FALSE(logManager->waitForPendingEvents(0ms));
  http.respond(0, 500);
  EXPECT_TRUE(logManager->waitForPendingEvents(0ms));
}

// An event handed over is built and posted on the queue given, in the order handed over;
// until then the caller's thread has done nothing but hand it over, and a host waiting for
// pending events waits for it.
TEST_F(ZavloAuthLogManagerTest, HandedOverEventsAreBuiltOnTheQueueInOrderAndCountAsPending) {
  logManager->configure(ZavloAuthEnvironment::production, endpoint);
  auto queue = platform.makeSerialQueue("telemetry");
  std::vector<std::string> built;
  for (const char* name : {"START", "HOP", "END"}) {
    logManager->sendEventLogOn(*queue, [&built, name] {
      built.emplace_back(name);
      return event(name);
    });
  }
  EXPECT_TRUE(built.empty());
  EXPECT_EQ(http.requestCount(), 0U);
  EXPECT_FALSE(logManager->waitForPendingEvents(0ms)) << "handed over, not yet posted";

  platform.scheduler().runUntilIdle();
  EXPECT_EQ(built, (std::vector<std::string>{"START", "HOP", "END"}));
  ASSERT_EQ(http.requestCount(), 3U);
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(nlohmann::json::parse(http.exchanges()[i].bodyText()).at("eventName"), built[i]);
  }
  EXPECT_FALSE(logManager->waitForPendingEvents(0ms)) << "posted, not yet answered";
  for (std::size_t i = 0; i < 3; ++i) http.respond(i, 200);
  EXPECT_TRUE(logManager->waitForPendingEvents(0ms));
}

}  // namespace
