// The HTTP session contract, run on the test session and on the Linux libcurl session
// against a loopback server, so that the double cannot drift from the real thing.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "Platform/Linux/Network/ZavloLinuxHttpSession.hpp"
#include "Testing/ZavloTestPlatform.hpp"
#include "tools/peers/ZavloHttpTestServer.hpp"

using namespace std::chrono_literals;
using Code = ZavloHttpTransportError::Code;

namespace {

// Outcomes as they arrive, from whichever thread reports them.
class Outcomes {
 public:
  ZavloHttpSession::Completion collect() {
    return [this](ZavloHttpTaskOutcome outcome) {
      std::lock_guard lock(mutex_);
      outcomes_.push_back(std::move(outcome));
      changed_.notify_all();
    };
  }
  std::size_t size() const {
    std::lock_guard lock(mutex_);
    return outcomes_.size();
  }
  ZavloHttpTaskOutcome at(std::size_t i) const {
    std::lock_guard lock(mutex_);
    return outcomes_.at(i);
  }
  bool waitFor(std::size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return outcomes_.size() >= count; });
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<ZavloHttpTaskOutcome> outcomes_;
};

// Both drivers: a session, a place its requests arrive, and a way to answer them.
struct TestSessionDriver {
  ZavloTestPlatform platform;
  std::shared_ptr<ZavloHttpSession> makeSession(const ZavloHttpSessionConfiguration& configuration) {
    return platform.makeHttpSession(configuration);
  }
  std::string url(const std::string& path) { return "http://collector.test" + path; }
  bool waitForRequests(std::size_t count) { return platform.http().requestCount() >= count; }
  std::string body(std::size_t i) { return platform.http().exchanges().at(i).bodyText(); }
  std::vector<std::pair<std::string, std::string>> headers(std::size_t i) {
    return platform.http().exchanges().at(i).request.headers;
  }
  bool answer(std::size_t i, int status, const std::string& body) { return platform.http().respond(i, status, body); }
  // Lets time pass: virtual time here, the wall clock for the Linux driver.
  bool settle(Outcomes& outcomes, std::size_t count, std::chrono::milliseconds span) {
    platform.advanceBy(span);
    return outcomes.size() >= count;
  }
};

struct LinuxSessionDriver {
  ZavloHttpTestServer server{ZavloHttpTestServer::neverAnswer()};
  std::shared_ptr<ZavloHttpSession> makeSession(const ZavloHttpSessionConfiguration& configuration) {
    return std::make_shared<ZavloLinuxHttpSession>(configuration);
  }
  std::string url(const std::string& path) { return server.url(path); }
  bool waitForRequests(std::size_t count) { return server.waitForRequests(count, 10s); }
  std::string body(std::size_t i) { return server.requests().at(i).body; }
  std::vector<std::pair<std::string, std::string>> headers(std::size_t i) { return server.requests().at(i).headers; }
  bool answer(std::size_t i, int status, const std::string& body) {
    return server.answer(i, ZavloHttpTestReply::text(status, body));
  }
  bool settle(Outcomes& outcomes, std::size_t count, std::chrono::milliseconds span) {
    return outcomes.waitFor(count, span + 10s);  // generous bound; returns as soon as done
  }
};

ZavloHttpRequest request(const std::string& url, const std::string& body) {
  ZavloHttpRequest request;
  request.url = url;
  request.headers = {{"Content-Type", "application/json"}, {"X-Second", "2"}, {"X-First", "1"}};
  request.body.assign(body.begin(), body.end());
  return request;
}

template <class Driver>
class ZavloHttpSessionContract : public ::testing::Test {
 protected:
  Driver driver;
  Outcomes outcomes;
};

using Drivers = ::testing::Types<TestSessionDriver, LinuxSessionDriver>;
TYPED_TEST_SUITE(ZavloHttpSessionContract, Drivers);

TYPED_TEST(ZavloHttpSessionContract, SendsHeadersInOrderAndTheBodyThenReportsTheAnswerOnce) {
  auto session = this->driver.makeSession({});
  session->post(request(this->driver.url("/collect"), "{\"a\":1}"), this->outcomes.collect());
  ASSERT_TRUE(this->driver.waitForRequests(1));
  EXPECT_EQ(this->outcomes.size(), 0U);
  EXPECT_EQ(this->driver.body(0), "{\"a\":1}");
  std::vector<std::string> names;
  for (const auto& [name, value] : this->driver.headers(0)) {
    if (name.rfind("X-", 0) == 0) names.push_back(name + "=" + value);
  }
  EXPECT_EQ(names, (std::vector<std::string>{"X-Second=2", "X-First=1"}));

  ASSERT_TRUE(this->driver.answer(0, 201, "created"));
  ASSERT_TRUE(this->driver.settle(this->outcomes, 1, 0ms));
  const auto outcome = this->outcomes.at(0);
  EXPECT_FALSE(outcome.error);
  EXPECT_EQ(outcome.statusCode, 201);
  ASSERT_TRUE(outcome.data);
  EXPECT_EQ(std::string(outcome.data->begin(), outcome.data->end()), "created");
  EXPECT_TRUE(session->waitForOutstandingTasks(5s));
  EXPECT_EQ(this->outcomes.size(), 1U);
}

TYPED_TEST(ZavloHttpSessionContract, AnUnansweredRequestTimesOutAtTheIdleOrTheWholeTransferLimit) {
  ZavloHttpSessionConfiguration idle;
  idle.requestTimeout = 1s;
  auto idleSession = this->driver.makeSession(idle);
  idleSession->post(request(this->driver.url("/"), "{}"), this->outcomes.collect());

  ZavloHttpSessionConfiguration whole;
  whole.requestTimeout = 30s;
  whole.resourceTimeout = 1s;
  auto wholeSession = this->driver.makeSession(whole);
  wholeSession->post(request(this->driver.url("/"), "{}"), this->outcomes.collect());

  ASSERT_TRUE(this->driver.waitForRequests(2));
  EXPECT_FALSE(idleSession->waitForOutstandingTasks(10ms));
  ASSERT_TRUE(this->driver.settle(this->outcomes, 2, 1s));
  for (std::size_t i = 0; i < 2; ++i) {
    const auto outcome = this->outcomes.at(i);
    ASSERT_TRUE(outcome.error) << i;
    EXPECT_EQ(outcome.error->code, Code::timedOut) << outcome.error->localizedDescription;
    EXPECT_FALSE(outcome.statusCode);
  }
}

TYPED_TEST(ZavloHttpSessionContract, InvalidatingCancelsOutstandingTasksBeforeReturningAndRefusesNewOnes) {
  auto session = this->driver.makeSession({});
  session->post(request(this->driver.url("/a"), "{}"), this->outcomes.collect());
  session->post(request(this->driver.url("/b"), "{}"), this->outcomes.collect());
  ASSERT_TRUE(this->driver.waitForRequests(2));
  session->invalidateAndCancel();
  ASSERT_EQ(this->outcomes.size(), 2U);
  for (std::size_t i = 0; i < 2; ++i) EXPECT_EQ(this->outcomes.at(i).error->code, Code::cancelled);

  session->post(request(this->driver.url("/c"), "{}"), this->outcomes.collect());
  ASSERT_EQ(this->outcomes.size(), 3U) << "refused at once";
  EXPECT_EQ(this->outcomes.at(2).error->code, Code::cancelled);
  EXPECT_TRUE(session->waitForOutstandingTasks(0ms));
  session->invalidateAndCancel();  // idempotent
  EXPECT_EQ(this->outcomes.size(), 3U);
}

TYPED_TEST(ZavloHttpSessionContract, DestroyingTheSessionCancelsWhatIsInFlight) {
  auto session = this->driver.makeSession({});
  session->post(request(this->driver.url("/"), "{}"), this->outcomes.collect());
  ASSERT_TRUE(this->driver.waitForRequests(1));
  session.reset();
  ASSERT_EQ(this->outcomes.size(), 1U);
  EXPECT_EQ(this->outcomes.at(0).error->code, Code::cancelled);
}

TYPED_TEST(ZavloHttpSessionContract, ACompletionMayPostAgainOnItsSession) {
  auto session = this->driver.makeSession({});
  const auto url = this->driver.url("/again");
  auto& outcomes = this->outcomes;
  session->post(request(url, "1"), [&outcomes, session, url](ZavloHttpTaskOutcome) {
    session->post(request(url, "2"), outcomes.collect());
  });
  ASSERT_TRUE(this->driver.waitForRequests(1));
  this->driver.answer(0, 200, "");
  ASSERT_TRUE(this->driver.waitForRequests(2));
  EXPECT_EQ(this->driver.body(1), "2");
  this->driver.answer(1, 200, "");
  ASSERT_TRUE(this->driver.settle(outcomes, 1, 0ms));
  EXPECT_EQ(outcomes.at(0).statusCode, 200);
  ASSERT_TRUE(outcomes.at(0).data) << "an answer without body bytes still has a body";
  EXPECT_TRUE(outcomes.at(0).data->empty());
}

}  // namespace
