#include "Platform/Linux/Owner/ZavloLinuxOwnerAuthentication.hpp"

#include <pthread.h>
#include <pwd.h>
#include <security/pam_appl.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "Platform/Linux/Owner/ZavloLinuxFingerprints.hpp"
#include "Platform/Linux/ZavloLinuxSecret.hpp"

using Policy = ZavloOwnerAuthenticationPolicy;
using Error = ZavloOwnerAuthenticationError;

struct ZavloLinuxOwnerAuthentication::Shared {
  Mode mode = Mode::pam;
  std::string pamService;
  std::optional<std::string> user;
  Conversation conversation;
  std::optional<std::string> fingerprintBusAddress;

  std::mutex mutex;
  std::condition_variable idle;
  std::size_t running = 0;  // evaluations that have not returned from their reply yet
};

struct ZavloLinuxOwnerAuthenticationContext::State {
  std::mutex mutex;  // never held across a call out: the destructor's cancel takes it
  std::optional<std::string> fallbackTitle;
  std::mutex fingersMutex;                           // held while fprintd answers
  std::optional<ZavloLinuxEnrolledFingers> fingers;  // read on first need
  int cancelFd = -1;                                 // made with the first evaluation
  std::atomic<bool> cancelled{false};
  std::unique_ptr<ZavloOwnerProof> proof;  // under mutex; set by a successful evaluation

  State() = default;
  State(const State&) = delete;
  State& operator=(const State&) = delete;
  ~State() {
    if (cancelFd >= 0) close(cancelFd);
  }

  int cancellationFd() {
    const std::lock_guard lock(mutex);
    if (cancelFd < 0) {
      cancelFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
      if (cancelFd < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    return cancelFd;
  }

  void cancel() {
    cancelled = true;
    const std::lock_guard lock(mutex);
    // Stays readable: every conversation waiting on it sees the cancellation.
    const std::uint64_t one = 1;
    if (cancelFd >= 0 && write(cancelFd, &one, sizeof one) < 0) {
      // Only a counter overflow fails, and the counter is then readable anyway.
    }
  }

  const ZavloLinuxEnrolledFingers& enrolledFingers(const ZavloLinuxOwnerAuthentication::Shared& shared) {
    const std::lock_guard lock(fingersMutex);
    if (!fingers) {
      if (shared.user) {
        fingers = zavloReadEnrolledFingers(shared.fingerprintBusAddress, *shared.user);
      } else {
        fingers = ZavloLinuxEnrolledFingers{
            ZavloLinuxEnrolledFingers::Availability::unavailable, {}, "The user running this process has no name."};
      }
    }
    return *fingers;
  }
};

namespace {

using Shared = ZavloLinuxOwnerAuthentication::Shared;
using State = ZavloLinuxOwnerAuthenticationContext::State;
using Mode = ZavloLinuxOwnerAuthentication::Mode;
using Message = ZavloLinuxOwnerAuthentication::Message;

// The factory whose evaluation runs on this thread: waiting for its own evaluations from
// inside one would never end.
thread_local const Shared* tlsEvaluationOwner = nullptr;

struct Outcome {
  bool success = false;
  std::optional<Error> error;
};

Outcome failure(Error error) { return {false, std::move(error)}; }
Error laError(std::int64_t code, std::string description) {
  return Error::localAuthentication(code, std::move(description));
}
Error platformError(std::int64_t code, std::string description) {
  return {std::string(ZavloLinuxOwnerAuthentication::kErrorDomain), code, std::move(description)};
}

std::optional<std::string> currentUserName() {
  const long suggested = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(suggested > 0 ? static_cast<std::size_t>(suggested) : 16384);
  passwd entry{};
  passwd* found = nullptr;
  while (getpwuid_r(geteuid(), &entry, buffer.data(), buffer.size(), &found) == ERANGE) {
    buffer.resize(buffer.size() * 2);
  }
  if (found == nullptr) return std::nullopt;
  return std::string(found->pw_name);
}

void wipe(std::string& secret) {
  explicit_bzero(secret.data(), secret.size());
  secret.clear();
}

void wipe(std::vector<std::string>& secrets) {
  for (auto& secret : secrets) wipe(secret);
}

// Everything one PAM transaction's conversation needs, and what it learnt.
struct PamConversation {
  const Shared* shared = nullptr;
  State* state = nullptr;
  std::string reason;
  int cancelFd = -1;
  bool ownerCancelled = false;
  std::optional<std::string> failure;  // the conversation could not ask
};

std::optional<Message::Style> messageStyle(int pamStyle) {
  switch (pamStyle) {
    case PAM_PROMPT_ECHO_OFF:
      return Message::Style::promptEchoOff;
    case PAM_PROMPT_ECHO_ON:
      return Message::Style::promptEchoOn;
    case PAM_ERROR_MSG:
      return Message::Style::errorMessage;
    case PAM_TEXT_INFO:
      return Message::Style::textInfo;
    default:
      return std::nullopt;
  }
}

extern "C" int zavloPamConverse(int count, const pam_message** messages, pam_response** responses, void* data) {
  auto& conversation = *static_cast<PamConversation*>(data);
  if (count <= 0 || count > PAM_MAX_NUM_MSG || messages == nullptr || responses == nullptr) return PAM_CONV_ERR;
  // Once the owner cancelled, or the context went, nobody is asked again.
  if (conversation.ownerCancelled || conversation.failure || conversation.state->cancelled) return PAM_CONV_ERR;

  ZavloLinuxOwnerAuthentication::ConversationRound round{conversation.reason, {}, conversation.cancelFd};
  for (int i = 0; i < count; ++i) {
    const auto style = messageStyle(messages[i]->msg_style);
    if (!style) {
      conversation.failure = "PAM asked a question of a kind this conversation does not answer (style " +
                             std::to_string(messages[i]->msg_style) + ").";
      return PAM_CONV_ERR;
    }
    round.messages.push_back({*style, messages[i]->msg != nullptr ? messages[i]->msg : ""});
  }

  std::optional<std::vector<std::string>> answers;
  try {
    answers = conversation.shared->conversation(round);
  } catch (const std::exception& exception) {
    conversation.failure = exception.what();
    return PAM_CONV_ERR;
  } catch (...) {
    conversation.failure = "The conversation failed.";
    return PAM_CONV_ERR;
  }
  if (!answers) {
    conversation.ownerCancelled = true;
    return PAM_CONV_ERR;
  }
  if (answers->size() != static_cast<std::size_t>(count)) {
    conversation.failure =
        "The conversation answered " + std::to_string(answers->size()) + " of " + std::to_string(count) + " messages.";
    wipe(*answers);
    return PAM_CONV_ERR;
  }

  // PAM frees the responses with free(): they must come from malloc.
  auto* out = static_cast<pam_response*>(std::calloc(static_cast<std::size_t>(count), sizeof(pam_response)));
  int status = out != nullptr ? PAM_SUCCESS : PAM_BUF_ERR;
  for (int i = 0; i < count && status == PAM_SUCCESS; ++i) {
    const auto style = messages[i]->msg_style;
    if (style != PAM_PROMPT_ECHO_OFF && style != PAM_PROMPT_ECHO_ON) continue;
    out[i].resp = strdup((*answers)[static_cast<std::size_t>(i)].c_str());
    if (out[i].resp == nullptr) status = PAM_BUF_ERR;
  }
  wipe(*answers);
  if (status != PAM_SUCCESS) {
    for (int i = 0; out != nullptr && i < count; ++i) {
      if (out[i].resp != nullptr) {
        explicit_bzero(out[i].resp, std::strlen(out[i].resp));
        std::free(out[i].resp);
      }
    }
    std::free(out);
    return status;
  }
  *responses = out;
  return PAM_SUCCESS;
}

extern "C" int zavloPamRefuse(int, const pam_message**, pam_response**, void*) { return PAM_CONV_ERR; }

Error pamUnavailable(const Shared& shared, int status) {
  return laError(ZavloLAError::passcodeNotSet, "PAM cannot start the service \"" + shared.pamService +
                                                   "\" (PAM status " + std::to_string(status) + ").");
}

// The one place where PAM's answers become owner-authentication outcomes.
Outcome pamOutcome(int status, const PamConversation& conversation, pam_handle_t* handle) {
  if (conversation.ownerCancelled) return failure(laError(ZavloLAError::userCancel, "The owner cancelled."));
  if (conversation.failure) return failure(platformError(PAM_CONV_ERR, *conversation.failure));
  const auto message = [&] { return std::string(pam_strerror(handle, status)); };
  switch (status) {
    case PAM_SUCCESS:
      return {true, std::nullopt};
    case PAM_AUTH_ERR:
    case PAM_USER_UNKNOWN:
    case PAM_CRED_INSUFFICIENT:
    case PAM_PERM_DENIED:
    case PAM_ACCT_EXPIRED:
      return failure(laError(ZavloLAError::authenticationFailed, message()));
    case PAM_MAXTRIES:
      // The module locked the owner out after repeated failures.
      return failure(laError(ZavloLAError::biometryLockout, message()));
    case PAM_AUTHINFO_UNAVAIL:
      // No credential to check against: as good as no credential set.
      return failure(laError(ZavloLAError::passcodeNotSet, message()));
    default:
      return failure(platformError(status, message()));
  }
}

std::optional<Error> pamAvailability(const Shared& shared) {
  if (!shared.user) return laError(ZavloLAError::passcodeNotSet, "The user running this process has no name.");
  const pam_conv refuse{&zavloPamRefuse, nullptr};
  pam_handle_t* handle = nullptr;
  const int status = pam_start(shared.pamService.c_str(), shared.user->c_str(), &refuse, &handle);
  if (status != PAM_SUCCESS) return pamUnavailable(shared, status);
  pam_end(handle, PAM_SUCCESS);
  return std::nullopt;
}

Outcome evaluateWithPam(const Shared& shared, State& state, const std::string& reason, int cancelFd) {
  if (!shared.user) return failure(laError(ZavloLAError::passcodeNotSet, "The user running this process has no name."));
  PamConversation conversation;
  conversation.shared = &shared;
  conversation.state = &state;
  conversation.reason = reason;
  conversation.cancelFd = cancelFd;
  const pam_conv callbacks{&zavloPamConverse, &conversation};
  pam_handle_t* handle = nullptr;
  int status = pam_start(shared.pamService.c_str(), shared.user->c_str(), &callbacks, &handle);
  if (status != PAM_SUCCESS) return failure(pamUnavailable(shared, status));
  // An account without a password proves nothing about who is at the keyboard.
  status = pam_authenticate(handle, PAM_DISALLOW_NULL_AUTHTOK);
  if (status == PAM_SUCCESS) {
    status = pam_acct_mgmt(handle, PAM_DISALLOW_NULL_AUTHTOK);
    // The owner proved who they are; renewing the password is not ours to ask.
    if (status == PAM_NEW_AUTHTOK_REQD) status = PAM_SUCCESS;
  }
  auto outcome = pamOutcome(status, conversation, handle);
  pam_end(handle, status);
  return outcome;
}

std::optional<Error> policyError(const Shared& shared, State& state, Policy policy) {
  switch (policy) {
    case Policy::deviceOwnerAuthentication:
      if (shared.mode != Mode::pam) return std::nullopt;
      return pamAvailability(shared);
    case Policy::deviceOwnerAuthenticationWithBiometrics: {
      const auto& fingers = state.enrolledFingers(shared);
      switch (fingers.availability) {
        case ZavloLinuxEnrolledFingers::Availability::enrolled:
          return std::nullopt;
        case ZavloLinuxEnrolledFingers::Availability::notEnrolled:
          return laError(ZavloLAError::biometryNotEnrolled, fingers.detail);
        case ZavloLinuxEnrolledFingers::Availability::unavailable:
          return laError(ZavloLAError::biometryNotAvailable, fingers.detail);
      }
      break;
    }
  }
  return platformError(ZavloLinuxOwnerAuthentication::kInvalidArgument,
                       "Unknown owner-authentication policy " + std::to_string(static_cast<int>(policy)) + ".");
}

Outcome evaluate(const Shared& shared, State& state, Policy policy, const std::string& reason, int cancelFd) {
  if (reason.empty()) {
    return failure(platformError(ZavloLinuxOwnerAuthentication::kInvalidArgument,
                                 "The reason shown to the owner must not be empty."));
  }
  if (policy != Policy::deviceOwnerAuthentication) {
    if (auto error = policyError(shared, state, policy)) return failure(std::move(*error));
  }
  switch (shared.mode) {
    case Mode::allow:
      return {true, std::nullopt};
    case Mode::deny:
      return failure(laError(ZavloLAError::authenticationFailed, "Owner authentication is set to deny every prompt."));
    case Mode::pam:
      break;
  }
  if (policy == Policy::deviceOwnerAuthenticationWithBiometrics) {
    // fprintd's own verification is not driven here; the owner policy reaches it through
    // PAM where the system's PAM stack asks for a finger.
    return failure(laError(ZavloLAError::biometryNotAvailable,
                           "A fingerprint-only prompt is not offered; evaluate the owner policy instead."));
  }
  return evaluateWithPam(shared, state, reason, cancelFd);
}

void runEvaluation(std::shared_ptr<Shared> shared, std::shared_ptr<State> state, Policy policy,
                   const std::string& reason, int cancelFd, ZavloOwnerAuthenticationContext::Reply reply) {
  pthread_setname_np(pthread_self(), "zavlo-ownerauth");
  tlsEvaluationOwner = shared.get();
  Outcome outcome;
  try {
    outcome = evaluate(*shared, *state, policy, reason, cancelFd);
  } catch (const std::exception& exception) {
    outcome = failure(platformError(PAM_SYSTEM_ERR, exception.what()));
  }
  if (state->cancelled) {
    outcome = failure(laError(ZavloLAError::appCancel, "The authentication context was destroyed."));
  } else if (outcome.success) {
    const std::lock_guard lock(state->mutex);
    state->proof = std::make_unique<ZavloLinuxOwnerProof>(ZavloLinuxSecret(), false);
  }
  state.reset();
  try {
    reply(outcome.success, std::move(outcome.error));
  } catch (...) {
    // A reply that throws must not end the host from a thread the host does not own.
  }
  // Whatever the reply holds (perhaps the context itself) goes here, before the evaluation
  // counts as finished.
  reply = nullptr;
  tlsEvaluationOwner = nullptr;
  {
    const std::lock_guard lock(shared->mutex);
    --shared->running;
  }
  shared->idle.notify_all();
}

}  // namespace

ZavloLinuxOwnerAuthentication::ZavloLinuxOwnerAuthentication(Options options) : shared_(std::make_shared<Shared>()) {
  if (options.pamService.empty()) throw std::invalid_argument("The PAM service name must not be empty.");
  shared_->mode = options.mode;
  shared_->pamService = std::move(options.pamService);
  shared_->user = options.user ? std::move(options.user) : currentUserName();
  if (shared_->user && shared_->user->empty()) throw std::invalid_argument("The user name must not be empty.");
  shared_->conversation = options.conversation ? std::move(options.conversation) : terminalConversation();
  shared_->fingerprintBusAddress = std::move(options.fingerprintBusAddress);
}

ZavloLinuxOwnerAuthentication::~ZavloLinuxOwnerAuthentication() = default;

std::shared_ptr<ZavloLinuxOwnerAuthenticationContext> ZavloLinuxOwnerAuthentication::makeContext() const {
  return std::make_shared<ZavloLinuxOwnerAuthenticationContext>(shared_);
}

ZavloLinuxOwnerAuthentication::Mode ZavloLinuxOwnerAuthentication::mode() const { return shared_->mode; }

const std::optional<std::string>& ZavloLinuxOwnerAuthentication::user() const { return shared_->user; }

void ZavloLinuxOwnerAuthentication::waitForEvaluations() const {
  if (tlsEvaluationOwner == shared_.get()) {
    throw std::logic_error("waitForEvaluations was called from one of the evaluations it would wait for");
  }
  std::unique_lock lock(shared_->mutex);
  shared_->idle.wait(lock, [&] { return shared_->running == 0; });
}

ZavloLinuxOwnerAuthenticationContext::ZavloLinuxOwnerAuthenticationContext(
    std::shared_ptr<ZavloLinuxOwnerAuthentication::Shared> shared)
    : shared_(std::move(shared)), state_(std::make_shared<State>()) {}

ZavloLinuxOwnerAuthenticationContext::~ZavloLinuxOwnerAuthenticationContext() { state_->cancel(); }

bool ZavloLinuxOwnerAuthenticationContext::canEvaluatePolicy(ZavloOwnerAuthenticationPolicy policy) {
  return !policyError(policy);
}

std::optional<ZavloOwnerAuthenticationError> ZavloLinuxOwnerAuthenticationContext::policyError(
    ZavloOwnerAuthenticationPolicy policy) {
  return ::policyError(*shared_, *state_, policy);
}

void ZavloLinuxOwnerAuthenticationContext::setLocalizedFallbackTitle(std::optional<std::string> title) {
  const std::lock_guard lock(state_->mutex);
  state_->fallbackTitle = std::move(title);
}

std::optional<std::string> ZavloLinuxOwnerAuthenticationContext::localizedFallbackTitle() const {
  const std::lock_guard lock(state_->mutex);
  return state_->fallbackTitle;
}

void ZavloLinuxOwnerAuthenticationContext::evaluatePolicy(ZavloOwnerAuthenticationPolicy policy,
                                                          const std::string& localizedReason, Reply reply) {
  if (!reply) throw std::invalid_argument("evaluatePolicy needs a reply");
  const int cancelFd = state_->cancellationFd();
  {
    const std::lock_guard lock(shared_->mutex);
    ++shared_->running;
  }
  try {
    std::thread(runEvaluation, shared_, state_, policy, localizedReason, cancelFd, std::move(reply)).detach();
  } catch (...) {
    {
      const std::lock_guard lock(shared_->mutex);
      --shared_->running;
    }
    shared_->idle.notify_all();
    throw;
  }
}

std::optional<ZavloBytes> ZavloLinuxOwnerAuthenticationContext::evaluatedPolicyDomainState() {
  const auto& fingers = state_->enrolledFingers(*shared_);
  if (fingers.availability != ZavloLinuxEnrolledFingers::Availability::enrolled) return std::nullopt;
  return zavloEnrolledFingersDigest(fingers.fingers);
}

std::unique_ptr<ZavloOwnerProof> ZavloLinuxOwnerAuthenticationContext::takeOwnerProof() {
  const std::lock_guard lock(state_->mutex);
  return std::move(state_->proof);
}
