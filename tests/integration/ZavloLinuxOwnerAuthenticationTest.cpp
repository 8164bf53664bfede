// Owner authentication on Linux: the allow and deny modes in this process; PAM through
// pam_wrapper in a probe process; the terminal conversation on a pseudo-terminal; the
// fingerprint state from a stand-in fprintd on a private bus.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <poll.h>
#include <pty.h>
#include <sys/eventfd.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <mutex>
#include <thread>

#include "Platform/Linux/Owner/ZavloLinuxOwnerAuthentication.hpp"
#include "Testing/Network/ZavloProcess.hpp"
#include "ZavloPrivateBus.hpp"

namespace {

using Auth = ZavloLinuxOwnerAuthentication;
using Policy = ZavloOwnerAuthenticationPolicy;
constexpr auto kOwner = Policy::deviceOwnerAuthentication;
constexpr auto kBiometrics = Policy::deviceOwnerAuthenticationWithBiometrics;
constexpr const char* kNoBus = "unix:path=/nonexistent/zavlo-no-bus";

// Every reply an evaluation gave, and where.
struct Replies {
  std::mutex mutex;
  std::vector<std::pair<bool, std::optional<ZavloOwnerAuthenticationError>>> received;
  std::vector<std::thread::id> threads;

  ZavloOwnerAuthenticationContext::Reply reply() {
    return [this](bool success, std::optional<ZavloOwnerAuthenticationError> error) {
      const std::lock_guard lock(mutex);
      received.emplace_back(success, std::move(error));
      threads.push_back(std::this_thread::get_id());
    };
  }
};

Auth::Options modeOptions(Auth::Mode mode, std::atomic<int>* asked = nullptr) {
  Auth::Options options;
  options.mode = mode;
  options.user = "owner";
  options.fingerprintBusAddress = kNoBus;
  options.conversation = [asked](const Auth::ConversationRound&) -> std::optional<std::vector<std::string>> {
    if (asked != nullptr) ++*asked;
    return std::nullopt;
  };
  return options;
}

}  // namespace

TEST(ZavloLinuxOwnerAuthentication, AllowAndDenyAnswerEveryPromptOnceOffTheCallingThreadWithoutAsking) {
  for (const auto mode : {Auth::Mode::allow, Auth::Mode::deny}) {
    std::atomic<int> asked = 0;
    Auth authentication(modeOptions(mode, &asked));
    auto context = authentication.makeContext();
    EXPECT_TRUE(context->canEvaluatePolicy(kOwner));
    Replies replies;
    context->evaluatePolicy(kOwner, "Unlock the key", replies.reply());
    authentication.waitForEvaluations();

    ASSERT_EQ(replies.received.size(), 1U);
    EXPECT_NE(replies.threads[0], std::this_thread::get_id());
    EXPECT_EQ(asked, 0);
    const auto& [success, error] = replies.received[0];
    if (mode == Auth::Mode::allow) {
      EXPECT_TRUE(success);
      EXPECT_FALSE(error.has_value());
      EXPECT_TRUE((context->takeOwnerProof() != nullptr));
    } else {
      EXPECT_FALSE(success);
      ASSERT_TRUE(error.has_value());
      EXPECT_TRUE(error->isLocalAuthenticationError());
      EXPECT_EQ(error->code, ZavloLAError::authenticationFailed);
      EXPECT_FALSE((context->takeOwnerProof() != nullptr));
    }
  }
}

TEST(ZavloLinuxOwnerAuthentication, BadRequestsAndMissingBiometricsFailThroughTheReply) {
  Auth authentication(modeOptions(Auth::Mode::allow));
  auto context = authentication.makeContext();
  context->setLocalizedFallbackTitle("");
  EXPECT_EQ(context->localizedFallbackTitle(), "");
  EXPECT_THROW(context->evaluatePolicy(kOwner, "reason", nullptr), std::invalid_argument);

  Replies replies;
  context->evaluatePolicy(kOwner, "", replies.reply());
  context->evaluatePolicy(static_cast<Policy>(7), "reason", replies.reply());
  // Allowing every prompt does not invent fingers: no bus, no biometrics.
  context->evaluatePolicy(kBiometrics, "reason", replies.reply());
  authentication.waitForEvaluations();

  ASSERT_EQ(replies.received.size(), 3U);
  std::vector<std::pair<std::string, std::int64_t>> errors;
  for (const auto& [success, error] : replies.received) {
    EXPECT_FALSE(success);
    ASSERT_TRUE(error.has_value());
    errors.emplace_back(error->domain, error->code);
  }
  std::sort(errors.begin(), errors.end());
  const std::string platform(Auth::kErrorDomain);
  EXPECT_EQ(errors,
            (std::vector<std::pair<std::string, std::int64_t>>{{"LAErrorDomain", ZavloLAError::biometryNotAvailable},
                                                               {platform, Auth::kInvalidArgument},
                                                               {platform, Auth::kInvalidArgument}}));
  EXPECT_FALSE((context->takeOwnerProof() != nullptr));
  EXPECT_FALSE(context->canEvaluatePolicy(kBiometrics));
  EXPECT_FALSE(context->evaluatedPolicyDomainState().has_value());
}

TEST(ZavloLinuxOwnerAuthentication, WaitingForEvaluationsFromInsideOneIsRefused) {
  Auth authentication(modeOptions(Auth::Mode::allow));
  auto context = authentication.makeContext();
  std::promise<bool> refused;
  context->evaluatePolicy(kOwner, "reason", [&](bool, std::optional<ZavloOwnerAuthenticationError>) {
    try {
      authentication.waitForEvaluations();
      refused.set_value(false);
    } catch (const std::logic_error&) {
      refused.set_value(true);
    }
  });
  EXPECT_TRUE(refused.get_future().get());
  authentication.waitForEvaluations();
}

// The terminal conversation on a pseudo-terminal the test types into.
class ZavloLinuxTerminalConversation : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(openpty(&master_, &slave_, name_, nullptr, nullptr), 0);
    ASSERT_EQ(tcgetattr(slave_, &before_), 0);
  }
  void TearDown() override {
    close(master_);
    close(slave_);
  }

  // Everything the conversation has written, up to and including text.
  std::string readUntil(const std::string& text) {
    std::string seen;
    while (seen.find(text) == std::string::npos) {
      pollfd readable{master_, POLLIN, 0};
      // A guard against a conversation that never writes, not a timing of the behaviour.
      if (poll(&readable, 1, 10000) != 1) break;
      char chunk[256];
      const auto n = read(master_, chunk, sizeof chunk);
      if (n <= 0) break;
      seen.append(chunk, static_cast<std::size_t>(n));
    }
    return seen;
  }
  void type(const std::string& keys) { ASSERT_EQ(write(master_, keys.data(), keys.size()), ssize_t(keys.size())); }
  void expectTerminalRestored() {
    termios after{};
    ASSERT_EQ(tcgetattr(slave_, &after), 0);
    EXPECT_EQ(after.c_lflag, before_.c_lflag);
    EXPECT_EQ(after.c_cc[VMIN], before_.c_cc[VMIN]);
  }
  std::future<std::optional<std::vector<std::string>>> ask(Auth::ConversationRound round) {
    return std::async(std::launch::async,
                      [conversation = Auth::terminalConversation(name_), round] { return conversation(round); });
  }

  int master_ = -1;
  int slave_ = -1;
  char name_[256] = {};
  termios before_{};
};

TEST_F(ZavloLinuxTerminalConversation, AsksWithTheReasonAndEchoOffThenRestoresTheTerminal) {
  using Style = Auth::Message::Style;
  auto answers = ask({"Confirm your identity to continue",
                      {{Style::textInfo, "Last failed attempt yesterday"},
                       {Style::promptEchoOff, "Password: "},
                       {Style::promptEchoOn, "Code: "}},
                      -1});
  const auto shown = readUntil("Password: ");
  EXPECT_NE(shown.find("Last failed attempt yesterday"), std::string::npos) << shown;
  EXPECT_NE(shown.find("Confirm your identity to continue"), std::string::npos) << shown;
  type(
      "secz\x7fr\xc3\xa9t\x7f"
      "et\r");
  const auto afterSecret = readUntil("Code: ");
  EXPECT_EQ(afterSecret.find("sec"), std::string::npos) << "the secret was echoed: " << afterSecret;
  type("42\r");
  EXPECT_NE(readUntil("42").find("42"), std::string::npos) << "an echo-on prompt shows what is typed";

  const auto result = answers.get();
  ASSERT_TRUE(result.has_value());
  EXPECT_EQ(*result, (std::vector<std::string>{"",
                                               "secr\xc3\xa9"
                                               "et",
                                               "42"}));
  expectTerminalRestored();
}

TEST_F(ZavloLinuxTerminalConversation, CtrlCCtrlDAndTheCancelFdCancelAndRestoreTheTerminal) {
  using Style = Auth::Message::Style;
  for (const std::string keys : {"abc\x03", "\x04"}) {
    auto answers = ask({"reason", {{Style::promptEchoOff, "Password: "}}, -1});
    readUntil("Password: ");
    type(keys);
    EXPECT_FALSE(answers.get().has_value()) << testing::PrintToString(keys);
    expectTerminalRestored();
  }

  const int cancelFd = eventfd(0, EFD_CLOEXEC);
  auto answers = ask({"reason", {{Style::promptEchoOff, "Password: "}}, cancelFd});
  readUntil("Password: ");
  const std::uint64_t one = 1;
  ASSERT_EQ(write(cancelFd, &one, sizeof one), ssize_t(sizeof one));
  EXPECT_FALSE(answers.get().has_value());
  expectTerminalRestored();
  close(cancelFd);
}

TEST_F(ZavloLinuxTerminalConversation, ThrowsWhenThereIsNoTerminalToAskOn) {
  const Auth::ConversationRound round{"reason", {{Auth::Message::Style::promptEchoOff, "Password: "}}, -1};
  EXPECT_THROW(Auth::terminalConversation("/nonexistent/tty")(round), std::runtime_error);
  EXPECT_THROW(Auth::terminalConversation("/dev/null")(round), std::runtime_error);
}

// PAM, redirected by pam_wrapper to service files the test writes, in a probe process.
class ZavloLinuxOwnerAuthenticationPam : public testing::Test {
 protected:
  void SetUp() override {
    if (std::string(ZAVLO_PAM_WRAPPER).empty() || std::string(ZAVLO_PAM_MATRIX).empty()) {
      GTEST_SKIP() << "pam_wrapper (Debian libpam-wrapper) is not installed: PAM cannot be pointed at test services";
    }
    char pattern[] = "/tmp/zavlo-pam-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    directory_ = pattern;
    const auto user = Auth(Auth::Options{}).user();
    ASSERT_TRUE(user.has_value());
    std::ofstream(directory_ + "/passdb") << *user << ":right horse:matrix\n";
    service("permit", "pam_permit.so");
    service("deny", "pam_deny.so");
    service("matrix", std::string(ZAVLO_PAM_MATRIX) + " passdb=" + directory_ + "/passdb");
    service("broken", "/nonexistent/pam_zavlo_missing.so");
  }
  void TearDown() override {
    if (!directory_.empty()) std::filesystem::remove_all(directory_);
  }

  void service(const std::string& name, const std::string& module) {
    std::ofstream(directory_ + "/" + name) << "auth required " << module << "\naccount required " << module << "\n";
  }

  // leakingStart: PAM cannot start the service, and libpam then leaks (see the suppressions).
  nlohmann::json probe(const std::vector<std::string>& arguments, bool leakingStart = false) {
    const char* asan = std::getenv("ASAN_OPTIONS");
    const char* lsan = std::getenv("LSAN_OPTIONS");
    std::vector<std::string> command{
        "/usr/bin/env", std::string("LD_PRELOAD=") + ZAVLO_PAM_WRAPPER, "PAM_WRAPPER=1",
        "PAM_WRAPPER_SERVICE_DIR=" + directory_,
        // Sanitizers refuse libraries opened with deep binding; pam_wrapper 1.1.4 reads
        // the second, misnamed variable.
        "PAM_WRAPPER_DISABLE_DEEPBIND=1", "UID_WRAPPER_DISABLE_DEEPBIND=1",
        // pam_wrapper is preloaded ahead of the sanitizer runtime.
        std::string("ASAN_OPTIONS=") + (asan != nullptr ? asan : "") + ":verify_asan_link_order=0",
        std::string("LSAN_OPTIONS=") + (lsan != nullptr ? lsan : "") +
            (leakingStart ? std::string(":suppressions=") + ZAVLO_PROBE_LSAN_SUPPRESSIONS : ""),
        ZAVLO_OWNER_AUTH_PROBE};
    command.insert(command.end(), arguments.begin(), arguments.end());
    const auto run = zavloRunProcess(command);
    EXPECT_EQ(run.exitStatus, 0) << run.standardError;
    try {
      return nlohmann::json::parse(run.standardOutput);
    } catch (const std::exception&) {
      ADD_FAILURE() << "no report: " << run.standardOutput << run.standardError;
      return nlohmann::json::object();
    }
  }

  static void expectError(nlohmann::json report, const std::string& domain, std::int64_t code) {
    EXPECT_EQ(report.value("replies", 0), 1) << report;
    EXPECT_EQ(report.value("success", true), false) << report;
    ASSERT_TRUE(report.contains("error") && report["error"].is_object()) << report;
    EXPECT_EQ(report["error"]["domain"], domain) << report;
    EXPECT_EQ(report["error"]["code"], code) << report;
  }

  std::string directory_;
};

TEST_F(ZavloLinuxOwnerAuthenticationPam, TheOwnerPolicyIsAvailableWhenPamCanStartTheService) {
  auto available = probe({"permit", "check"});
  EXPECT_EQ(available["canEvaluate"], true) << available;
  auto missing = probe({"no-such-service", "check"}, true);
  EXPECT_EQ(missing["canEvaluate"], false) << missing;
  EXPECT_EQ(missing["error"]["code"], ZavloLAError::passcodeNotSet) << missing;
}

TEST_F(ZavloLinuxOwnerAuthenticationPam, PamsVerdictBecomesTheReplyOnAnotherThreadExactlyOnce) {
  auto permitted = probe({"permit", "answer", ""});
  EXPECT_EQ(permitted["replies"], 1) << permitted;
  EXPECT_EQ(permitted["success"], true) << permitted;
  EXPECT_EQ(permitted["replyOnCallingThread"], false) << permitted;
  EXPECT_EQ(permitted["authenticated"], true) << permitted;

  auto denied = probe({"deny", "answer", ""});
  expectError(denied, "LAErrorDomain", ZavloLAError::authenticationFailed);
  EXPECT_EQ(denied["authenticated"], false) << denied;

  // A stack whose module cannot be loaded is a system failure, told in PAM's words.
  auto broken = probe({"broken", "answer", ""});
  EXPECT_EQ(broken.value("replies", 0), 1) << broken;
  EXPECT_NE(broken["error"]["domain"], "LAErrorDomain") << broken;
  EXPECT_FALSE(broken["error"]["description"].get<std::string>().empty()) << broken;
}

TEST_F(ZavloLinuxOwnerAuthenticationPam, TheConversationAnswersCancelsOrCannotAsk) {
  auto right = probe({"matrix", "answer", "right horse"});
  EXPECT_EQ(right["success"], true) << right;
  EXPECT_EQ(right["reason"], "Sign in to the probe") << right;
  ASSERT_FALSE(right["messages"].empty()) << right;
  EXPECT_EQ(right["messages"][0][0], "promptEchoOff") << right;

  expectError(probe({"matrix", "answer", "wrong horse"}), "LAErrorDomain", ZavloLAError::authenticationFailed);
  expectError(probe({"matrix", "cancel"}), "LAErrorDomain", ZavloLAError::userCancel);
  auto cannotAsk = probe({"matrix", "cannot-ask"});
  expectError(cannotAsk, std::string(Auth::kErrorDomain), 19 /* PAM_CONV_ERR */);
  EXPECT_EQ(cannotAsk["error"]["description"], "This probe has no terminal to ask on.") << cannotAsk;
}

TEST_F(ZavloLinuxOwnerAuthenticationPam, AContextThatGoesDuringItsPromptIsCancelledSafely) {
  auto destroyed = probe({"matrix", "destroy"});
  expectError(destroyed, "LAErrorDomain", ZavloLAError::appCancel);
  EXPECT_EQ(destroyed["contextAlive"], false) << destroyed;

  // The reply holds the last reference: the context goes on the evaluation's own thread.
  auto ownedByReply = probe({"matrix", "reply-owns", "right horse"});
  EXPECT_EQ(ownedByReply["replies"], 1) << ownedByReply;
  EXPECT_EQ(ownedByReply["success"], true) << ownedByReply;
  EXPECT_EQ(ownedByReply["authenticatedInReply"], true) << ownedByReply;
  EXPECT_EQ(ownedByReply["contextAlive"], false) << ownedByReply;
}

// fprintd, played by a stand-in on a private bus.
class ZavloLinuxFingerprintDomainState : public testing::Test {
 protected:
  void SetUp() override {
    if (access("/usr/bin/dbus-daemon", X_OK) != 0) GTEST_SKIP() << "dbus-daemon (Debian dbus-daemon) is not installed";
    if (zavloRunProcess({ZAVLO_PYTHON3, "-c", "import dbus, dbus.mainloop.glib, gi"}).exitStatus != 0) {
      GTEST_SKIP() << ZAVLO_PYTHON3 << " lacks python3-dbus or python3-gi for the fprintd stand-in";
    }
    bus_ = std::make_unique<ZavloPrivateBus>();
    statePath_ = bus_->directory() + "/fprintd.json";
    enroll(true, {{"alice", {"right-index-finger", "left-thumb"}}});
    startDaemon();
  }

  void enroll(bool device, const std::map<std::string, std::vector<std::string>>& fingers) {
    std::ofstream(statePath_) << nlohmann::json{{"device", device}, {"fingers", fingers}}.dump();
  }
  void startDaemon() {
    daemon_ = std::make_unique<ZavloChildProcess>(
        std::vector<std::string>{ZAVLO_PYTHON3, ZAVLO_FPRINTD_STANDIN, bus_->address(), statePath_});
    ASSERT_EQ(daemon_->readLine(), "ready");
  }
  Auth authentication(Auth::Mode mode, const std::string& user) {
    Auth::Options options;
    options.mode = mode;
    options.user = user;
    options.fingerprintBusAddress = bus_->address();
    return Auth(std::move(options));
  }
  std::shared_ptr<ZavloLinuxOwnerAuthenticationContext> context(const std::string& user = "alice") {
    return authentication(Auth::Mode::pam, user).makeContext();
  }

  std::unique_ptr<ZavloPrivateBus> bus_;
  std::string statePath_;
  std::unique_ptr<ZavloChildProcess> daemon_;
};

TEST_F(ZavloLinuxFingerprintDomainState, IsADigestOfTheEnrolledFingersThatChangesOnlyWithTheSet) {
  const auto first = context();
  EXPECT_TRUE(first->canEvaluatePolicy(kBiometrics));
  const auto digest = first->evaluatedPolicyDomainState();
  ASSERT_TRUE(digest.has_value());
  EXPECT_EQ(digest->size(), 32U);

  enroll(true, {{"alice", {"left-thumb", "right-index-finger"}}, {"bob", {"left-index-finger"}}});
  EXPECT_EQ(context()->evaluatedPolicyDomainState(), digest) << "the same set in another order, beside another user";

  enroll(true, {{"alice", {"left-thumb", "right-index-finger", "right-thumb"}}});
  const auto grown = context()->evaluatedPolicyDomainState();
  ASSERT_TRUE(grown.has_value());
  EXPECT_NE(grown, digest);
  EXPECT_EQ(first->evaluatedPolicyDomainState(), digest) << "a context keeps what it read";

  enroll(true, {{"alice", {"left-thumb", "right-thumb"}}});
  const auto swapped = context()->evaluatedPolicyDomainState();
  EXPECT_NE(swapped, digest);
  EXPECT_NE(swapped, grown);
}

TEST_F(ZavloLinuxFingerprintDomainState, IsAbsentWithoutFingersDeviceOrDaemonAndTheBiometricPolicyFollows) {
  const auto expectAbsent = [&](const std::shared_ptr<ZavloLinuxOwnerAuthenticationContext>& context, std::int64_t code,
                                const char* what) {
    EXPECT_FALSE(context->evaluatedPolicyDomainState().has_value()) << what;
    EXPECT_FALSE(context->canEvaluatePolicy(kBiometrics)) << what;
    const auto error = context->policyError(kBiometrics);
    ASSERT_TRUE(error.has_value()) << what;
    EXPECT_EQ(error->code, code) << what << ": " << error->description;
  };
  expectAbsent(context("bob"), ZavloLAError::biometryNotEnrolled, "another user's fingers");
  enroll(true, {{"alice", {}}});
  expectAbsent(context(), ZavloLAError::biometryNotEnrolled, "no fingers");
  enroll(false, {{"alice", {"right-index-finger"}}});
  expectAbsent(context(), ZavloLAError::biometryNotAvailable, "no device");
  daemon_.reset();
  expectAbsent(context(), ZavloLAError::biometryNotAvailable, "no daemon");
  bus_.reset();
  Auth::Options options;
  options.user = "alice";
  options.fingerprintBusAddress = kNoBus;
  expectAbsent(Auth(options).makeContext(), ZavloLAError::biometryNotAvailable, "no bus");
}

TEST_F(ZavloLinuxFingerprintDomainState, ABiometricPromptNeedsEnrolledFingersEvenWhenPromptsAreAllowed) {
  for (const auto& [user, code] : {std::pair{"alice", std::int64_t{0}}, {"bob", ZavloLAError::biometryNotEnrolled}}) {
    auto allowing = authentication(Auth::Mode::allow, user);
    auto context = allowing.makeContext();
    Replies replies;
    context->evaluatePolicy(kBiometrics, "reason", replies.reply());
    allowing.waitForEvaluations();
    ASSERT_EQ(replies.received.size(), 1U);
    EXPECT_EQ(replies.received[0].first, code == 0) << user;
    EXPECT_EQ(replies.received[0].second.has_value() ? replies.received[0].second->code : 0, code) << user;
    EXPECT_EQ((context->takeOwnerProof() != nullptr), code == 0) << user;
  }
}
