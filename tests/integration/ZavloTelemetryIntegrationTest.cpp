// Telemetry over real sockets: the libcurl session, the HTTP manager and the log manager
// against a loopback collector, checked on the wire.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

#include "Platform/Linux/Network/ZavloLinuxHttpSession.hpp"
#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "Telemetry/ZavloAuthLogManager.hpp"
#include "Testing/Network/ZavloClosedPort.hpp"
#include "tools/peers/ZavloHttpTestServer.hpp"

using namespace std::chrono_literals;
using Code = ZavloHttpTransportError::Code;
using Kind = ZavloAuthHttpError::Kind;

namespace {

using HttpResult = ZavloResult<ZavloAuthHTTPManager::Bytes, ZavloAuthHttpError>;
using LogResult = ZavloResult<ZavloVoid, ZavloAuthHttpError>;

// Results as they arrive on the session's worker thread.
template <class T>
class Inbox {
 public:
  std::function<void(T)> collect() {
    return [this](T value) {
      std::lock_guard lock(mutex_);
      values_.push_back(std::move(value));
      changed_.notify_all();
    };
  }
  bool waitFor(std::size_t count, std::chrono::milliseconds timeout = 10s) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return values_.size() >= count; });
  }
  std::size_t size() {
    std::lock_guard lock(mutex_);
    return values_.size();
  }
  T at(std::size_t i) {
    std::lock_guard lock(mutex_);
    return values_.at(i);
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<T> values_;
};

ZavloHttpRequest post(const std::string& url) {
  ZavloHttpRequest request;
  request.url = url;
  request.body = {'{', '}'};
  return request;
}

std::shared_ptr<ZavloAuthEventLog> makeEvent(const std::string& name) {
  auto event = std::make_shared<ZavloAuthEventLog>();
  event->eventName = name;
  event->status = "SUCCESS";
  event->metaData = nlohmann::json{{"sdkVersion", "1.1.1"}, {"deviceType", "iOS"}};
  return event;
}

class ZavloTelemetryIntegration : public ::testing::Test {
 protected:
  ZavloLinuxPlatform platform;
  std::shared_ptr<ZavloAuthHTTPManager> http = ZavloAuthHTTPManager::create(platform);
  std::shared_ptr<ZavloAuthLogManager> logManager = std::make_shared<ZavloAuthLogManager>(http);
};

TEST(ZavloLinuxHttpSession, ReusesOneConnectionForPostsInSequence) {
  ZavloHttpTestServer server;
  ZavloLinuxHttpSession session({});
  Inbox<ZavloHttpTaskOutcome> outcomes;
  for (std::size_t i = 0; i < 3; ++i) {
    session.post(post(server.url("/x")), outcomes.collect());
    ASSERT_TRUE(outcomes.waitFor(i + 1));
  }
  EXPECT_EQ(server.requestCount(), 3U);
  EXPECT_EQ(server.connectionCount(), 1U);
}

TEST(ZavloLinuxHttpSession, ReportsTransportFailuresAsTypedErrors) {
  ZavloClosedPort closed;
  ZavloHttpTestServer hangUp([](const ZavloHttpTestRequest&) -> std::optional<ZavloHttpTestReply> {
    ZavloHttpTestReply reply;
    reply.raw = "";  // closes without a byte of response
    reply.close = true;
    return reply;
  });
  std::atomic<int> notHttpReplies{0};
  ZavloHttpTestServer notHttp([&](const ZavloHttpTestRequest&) -> std::optional<ZavloHttpTestReply> {
    ZavloHttpTestReply reply;
    reply.raw = notHttpReplies++ == 0 ? "HTTP/1.1 abc Nonsense\r\n\r\n" : "HTTP/1.1 200 OK\r\nno colon here\r\n\r\n";
    reply.close = true;
    return reply;
  });
  ZavloLinuxHttpSession session({});
  Inbox<ZavloHttpTaskOutcome> outcomes;
  session.post(post(closed.url("/")), outcomes.collect());
  session.post(post(hangUp.url("/")), outcomes.collect());
  session.post(post("ftp://127.0.0.1/x"), outcomes.collect());
  auto smuggling = post(hangUp.url("/"));
  smuggling.headers = {{"X-A", "1\r\nX-B: 2"}};
  session.post(smuggling, outcomes.collect());
  ASSERT_TRUE(outcomes.waitFor(4));
  std::vector<Code> codes;
  for (std::size_t i = 0; i < 4; ++i) {
    const auto outcome = outcomes.at(i);
    ASSERT_TRUE(outcome.error) << i;
    codes.push_back(outcome.error->code);
  }
  std::sort(codes.begin(), codes.end());
  std::vector<Code> expected{Code::cannotConnectToHost, Code::networkConnectionLost, Code::unsupportedURL, Code::other};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(codes, expected);
  EXPECT_EQ(hangUp.requestCount(), 1U) << "the header with a line break was never sent";

  for (std::size_t i = 4; i < 6; ++i) {
    session.post(post(notHttp.url("/")), outcomes.collect());
    ASSERT_TRUE(outcomes.waitFor(i + 1));
    const auto weird = outcomes.at(i);
    EXPECT_FALSE(weird.error) << weird.error->localizedDescription;
    EXPECT_FALSE(weird.statusCode) << "an answer that is not HTTP has no status";
  }
}

TEST(ZavloLinuxHttpSession, TasksQueuedBehindBusyConnectionsStillTimeOutOnTime) {
  ZavloHttpTestServer silent(ZavloHttpTestServer::neverAnswer());
  ZavloHttpSessionConfiguration configuration;
  configuration.resourceTimeout = 1s;
  ZavloLinuxHttpSession session(configuration);
  Inbox<ZavloHttpTaskOutcome> outcomes;
  const std::size_t count = ZavloLinuxHttpSession::kMaximumActiveTransfers + 16;
  const auto started = std::chrono::steady_clock::now();
  for (std::size_t i = 0; i < count; ++i) session.post(post(silent.url("/")), outcomes.collect());
  ASSERT_TRUE(outcomes.waitFor(count, 20s));
  EXPECT_LT(std::chrono::steady_clock::now() - started, 5s);
  for (std::size_t i = 0; i < count; ++i) EXPECT_EQ(outcomes.at(i).error->code, Code::timedOut) << i;
  EXPECT_LE(silent.peakOpenConnections(), 6U) << "at most six connections per host at once";
}

TEST_F(ZavloTelemetryIntegration, AnEventArrivesAsJsonWithEveryFixedHeader) {
  ZavloHttpTestServer collector;
  logManager->configure(ZavloAuthEnvironment::development, collector.url("/redirection/api/auth-tracking"));
  Inbox<LogResult> results;
  const auto event = makeEvent("INIT_AUTH");
  logManager->sendEventLog(event, results.collect());
  ASSERT_TRUE(results.waitFor(1));
  EXPECT_TRUE(results.at(0).hasValue());

  ASSERT_EQ(collector.requestCount(), 1U);
  const auto request = collector.requests()[0];
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.target, "/redirection/api/auth-tracking");
  EXPECT_EQ(request.header("Content-Type"), "application/json");
  EXPECT_EQ(request.header("Accept"), "application/json");
  EXPECT_EQ(request.header("User-Agent"), "ZavloAuthSDK/1.1.1 iOS");
  EXPECT_EQ(request.header("X-Environment"), "DEVELOPMENT");
  EXPECT_FALSE(request.header("Expect"));
  const auto body = nlohmann::json::parse(request.body);
  EXPECT_EQ(body, event->toDictionary());
  ASSERT_TRUE(body.at("metaData").is_object());
  EXPECT_EQ(body.at("metaData").at("deviceType"), "iOS");
}

// No interim answers and no redirects for a post: whatever status comes first is final.
TEST_F(ZavloTelemetryIntegration, TheFirstStatusOnTheWireAndItsBodyMakeTheResult) {
  const auto raw = [](std::string text) {
    ZavloHttpTestReply reply;
    reply.raw = std::move(text);
    reply.close = true;
    return reply;
  };
  auto choices = ZavloHttpTestReply::text(300, "choose", "Multiple Choices");
  choices.headers.emplace_back("Location", "/elsewhere");
  const std::map<std::string, std::pair<ZavloHttpTestReply, std::string>> cases{
      {"/200", {ZavloHttpTestReply::text(200, "{\"ok\":true}"), "success"}},
      {"/204", {ZavloHttpTestReply::text(204, ""), "success"}},
      {"/299", {ZavloHttpTestReply::text(299, "edge"), "success"}},
      {"/300", {ZavloHttpTestReply::text(300, ""), "HTTP 300: "}},
      {"/choices", {choices, "HTTP 300: choose"}},
      {"/404", {ZavloHttpTestReply::text(404, "not found"), "HTTP 404: not found"}},
      {"/500", {ZavloHttpTestReply::text(500, "", "Internal Server Error"), "HTTP 500: "}},
      {"/500-not-utf8", {raw("HTTP/1.1 500 Oops\r\nContent-Length: 2\r\n\r\n\xFF\xFE"), "HTTP error: 500"}},
      {"/interim",
       {raw("HTTP/1.1 199 Interim\r\n\r\nHTTP/1.1 404 Not Found\r\nContent-Length: 4\r\n\r\ngone"), "HTTP 199: "}},
  };
  ZavloHttpTestServer collector([&](const ZavloHttpTestRequest& request) -> std::optional<ZavloHttpTestReply> {
    return cases.at(request.target).first;
  });
  for (const auto& [target, c] : cases) {
    SCOPED_TRACE(target);
    Inbox<HttpResult> results;
    http->post(collector.url(target), {{"a", 1}}, std::nullopt, results.collect());
    ASSERT_TRUE(results.waitFor(1));
    const auto result = results.at(0);
    if (c.second == "success") {
      EXPECT_TRUE(result.hasValue()) << result.error().errorDescription();
    } else {
      ASSERT_FALSE(result.hasValue());
      EXPECT_EQ(result.error().kind(), Kind::httpError);
      EXPECT_EQ(result.error().errorDescription(), c.second);
    }
  }
  EXPECT_EQ(collector.requestCount(), cases.size()) << "the Location was not followed";
}

TEST_F(ZavloTelemetryIntegration, ASilentCollectorDelaysNobodyAndCleanupCancelsItsPosts) {
  ZavloHttpTestServer silent(ZavloHttpTestServer::neverAnswer());
  logManager->configure(ZavloAuthEnvironment::production, silent.url("/t"));
  Inbox<LogResult> results;
  const auto started = std::chrono::steady_clock::now();
  for (int i = 0; i < 20; ++i) logManager->sendEventLog(makeEvent("E"), results.collect());
  EXPECT_LT(std::chrono::steady_clock::now() - started, 1s) << "sending never waits for the network";
  ASSERT_TRUE(silent.waitForRequests(1, 10s));

  const auto waitStarted = std::chrono::steady_clock::now();
  EXPECT_FALSE(logManager->waitForPendingEvents(300ms));
  const auto waited = std::chrono::steady_clock::now() - waitStarted;
  EXPECT_GE(waited, 300ms);
  EXPECT_LT(waited, 3s);
  EXPECT_EQ(results.size(), 0U);

  logManager->cleanup();
  ASSERT_EQ(results.size(), 20U) << "every cancelled post is reported during cleanup";
  for (std::size_t i = 0; i < 20; ++i) {
    const auto result = results.at(i);
    const auto* network = result.error().template as<ZavloAuthHttpError::NetworkError>();
    ASSERT_NE(network, nullptr);
    EXPECT_EQ(network->error.code, Code::cancelled);
  }
  EXPECT_TRUE(http->isShutdown());
}

TEST_F(ZavloTelemetryIntegration, AManagerWhoseLastOwnerIsItsOwnCompletionShutsDownCleanly) {
  ZavloHttpTestServer collector;
  std::atomic<bool> called{false};
  std::weak_ptr<ZavloAuthHTTPManager> weak = http;
  logManager.reset();
  auto owner = std::move(http);
  owner->post(collector.url("/t"), {{"a", 1}}, std::nullopt, [owner, &called](HttpResult) mutable {
    called = true;
    owner.reset();  // the last owner lets go here, on the session's worker thread
  });
  owner.reset();  // from now on only the pending completion keeps the manager alive
  for (int i = 0; i < 10000 && !(called && weak.expired()); ++i) std::this_thread::sleep_for(1ms);
  EXPECT_TRUE(called);
  EXPECT_TRUE(weak.expired()) << "destroyed on the session's worker without waiting for itself";
}

}  // namespace
