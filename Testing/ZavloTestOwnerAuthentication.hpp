#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/ZavloOwnerAuthentication.hpp"
#include "Platform/ZavloQueue.hpp"

/// Scripted owner authentication for the test platform: which policies can be evaluated,
/// the enrolled biometrics (their domain state), and how each prompt ends. Replies are
/// posted to the reply queue given at construction (a queue of the test platform's
/// virtual clock), so that they arrive only when the test drains its queues.
///
/// A context reports the domain state current at its latest canEvaluatePolicy or
/// evaluatePolicy call, and only while biometrics can be evaluated; before any call it
/// reports none, as a fresh context on the device does.
///
/// A prompt that succeeds leaves its context a proof: the owner's secret as set by
/// setOwnerSecret, verified or not.
///
/// Defaults: both policies can be evaluated, the domain state is the bytes "biometry-1",
/// every prompt succeeds, and the owner's secret is "owner secret", verified.
///
/// Threading contract: every method is callable from any thread; replies run on the reply
/// queue, outside every lock.
class ZavloTestOwnerAuthentication {
 public:
  using Policy = ZavloOwnerAuthenticationPolicy;

  /// How a prompt ends.
  struct Outcome {
    bool success = true;
    std::optional<ZavloOwnerAuthenticationError> error;

    static Outcome succeeded() { return {true, std::nullopt}; }
    /// A failure with a LocalAuthentication error code (ZavloLAError).
    static Outcome laError(std::int64_t code) {
      return {false, ZavloOwnerAuthenticationError::localAuthentication(code, "LocalAuthentication error")};
    }
    /// A failure with an error of another domain.
    static Outcome otherError(std::string domain, std::int64_t code) {
      return {false, ZavloOwnerAuthenticationError{std::move(domain), code, "Not an owner authentication error"}};
    }
    /// A failure without an error.
    static Outcome failedWithoutError() { return {false, std::nullopt}; }
  };

  /// One prompt that some context showed.
  struct Prompt {
    Policy policy;
    std::string localizedReason;
    std::optional<std::string> fallbackTitle;  ///< as set on the context when it prompted
    std::string requestingOrigin;              ///< as set on the context when it prompted
    bool answered = false;
  };

  explicit ZavloTestOwnerAuthentication(std::shared_ptr<ZavloQueue> replyQueue);
  /// Drops the replies of prompts still held (they are never called).
  ~ZavloTestOwnerAuthentication();
  ZavloTestOwnerAuthentication(const ZavloTestOwnerAuthentication&) = delete;
  ZavloTestOwnerAuthentication& operator=(const ZavloTestOwnerAuthentication&) = delete;

  /// What ZavloTestPlatform::makeOwnerAuthenticationContext returns.
  std::shared_ptr<ZavloOwnerAuthenticationContext> makeContext();

  /// The standing answer of canEvaluatePolicy for policy.
  void setCanEvaluatePolicy(Policy policy, bool answer);
  /// Answers for the next calls of canEvaluatePolicy for policy, in order, whatever
  /// context asks; the standing answer follows.
  void queueCanEvaluatePolicyAnswers(Policy policy, std::vector<bool> answers);
  /// The enrolled biometrics; absent means none enrolled.
  void setBiometryDomainState(std::optional<ZavloBytes> state);
  /// The secret the proofs of later successful prompts carry (empty: none), and whether an
  /// authority other than the key store verified it.
  void setOwnerSecret(std::string secret, bool verified);

  /// How the next prompt ends (prompts take scripted outcomes in order).
  void scriptNextPrompt(Outcome outcome);
  /// The next prompt gets no reply until replyToPrompt.
  void holdNextPrompt();
  /// How prompts end when nothing is scripted; absent holds them.
  void setDefaultOutcome(std::optional<Outcome> outcome);
  /// Replies to a held prompt (index into prompts()) by posting to the reply queue. False
  /// when that prompt is not held.
  bool replyToPrompt(std::size_t index, Outcome outcome);

  [[nodiscard]] std::vector<Prompt> prompts() const;
  [[nodiscard]] std::size_t heldPromptCount() const;
  [[nodiscard]] std::size_t contextCount() const;
  /// How many times canEvaluatePolicy was asked for policy.
  [[nodiscard]] std::size_t canEvaluatePolicyCount(Policy policy) const;

 private:
  struct State;
  class Context;

  std::shared_ptr<State> state_;
};
