#include "Testing/ZavloTestHttp.hpp"

#include <algorithm>
#include <cctype>

#include "Testing/ZavloTestScheduler.hpp"

namespace {

using Code = ZavloHttpTransportError::Code;

bool equalsIgnoringCase(const std::string& a, const std::string& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](unsigned char x, unsigned char y) { return std::tolower(x) == std::tolower(y); });
}

ZavloHttpTaskOutcome cancelledOutcome() {
  return ZavloHttpTaskOutcome::failure(Code::cancelled, std::string(zavloDescribe(Code::cancelled)));
}

}  // namespace

std::optional<std::string> ZavloTestHttpExchange::header(const std::string& name) const {
  for (const auto& [field, value] : request.headers) {
    if (equalsIgnoringCase(field, name)) return value;
  }
  return std::nullopt;
}

struct ZavloTestHttp::State {
  struct Record {
    ZavloTestHttpExchange exchange;
    ZavloHttpSession::Completion completion;
    std::shared_ptr<ZavloTimer> timer;
  };

  mutable std::mutex mutex;
  std::shared_ptr<ZavloQueue> timerQueue;
  std::vector<Record> records;
  std::vector<bool> liveSessions;

  // Moves a pending exchange to its final state and runs its completion outside the lock.
  bool finish(std::size_t index, ZavloHttpTaskOutcome outcome, ZavloTestHttpExchange::State finalState) {
    ZavloHttpSession::Completion completion;
    std::shared_ptr<ZavloTimer> timer;
    {
      std::lock_guard lock(mutex);
      if (index >= records.size() || records[index].exchange.state != ZavloTestHttpExchange::State::pending) {
        return false;
      }
      records[index].exchange.state = finalState;
      completion = std::move(records[index].completion);
      timer = std::move(records[index].timer);
    }
    if (timer) timer->cancel();
    if (completion) completion(std::move(outcome));
    return true;
  }
};

class ZavloTestHttp::Session final : public ZavloHttpSession {
 public:
  Session(std::shared_ptr<State> state, std::size_t index, ZavloHttpSessionConfiguration configuration)
      : state_(std::move(state)), index_(index), configuration_(configuration) {}
  ~Session() override { invalidateAndCancel(); }

  void post(ZavloHttpRequest request, Completion completion) override {
    const auto idle = request.timeoutInterval.value_or(configuration_.requestTimeout);
    std::size_t index = 0;
    bool accepted = false;
    Completion rejected;
    {
      std::lock_guard lock(state_->mutex);
      if (!state_->liveSessions[index_]) {
        rejected = std::move(completion);
      } else {
        accepted = true;
        index = state_->records.size();
        State::Record record;
        record.exchange = {index_, configuration_, std::move(request), ZavloTestHttpExchange::State::pending};
        record.completion = std::move(completion);
        state_->records.push_back(std::move(record));
      }
    }
    if (!accepted) {  // the session was invalidated
      if (rejected) rejected(cancelledOutcome());
      return;
    }
    std::weak_ptr<State> weak = state_;
    auto timer = state_->timerQueue->postAfter(std::min(idle, configuration_.resourceTimeout), [weak, index] {
      if (auto state = weak.lock()) {
        state->finish(index, ZavloHttpTaskOutcome::failure(Code::timedOut, std::string(zavloDescribe(Code::timedOut))),
                      ZavloTestHttpExchange::State::timedOut);
      }
    });
    std::lock_guard lock(state_->mutex);
    if (state_->records[index].exchange.state == ZavloTestHttpExchange::State::pending) {
      state_->records[index].timer = std::move(timer);
    } else {
      timer->cancel();
    }
  }

  void invalidateAndCancel() override {
    std::vector<std::size_t> pending;
    {
      std::lock_guard lock(state_->mutex);
      state_->liveSessions[index_] = false;
      for (std::size_t i = 0; i < state_->records.size(); ++i) {
        const auto& exchange = state_->records[i].exchange;
        if (exchange.session == index_ && exchange.state == ZavloTestHttpExchange::State::pending) pending.push_back(i);
      }
    }
    for (const auto i : pending) state_->finish(i, cancelledOutcome(), ZavloTestHttpExchange::State::cancelled);
  }

  bool waitForOutstandingTasks(std::chrono::milliseconds /*timeout*/) override {
    std::lock_guard lock(state_->mutex);
    return std::none_of(state_->records.begin(), state_->records.end(), [&](const State::Record& record) {
      return record.exchange.session == index_ && record.exchange.state == ZavloTestHttpExchange::State::pending;
    });
  }

 private:
  std::shared_ptr<State> state_;
  std::size_t index_;
  ZavloHttpSessionConfiguration configuration_;
};

ZavloTestHttp::ZavloTestHttp(const std::shared_ptr<ZavloTestScheduler>& scheduler) : state_(std::make_shared<State>()) {
  state_->timerQueue = scheduler->makeQueue("http");
}

ZavloTestHttp::~ZavloTestHttp() = default;

std::shared_ptr<ZavloHttpSession> ZavloTestHttp::makeSession(const ZavloHttpSessionConfiguration& configuration) {
  std::lock_guard lock(state_->mutex);
  state_->liveSessions.push_back(true);
  return std::make_shared<Session>(state_, state_->liveSessions.size() - 1, configuration);
}

std::size_t ZavloTestHttp::sessionCount() const {
  std::lock_guard lock(state_->mutex);
  return state_->liveSessions.size();
}

std::size_t ZavloTestHttp::liveSessionCount() const {
  std::lock_guard lock(state_->mutex);
  return static_cast<std::size_t>(std::count(state_->liveSessions.begin(), state_->liveSessions.end(), true));
}

std::vector<ZavloTestHttpExchange> ZavloTestHttp::exchanges() const {
  std::lock_guard lock(state_->mutex);
  std::vector<ZavloTestHttpExchange> copy;
  copy.reserve(state_->records.size());
  for (const auto& record : state_->records) copy.push_back(record.exchange);
  return copy;
}

std::size_t ZavloTestHttp::requestCount() const {
  std::lock_guard lock(state_->mutex);
  return state_->records.size();
}

std::size_t ZavloTestHttp::pendingCount() const {
  std::lock_guard lock(state_->mutex);
  return static_cast<std::size_t>(std::count_if(
      state_->records.begin(), state_->records.end(),
      [](const State::Record& record) { return record.exchange.state == ZavloTestHttpExchange::State::pending; }));
}

bool ZavloTestHttp::respond(std::size_t index, int statusCode, std::optional<std::string> body) {
  ZavloHttpTaskOutcome outcome;
  outcome.statusCode = statusCode;
  if (body) outcome.data = std::vector<std::uint8_t>(body->begin(), body->end());
  return complete(index, std::move(outcome));
}

bool ZavloTestHttp::fail(std::size_t index, ZavloHttpTransportError error) {
  return complete(index, {std::move(error), std::nullopt, std::nullopt});
}

bool ZavloTestHttp::respondWithNothing(std::size_t index) { return complete(index, {}); }

bool ZavloTestHttp::complete(std::size_t index, ZavloHttpTaskOutcome outcome) {
  return state_->finish(index, std::move(outcome), ZavloTestHttpExchange::State::answered);
}
