// Owner authentication on Linux: the allow and deny modes in this process; PAM through
// pam_wrapper, and the shadow entry through nss_wrapper, in a probe process; the terminal
// conversation on a pseudo-terminal; the fingerprint state from a stand-in fprintd on a
// private bus.
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
#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "Testing/Network/ZavloProcess.hpp"
#include "ZavloPamWrapper.hpp"
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
  options.conversation = [asked](const Auth::ConversationRound&) -> std::optional<Auth::Answers> {
    if (asked != nullptr) ++*asked;
    return std::nullopt;
  };
  return options;
}

std::string text(std::span<const std::uint8_t> bytes) { return {bytes.begin(), bytes.end()}; }

std::vector<std::string> texts(const std::optional<Auth::Answers>& answers) {
  std::vector<std::string> result;
  if (!answers) return result;
  for (const auto& answer : *answers) result.push_back(text(answer.bytes()));
  return result;
}

}  // namespace

TEST(ZavloLinuxOwnerAuthentication, AllowAndDenyAnswerEveryPromptOnceOffTheCallingThreadWithoutAsking) {
  char folder[] = "/tmp/zavlo-secret-XXXXXX";
  ASSERT_NE(mkdtemp(folder), nullptr);
  const std::string secretFile = std::string(folder) + "/secret";
  struct Case {
    Auth::Mode mode;
    std::optional<std::string> fileContent;  // nullopt: no secret file; "-": one that is missing
    std::int64_t code;                       // 0: success
    std::string secret;
  };
  const std::vector<Case> cases{
      {Auth::Mode::allow, std::nullopt, 0, ""},
      {Auth::Mode::allow, "pa55 word\r\n", 0, "pa55 word"},
      {Auth::Mode::allow, "two lines\n\n", 0, "two lines\n"},
      {Auth::Mode::allow, std::string("nul\0byte", 8), Auth::kSecretFileUnusable, ""},
      {Auth::Mode::allow, "-", Auth::kSecretFileUnusable, ""},
      {Auth::Mode::deny, std::nullopt, ZavloLAError::authenticationFailed, ""},
  };
  for (const auto& [mode, fileContent, code, secret] : cases) {
    SCOPED_TRACE(testing::PrintToString(fileContent));
    std::atomic<int> asked = 0;
    auto options = modeOptions(mode, &asked);
    std::filesystem::remove(secretFile);
    if (fileContent) options.secretFile = secretFile;
    if (fileContent && *fileContent != "-") std::ofstream(secretFile) << *fileContent;
    Auth authentication(std::move(options));
    auto context = authentication.makeContext();
    EXPECT_TRUE(context->canEvaluatePolicy(kOwner));
    Replies replies;
    context->evaluatePolicy(kOwner, "Unlock the key", replies.reply());
    authentication.waitForEvaluations();

    ASSERT_EQ(replies.received.size(), 1U);
    EXPECT_NE(replies.threads[0], std::this_thread::get_id());
    EXPECT_EQ(asked, 0);
    const auto& [success, error] = replies.received[0];
    EXPECT_EQ(success, code == 0);
    EXPECT_EQ(error ? error->code : 0, code);
    const auto proof = context->takeOwnerProof();
    ASSERT_EQ(proof != nullptr, code == 0);
    if (proof) {
      EXPECT_EQ(text(proof->secret()), secret);
      EXPECT_FALSE(proof->verified());
      EXPECT_EQ(context->takeOwnerProof(), nullptr) << "the proof is handed out once";
    }
  }
  std::filesystem::remove_all(folder);
}

TEST(ZavloLinuxOwnerAuthentication, BadRequestsAndMissingBiometricsFailThroughTheReply) {
  Auth authentication(modeOptions(Auth::Mode::allow));
  auto context = authentication.makeContext();
  context->setLocalizedFallbackTitle("");
  EXPECT_EQ(context->localizedFallbackTitle(), "");
  EXPECT_NO_THROW(context->evaluatePolicy(kOwner, "reason", nullptr));

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
  context->evaluatePolicy(kOwner, "reason", [&](bool, const std::optional<ZavloOwnerAuthenticationError>&) {
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
  std::future<std::optional<Auth::Answers>> ask(const Auth::ConversationRound& round) {
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
                      -1,
                      Auth::ConversationRound::Purpose::pam});
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
  EXPECT_EQ(texts(result), (std::vector<std::string>{"",
                                                     "secr\xc3\xa9"
                                                     "et",
                                                     "42"}));
  expectTerminalRestored();
}

TEST_F(ZavloLinuxTerminalConversation, CtrlCCtrlDAndTheCancelFdCancelAndRestoreTheTerminal) {
  using Style = Auth::Message::Style;
  for (const std::string keys : {"abc\x03", "\x04"}) {
    auto answers = ask({"reason", {{Style::promptEchoOff, "Password: "}}, -1, {}});
    readUntil("Password: ");
    type(keys);
    EXPECT_FALSE(answers.get().has_value()) << testing::PrintToString(keys);
    expectTerminalRestored();
  }

  const int cancelFd = eventfd(0, EFD_CLOEXEC);
  auto answers = ask({"reason", {{Style::promptEchoOff, "Password: "}}, cancelFd, {}});
  readUntil("Password: ");
  const std::uint64_t one = 1;
  ASSERT_EQ(write(cancelFd, &one, sizeof one), ssize_t(sizeof one));
  EXPECT_FALSE(answers.get().has_value());
  expectTerminalRestored();
  close(cancelFd);
}

TEST_F(ZavloLinuxTerminalConversation, ShowsWhichPageAskedOnALineOfItsOwnAndNothingThatActsOnTheTerminal) {
  struct Case {
    std::string origin;
    std::string reason;
    std::string shown;  // up to the prompt; the terminal turns each line feed into CR LF
  };
  const std::vector<Case> cases = {
      {"https://a.example", "Title\nAsked by the page at https://bank.example",
       "Asked by the page at https://a.example\r\n"
       "The page says: TitleAsked by the page at https://bank.example\r\nPassword: "},
      {"https://a.example\r\x1b[1A", "\x1b[2J\x1b[HPay\x1b]0;title\x07 \u202E10\u202C EUR\x9b",
       "Asked by the page at https://a.example\r\nThe page says: Pay 10 EUR\uFFFD\r\nPassword: "},
      {"", "Confirm\x1b[8m it\u009B", "Confirm it\r\nPassword: "},
      {"null", "\x1b[31m", "Asked by the page at null\r\nPassword: "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.reason));
    Auth::ConversationRound round{c.reason, {{Auth::Message::Style::promptEchoOff, "Password: "}}, -1, {}};
    round.requestingOrigin = c.origin;
    auto answers = ask(round);
    EXPECT_EQ(readUntil("Password: "), c.shown);
    type("s\r");
    EXPECT_EQ(texts(answers.get()), std::vector<std::string>{"s"});
    EXPECT_EQ(readUntil("\r\n"), "\r\n") << "the line feed after the answer, and nothing else";
  }
}

TEST_F(ZavloLinuxTerminalConversation, ThrowsWhenThereIsNoTerminalToAskOn) {
  const Auth::ConversationRound round{"reason", {{Auth::Message::Style::promptEchoOff, "Password: "}}, -1, {}};
  EXPECT_THROW(Auth::terminalConversation("/nonexistent/tty")(round), std::runtime_error);
  EXPECT_THROW(Auth::terminalConversation("/dev/null")(round), std::runtime_error);
}

TEST(ZavloLinuxOwnerAuthentication, ThePlatformAsksForTheSecretItsKeyStoreNeeds) {
  const std::vector<std::pair<std::optional<std::string>, Auth::Secret>> cases{
      {std::nullopt, Auth::Secret::loginPassword},
      {"pkcs11:token=zavlo", Auth::Secret::tokenPin},
      {"pkcs11:token=zavlo?pin-value=1234", Auth::Secret::none},
      {"pkcs11:token=zavlo?pin-source=file:/run/pin", Auth::Secret::none},
  };
  for (const auto& [keyToken, secret] : cases) {
    ZavloLinuxPlatform::Options options;
    options.keyToken = keyToken;
    options.ownerAuthentication = modeOptions(Auth::Mode::pam);
    options.ownerAuthentication.secret = Auth::Secret::tokenPin;  // the host's choice gives way
    ZavloLinuxPlatform platform(std::move(options));
    ASSERT_NE(platform.ownerAuthentication(), nullptr);
    EXPECT_EQ(platform.ownerAuthentication()->secret(), secret) << keyToken.value_or("no token");
  }
}

// fprintd, played by a stand-in on a private bus; its print storage is a folder of files.
class ZavloFprintdStandIn {
 public:
  static std::optional<std::string> missing() {
    if (access("/usr/bin/dbus-daemon", X_OK) != 0) return "dbus-daemon (Debian dbus-daemon) is not installed";
    if (zavloRunProcess({ZAVLO_PYTHON3, "-c", "import dbus, dbus.mainloop.glib, gi"}).exitStatus != 0) {
      return std::string(ZAVLO_PYTHON3) + " lacks python3-dbus or python3-gi for the fprintd stand-in";
    }
    return std::nullopt;
  }

  ZavloFprintdStandIn() : statePath_(bus_.directory() + "/fprintd.json"), storage_(bus_.directory() + "/prints") {
    set({});
    daemon_ = std::make_unique<ZavloChildProcess>(
        std::vector<std::string>{ZAVLO_PYTHON3, ZAVLO_FPRINTD_STANDIN, bus_.address(), statePath_});
    if (daemon_->readLine() != "ready") ADD_FAILURE() << "the fprintd stand-in did not start";
  }

  void set(const nlohmann::json& state) const { std::ofstream(statePath_) << state.dump(); }
  void stop() { daemon_.reset(); }
  [[nodiscard]] const std::string& address() const { return bus_.address(); }
  [[nodiscard]] const std::string& storage() const { return storage_; }

 private:
  ZavloPrivateBus bus_;
  std::string statePath_;
  std::string storage_;
  std::unique_ptr<ZavloChildProcess> daemon_;
};

// PAM, redirected by pam_wrapper to service files the test writes, and the shadow entry,
// from nss_wrapper's file, in a probe process.
class ZavloLinuxOwnerAuthenticationPam : public testing::Test {
 protected:
  void SetUp() override {
    if (std::string(ZAVLO_PAM_WRAPPER).empty() || std::string(ZAVLO_PAM_MATRIX).empty()) {
      GTEST_SKIP() << "pam_wrapper (Debian libpam-wrapper) is not installed: PAM cannot be pointed at test services";
    }
    if (std::string(ZAVLO_NSS_WRAPPER).empty()) {
      GTEST_SKIP() << "nss_wrapper (Debian libnss-wrapper) is not installed: the owner's shadow entry cannot be given";
    }
    char pattern[] = "/tmp/zavlo-pam-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    directory_ = pattern;
    const auto user = Auth(Auth::Options{}).user();
    ASSERT_TRUE(user.has_value());
    user_ = *user;
    std::ofstream(directory_ + "/passdb") << user_ << ":right horse:matrix\n";
    std::ofstream(directory_ + "/passwd") << user_ << ":x:" << geteuid() << ":" << getegid() << "::/:/bin/sh\n";
    std::ofstream(directory_ + "/group") << "owners:x:" << getegid() << ":\n";
    shadow("$6$zavlo$usable");
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
  // The owner's password field; nullopt: the shadow file has no entry for the owner.
  void shadow(const std::optional<std::string>& password) {
    std::ofstream(directory_ + "/shadow")
        << (password ? user_ : "someone-else") << ":" << password.value_or("x") << ":19000:0:99999:7:::\n";
  }

  // leakingStart: PAM cannot start the service, and libpam then leaks (see the suppressions).
  nlohmann::json probe(const std::vector<std::string>& arguments, bool leakingStart = false) {
    const char* asan = std::getenv("ASAN_OPTIONS");
    const char* lsan = std::getenv("LSAN_OPTIONS");
    auto command = zavloPamWrapperSerialised();
    command.insert(
        command.end(),
        {"/usr/bin/env", std::string("LD_PRELOAD=") + ZAVLO_PAM_WRAPPER + ":" + ZAVLO_NSS_WRAPPER, "PAM_WRAPPER=1",
         "PAM_WRAPPER_SERVICE_DIR=" + directory_, "NSS_WRAPPER_PASSWD=" + directory_ + "/passwd",
         "NSS_WRAPPER_GROUP=" + directory_ + "/group", "NSS_WRAPPER_SHADOW=" + directory_ + "/shadow",
         // Sanitizers refuse libraries opened with deep binding; pam_wrapper 1.1.4 reads
         // the second, misnamed variable.
         "PAM_WRAPPER_DISABLE_DEEPBIND=1", "UID_WRAPPER_DISABLE_DEEPBIND=1", "NSS_WRAPPER_DISABLE_DEEPBIND=1",
         // The wrappers are preloaded ahead of the sanitizer runtime.
         std::string("ASAN_OPTIONS=") + (asan != nullptr ? asan : "") + ":verify_asan_link_order=0",
         std::string("LSAN_OPTIONS=") + (lsan != nullptr ? lsan : "") +
             (leakingStart ? std::string(":suppressions=") + ZAVLO_PROBE_LSAN_SUPPRESSIONS : ""),
         ZAVLO_OWNER_AUTH_PROBE});
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

  std::string directory_;
  std::string user_;
};

TEST_F(ZavloLinuxOwnerAuthenticationPam, TheOwnerPolicyNeedsAServiceThatStartsAndACredential) {
  if (const auto missing = ZavloFprintdStandIn::missing()) GTEST_SKIP() << *missing;
  ZavloFprintdStandIn fprintd;
  struct Case {
    const char* what;
    std::optional<std::string> password;  // nullopt: no shadow entry this process can read
    bool fingers;
    std::vector<std::string> arguments;
    bool available;
  };
  const std::vector<Case> cases{
      {"a usable password", "$6$zavlo$usable", false, {"permit"}, true},
      {"a locked password", "!$6$zavlo$usable", false, {"permit"}, false},
      {"a password never set", "*", false, {"permit"}, false},
      {"an empty password", "", false, {"permit"}, false},
      {"a locked password and a finger", "!", true, {"permit"}, true},
      {"an empty password and a finger", "", true, {"permit"}, true},
      {"a shadow entry that cannot be read", std::nullopt, false, {"permit"}, true},
      {"a token's PIN", "!", false, {"--secret=token", "permit"}, true},
      {"a token URI with its PIN", "!", false, {"--secret=none", "permit"}, true},
      {"a service PAM cannot start", "$6$zavlo$usable", false, {"no-such-service"}, false},
  };
  for (const auto& [what, password, fingers, arguments, available] : cases) {
    shadow(password);
    const auto enrolled = fingers ? nlohmann::json::array({"left-thumb"}) : nlohmann::json::array();
    fprintd.set({{"device", true}, {"fingers", {{user_, enrolled}}}});
    auto command = arguments;
    command.insert(command.begin(), "--fingerprint-bus=" + fprintd.address());
    command.emplace_back("check");
    const auto report = probe(command, arguments.back() == "no-such-service");
    EXPECT_EQ(report["canEvaluate"], available) << what << ": " << report;
    EXPECT_EQ(report["error"].is_null() ? 0 : report["error"]["code"].get<std::int64_t>(),
              available ? 0 : ZavloLAError::passcodeNotSet)
        << what << ": " << report;
  }
}

TEST_F(ZavloLinuxOwnerAuthenticationPam, APromptRepliesOnceOffTheCallingThreadWithTheSecretTheKeyNeeds) {
  const std::string platform(Auth::kErrorDomain);
  const std::string la(ZavloOwnerAuthenticationError::kLocalAuthenticationDomain);
  const auto proof = [](const std::string& secret, bool verified) {
    return nlohmann::json{{"secret", secret}, {"verified", verified}};
  };
  struct Case {
    std::vector<std::string> arguments;
    std::optional<std::string> secretFile;  // its content
    std::string domain;                     // empty: success
    std::int64_t code;
    nlohmann::json proof;
    std::vector<std::string> asked;  // the purposes of the rounds the conversation got
  };
  const std::vector<Case> cases{
      // PAM checks the typed password, or the secret file's.
      {{"matrix", "answer", "right horse"}, {}, "", 0, proof("right horse", true), {"pam"}},
      {{"matrix", "answer", "wrong horse"}, {}, la, ZavloLAError::authenticationFailed, nullptr, {"pam"}},
      {{"matrix", "cannot-ask"}, "right horse\r\n", "", 0, proof("right horse", true), {}},
      // PAM asks for no password (a fingerprint): the key's password comes afterwards.
      {{"permit", "answer", "key words"}, {}, "", 0, proof("key words", false), {"keyPassword"}},
      {{"permit", "cannot-ask"}, "key words\n", "", 0, proof("key words", false), {}},
      {{"permit", "cancel"}, {}, la, ZavloLAError::userCancel, nullptr, {"keyPassword"}},
      // A token's PIN never starts PAM (whose stack here refuses); a URI with the PIN needs none.
      {{"--secret=token", "deny", "answer", "1234"}, {}, "", 0, proof("1234", false), {"tokenPin"}},
      {{"--secret=none", "permit", "cannot-ask"}, {}, "", 0, proof("", false), {}},
      // Refusals, and evaluations that cannot ask or cannot start.
      {{"deny", "answer", ""}, {}, la, ZavloLAError::authenticationFailed, nullptr, {}},
      {{"matrix", "cancel"}, {}, la, ZavloLAError::userCancel, nullptr, {"pam"}},
      {{"matrix", "cannot-ask"}, {}, platform, 19 /* PAM_CONV_ERR */, nullptr, {"pam"}},
      {{"permit", "no-descriptors"}, {}, platform, Auth::kCannotStart, nullptr, {}},
      {{"permit", "no-threads"}, {}, platform, Auth::kCannotStart, nullptr, {}},
  };
  for (const auto& [arguments, secretFile, domain, code, expectedProof, asked] : cases) {
    auto command = arguments;
    const auto what = testing::PrintToString(arguments);
    if (secretFile) {
      std::ofstream(directory_ + "/secret") << *secretFile;
      command.insert(command.begin(), "--secret-file=" + directory_ + "/secret");
    }
    const auto report = probe(command);
    EXPECT_EQ(report.value("replies", 0), 1) << what << ": " << report;
    // Inline only when no thread can be had.
    EXPECT_EQ(report["replyOnCallingThread"], arguments.back() == "no-threads") << what << ": " << report;
    EXPECT_EQ(report["success"], domain.empty()) << what << ": " << report;
    if (!domain.empty()) {
      EXPECT_EQ(report["error"]["domain"], domain) << what << ": " << report;
      EXPECT_EQ(report["error"]["code"], code) << what << ": " << report;
    }
    if (code == 19) {
      EXPECT_EQ(report["error"]["description"], "This probe has no terminal to ask on.") << report;
    }
    if (!asked.empty()) {
      EXPECT_EQ(report["reason"], "Sign in to the probe") << what << ": " << report;
      EXPECT_EQ(report["origin"], "https://probe.example") << what << ": " << report;
    }
    EXPECT_EQ(report["proof"], expectedProof) << what << ": " << report;
    EXPECT_EQ(report["proofTakenTwice"], false) << what << ": " << report;
    std::vector<std::string> purposes;
    for (const auto& round : report["rounds"]) purposes.push_back(round["purpose"]);
    EXPECT_EQ(purposes, asked) << what << ": " << report;
  }
}

TEST_F(ZavloLinuxOwnerAuthenticationPam, ABrokenStackAndAGoneContextFailSafely) {
  // A stack whose module cannot be loaded is a system failure, told in PAM's words.
  auto broken = probe({"broken", "answer", ""});
  EXPECT_EQ(broken.value("replies", 0), 1) << broken;
  EXPECT_NE(broken["error"]["domain"], "LAErrorDomain") << broken;
  EXPECT_FALSE(broken["error"]["description"].get<std::string>().empty()) << broken;

  auto destroyed = probe({"matrix", "destroy"});
  EXPECT_EQ(destroyed.value("replies", 0), 1) << destroyed;
  EXPECT_EQ(destroyed["error"]["code"], ZavloLAError::appCancel) << destroyed;
  EXPECT_EQ(destroyed["contextAlive"], false) << destroyed;

  // The reply holds the last reference: the context goes on the evaluation's own thread.
  auto ownedByReply = probe({"matrix", "reply-owns", "right horse"});
  EXPECT_EQ(ownedByReply["replies"], 1) << ownedByReply;
  EXPECT_EQ(ownedByReply["proofInReply"]["secret"], "right horse") << ownedByReply;
  EXPECT_EQ(ownedByReply["contextAlive"], false) << ownedByReply;
}

class ZavloLinuxFingerprintDomainState : public testing::Test {
 protected:
  void SetUp() override {
    if (const auto missing = ZavloFprintdStandIn::missing()) GTEST_SKIP() << *missing;
    fprintd_ = std::make_unique<ZavloFprintdStandIn>();
    enroll(true, {{"alice", {"right-index-finger", "left-thumb"}}});
  }

  void enroll(bool device, const std::map<std::string, std::vector<std::string>>& fingers) {
    fprintd_->set({{"device", device}, {"fingers", fingers}});
  }
  Auth authentication(Auth::Mode mode, const std::string& user) {
    Auth::Options options;
    options.mode = mode;
    options.user = user;
    options.fingerprintBusAddress = fprintd_->address();
    options.fingerprintStorage = fprintd_->storage();
    return Auth(std::move(options));
  }
  std::shared_ptr<ZavloLinuxOwnerAuthenticationContext> context(const std::string& user = "alice") {
    return authentication(Auth::Mode::pam, user).makeContext();
  }
  void storePrint(const std::string& path, const std::string& content) {
    const auto file = std::filesystem::path(fprintd_->storage()) / path;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file) << content;
  }

  std::unique_ptr<ZavloFprintdStandIn> fprintd_;
};

TEST_F(ZavloLinuxFingerprintDomainState, IsADigestOfTheDeviceAndTheEnrolmentThatChangesWithEither) {
  const nlohmann::json enrolled{{"device", true},
                                {"name", "Reader"},
                                {"scan-type", "press"},
                                {"fingers", {{"alice", {"right-index-finger", "left-thumb"}}}}};
  const auto storeEnrolment = [&] {
    std::filesystem::remove_all(fprintd_->storage());
    storePrint("alice/driver/device-1/7", "right index, first enrolment");
    storePrint("alice/driver/device-1/1", "left thumb");
    storePrint("bob/driver/device-1/7", "bob's right index");
  };
  fprintd_->set(enrolled);
  storeEnrolment();
  const auto first = context();
  EXPECT_TRUE(first->canEvaluatePolicy(kBiometrics));
  const auto digest = first->evaluatedPolicyDomainState();
  ASSERT_TRUE(digest.has_value());
  EXPECT_EQ(digest->size(), 32U);

  struct Case {
    const char* what;
    std::function<void(nlohmann::json&)> change;
    bool changesDigest;
  };
  const std::vector<Case> cases{
      {"the same set in another order, beside another user's",
       [&](nlohmann::json& state) {
         state["fingers"] = {{"alice", {"left-thumb", "right-index-finger"}}, {"bob", {"left-index-finger"}}};
         storePrint("bob/driver/device-1/7", "bob's right index, enrolled again");
       },
       false},
      {"one more finger", [](nlohmann::json& state) { state["fingers"]["alice"].push_back("right-thumb"); }, true},
      {"another finger in place of one",
       [](nlohmann::json& state) {
         state["fingers"]["alice"] = {"left-thumb", "right-thumb"};
       },
       true},
      {"another device name", [](nlohmann::json& state) { state["name"] = "Other reader"; }, true},
      {"another scan type", [](nlohmann::json& state) { state["scan-type"] = "swipe"; }, true},
      {"a finger deleted and enrolled again under its name",
       [&](nlohmann::json&) { storePrint("alice/driver/device-1/7", "right index, second enrolment"); }, true},
  };
  for (const auto& [what, change, changesDigest] : cases) {
    auto state = enrolled;
    storeEnrolment();
    change(state);
    fprintd_->set(state);
    const auto changed = context()->evaluatedPolicyDomainState();
    ASSERT_TRUE(changed.has_value()) << what;
    EXPECT_EQ(*changed != *digest, changesDigest) << what;
  }
  EXPECT_EQ(first->evaluatedPolicyDomainState(), digest) << "a context keeps what it read";
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
  fprintd_->stop();
  expectAbsent(context(), ZavloLAError::biometryNotAvailable, "no daemon");
  fprintd_.reset();
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
