#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Telemetry/ZavloAuthHTTPManager.hpp"
#include "Testing/ZavloTestPlatform.hpp"

using namespace std::chrono_literals;

namespace {

using Result = ZavloResult<ZavloAuthHTTPManager::Bytes, ZavloAuthHttpError>;
using Kind = ZavloAuthHttpError::Kind;
using Code = ZavloHttpTransportError::Code;

std::optional<std::vector<std::uint8_t>> bytes(const std::string& text) {
  return std::vector<std::uint8_t>(text.begin(), text.end());
}

class ZavloAuthHTTPManagerTest : public ::testing::Test {
 protected:
  // Posts and collects every completion the post produces.
  std::vector<Result>& post(const std::string& url, nlohmann::json body = {{"a", 1}},
                            std::optional<ZavloAuthHTTPManager::Headers> headers = std::nullopt) {
    auto& results = calls.emplace_back();
    manager->post(url, body, headers, [&results](Result result) { results.push_back(std::move(result)); });
    return results;
  }

  ZavloTestPlatform platform;
  ZavloTestHttp& http = platform.http();
  std::shared_ptr<ZavloAuthHTTPManager> manager = ZavloAuthHTTPManager::create(platform);
  std::deque<std::vector<Result>> calls;
  const std::string url = "https://collector.test/track";
};

TEST(ZavloAuthHttpError, DescribesEachCase) {
  EXPECT_EQ(ZavloAuthHttpError::invalidURL("x y").errorDescription(), "Invalid URL: x y");
  EXPECT_EQ(ZavloAuthHttpError::encodingError({"bad text"}).errorDescription(), "Encoding failed: bad text");
  EXPECT_EQ(ZavloAuthHttpError::networkError({Code::timedOut, "The request timed out."}).errorDescription(),
            "Network error: The request timed out.");
  EXPECT_EQ(ZavloAuthHttpError::decodingError({"odd"}).errorDescription(), "Decoding failed: odd");
  EXPECT_EQ(ZavloAuthHttpError::invalidResponse().errorDescription(), "Invalid response");
  EXPECT_EQ(ZavloAuthHttpError::invalidResponse().kind(), Kind::invalidResponse);

  EXPECT_EQ(ZavloAuthHttpError::httpError(404, bytes("not found")).errorDescription(), "HTTP 404: not found");
  EXPECT_EQ(ZavloAuthHttpError::httpError(500, std::nullopt).errorDescription(), "HTTP error: 500");
  EXPECT_EQ(ZavloAuthHttpError::httpError(500, std::vector<std::uint8_t>{0xC3, 0x28}).errorDescription(),
            "HTTP error: 500");
  EXPECT_EQ(ZavloAuthHttpError::httpError(503, bytes("d\xC3\xA9j\xC3\xA0")).errorDescription(),
            "HTTP 503: d\xC3\xA9j\xC3\xA0");
  // A surrogate encoded in UTF-8 form is not UTF-8.
  EXPECT_EQ(ZavloAuthHttpError::httpError(502, std::vector<std::uint8_t>{0xED, 0xA0, 0x80}).errorDescription(),
            "HTTP error: 502");
}

TEST_F(ZavloAuthHTTPManagerTest, SendsJsonWithTheFixedHeadersThenTheCallersInOrder) {
  post(url, {{"event", "X"}, {"n", 2}},
       ZavloAuthHTTPManager::Headers{{"X-B", "2"}, {"content-type", "text/x"}, {"X-A", "1"}});
  ASSERT_EQ(http.requestCount(), 1U);
  const auto exchange = http.exchanges().at(0);
  EXPECT_EQ(exchange.request.url, url);
  // The caller's Content-Type replaces the default in place; the rest keep their order.
  const std::vector<std::pair<std::string, std::string>> expected{
      {"Content-Type", "text/x"}, {"Accept", "application/json"}, {"X-B", "2"}, {"X-A", "1"}};
  EXPECT_EQ(exchange.request.headers, expected);
  EXPECT_EQ(nlohmann::json::parse(exchange.bodyText()), (nlohmann::json{{"event", "X"}, {"n", 2}}));
  EXPECT_EQ(exchange.request.timeoutInterval, std::chrono::milliseconds(60s));
  EXPECT_EQ(exchange.configuration.requestTimeout, 30s);
  EXPECT_EQ(exchange.configuration.resourceTimeout, 60s);
  EXPECT_TRUE(exchange.configuration.ignoresLocalCache);
}

TEST_F(ZavloAuthHTTPManagerTest, MapsEachOutcomeInTheDecisionOrder) {
  struct Case {
    std::function<void(std::size_t)> answer;
    std::optional<std::string> success;  // the bytes of a success
    std::optional<std::string> failure;  // the description of a failure
  };
  const std::vector<Case> cases{
      {[&](std::size_t i) { http.respond(i, 200, "ok"); }, "ok", std::nullopt},
      {[&](std::size_t i) { http.respond(i, 299); }, "", std::nullopt},
      {[&](std::size_t i) { http.respond(i, 204); }, "", std::nullopt},
      {[&](std::size_t i) { http.respond(i, 199, "early"); }, std::nullopt, "HTTP 199: early"},
      {[&](std::size_t i) { http.respond(i, 300); }, std::nullopt, "HTTP error: 300"},
      {[&](std::size_t i) { http.respond(i, 404, "not found"); }, std::nullopt, "HTTP 404: not found"},
      {[&](std::size_t i) { http.respondWithNothing(i); }, std::nullopt, "Invalid response"},
      {[&](std::size_t i) {
         http.fail(i, {Code::cannotConnectToHost, "refused"});
       },
       std::nullopt, "Network error: refused"},
      // A transport error wins over a status that came with it.
      {[&](std::size_t i) {
         http.complete(i, {ZavloHttpTransportError{Code::networkConnectionLost, "lost"}, 200, {}});
       },
       std::nullopt, "Network error: lost"},
  };
  for (std::size_t i = 0; i < cases.size(); ++i) {
    auto& results = post(url);
    EXPECT_TRUE(results.empty()) << "nothing is reported before the answer";
    cases[i].answer(i);
    ASSERT_EQ(results.size(), 1U) << "case " << i;
    if (cases[i].success) {
      ASSERT_TRUE(results[0].hasValue()) << "case " << i << ": " << results[0].error().errorDescription();
      EXPECT_EQ(std::string(results[0]->begin(), results[0]->end()), *cases[i].success);
    } else {
      ASSERT_FALSE(results[0].hasValue()) << "case " << i;
      EXPECT_EQ(results[0].error().errorDescription(), *cases[i].failure);
    }
  }
  const auto& kept = post(url);
  http.respond(cases.size(), 500, "boom");
  ASSERT_FALSE(kept.at(0).hasValue());
  const auto* httpError = kept.at(0).error().as<ZavloAuthHttpError::HttpError>();
  ASSERT_NE(httpError, nullptr);
  EXPECT_EQ(httpError->statusCode, 500);
  EXPECT_EQ(httpError->data, bytes("boom"));
}

TEST_F(ZavloAuthHTTPManagerTest, RefusesBadInputAtOnceWithoutSendingAnything) {
  const std::vector<std::string> badURLs{"", "not a url", "http://exa mple.com/", "no-scheme.example/x",
                                         std::string("http://a\0b", 10)};
  for (const auto& bad : badURLs) {
    const auto& results = post(bad);
    ASSERT_EQ(results.size(), 1U) << bad;
    ASSERT_FALSE(results[0].hasValue());
    EXPECT_EQ(results[0].error().kind(), Kind::invalidURL) << bad;
    EXPECT_EQ(results[0].error().as<ZavloAuthHttpError::InvalidURL>()->url, bad);
  }
  const auto& invalidText = post(url, {{"text", "\xFF\xFE"}});
  ASSERT_EQ(invalidText.size(), 1U);
  EXPECT_EQ(invalidText[0].error().kind(), Kind::encodingError);
  EXPECT_EQ(invalidText[0].error().errorDescription().rfind("Encoding failed: ", 0), 0U);

  const auto& notAnObject = post(url, nlohmann::json::array({1, 2}));
  EXPECT_EQ(notAnObject.at(0).error().kind(), Kind::encodingError);

  const auto& smuggled = post(url, {{"a", 1}}, ZavloAuthHTTPManager::Headers{{"X-A", "1\r\nX-Injected: 2"}});
  EXPECT_EQ(smuggled.at(0).error().kind(), Kind::encodingError);

  EXPECT_EQ(http.requestCount(), 0U);
  // A completion that throws does not take the caller down.
  EXPECT_NO_THROW(manager->post("", {}, std::nullopt, [](Result) { throw std::runtime_error("host bug"); }));
}

TEST_F(ZavloAuthHTTPManagerTest, CleanupCancelsInFlightPostsAndTheNextPostRebuildsTheSession) {
  EXPECT_FALSE(manager->rebuildIfNeeded()) << "running: nothing to rebuild";
  const auto& inFlight = post(url);
  manager->cleanup();
  EXPECT_TRUE(manager->isShutdown());
  EXPECT_EQ(http.liveSessionCount(), 0U);
  ASSERT_EQ(inFlight.size(), 1U);
  ASSERT_EQ(inFlight[0].error().kind(), Kind::networkError);
  EXPECT_EQ(inFlight[0].error().as<ZavloAuthHttpError::NetworkError>()->error.code, Code::cancelled);

  const auto& next = post(url);
  EXPECT_FALSE(manager->isShutdown());
  EXPECT_EQ(http.sessionCount(), 2U);
  EXPECT_EQ(http.liveSessionCount(), 1U);
  ASSERT_EQ(http.requestCount(), 2U);
  EXPECT_EQ(http.exchanges()[1].session, 1U);
  http.respond(1, 201);
  EXPECT_TRUE(next.at(0).hasValue());

  manager->cleanup();
  EXPECT_TRUE(manager->rebuildIfNeeded());
  EXPECT_FALSE(manager->rebuildIfNeeded());
}

TEST_F(ZavloAuthHTTPManagerTest, AManagerDestroyedWithAPostInFlightNeverReports) {
  const auto& results = post(url);
  manager.reset();
  EXPECT_EQ(http.exchanges().at(0).state, ZavloTestHttpExchange::State::cancelled);
  EXPECT_FALSE(http.respond(0, 200));
  platform.advanceBy(120s);
  EXPECT_TRUE(results.empty());
}

TEST_F(ZavloAuthHTTPManagerTest, AnUnansweredPostTimesOutAfterItsOwnSixtySeconds) {
  const auto& results = post(url);
  platform.advanceBy(59s);  // the session's 30 s idle limit is overridden by the request's 60 s
  EXPECT_TRUE(results.empty());
  EXPECT_FALSE(manager->waitForOutstandingPosts(0ms));
  platform.advanceBy(1s);
  ASSERT_EQ(results.size(), 1U);
  EXPECT_EQ(results[0].error().as<ZavloAuthHttpError::NetworkError>()->error.code, Code::timedOut);
  EXPECT_TRUE(manager->waitForOutstandingPosts(0ms));
}

TEST_F(ZavloAuthHTTPManagerTest, ACompletionMayPostAgainAndCleanUp) {
  std::vector<Result> second;
  manager->post(url, {{"n", 1}}, std::nullopt, [&](Result) {
    manager->post(url, {{"n", 2}}, std::nullopt, [&](Result result) { second.push_back(std::move(result)); });
    manager->cleanup();  // cancels the post just made, from inside a completion
  });
  http.respond(0, 200);
  ASSERT_EQ(http.requestCount(), 2U);
  ASSERT_EQ(second.size(), 1U);
  EXPECT_EQ(second[0].error().kind(), Kind::networkError);
}

}  // namespace
