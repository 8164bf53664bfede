#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/ZavloOwnerAuthentication.hpp"

class ZavloLinuxOwnerAuthenticationContext;

/// Owner authentication on Linux. PAM asks for the owner's own credential (the configured
/// user's, by default the user the process runs as); the biometric domain state is a
/// SHA-256 digest of the finger names the fingerprint daemon (fprintd) has enrolled for that
/// user on its default device, each name followed by a line feed, in sorted order.
///
/// Makes contexts. Each evaluation runs on a detached thread of its own that holds
/// everything it touches, so contexts and this object may go at any time; a context
/// destroyed while its prompt is up cancels the prompt and its reply gets appCancel.
class ZavloLinuxOwnerAuthentication {
 public:
  /// Errors that are not owner-authentication outcomes: a failing PAM stack (code: PAM's
  /// return value, description: PAM's message), a conversation that could not ask, or a
  /// bad argument (code kInvalidArgument).
  static constexpr std::string_view kErrorDomain = "ZavloLinuxOwnerAuthentication";
  static constexpr std::int64_t kInvalidArgument = -50;

  enum class Mode {
    pam,    ///< ask PAM
    allow,  ///< every prompt succeeds at once, without asking anyone (demos, scripts)
    deny,   ///< every prompt fails at once as a failed authentication
  };

  /// One message of a PAM conversation round.
  struct Message {
    enum class Style { promptEchoOff, promptEchoOn, errorMessage, textInfo };
    Style style = Style::promptEchoOff;
    std::string text;
  };

  /// One round of PAM's questions, with what the owner is told the authentication is for.
  struct ConversationRound {
    std::string reason;  ///< the evaluation's localized reason
    std::vector<Message> messages;
    /// Becomes readable when the evaluation is cancelled (its context was destroyed): a
    /// conversation that waits for a person polls it beside its own input, then cancels.
    int cancelFd = -1;
  };

  /// Answers one round: one response per message (the text for prompts, ignored for the
  /// others), or std::nullopt when the owner cancels. Throwing means the question could
  /// not be asked (no terminal, say): the evaluation fails with the exception's message.
  /// Runs on the evaluation's thread.
  using Conversation = std::function<std::optional<std::vector<std::string>>(const ConversationRound&)>;

  struct Options {
    /// Never changes by itself: allow and deny are explicit choices.
    Mode mode = Mode::pam;
    std::string pamService = "zavlo-auth";
    /// Whose credential is asked for; by default the user the process runs as.
    std::optional<std::string> user = {};
    /// How PAM's questions reach the owner; by default terminalConversation().
    Conversation conversation = {};
    /// The D-Bus address where fprintd is asked; by default the system bus.
    std::optional<std::string> fingerprintBusAddress = {};
  };

  explicit ZavloLinuxOwnerAuthentication(Options options);
  ZavloLinuxOwnerAuthentication(const ZavloLinuxOwnerAuthentication&) = delete;
  ZavloLinuxOwnerAuthentication& operator=(const ZavloLinuxOwnerAuthentication&) = delete;
  /// Does not wait for evaluations in flight; they finish on their own threads.
  ~ZavloLinuxOwnerAuthentication();

  /// A new context; callable from any thread.
  [[nodiscard]] std::shared_ptr<ZavloLinuxOwnerAuthenticationContext> makeContext() const;

  [[nodiscard]] Mode mode() const;
  /// The user whose credential is asked for; absent when the process's user has no name.
  [[nodiscard]] const std::optional<std::string>& user() const;

  /// Blocks until every evaluation started through this object's contexts has returned
  /// from its reply (hosts that exit, tests). Throws std::logic_error when called from an
  /// evaluation's own thread (a reply or a conversation), which would wait for itself.
  void waitForEvaluations() const;

  /// Asks on a terminal, by default the process's controlling terminal: the reason, then
  /// each prompt, with echo off for secrets. The terminal's settings are restored on every
  /// path. Ctrl-C, Ctrl-D on an empty line, a hang-up or the round's cancelFd cancel.
  /// Throws std::runtime_error when the terminal cannot be used.
  static Conversation terminalConversation(std::string device = "/dev/tty");

  /// What the factory, its contexts and their evaluations' threads share.
  struct Shared;

 private:
  std::shared_ptr<Shared> shared_;
};

/// One owner-authentication context of ZavloLinuxOwnerAuthentication. The fingerprint
/// state is read from fprintd on first need and kept for the life of the context.
class ZavloLinuxOwnerAuthenticationContext final : public ZavloOwnerAuthenticationContext {
 public:
  struct State;

  explicit ZavloLinuxOwnerAuthenticationContext(std::shared_ptr<ZavloLinuxOwnerAuthentication::Shared> shared);
  /// Cancels evaluations in flight without waiting for them.
  ~ZavloLinuxOwnerAuthenticationContext() override;

  bool canEvaluatePolicy(ZavloOwnerAuthenticationPolicy policy) override;
  void setLocalizedFallbackTitle(std::optional<std::string> title) override;
  void evaluatePolicy(ZavloOwnerAuthenticationPolicy policy, const std::string& localizedReason, Reply reply) override;
  std::optional<ZavloBytes> evaluatedPolicyDomainState() override;
  std::unique_ptr<ZavloOwnerProof> takeOwnerProof() override;

  /// Why policy cannot be evaluated now (an LAError: passcodeNotSet, biometryNotAvailable,
  /// biometryNotEnrolled); absent when it can.
  std::optional<ZavloOwnerAuthenticationError> policyError(ZavloOwnerAuthenticationPolicy policy);
  /// As last set; PAM has no fallback button, so it only informs the host.
  [[nodiscard]] std::optional<std::string> localizedFallbackTitle() const;

 private:
  std::shared_ptr<ZavloLinuxOwnerAuthentication::Shared> shared_;
  std::shared_ptr<State> state_;
};
