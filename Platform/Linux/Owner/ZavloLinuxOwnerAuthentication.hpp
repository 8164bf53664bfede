#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Linux/ZavloLinuxSecret.hpp"
#include "Platform/ZavloOwnerAuthentication.hpp"
#include "Platform/ZavloResult.hpp"

class ZavloLinuxOwnerAuthenticationContext;

/// Owner authentication on Linux. PAM asks for the owner's own credential (the configured
/// user's, by default the user the process runs as), and a successful prompt leaves a proof
/// with the secret the key store needs (Options::secret). The biometric domain state is a
/// SHA-256 digest of what fprintd tells about the user's enrolment on its default device
/// (see zavloFingerprintDomainState).
///
/// Makes contexts. Each evaluation runs on a detached thread of its own that holds
/// everything it touches, so contexts and this object may go at any time; a context
/// destroyed while its prompt is up cancels the prompt and its reply gets appCancel.
class ZavloLinuxOwnerAuthentication {
 public:
  /// Errors that are not owner-authentication outcomes: a failing PAM stack (code: PAM's
  /// return value, description: PAM's message), a conversation that could not ask (code
  /// PAM_CONV_ERR, also where PAM is not involved), a bad argument (kInvalidArgument), an
  /// evaluation that could not get an eventfd or a thread (kCannotStart), or a secret file
  /// that cannot be used (kSecretFileUnusable).
  static constexpr std::string_view kErrorDomain = "ZavloLinuxOwnerAuthentication";
  static constexpr std::int64_t kInvalidArgument = -50;
  static constexpr std::int64_t kCannotStart = -51;
  static constexpr std::int64_t kSecretFileUnusable = -52;

  enum class Mode {
    pam,    ///< ask PAM
    allow,  ///< every prompt succeeds at once, without asking anyone (demos, scripts)
    deny,   ///< every prompt fails at once as a failed authentication
  };

  /// Which secret a prompt collects for the key store: what the proof's secret() holds.
  /// ZavloLinuxPlatform sets it from its key store settings.
  enum class Secret {
    /// The owner's login password, which PAM verifies: the first answer PAM asked for with
    /// echo off, and the proof is verified(). When PAM accepts the owner without asking so
    /// (a fingerprint), the conversation is asked for the password afterwards, unverified.
    loginPassword,
    /// The PIN of the PKCS#11 token that keeps the keys: the token checks it, PAM is not
    /// asked. The proof is not verified().
    tokenPin,
    /// No secret: the token's URI carries its PIN. PAM still authenticates the owner; the
    /// proof is empty and not verified().
    none,
  };

  /// One message of a conversation round.
  struct Message {
    enum class Style { promptEchoOff, promptEchoOn, errorMessage, textInfo };
    Style style = Style::promptEchoOff;
    std::string text;
  };

  /// One round of questions, with what the owner is told the authentication is for and
  /// who asked. The evaluation makes its texts safe to show (ZavloPromptText).
  struct ConversationRound {
    /// Who asks: PAM, or this library for the secret the key needs after PAM accepted the
    /// owner without one, or for the token's PIN.
    enum class Purpose { pam, keyPassword, tokenPin };

    std::string reason;  ///< the evaluation's localized reason, which a page may have written
    std::vector<Message> messages;
    /// Becomes readable when the evaluation is cancelled (its context was destroyed): a
    /// conversation that waits for a person polls it beside its own input, then cancels.
    int cancelFd = -1;
    Purpose purpose = Purpose::pam;
    /// The origin of the web page that asked for the evaluation; empty when the host asked.
    std::string requestingOrigin = {};
  };

  /// One answer per message of a round: what the owner typed at a prompt, empty for the
  /// other messages. Secrets never pass through std::string.
  using Answers = std::vector<ZavloLinuxSecret>;

  /// Answers one round, or std::nullopt when the owner cancels. Throwing means the question
  /// could not be asked (no terminal, say): the evaluation fails with the exception's
  /// message. Runs on the evaluation's thread.
  using Conversation = std::function<std::optional<Answers>(const ConversationRound&)>;

  struct Options {
    /// Never changes by itself: allow and deny are explicit choices.
    Mode mode = Mode::pam;
    std::string pamService = "zavlo-auth";
    /// Whose credential is asked for; by default the user the process runs as.
    std::optional<std::string> user = {};
    /// How questions reach the owner; by default terminalConversation().
    Conversation conversation = {};
    /// Which secret a prompt collects (see Secret).
    Secret secret = Secret::loginPassword;
    /// A file whose content is what the owner would type at the secret's prompt (unattended
    /// hosts, demos, tests). One trailing "\n" or "\r\n" is dropped; the content may not
    /// hold a NUL byte. Read at each evaluation straight into locked memory, never into a
    /// std::string. With it, PAM's password prompts (echo off), the key's password and the
    /// token's PIN are answered from the file without asking; a PAM round that also asks
    /// something with echo on still reaches the conversation. In mode allow, the proof
    /// carries the file's content. A file that cannot be read fails the evaluation
    /// (kSecretFileUnusable).
    std::optional<std::string> secretFile = {};
    /// The D-Bus address where fprintd is asked; by default the system bus.
    std::optional<std::string> fingerprintBusAddress = {};
    /// fprintd's print storage (root only), whose stored prints the domain state covers
    /// where this process can read them.
    std::string fingerprintStorage = "/var/lib/fprint";
  };

  explicit ZavloLinuxOwnerAuthentication(Options options);
  ZavloLinuxOwnerAuthentication(const ZavloLinuxOwnerAuthentication&) = delete;
  ZavloLinuxOwnerAuthentication& operator=(const ZavloLinuxOwnerAuthentication&) = delete;
  /// Does not wait for evaluations in flight; they finish on their own threads.
  ~ZavloLinuxOwnerAuthentication();

  /// A new context; callable from any thread.
  [[nodiscard]] std::shared_ptr<ZavloLinuxOwnerAuthenticationContext> makeContext() const;

  [[nodiscard]] Mode mode() const;
  [[nodiscard]] Secret secret() const;
  /// The user whose credential is asked for; absent when the process's user has no name.
  [[nodiscard]] const std::optional<std::string>& user() const;

  /// Blocks until every evaluation started through this object's contexts has returned
  /// from its reply (hosts that exit, tests). Throws std::logic_error when called from an
  /// evaluation's own thread (a reply or a conversation), which would wait for itself.
  void waitForEvaluations() const;

  /// Asks on a terminal, by default the process's controlling terminal: the page that
  /// asked on a line of its own ("Asked by the page at ORIGIN") and the reason, marked as
  /// the page's words ("The page says: REASON"), or the reason alone when the host asked;
  /// then each prompt, with echo off for secrets. Both texts are shown as
  /// ZavloPromptText makes them, whoever built the round. The terminal's settings are restored on every
  /// path. Ctrl-C, Ctrl-D on an empty line, a hang-up or the round's cancelFd cancel. An
  /// answer keeps its first 512 bytes (PAM takes no more). Throws std::runtime_error when
  /// the terminal cannot be used.
  static Conversation terminalConversation(std::string device = "/dev/tty");

  /// A secret file's content as Options::secretFile describes it, or why it cannot be used.
  static ZavloResult<ZavloLinuxSecret, std::string> readSecretFile(const std::string& path);

  /// What the factory, its contexts and their evaluations' threads share.
  struct Shared;

 private:
  std::shared_ptr<Shared> shared_;
};

/// One owner-authentication context of ZavloLinuxOwnerAuthentication. The fingerprint
/// state is read from fprintd on first need and kept for the life of the context. No
/// operation throws.
class ZavloLinuxOwnerAuthenticationContext final : public ZavloOwnerAuthenticationContext {
 public:
  struct State;

  explicit ZavloLinuxOwnerAuthenticationContext(std::shared_ptr<ZavloLinuxOwnerAuthentication::Shared> shared);
  /// Cancels evaluations in flight without waiting for them.
  ~ZavloLinuxOwnerAuthenticationContext() override;

  bool canEvaluatePolicy(ZavloOwnerAuthenticationPolicy policy) override;
  void setLocalizedFallbackTitle(std::optional<std::string> title) override;
  /// Kept for the evaluations started afterwards.
  void setRequestingOrigin(std::string origin) override;
  void evaluatePolicy(ZavloOwnerAuthenticationPolicy policy, const std::string& localizedReason, Reply reply) override;
  std::optional<ZavloBytes> evaluatedPolicyDomainState() override;
  std::unique_ptr<ZavloOwnerProof> takeOwnerProof() override;

  /// Why policy cannot be evaluated now (an LAError: passcodeNotSet, biometryNotAvailable,
  /// biometryNotEnrolled); absent when it can. The owner policy in mode pam with the login
  /// password needs a PAM service that starts and a credential: a password that is neither
  /// locked nor empty, or an enrolled finger. A shadow entry this process cannot read
  /// counts as a usable password.
  std::optional<ZavloOwnerAuthenticationError> policyError(ZavloOwnerAuthenticationPolicy policy);
  /// As last set; PAM has no fallback button, so it only informs the host.
  [[nodiscard]] std::optional<std::string> localizedFallbackTitle() const;

 private:
  std::shared_ptr<ZavloLinuxOwnerAuthentication::Shared> shared_;
  std::shared_ptr<State> state_;
};
