#include "Platform/Linux/Owner/ZavloLinuxOwnerAuthentication.hpp"

#include <fcntl.h>
#include <pthread.h>
#include <pwd.h>
#include <security/pam_appl.h>
#include <shadow.h>
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
#include <utility>

#include "Core/ZavloPromptText.hpp"
#include "Platform/Linux/Owner/ZavloLinuxFingerprints.hpp"

using Policy = ZavloOwnerAuthenticationPolicy;
using Error = ZavloOwnerAuthenticationError;

struct ZavloLinuxOwnerAuthentication::Shared {
  Mode mode = Mode::pam;
  std::string pamService;
  std::optional<std::string> user;
  Conversation conversation;
  Secret secret = Secret::loginPassword;
  std::optional<std::string> secretFile;
  std::optional<std::string> fingerprintBusAddress;
  std::string fingerprintStorage;

  std::mutex mutex;
  std::condition_variable idle;
  std::size_t running = 0;  // evaluations that have not returned from their reply yet
};

struct ZavloLinuxOwnerAuthenticationContext::State {
  std::mutex mutex;  // never held across a call out: the destructor's cancel takes it
  std::optional<std::string> fallbackTitle;
  std::string requestingOrigin;
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

  /// The eventfd that cancels this context's evaluations, or -1 with error set to errno.
  int cancellationFd(int& error) {
    const std::lock_guard lock(mutex);
    if (cancelFd < 0) {
      cancelFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
      error = errno;
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
        fingers = zavloReadEnrolledFingers(shared.fingerprintBusAddress, *shared.user, shared.fingerprintStorage);
      } else {
        fingers.emplace();
        fingers->detail = "The user running this process has no name.";
      }
    }
    return *fingers;
  }
};

namespace {

using Shared = ZavloLinuxOwnerAuthentication::Shared;
using State = ZavloLinuxOwnerAuthenticationContext::State;
using Mode = ZavloLinuxOwnerAuthentication::Mode;
using Secret = ZavloLinuxOwnerAuthentication::Secret;
using Message = ZavloLinuxOwnerAuthentication::Message;
using Round = ZavloLinuxOwnerAuthentication::ConversationRound;
using Purpose = Round::Purpose;
using Answers = ZavloLinuxOwnerAuthentication::Answers;
using Reply = ZavloOwnerAuthenticationContext::Reply;

// The factory whose evaluation runs on this thread: waiting for its own evaluations from
// inside one would never end.
thread_local const Shared* tlsEvaluationOwner = nullptr;

// A secret file longer than this is not a password.
constexpr std::size_t kLongestSecretFile = std::size_t{64} * 1024;

struct Outcome {
  bool success = false;
  std::optional<Error> error;
  std::unique_ptr<ZavloLinuxOwnerProof> proof;  // set on success
};

Outcome failure(Error error) { return {false, std::move(error), nullptr}; }
Outcome proven(ZavloLinuxSecret secret, bool verified) {
  return {true, std::nullopt, std::make_unique<ZavloLinuxOwnerProof>(std::move(secret), verified)};
}
Error laError(std::int64_t code, std::string description) {
  return Error::localAuthentication(code, std::move(description));
}
Error platformError(std::int64_t code, std::string description) {
  return {std::string(ZavloLinuxOwnerAuthentication::kErrorDomain), code, std::move(description)};
}
Error cancelledByContext() { return laError(ZavloLAError::appCancel, "The authentication context was destroyed."); }

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

enum class PasswordState { usable, locked, empty };

// The owner's password as the shadow entry tells it. An entry this process cannot read
// (not root, not in group shadow) or that does not exist counts as usable: PAM decides.
PasswordState passwordState(const std::string& user) {
  // getspnam rather than getspnam_r: nss_wrapper, which gives tests a shadow file of their
  // own, wraps only the former. The mutex keeps this library's calls apart; only the
  // entry's first byte is looked at, while the lock is held.
  static std::mutex mutex;
  const std::lock_guard lock(mutex);
  const spwd* entry = getspnam(user.c_str());
  if (entry == nullptr || entry->sp_pwdp == nullptr) return PasswordState::usable;
  const char first = entry->sp_pwdp[0];
  if (first == '\0') return PasswordState::empty;
  if (first == '!' || first == '*') return PasswordState::locked;
  return PasswordState::usable;
}

bool holdsNul(const ZavloLinuxSecret& secret) {
  return !secret.empty() && std::memchr(secret.data(), 0, secret.size()) != nullptr;
}

// Why a conversation gave no answers.
struct Asking {
  bool ownerCancelled = false;
  std::optional<std::string> failure;  // the conversation could not ask
};

std::optional<Answers> ask(const Shared& shared, const Round& round, Asking& asking) {
  std::optional<Answers> answers;
  try {
    answers = shared.conversation(round);
  } catch (const std::exception& exception) {
    asking.failure = exception.what();
    return std::nullopt;
  } catch (...) {
    asking.failure = "The conversation failed.";
    return std::nullopt;
  }
  if (!answers) {
    asking.ownerCancelled = true;
    return std::nullopt;
  }
  if (answers->size() != round.messages.size()) {
    asking.failure = "The conversation answered " + std::to_string(answers->size()) + " of " +
                     std::to_string(round.messages.size()) + " messages.";
    return std::nullopt;
  }
  return answers;
}

Outcome askingFailure(const Asking& asking) {
  if (asking.ownerCancelled) return failure(laError(ZavloLAError::userCancel, "The owner cancelled."));
  return failure(platformError(PAM_CONV_ERR, asking.failure.value_or("The conversation failed.")));
}

// Responses for PAM, which frees them with free(): malloc'd, and wiped and freed here
// unless handed over.
class PamResponses {
 public:
  explicit PamResponses(std::size_t count)
      : count_(count), responses_(static_cast<pam_response*>(std::calloc(count, sizeof(pam_response)))) {}
  PamResponses(const PamResponses&) = delete;
  PamResponses& operator=(const PamResponses&) = delete;
  ~PamResponses() {
    if (responses_ == nullptr) return;
    for (std::size_t i = 0; i < count_; ++i) {
      if (responses_[i].resp == nullptr) continue;
      explicit_bzero(responses_[i].resp, std::strlen(responses_[i].resp));
      std::free(responses_[i].resp);
    }
    std::free(responses_);
  }

  [[nodiscard]] bool made() const { return responses_ != nullptr; }
  bool set(std::size_t index, const ZavloLinuxSecret& answer) {
    auto* text = static_cast<char*>(std::malloc(answer.size() + 1));
    if (text == nullptr) return false;
    if (!answer.empty()) std::memcpy(text, answer.data(), answer.size());
    text[answer.size()] = '\0';
    responses_[index].resp = text;
    return true;
  }
  pam_response* release() { return std::exchange(responses_, nullptr); }

 private:
  std::size_t count_;
  pam_response* responses_;
};

// Everything one PAM transaction's conversation needs, and what it learnt.
struct PamConversation {
  const Shared* shared = nullptr;
  State* state = nullptr;
  const Round* frame = nullptr;                  // what each round shows beside its messages
  const ZavloLinuxSecret* fileSecret = nullptr;  // answers the echo-off prompts when set
  Asking asking;
  std::optional<ZavloLinuxSecret> password;  // the first answer given with echo off
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

int converse(PamConversation& conversation, int count, const pam_message** messages, pam_response** responses) {
  Round round = *conversation.frame;
  bool asksEchoOn = false;
  for (int i = 0; i < count; ++i) {
    const auto style = messageStyle(messages[i]->msg_style);
    if (!style) {
      conversation.asking.failure = "PAM asked a question of a kind this conversation does not answer (style " +
                                    std::to_string(messages[i]->msg_style) + ").";
      return PAM_CONV_ERR;
    }
    asksEchoOn = asksEchoOn || *style == Message::Style::promptEchoOn;
    round.messages.push_back({*style, messages[i]->msg != nullptr ? messages[i]->msg : ""});
  }

  // With a secret file, only a round that asks something with echo on needs a person.
  std::optional<Answers> answers;
  if (conversation.fileSecret == nullptr || asksEchoOn) {
    answers = ask(*conversation.shared, round, conversation.asking);
    if (!answers) return PAM_CONV_ERR;
  } else {
    answers.emplace(static_cast<std::size_t>(count));
  }

  PamResponses out(static_cast<std::size_t>(count));
  if (!out.made()) return PAM_BUF_ERR;
  for (std::size_t i = 0; i < round.messages.size(); ++i) {
    const auto style = round.messages[i].style;
    if (style != Message::Style::promptEchoOff && style != Message::Style::promptEchoOn) continue;
    auto& answer = (*answers)[i];
    if (style == Message::Style::promptEchoOff && conversation.fileSecret != nullptr) {
      answer = ZavloLinuxSecret::copyOf(conversation.fileSecret->bytes());
    }
    // PAM takes C strings: a NUL byte would make PAM check less than the proof carries.
    if (holdsNul(answer)) {
      conversation.asking.failure = "An answer holds a NUL byte, which PAM cannot take.";
      return PAM_CONV_ERR;
    }
    if (!out.set(i, answer)) return PAM_BUF_ERR;
    if (style == Message::Style::promptEchoOff && !conversation.password) {
      conversation.password = ZavloLinuxSecret::copyOf(answer.bytes());
    }
  }
  *responses = out.release();
  return PAM_SUCCESS;
}

extern "C" int zavloPamConverse(int count, const pam_message** messages, pam_response** responses, void* data) {
  auto& conversation = *static_cast<PamConversation*>(data);
  if (count <= 0 || count > PAM_MAX_NUM_MSG || messages == nullptr || responses == nullptr) return PAM_CONV_ERR;
  // Once the owner cancelled, or the context went, nobody is asked again.
  if (conversation.asking.ownerCancelled || conversation.asking.failure || conversation.state->cancelled) {
    return PAM_CONV_ERR;
  }
  // Nothing may unwind through PAM's C frames.
  try {
    return converse(conversation, count, messages, responses);
  } catch (...) {
    conversation.asking.failure = "The conversation ran out of memory.";
    return PAM_BUF_ERR;
  }
}

extern "C" int zavloPamRefuse(int, const pam_message**, pam_response**, void*) { return PAM_CONV_ERR; }

Error pamUnavailable(const Shared& shared, int status) {
  return laError(ZavloLAError::passcodeNotSet, "PAM cannot start the service \"" + shared.pamService +
                                                   "\" (PAM status " + std::to_string(status) + ").");
}

// The one place where PAM's answers become owner-authentication outcomes (without proof).
Outcome pamOutcome(int status, const PamConversation& conversation, pam_handle_t* handle) {
  if (conversation.asking.ownerCancelled || conversation.asking.failure) return askingFailure(conversation.asking);
  const auto message = [&] { return std::string(pam_strerror(handle, status)); };
  switch (status) {
    case PAM_SUCCESS:
      return {true, std::nullopt, nullptr};
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

// The secret the key needs when nobody verified one: from the secret file, else asked.
Outcome unverifiedSecret(const Shared& shared, State& state, const Round& frame, Purpose purpose,
                         std::optional<ZavloLinuxSecret> fileSecret) {
  if (fileSecret) return proven(std::move(*fileSecret), false);
  if (state.cancelled) return failure(cancelledByContext());
  const auto prompt = purpose == Purpose::tokenPin
                          ? std::string("PIN of the token that keeps the key: ")
                          : "Password of " + shared.user.value_or("the owner") + " (the key needs it): ";
  Round round = frame;
  round.messages = {{Message::Style::promptEchoOff, prompt}};
  round.purpose = purpose;
  Asking asking;
  auto answers = ask(shared, round, asking);
  if (!answers) return askingFailure(asking);
  return proven(std::move(answers->front()), false);
}

Outcome evaluateWithPam(const Shared& shared, State& state, const Round& frame,
                        std::optional<ZavloLinuxSecret> fileSecret) {
  if (!shared.user) return failure(laError(ZavloLAError::passcodeNotSet, "The user running this process has no name."));
  PamConversation conversation;
  conversation.shared = &shared;
  conversation.state = &state;
  conversation.frame = &frame;
  conversation.fileSecret = fileSecret ? &*fileSecret : nullptr;
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
  if (!outcome.success) return outcome;
  if (shared.secret == Secret::none) return proven(ZavloLinuxSecret(), false);
  if (conversation.password) return proven(std::move(*conversation.password), true);
  // PAM accepted the owner without a password (a fingerprint), which releases no secret.
  return unverifiedSecret(shared, state, frame, Purpose::keyPassword, std::move(fileSecret));
}

std::optional<Error> ownerPolicyError(const Shared& shared, State& state) {
  if (shared.mode != Mode::pam || shared.secret != Secret::loginPassword) return std::nullopt;
  if (auto error = pamAvailability(shared)) return error;
  const auto password = passwordState(*shared.user);
  if (password == PasswordState::usable) return std::nullopt;
  const auto& fingers = state.enrolledFingers(shared);
  if (fingers.availability == ZavloLinuxEnrolledFingers::Availability::enrolled) return std::nullopt;
  return laError(ZavloLAError::passcodeNotSet, "The password of " + *shared.user + " is " +
                                                   (password == PasswordState::locked ? "locked" : "empty") +
                                                   " and no finger can stand in for it: " + fingers.detail);
}

std::optional<Error> policyError(const Shared& shared, State& state, Policy policy) {
  switch (policy) {
    case Policy::deviceOwnerAuthentication:
      return ownerPolicyError(shared, state);
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

Outcome evaluate(const Shared& shared, State& state, Policy policy, const std::string& reason,
                 const std::string& requestingOrigin, int cancelFd) {
  if (reason.empty()) {
    return failure(platformError(ZavloLinuxOwnerAuthentication::kInvalidArgument,
                                 "The reason shown to the owner must not be empty."));
  }
  // Made safe here for every conversation, the host's own ones too.
  Round frame;
  frame.reason = ZavloPromptText::safe(reason);
  frame.requestingOrigin = ZavloPromptText::safeOrigin(requestingOrigin);
  frame.cancelFd = cancelFd;
  if (policy != Policy::deviceOwnerAuthentication) {
    if (auto error = policyError(shared, state, policy)) return failure(std::move(*error));
  }
  if (shared.mode == Mode::deny) {
    return failure(laError(ZavloLAError::authenticationFailed, "Owner authentication is set to deny every prompt."));
  }
  std::optional<ZavloLinuxSecret> fileSecret;
  if (shared.secretFile) {
    auto read = ZavloLinuxOwnerAuthentication::readSecretFile(*shared.secretFile);
    if (!read) return failure(platformError(ZavloLinuxOwnerAuthentication::kSecretFileUnusable, read.error()));
    fileSecret = std::move(read).value();
  }
  if (shared.mode == Mode::allow) return proven(fileSecret ? std::move(*fileSecret) : ZavloLinuxSecret(), false);
  if (policy == Policy::deviceOwnerAuthenticationWithBiometrics) {
    // fprintd's own verification is not driven here; the owner policy reaches it through
    // PAM where the system's PAM stack asks for a finger.
    return failure(laError(ZavloLAError::biometryNotAvailable,
                           "A fingerprint-only prompt is not offered; evaluate the owner policy instead."));
  }
  if (shared.secret == Secret::tokenPin) {
    // The token checks its PIN; PAM would only ask for a second, unrelated secret.
    return unverifiedSecret(shared, state, frame, Purpose::tokenPin, std::move(fileSecret));
  }
  return evaluateWithPam(shared, state, frame, std::move(fileSecret));
}

// One evaluation, owned by its thread.
struct Evaluation {
  std::shared_ptr<Shared> shared;
  std::shared_ptr<State> state;
  Policy policy = Policy::deviceOwnerAuthentication;
  std::string reason;
  std::string requestingOrigin;
  int cancelFd = -1;
  std::optional<Error> startError;  // the evaluation could not be set up: the reply says why
  Reply reply;
};

void deliver(Reply& reply, bool success, std::optional<Error> error) {
  try {
    reply(success, std::move(error));
  } catch (...) {
    // A reply that throws must not end the host from a thread the host does not own.
  }
}

void evaluationFinished(Shared& shared) {
  {
    const std::lock_guard lock(shared.mutex);
    --shared.running;
  }
  shared.idle.notify_all();
}

void runEvaluation(Evaluation& job) {
  pthread_setname_np(pthread_self(), "zavlo-ownerauth");
  tlsEvaluationOwner = job.shared.get();
  Outcome outcome;
  try {
    outcome = job.startError
                  ? failure(std::move(*job.startError))
                  : evaluate(*job.shared, *job.state, job.policy, job.reason, job.requestingOrigin, job.cancelFd);
  } catch (const std::exception& exception) {
    outcome = failure(platformError(PAM_SYSTEM_ERR, exception.what()));
  } catch (...) {
    outcome = failure(platformError(PAM_SYSTEM_ERR, "The evaluation failed."));
  }
  if (job.state->cancelled) {
    outcome = failure(cancelledByContext());
  } else if (outcome.success) {
    const std::lock_guard lock(job.state->mutex);
    job.state->proof = std::move(outcome.proof);
  }
  job.state.reset();
  deliver(job.reply, outcome.success, std::move(outcome.error));
  // Whatever the reply holds (perhaps the context itself) goes here, before the evaluation
  // counts as finished.
  job.reply = nullptr;
  tlsEvaluationOwner = nullptr;
  evaluationFinished(*job.shared);
}

extern "C" void* zavloOwnerEvaluationThread(void* data) {
  const std::unique_ptr<Evaluation> job(static_cast<Evaluation*>(data));
  runEvaluation(*job);
  return nullptr;
}

}  // namespace

ZavloLinuxOwnerAuthentication::ZavloLinuxOwnerAuthentication(Options options) : shared_(std::make_shared<Shared>()) {
  if (options.pamService.empty()) throw std::invalid_argument("The PAM service name must not be empty.");
  shared_->mode = options.mode;
  shared_->pamService = std::move(options.pamService);
  shared_->user = options.user ? std::move(options.user) : currentUserName();
  if (shared_->user && shared_->user->empty()) throw std::invalid_argument("The user name must not be empty.");
  shared_->conversation = options.conversation ? std::move(options.conversation) : terminalConversation();
  shared_->secret = options.secret;
  shared_->secretFile = std::move(options.secretFile);
  shared_->fingerprintBusAddress = std::move(options.fingerprintBusAddress);
  shared_->fingerprintStorage = std::move(options.fingerprintStorage);
}

ZavloLinuxOwnerAuthentication::~ZavloLinuxOwnerAuthentication() = default;

std::shared_ptr<ZavloLinuxOwnerAuthenticationContext> ZavloLinuxOwnerAuthentication::makeContext() const {
  return std::make_shared<ZavloLinuxOwnerAuthenticationContext>(shared_);
}

ZavloLinuxOwnerAuthentication::Mode ZavloLinuxOwnerAuthentication::mode() const { return shared_->mode; }

ZavloLinuxOwnerAuthentication::Secret ZavloLinuxOwnerAuthentication::secret() const { return shared_->secret; }

const std::optional<std::string>& ZavloLinuxOwnerAuthentication::user() const { return shared_->user; }

void ZavloLinuxOwnerAuthentication::waitForEvaluations() const {
  if (tlsEvaluationOwner == shared_.get()) {
    throw std::logic_error("waitForEvaluations was called from one of the evaluations it would wait for");
  }
  std::unique_lock lock(shared_->mutex);
  shared_->idle.wait(lock, [&] { return shared_->running == 0; });
}

ZavloResult<ZavloLinuxSecret, std::string> ZavloLinuxOwnerAuthentication::readSecretFile(const std::string& path) {
  const auto unusable = [&](const std::string& why) { return zavloFailure("The owner secret file " + path + why); };
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) return unusable(" cannot be opened: " + std::generic_category().message(errno) + ".");
  // Read as a stream (a pipe has no size to ask for), growing in locked memory.
  ZavloLinuxSecret content(4096);
  std::size_t size = 0;
  int error = 0;
  for (;;) {
    if (size == content.size()) {
      if (size >= kLongestSecretFile) {
        close(fd);
        return unusable(" is longer than " + std::to_string(kLongestSecretFile) + " bytes.");
      }
      auto larger = ZavloLinuxSecret(content.size() * 2);
      std::memcpy(larger.data(), content.data(), size);
      content = std::move(larger);
    }
    const auto n = read(fd, content.data() + size, content.size() - size);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) error = errno;
    if (n <= 0) break;
    size += static_cast<std::size_t>(n);
  }
  close(fd);
  if (error != 0) return unusable(" cannot be read: " + std::generic_category().message(error) + ".");
  // One line end, as an editor leaves it.
  if (size > 0 && content.data()[size - 1] == '\n') {
    --size;
    if (size > 0 && content.data()[size - 1] == '\r') --size;
  }
  content.shrink(size);
  if (holdsNul(content)) return unusable(" holds a NUL byte.");
  return content;
}

ZavloLinuxOwnerAuthenticationContext::ZavloLinuxOwnerAuthenticationContext(
    std::shared_ptr<ZavloLinuxOwnerAuthentication::Shared> shared)
    : shared_(std::move(shared)), state_(std::make_shared<State>()) {}

ZavloLinuxOwnerAuthenticationContext::~ZavloLinuxOwnerAuthenticationContext() { state_->cancel(); }

bool ZavloLinuxOwnerAuthenticationContext::canEvaluatePolicy(ZavloOwnerAuthenticationPolicy policy) {
  try {
    return !::policyError(*shared_, *state_, policy);
  } catch (...) {
    return false;
  }
}

std::optional<ZavloOwnerAuthenticationError> ZavloLinuxOwnerAuthenticationContext::policyError(
    ZavloOwnerAuthenticationPolicy policy) {
  try {
    return ::policyError(*shared_, *state_, policy);
  } catch (const std::exception& exception) {
    return platformError(PAM_SYSTEM_ERR, exception.what());
  } catch (...) {
    return platformError(PAM_SYSTEM_ERR, "The policy could not be checked.");
  }
}

void ZavloLinuxOwnerAuthenticationContext::setLocalizedFallbackTitle(std::optional<std::string> title) {
  const std::lock_guard lock(state_->mutex);
  state_->fallbackTitle = std::move(title);
}

void ZavloLinuxOwnerAuthenticationContext::setRequestingOrigin(std::string origin) {
  const std::lock_guard lock(state_->mutex);
  state_->requestingOrigin = std::move(origin);
}

std::optional<std::string> ZavloLinuxOwnerAuthenticationContext::localizedFallbackTitle() const {
  const std::lock_guard lock(state_->mutex);
  return state_->fallbackTitle;
}

void ZavloLinuxOwnerAuthenticationContext::evaluatePolicy(ZavloOwnerAuthenticationPolicy policy,
                                                          const std::string& localizedReason, Reply reply) {
  if (!reply) return;  // nobody to answer
  std::unique_ptr<Evaluation> job;
  try {
    job = std::make_unique<Evaluation>();
    job->shared = shared_;
    job->state = state_;
    job->policy = policy;
    job->reason = localizedReason;
    {
      const std::lock_guard lock(state_->mutex);
      job->requestingOrigin = state_->requestingOrigin;
    }
    int error = 0;
    job->cancelFd = state_->cancellationFd(error);
    if (job->cancelFd < 0) {
      job->startError = platformError(ZavloLinuxOwnerAuthentication::kCannotStart,
                                      "The evaluation cannot make the eventfd that would cancel it: " +
                                          std::generic_category().message(error) + ".");
    }
  } catch (...) {
    return deliver(reply, false,
                   platformError(ZavloLinuxOwnerAuthentication::kCannotStart, "The evaluation cannot be set up."));
  }
  job->reply = std::move(reply);
  {
    const std::lock_guard lock(shared_->mutex);
    ++shared_->running;
  }
  pthread_t thread{};
  const int created = pthread_create(&thread, nullptr, &zavloOwnerEvaluationThread, job.get());
  if (created == 0) {
    (void)job.release();  // the thread owns it now
    pthread_detach(thread);
    return;
  }
  // No thread to be had: the one case where the reply runs inline.
  evaluationFinished(*shared_);
  deliver(job->reply, false,
          platformError(ZavloLinuxOwnerAuthentication::kCannotStart,
                        "The evaluation cannot start a thread: " + std::generic_category().message(created) + "."));
}

std::optional<ZavloBytes> ZavloLinuxOwnerAuthenticationContext::evaluatedPolicyDomainState() {
  try {
    const auto& fingers = state_->enrolledFingers(*shared_);
    if (fingers.availability != ZavloLinuxEnrolledFingers::Availability::enrolled) return std::nullopt;
    return zavloFingerprintDomainState(fingers);
  } catch (...) {
    return std::nullopt;
  }
}

std::unique_ptr<ZavloOwnerProof> ZavloLinuxOwnerAuthenticationContext::takeOwnerProof() {
  const std::lock_guard lock(state_->mutex);
  return std::move(state_->proof);
}
