#include "Testing/ZavloTestOwnerAuthentication.hpp"

#include <deque>
#include <map>
#include <mutex>

#include "Testing/ZavloTestKeyStore.hpp"

using Policy = ZavloOwnerAuthenticationPolicy;
using Reply = ZavloOwnerAuthenticationContext::Reply;

struct ZavloTestOwnerAuthentication::State {
  struct Held {
    Reply reply;
    std::weak_ptr<Context> context;
  };

  explicit State(std::shared_ptr<ZavloQueue> queue) : replyQueue(std::move(queue)) {}

  const std::shared_ptr<ZavloQueue> replyQueue;
  mutable std::mutex mutex;
  std::map<Policy, bool> standing{{Policy::deviceOwnerAuthenticationWithBiometrics, true},
                                  {Policy::deviceOwnerAuthentication, true}};
  std::map<Policy, std::deque<bool>> queued;
  std::map<Policy, std::size_t> askCount;
  std::optional<ZavloBytes> domainState = zavloBytes("biometry-1");
  std::string secret = "owner secret";
  bool secretVerified = true;
  std::deque<std::optional<Outcome>> scripted;
  std::optional<Outcome> defaultOutcome = Outcome::succeeded();
  std::vector<Prompt> prompts;
  std::map<std::size_t, Held> held;
  std::size_t contexts = 0;

  bool answer(Policy policy) {
    std::lock_guard lock(mutex);
    ++askCount[policy];
    auto& next = queued[policy];
    if (next.empty()) return standing[policy];
    const bool answer = next.front();
    next.pop_front();
    return answer;
  }

  std::optional<ZavloBytes> currentDomainState(std::optional<bool> biometricsAnswer) {
    std::lock_guard lock(mutex);
    const bool biometrics = biometricsAnswer.value_or(standing[Policy::deviceOwnerAuthenticationWithBiometrics]);
    return biometrics ? domainState : std::nullopt;
  }

  // Posts the reply; never runs it inline.
  void deliver(std::size_t index, const std::weak_ptr<Context>& context, Reply reply, Outcome outcome);
};

class ZavloTestOwnerAuthentication::Context final : public ZavloOwnerAuthenticationContext,
                                                    public std::enable_shared_from_this<Context> {
 public:
  explicit Context(std::shared_ptr<State> state) : state_(std::move(state)) {}

  bool canEvaluatePolicy(Policy policy) override {
    const bool answer = state_->answer(policy);
    const auto biometrics =
        policy == Policy::deviceOwnerAuthenticationWithBiometrics ? std::optional(answer) : std::nullopt;
    std::lock_guard lock(mutex_);
    domainState_ = state_->currentDomainState(biometrics);
    return answer;
  }

  void setLocalizedFallbackTitle(std::optional<std::string> title) override {
    std::lock_guard lock(mutex_);
    fallbackTitle_ = std::move(title);
  }

  void setRequestingOrigin(std::string origin) override {
    std::lock_guard lock(mutex_);
    requestingOrigin_ = std::move(origin);
  }

  void evaluatePolicy(Policy policy, const std::string& localizedReason, Reply reply) override {
    std::optional<std::string> fallbackTitle;
    std::string requestingOrigin;
    {
      std::lock_guard lock(mutex_);
      domainState_ = state_->currentDomainState(std::nullopt);
      fallbackTitle = fallbackTitle_;
      requestingOrigin = requestingOrigin_;
    }
    std::optional<Outcome> outcome;
    std::size_t index = 0;
    {
      std::lock_guard lock(state_->mutex);
      index = state_->prompts.size();
      state_->prompts.push_back(
          {policy, localizedReason, std::move(fallbackTitle), std::move(requestingOrigin), false});
      if (!state_->scripted.empty()) {
        outcome = state_->scripted.front();
        state_->scripted.pop_front();
      } else {
        outcome = state_->defaultOutcome;
      }
      if (!outcome) {
        state_->held.emplace(index, State::Held{std::move(reply), weak_from_this()});
        return;
      }
    }
    state_->deliver(index, weak_from_this(), std::move(reply), *outcome);
  }

  std::optional<ZavloBytes> evaluatedPolicyDomainState() override {
    std::lock_guard lock(mutex_);
    return domainState_;
  }

  std::unique_ptr<ZavloOwnerProof> takeOwnerProof() override {
    std::lock_guard lock(mutex_);
    return std::move(proof_);
  }

  void authenticated() {
    std::string secret;
    bool verified = false;
    {
      std::lock_guard lock(state_->mutex);
      secret = state_->secret;
      verified = state_->secretVerified;
    }
    std::lock_guard lock(mutex_);
    proof_ = std::make_unique<ZavloTestOwnerProof>(secret, verified);
  }

 private:
  const std::shared_ptr<State> state_;
  mutable std::mutex mutex_;
  std::optional<std::string> fallbackTitle_;
  std::string requestingOrigin_;
  std::optional<ZavloBytes> domainState_;
  std::unique_ptr<ZavloOwnerProof> proof_;
};

void ZavloTestOwnerAuthentication::State::deliver(std::size_t index, const std::weak_ptr<Context>& context, Reply reply,
                                                  Outcome outcome) {
  {
    std::lock_guard lock(mutex);
    prompts.at(index).answered = true;
  }
  replyQueue->post([context, reply = std::move(reply), outcome = std::move(outcome)] {
    if (outcome.success) {
      if (const auto evaluated = context.lock()) evaluated->authenticated();
    }
    if (reply) reply(outcome.success, outcome.error);
  });
}

ZavloTestOwnerAuthentication::ZavloTestOwnerAuthentication(std::shared_ptr<ZavloQueue> replyQueue)
    : state_(std::make_shared<State>(std::move(replyQueue))) {}

ZavloTestOwnerAuthentication::~ZavloTestOwnerAuthentication() {
  // A held reply may own the context that owns the state: drop it to break that cycle.
  std::map<std::size_t, State::Held> held;
  {
    std::lock_guard lock(state_->mutex);
    held.swap(state_->held);
  }
}

std::shared_ptr<ZavloOwnerAuthenticationContext> ZavloTestOwnerAuthentication::makeContext() {
  {
    std::lock_guard lock(state_->mutex);
    ++state_->contexts;
  }
  return std::make_shared<Context>(state_);
}

void ZavloTestOwnerAuthentication::setCanEvaluatePolicy(Policy policy, bool answer) {
  std::lock_guard lock(state_->mutex);
  state_->standing[policy] = answer;
}

void ZavloTestOwnerAuthentication::queueCanEvaluatePolicyAnswers(Policy policy, std::vector<bool> answers) {
  std::lock_guard lock(state_->mutex);
  auto& queued = state_->queued[policy];
  queued.insert(queued.end(), answers.begin(), answers.end());
}

void ZavloTestOwnerAuthentication::setBiometryDomainState(std::optional<ZavloBytes> state) {
  std::lock_guard lock(state_->mutex);
  state_->domainState = std::move(state);
}

void ZavloTestOwnerAuthentication::setOwnerSecret(std::string secret, bool verified) {
  std::lock_guard lock(state_->mutex);
  state_->secret = std::move(secret);
  state_->secretVerified = verified;
}

void ZavloTestOwnerAuthentication::scriptNextPrompt(Outcome outcome) {
  std::lock_guard lock(state_->mutex);
  state_->scripted.emplace_back(std::move(outcome));
}

void ZavloTestOwnerAuthentication::holdNextPrompt() {
  std::lock_guard lock(state_->mutex);
  state_->scripted.emplace_back(std::nullopt);
}

void ZavloTestOwnerAuthentication::setDefaultOutcome(std::optional<Outcome> outcome) {
  std::lock_guard lock(state_->mutex);
  state_->defaultOutcome = std::move(outcome);
}

bool ZavloTestOwnerAuthentication::replyToPrompt(std::size_t index, Outcome outcome) {
  State::Held held;
  {
    std::lock_guard lock(state_->mutex);
    const auto found = state_->held.find(index);
    if (found == state_->held.end()) return false;
    held = std::move(found->second);
    state_->held.erase(found);
  }
  state_->deliver(index, held.context, std::move(held.reply), std::move(outcome));
  return true;
}

std::vector<ZavloTestOwnerAuthentication::Prompt> ZavloTestOwnerAuthentication::prompts() const {
  std::lock_guard lock(state_->mutex);
  return state_->prompts;
}

std::size_t ZavloTestOwnerAuthentication::heldPromptCount() const {
  std::lock_guard lock(state_->mutex);
  return state_->held.size();
}

std::size_t ZavloTestOwnerAuthentication::contextCount() const {
  std::lock_guard lock(state_->mutex);
  return state_->contexts;
}

std::size_t ZavloTestOwnerAuthentication::canEvaluatePolicyCount(Policy policy) const {
  std::lock_guard lock(state_->mutex);
  const auto found = state_->askCount.find(policy);
  return found == state_->askCount.end() ? 0 : found->second;
}
