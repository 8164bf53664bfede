#pragma once

// The HTTP session contract: headers in order and the body reach the server, each task
// reports once, time-outs, invalidation and destruction cancel what is in flight, and a
// completion may post again. A host instantiates it with a driver per session type:
//
//   struct MyDriver {
//     std::shared_ptr<ZavloHttpSession> makeSession(const ZavloHttpSessionConfiguration&);
//     std::string url(const std::string& path);       // a URL of the driver's server
//     bool waitForRequests(std::size_t count);        // the server has seen count requests
//     std::string body(std::size_t i);                // what request i carried
//     std::vector<std::pair<std::string, std::string>> headers(std::size_t i);
//     bool answer(std::size_t i, int status, const std::string& body);
//     // Lets `span` of the session's time pass, or until count outcomes arrived.
//     bool settle(ZavloHttpOutcomes& outcomes, std::size_t count, std::chrono::milliseconds span);
//   };
//   INSTANTIATE_TYPED_TEST_SUITE_P(My, ZavloHttpSessionContract, ::testing::Types<MyDriver>);
//
// The server answers nothing until answer() is called.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "Platform/ZavloHttpSession.hpp"

/// Outcomes as they arrive, from whichever thread reports them.
class ZavloHttpOutcomes {
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

template <class Driver>
class ZavloHttpSessionContract : public ::testing::Test {
 protected:
  static ZavloHttpRequest request(const std::string& url, const std::string& body) {
    ZavloHttpRequest request;
    request.url = url;
    request.headers = {{"Content-Type", "application/json"}, {"X-Second", "2"}, {"X-First", "1"}};
    request.body.assign(body.begin(), body.end());
    return request;
  }

  Driver driver;
  ZavloHttpOutcomes outcomes;
};

TYPED_TEST_SUITE_P(ZavloHttpSessionContract);

TYPED_TEST_P(ZavloHttpSessionContract, SendsHeadersInOrderAndTheBodyThenReportsTheAnswerOnce) {
  using namespace std::chrono_literals;
  auto session = this->driver.makeSession({});
  session->post(this->request(this->driver.url("/collect"), "{\"a\":1}"), this->outcomes.collect());
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

TYPED_TEST_P(ZavloHttpSessionContract, AnUnansweredRequestTimesOutAtTheIdleOrTheWholeTransferLimit) {
  using namespace std::chrono_literals;
  ZavloHttpSessionConfiguration idle;
  idle.requestTimeout = 1s;
  auto idleSession = this->driver.makeSession(idle);
  idleSession->post(this->request(this->driver.url("/"), "{}"), this->outcomes.collect());

  ZavloHttpSessionConfiguration whole;
  whole.requestTimeout = 30s;
  whole.resourceTimeout = 1s;
  auto wholeSession = this->driver.makeSession(whole);
  wholeSession->post(this->request(this->driver.url("/"), "{}"), this->outcomes.collect());

  ASSERT_TRUE(this->driver.waitForRequests(2));
  EXPECT_FALSE(idleSession->waitForOutstandingTasks(10ms));
  ASSERT_TRUE(this->driver.settle(this->outcomes, 2, 1s));
  for (std::size_t i = 0; i < 2; ++i) {
    const auto outcome = this->outcomes.at(i);
    ASSERT_TRUE(outcome.error) << i;
    EXPECT_EQ(outcome.error->code, ZavloHttpTransportError::Code::timedOut) << outcome.error->localizedDescription;
    EXPECT_FALSE(outcome.statusCode);
  }
}

TYPED_TEST_P(ZavloHttpSessionContract, InvalidatingCancelsOutstandingTasksBeforeReturningAndRefusesNewOnes) {
  using Code = ZavloHttpTransportError::Code;
  auto session = this->driver.makeSession({});
  session->post(this->request(this->driver.url("/a"), "{}"), this->outcomes.collect());
  session->post(this->request(this->driver.url("/b"), "{}"), this->outcomes.collect());
  ASSERT_TRUE(this->driver.waitForRequests(2));
  session->invalidateAndCancel();
  ASSERT_EQ(this->outcomes.size(), 2U);
  for (std::size_t i = 0; i < 2; ++i) EXPECT_EQ(this->outcomes.at(i).error->code, Code::cancelled);

  session->post(this->request(this->driver.url("/c"), "{}"), this->outcomes.collect());
  ASSERT_EQ(this->outcomes.size(), 3U) << "refused at once";
  EXPECT_EQ(this->outcomes.at(2).error->code, Code::cancelled);
  EXPECT_TRUE(session->waitForOutstandingTasks(std::chrono::milliseconds(0)));
  session->invalidateAndCancel();  // idempotent
  EXPECT_EQ(this->outcomes.size(), 3U);
}

TYPED_TEST_P(ZavloHttpSessionContract, DestroyingTheSessionCancelsWhatIsInFlight) {
  auto session = this->driver.makeSession({});
  session->post(this->request(this->driver.url("/"), "{}"), this->outcomes.collect());
  ASSERT_TRUE(this->driver.waitForRequests(1));
  session.reset();
  ASSERT_EQ(this->outcomes.size(), 1U);
  EXPECT_EQ(this->outcomes.at(0).error->code, ZavloHttpTransportError::Code::cancelled);
}

TYPED_TEST_P(ZavloHttpSessionContract, ACompletionMayPostAgainOnItsSession) {
  using namespace std::chrono_literals;
  auto session = this->driver.makeSession({});
  const auto url = this->driver.url("/again");
  auto& outcomes = this->outcomes;
  const auto second = this->request(url, "2");
  session->post(this->request(url, "1"),
                [&outcomes, session, second](ZavloHttpTaskOutcome) { session->post(second, outcomes.collect()); });
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

REGISTER_TYPED_TEST_SUITE_P(ZavloHttpSessionContract, SendsHeadersInOrderAndTheBodyThenReportsTheAnswerOnce,
                            AnUnansweredRequestTimesOutAtTheIdleOrTheWholeTransferLimit,
                            InvalidatingCancelsOutstandingTasksBeforeReturningAndRefusesNewOnes,
                            DestroyingTheSessionCancelsWhatIsInFlight, ACompletionMayPostAgainOnItsSession);
