// zavlo-auth binding as a black box: a real key file, keys sealed under the owner's secret,
// the signature checked with OpenSSL against the published public key.
#ifdef ZAVLO_AUTH_BINARY
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "Core/ZavloBase64.hpp"
#include "Testing/Network/ZavloClosedPort.hpp"
#include "Testing/Network/ZavloProcess.hpp"
#include "Testing/Network/ZavloSoftHsm.hpp"
#include "Testing/Network/ZavloSwtpm.hpp"
#include "ZavloEs256.hpp"
#include "ZavloKeyStoreSecrets.hpp"
#include "ZavloPamWrapper.hpp"
#include "tools/peers/ZavloHttpTestServer.hpp"
#include "tools/peers/ZavloTemporaryDirectory.hpp"

namespace {

namespace fs = std::filesystem;

class ZavloCliBinding : public ::testing::Test {
 protected:
  void SetUp() override {
    keystore_ = (folder_.path() / "keychain.db").string();
    secretFile_ = (folder_.path() / "owner-secret").string();
    std::ofstream(secretFile_) << kSecret << '\n';
  }

  // Under allow, the owner's secret comes from secretFile_, the key store is keystore_ and
  // telemetry goes to a closed loopback port, unless the arguments name others.
  ZavloProcessResult run(std::vector<std::string> arguments, const std::string& ownerAuth = "allow",
                         const std::vector<std::string>& environment = {}) const {
    if (std::find(arguments.begin(), arguments.end(), "--telemetry-endpoint") == arguments.end()) {
      arguments.insert(arguments.begin(), {"--telemetry-endpoint", nowhere_.url("/events")});
    }
    const bool secretGiven = std::find(arguments.begin(), arguments.end(), "--owner-secret-file") != arguments.end();
    if (ownerAuth == "allow" && !secretGiven) arguments.insert(arguments.begin(), {"--owner-secret-file", secretFile_});
    if (!ownerAuth.empty()) arguments.insert(arguments.begin(), {"--owner-auth", ownerAuth});
    if (std::find(arguments.begin(), arguments.end(), "--keystore") == arguments.end()) {
      arguments.insert(arguments.begin(), {"--keystore", keystore_});
    }
    arguments.insert(arguments.begin(), ZAVLO_AUTH_BINARY);
    if (!environment.empty()) {
      arguments.insert(arguments.begin(), environment.begin(), environment.end());
      arguments.insert(arguments.begin(), "/usr/bin/env");
      if (std::find(environment.begin(), environment.end(), "PAM_WRAPPER=1") != environment.end()) {
        const auto serialised = zavloPamWrapperSerialised();
        arguments.insert(arguments.begin(), serialised.begin(), serialised.end());
      }
    }
    return zavloRunProcess(arguments);
  }

  // What runs zavlo-auth against PAM service files and a shadow entry in folder: the
  // service "zavlo-auth" and the files passwd, group and shadow there (pam_wrapper and
  // nss_wrapper preloaded). Writes passwd and group for the user running the test.
  static std::vector<std::string> pamEnvironment(const fs::path& folder) {
    const passwd* owner = getpwuid(geteuid());
    std::ofstream(folder / "passwd") << owner->pw_name << ":x:" << geteuid() << ":" << getegid() << "::/:/bin/sh\n";
    std::ofstream(folder / "group") << "owners:x:" << getegid() << ":\n";
    const char* asan = std::getenv("ASAN_OPTIONS");
    return {std::string("LD_PRELOAD=") + ZAVLO_PAM_WRAPPER + ":" + ZAVLO_NSS_WRAPPER,
            "PAM_WRAPPER=1",
            "PAM_WRAPPER_SERVICE_DIR=" + folder.string(),
            "PAM_WRAPPER_DISABLE_DEEPBIND=1",
            "UID_WRAPPER_DISABLE_DEEPBIND=1",
            "NSS_WRAPPER_DISABLE_DEEPBIND=1",
            "NSS_WRAPPER_PASSWD=" + (folder / "passwd").string(),
            "NSS_WRAPPER_GROUP=" + (folder / "group").string(),
            "NSS_WRAPPER_SHADOW=" + (folder / "shadow").string(),
            std::string("ASAN_OPTIONS=") + (asan != nullptr ? asan : "") + ":verify_asan_link_order=0"};
  }

  static nlohmann::json onlyLine(const ZavloProcessResult& run) {
    EXPECT_EQ(std::count(run.standardOutput.begin(), run.standardOutput.end(), '\n'), 1) << run.standardOutput;
    return nlohmann::json::parse(run.standardOutput, nullptr, false);
  }

  static constexpr const char* kSecret = "correct horse battery staple";
  ZavloTemporaryDirectory folder_;
  ZavloClosedPort nowhere_;
  std::string keystore_;
  std::string secretFile_;
};

ZavloBytes decoded(const std::string& base64) { return ZavloBase64::decode(base64).value_or(ZavloBytes{}); }

bool verifies(const std::string& publicKeyBase64, const std::string& signatureBase64, const std::string& message) {
  return zavloVerifyPublishedEs256(publicKeyBase64, message, signatureBase64);
}

nlohmann::json signConfig(const std::string& keyIds, const std::string& challenge) {
  return {{"allowedKeyIds", nlohmann::json::parse(keyIds)}, {"challenge", challenge}};
}

TEST_F(ZavloCliBinding, EnrolThenSignVerifiesAgainstThePublishedKeyAndTheKeySurvivesARestart) {
  const auto enrolled = run({"binding", "enroll"});
  ASSERT_EQ(enrolled.exitStatus, 0) << enrolled.standardOutput << enrolled.standardError;
  EXPECT_NE(enrolled.standardError.find("allow"), std::string::npos) << "allow says so on standard error";
  const auto enrolment = onlyLine(enrolled);
  const std::string keyId = enrolment.at("keyId");
  const std::string publicKey = enrolment.at("publicKey");
  const auto spki = decoded(publicKey);
  ASSERT_EQ(spki.size(), 91U);
  EXPECT_EQ(spki[26], 0x04);
  EXPECT_EQ(enrolment.at("algorithm"), "ES256");

  struct stat info {};
  ASSERT_EQ(stat(keystore_.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600U);

  // A new process each time: the key lives in the file, not in memory.
  const std::string challenge = "  nonce-\xC3\xA9-42 ";
  const auto signedRun = run({"binding", "sign", "--config", signConfig("[\"" + keyId + "\"]", challenge).dump()});
  ASSERT_EQ(signedRun.exitStatus, 0) << signedRun.standardOutput << signedRun.standardError;
  const auto signature = onlyLine(signedRun);
  EXPECT_EQ(signature.at("keyId"), keyId);
  // The entry point trims the challenge before the manager signs it.
  EXPECT_TRUE(verifies(publicKey, signature.at("signature"), "nonce-\xC3\xA9-42"));
  EXPECT_FALSE(verifies(publicKey, signature.at("signature"), challenge));

  const auto state = run({"binding", "state", keyId});
  EXPECT_EQ(state.exitStatus, 0);
  EXPECT_EQ(onlyLine(state), (nlohmann::json{{"status", "SUCCESS"}, {"state", "ENROLLED"}, {"keyId", keyId}}));
}

TEST_F(ZavloCliBinding, NoPrivateKeyIsInTheStoreAndTheSecretInNoOutputNoEventAndNoFile) {
  ZavloHttpTestServer collector;
  const std::vector<std::string> verbose{"-v", "--environment", "development", "--telemetry-endpoint",
                                         collector.url("/events")};
  auto arguments = verbose;
  arguments.insert(arguments.end(), {"binding", "enroll", "--config", R"({"attestationChallenge":"a"})"});
  const auto enrolled = run(arguments);
  ASSERT_EQ(enrolled.exitStatus, 0) << enrolled.standardError;
  const std::string keyId = onlyLine(enrolled).at("keyId");
  arguments = verbose;
  arguments.insert(arguments.end(), {"binding", "sign", "--config", signConfig("[\"" + keyId + "\"]", "c").dump()});
  const auto signedRun = run(arguments);
  ASSERT_EQ(signedRun.exitStatus, 0) << signedRun.standardError;
  EXPECT_NE(signedRun.standardError.find("keystore: sign -> signed"), std::string::npos) << signedRun.standardError;

  EXPECT_TRUE(zavloPrivateKeysInStore(keystore_).empty());
  std::string everything =
      enrolled.standardOutput + enrolled.standardError + signedRun.standardOutput + signedRun.standardError;
  for (const auto& request : collector.requests()) everything += request.body;
  ASSERT_FALSE(collector.requests().empty());
  std::ifstream store(keystore_, std::ios::binary);
  everything += std::string(std::istreambuf_iterator<char>(store), {});
  EXPECT_EQ(everything.find(kSecret), std::string::npos);
}

TEST_F(ZavloCliBinding, TheKeyIsSealedForTheOwnersSecretAndAnotherSecretSignsNothingAndDeletesNothing) {
  const auto enrolled = run({"-v", "binding", "enroll"});
  ASSERT_EQ(enrolled.exitStatus, 0) << enrolled.standardError;
  const std::string keyId = onlyLine(enrolled).at("keyId");
  const auto other = (folder_.path() / "other-secret").string();
  std::ofstream(other) << "not the owner's\n";
  const auto refused =
      run({"--owner-secret-file", other, "binding", "sign", "--config", signConfig("[\"" + keyId + "\"]", "c").dump()});
  EXPECT_EQ(refused.exitStatus, 1);
  EXPECT_EQ(onlyLine(refused), (nlohmann::json{{"status", "FAILURE"},
                                               {"errorCode", "DEVICE_BINDING_AUTH_FAILED"},
                                               {"errorMessage", "Device authentication failed."}}));
  const auto state = run({"-v", "binding", "state", keyId});
  EXPECT_EQ(onlyLine(state).at("state"), "ENROLLED") << "a wrong secret deletes nothing";
  EXPECT_NE(state.standardError.find("key: sealed, in software, not hardware-backed"), std::string::npos)
      << state.standardError;
  EXPECT_NE(state.standardError.find("key store: keys sealed under the owner's secret"), std::string::npos);

  // allow without a secret could unlock nothing: a usage error, said in a sentence.
  for (const auto& command : std::vector<std::vector<std::string>>{
           {"binding", "enroll"}, {"binding", "sign", "--config", R"({"challenge":"c"})"}, {"bridge", "--stdio"}}) {
    auto arguments = std::vector<std::string>{ZAVLO_AUTH_BINARY, "--keystore", keystore_, "--owner-auth", "allow"};
    arguments.insert(arguments.end(), command.begin(), command.end());
    const auto refusedUsage = zavloRunProcess(arguments);
    EXPECT_EQ(refusedUsage.exitStatus, 2) << command[0];
    EXPECT_NE(refusedUsage.standardError.find("--owner-secret-file"), std::string::npos) << refusedUsage.standardError;
    EXPECT_TRUE(refusedUsage.standardOutput.empty());
  }
}

// With --keystore tpm:TCTI the TPM makes the key, the events say it is in hardware, and
// binding state -v names the store.
TEST_F(ZavloCliBinding, ATpmKeyIsMadeInTheTpmAndReportedAsHardwareBacked) {
  if (const auto why = ZavloSwtpm::unavailable()) GTEST_SKIP() << *why;
  ZavloSwtpm tpm;
  ZavloHttpTestServer collector;
  const std::vector<std::string> store{"--keystore", "tpm:" + tpm.tcti(),    "--keychain",
                                       keystore_,    "--telemetry-endpoint", collector.url("/events")};
  auto arguments = store;
  arguments.insert(arguments.end(), {"binding", "enroll"});
  const auto enrolled = run(arguments);
  ASSERT_EQ(enrolled.exitStatus, 0) << enrolled.standardOutput << enrolled.standardError;
  const auto enrolment = onlyLine(enrolled);
  arguments = store;
  arguments.insert(arguments.end(), {"binding", "sign", "--config",
                                     signConfig("[\"" + enrolment.at("keyId").get<std::string>() + "\"]", "c").dump()});
  const auto signedRun = run(arguments);
  ASSERT_EQ(signedRun.exitStatus, 0) << signedRun.standardError;
  EXPECT_TRUE(verifies(enrolment.at("publicKey"), onlyLine(signedRun).at("signature"), "c"));
  arguments = store;
  arguments.insert(arguments.end(), {"-v", "binding", "state", enrolment.at("keyId")});
  const auto state = run(arguments);
  EXPECT_NE(state.standardError.find("key: tpm, in hardware"), std::string::npos) << state.standardError;
  EXPECT_NE(state.standardError.find("key store: TPM 2.0 (" + tpm.tcti()), std::string::npos) << state.standardError;

  bool reported = false;
  for (const auto& request : collector.requests()) {
    const auto event = nlohmann::json::parse(request.body, nullptr, false);
    if (event.value("eventName", "") != "DEVICE_BINDING_KEY_CREATE_RESULT") continue;
    EXPECT_EQ(event.at("metaData").at("hardwareBacked"), true);
    reported = true;
  }
  EXPECT_TRUE(reported);
}

// With a PKCS#11 token the owner's secret is the token's PIN: the key is made and used in
// the token, a wrong PIN signs nothing and deletes nothing, and a PIN in the URI needs no
// owner at all, which -v says.
TEST_F(ZavloCliBinding, ATokenKeyIsUnlockedByTheOwnersPinOrByAPinInTheUri) {
  if (const auto why = ZavloSoftHsm::unavailable()) GTEST_SKIP() << *why;
  ZavloSoftHsm hsm;
  ASSERT_TRUE(hsm.initialised());
  const auto pin = (folder_.path() / "pin").string();
  std::ofstream(pin) << ZavloSoftHsm::kPin << '\n';
  const auto withToken = [&](const std::string& uri, std::vector<std::string> command) {
    command.insert(command.begin(), {"--keystore", uri, "--keychain", keystore_});
    auto environment = hsm.environment();
    return run(command, "allow", environment);
  };
  const auto ownerPin = "pkcs11:token=" + hsm.label() + "?module-path=" + ZavloSoftHsm::kModule;
  const auto enrolled = withToken(ownerPin, {"--owner-secret-file", pin, "binding", "enroll"});
  ASSERT_EQ(enrolled.exitStatus, 0) << enrolled.standardOutput << enrolled.standardError;
  const auto enrolment = onlyLine(enrolled);
  const std::string keyId = enrolment.at("keyId");
  const auto sign = signConfig("[\"" + keyId + "\"]", "c").dump();
  const auto wrongPin = (folder_.path() / "wrong-pin").string();
  std::ofstream(wrongPin) << "0000\n";
  const auto refused = withToken(ownerPin, {"--owner-secret-file", wrongPin, "binding", "sign", "--config", sign});
  EXPECT_EQ(onlyLine(refused).value("errorCode", ""), "DEVICE_BINDING_AUTH_FAILED") << refused.standardError;

  // pin-source: no secret file, and no usage error for it.
  const auto signedRun =
      zavloRunProcess({"/usr/bin/env", hsm.environment().front(), ZAVLO_AUTH_BINARY, "-v", "--telemetry-endpoint",
                       nowhere_.url("/events"), "--keystore", hsm.uri(), "--keychain", keystore_, "--owner-auth",
                       "allow", "binding", "sign", "--config", sign});
  ASSERT_EQ(signedRun.exitStatus, 0) << signedRun.standardError;
  EXPECT_TRUE(verifies(enrolment.at("publicKey"), onlyLine(signedRun).at("signature"), "c"));
  EXPECT_NE(signedRun.standardError.find("the owner was not asked"), std::string::npos) << signedRun.standardError;
  const auto state = withToken(ownerPin, {"-v", "binding", "state", keyId});
  EXPECT_EQ(onlyLine(state).value("state", ""), "ENROLLED");
  EXPECT_NE(state.standardError.find("key: pkcs11, in hardware"), std::string::npos) << state.standardError;
}

// Out of file descriptors, enrolment still answers once, through its completion, at every
// limit from one that leaves nothing to one that leaves enough. Where the descriptors run
// out depends on the threads' timing, so the limits that get that far are tried three
// times (the lowest ones end quickly, then wait out telemetry that cannot leave).
TEST_F(ZavloCliBinding, WithFewFileDescriptorsLeftEnrolmentAnswersThroughItsCompletion) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "left to the plain build: UndefinedBehaviorSanitizer's type check makes a pipe of its own, which "
                  "a process starved of file descriptors cannot, and then reports every virtual call";
#endif
  // Whatever the test runner left open is closed first, so a limit means the same anywhere.
  const std::string closeInherited = "exec 3>&- 4>&- 5>&- 6>&- 7>&- 8>&- 9>&-; ";
  for (int limit = 5; limit <= 16; ++limit) {
    for (int round = 0; round < (limit < 8 ? 1 : 3); ++round) {
      SCOPED_TRACE(limit);
      const auto starved = zavloRunProcess(
          {"/bin/sh", "-c", closeInherited + "ulimit -n " + std::to_string(limit) + "; exec \"$0\" \"$@\"",
           ZAVLO_AUTH_BINARY, "--keystore", keystore_, "--owner-auth", "allow", "--owner-secret-file", secretFile_,
           "binding", "enroll"});
      EXPECT_TRUE(starved.exitStatus == 0 || starved.exitStatus == 1) << starved.exitStatus << starved.standardError;
      EXPECT_EQ(starved.standardError.find("terminate called"), std::string::npos) << starved.standardError;
      EXPECT_TRUE(onlyLine(starved).contains("status")) << starved.standardOutput;
    }
  }
}

TEST_F(ZavloCliBinding, DenyAnswersAsAFailedAuthenticationAndBadInputGetsClearAnswers) {
  const auto denied = run({"binding", "enroll"}, "deny");
  EXPECT_EQ(denied.exitStatus, 1);
  EXPECT_EQ(onlyLine(denied), (nlohmann::json{{"status", "FAILURE"},
                                              {"errorCode", "DEVICE_BINDING_AUTH_FAILED"},
                                              {"errorMessage", "Device authentication failed."}}));
  EXPECT_NE(denied.standardError.find("deny"), std::string::npos);

  const auto blank = run({"binding", "sign", "--config", R"({"allowedKeyIds":"k","challenge":"   "})"});
  EXPECT_EQ(onlyLine(blank).at("errorCode"), "INVALID_CHALLENGE");
  const auto none = run({"binding", "sign", "--config", R"({"allowedKeyIds":{"a":1},"challenge":"c"})"});
  EXPECT_EQ(onlyLine(none).at("errorCode"), "DEVICE_BINDING_NOT_ENROLLED");
  const auto missing = run({"binding", "state", std::string(10000, 'k')});
  EXPECT_EQ(onlyLine(missing), (nlohmann::json{{"status", "SUCCESS"}, {"state", "NOT_ENROLLED"}}));
  EXPECT_EQ(run({"binding", "sign"}).exitStatus, 2) << "sign needs --config";
  EXPECT_EQ(run({"binding", "sign", "--config", "[]"}).exitStatus, 2);
}

TEST_F(ZavloCliBinding, WithoutAKeyStoreOptionKeysGoToThePrivateDataFolderOfTheUser) {
  const auto home = folder_.path() / "home";
  fs::create_directories(home);
  const auto enrolWith = [&](const std::string& dataHome) {
    return zavloRunProcess({"/usr/bin/env", "HOME=" + home.string(), "XDG_DATA_HOME=" + dataHome, ZAVLO_AUTH_BINARY,
                            "--telemetry-endpoint", nowhere_.url("/events"), "--owner-auth", "allow",
                            "--owner-secret-file", secretFile_, "binding", "enroll"});
  };
  const auto mode = [](const fs::path& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 ? info.st_mode & 0777 : 0U;
  };
  // A relative XDG_DATA_HOME is ignored, as XDG says: the default under HOME applies.
  ASSERT_EQ(enrolWith("relative/data").exitStatus, 0);
  EXPECT_EQ(mode(home / ".local"), 0700U) << "made levels are private";
  EXPECT_EQ(mode(home / ".local/share/zavlo-auth"), 0700U);
  EXPECT_EQ(mode(home / ".local/share/zavlo-auth/keychain.db"), 0600U);

  const auto data = folder_.path() / "data";
  const auto enrolled = enrolWith(data.string());
  ASSERT_EQ(enrolled.exitStatus, 0) << enrolled.standardError;
  keystore_ = (data / "zavlo-auth/keychain.db").string();
  EXPECT_EQ(onlyLine(run({"binding", "state", onlyLine(enrolled).at("keyId")})).at("state"), "ENROLLED");
}

// PAM decides by default, through the service "zavlo-auth" (pam_wrapper points PAM at a
// service folder of the test's own, nss_wrapper gives the owner's shadow entry). A stack
// that accepts without a password leaves the key's password to be typed on the terminal:
// util-linux's script gives the binary one and types it.
TEST_F(ZavloCliBinding, ByDefaultThePamServiceNamedAfterTheHostDecides) {
  if (std::string(ZAVLO_PAM_WRAPPER).empty()) GTEST_SKIP() << "pam_wrapper (Debian libpam-wrapper) is not installed";
  if (std::string(ZAVLO_NSS_WRAPPER).empty()) GTEST_SKIP() << "nss_wrapper (Debian libnss-wrapper) is not installed";
  if (access("/usr/bin/script", X_OK) != 0) GTEST_SKIP() << "script (Debian bsdutils) is not installed";
  ZavloTemporaryDirectory services;
  const passwd* owner = getpwuid(geteuid());
  ASSERT_NE(owner, nullptr);
  const auto environment = pamEnvironment(services.path());
  struct Case {
    const char* module;
    const char* password;  // the owner's shadow entry
    std::vector<std::string> command;
    const char* typed;  // on the terminal; null: no terminal
    int exitStatus;
    nlohmann::json answer;  // what the output's JSON line holds, in part
  };
  const std::vector<Case> cases{
      {"pam_permit.so", "$6$zavlo$usable", {"binding", "enroll"}, "key words", 0, {{"status", "SUCCESS"}}},
      {"pam_deny.so",
       "$6$zavlo$usable",
       {"binding", "enroll"},
       nullptr,
       1,
       {{"errorCode", "DEVICE_BINDING_AUTH_FAILED"}}},
      {"pam_permit.so", "!", {"binding", "enroll"}, nullptr, 1, {{"errorCode", "DEVICE_NOT_SECURE"}}},
      {"pam_permit.so", "", {"binding", "state", "k"}, nullptr, 0, {{"state", "NO_SCREEN_LOCK"}}},
  };
  for (const auto& [module, password, command, typed, exitStatus, answer] : cases) {
    std::ofstream(services.path() / "zavlo-auth")
        << "auth required " << module << "\naccount required " << module << "\n";
    std::ofstream(services.path() / "shadow") << owner->pw_name << ":" << password << ":19000:0:99999:7:::\n";
    ZavloProcessResult result;
    if (typed == nullptr) {
      result = run(command, "", environment);
    } else {
      std::string line = std::string(ZAVLO_AUTH_BINARY) + " --keystore '" + keystore_ + "'";
      for (const auto& argument : command) line += " " + argument;
      auto arguments = zavloPamWrapperSerialised();
      arguments.emplace_back("/usr/bin/env");
      arguments.insert(arguments.end(), environment.begin(), environment.end());
      arguments.insert(arguments.end(), {"/usr/bin/script", "--quiet", "--return", "--command", line, "/dev/null"});
      result = zavloRunProcess(arguments, std::string(typed) + "\n");
    }
    const auto output = result.standardOutput + result.standardError;
    EXPECT_EQ(result.exitStatus, exitStatus) << module << " " << password << ": " << output;
    EXPECT_EQ(output.find("--owner-auth"), std::string::npos) << "the owner really was asked: " << output;
    const auto json = output.find('{');
    ASSERT_NE(json, std::string::npos) << output;
    const auto reported = nlohmann::json::parse(output.substr(json, output.find('\n', json) - json), nullptr, false);
    for (const auto& [key, value] : answer.items()) EXPECT_EQ(reported.value(key, nlohmann::json()), value) << output;
    if (typed != nullptr) {
      EXPECT_NE(output.find("(the key needs it)"), std::string::npos) << output;
    }
  }
}

// The password PAM checks is the one the key is sealed under: once it changes, PAM accepts
// the new one, the key refuses it, and the key is gone as if the fingers had changed. A
// password PAM refuses is a failed prompt that deletes nothing.
TEST_F(ZavloCliBinding, APasswordChangedSinceEnrolmentInvalidatesTheKeyAndAWrongOneDeletesNothing) {
  if (std::string(ZAVLO_PAM_WRAPPER).empty() || std::string(ZAVLO_PAM_MATRIX).empty()) {
    GTEST_SKIP() << "pam_wrapper (Debian libpam-wrapper) is not installed";
  }
  if (std::string(ZAVLO_NSS_WRAPPER).empty()) GTEST_SKIP() << "nss_wrapper (Debian libnss-wrapper) is not installed";
  ZavloTemporaryDirectory services;
  const auto environment = pamEnvironment(services.path());
  const std::string user = getpwuid(geteuid())->pw_name;
  std::ofstream(services.path() / "shadow") << user << ":$6$zavlo$usable:19000:0:99999:7:::\n";
  const auto passdb = services.path() / "passdb";
  std::ofstream(services.path() / "zavlo-auth")
      << "auth required " << ZAVLO_PAM_MATRIX << " passdb=" << passdb.string() << "\naccount required "
      << ZAVLO_PAM_MATRIX << " passdb=" << passdb.string() << "\n";
  const auto withPassword = [&](const std::string& current, const std::string& typed,
                                std::vector<std::string> command) {
    std::ofstream(passdb) << user << ":" << current << ":zavlo-auth\n";
    const auto typedFile = services.path() / "typed";
    std::ofstream(typedFile) << typed << "\n";
    command.insert(command.begin(), {"--owner-secret-file", typedFile.string()});
    return run(command, "", environment);
  };
  const auto enrolled = withPassword("old password", "old password", {"binding", "enroll"});
  ASSERT_EQ(enrolled.exitStatus, 0) << enrolled.standardOutput << enrolled.standardError;
  const std::string keyId = onlyLine(enrolled).at("keyId");
  const auto sign = signConfig("[\"" + keyId + "\"]", "c").dump();
  struct Step {
    const char* current;  // what PAM knows
    const char* typed;
    const char* errorCode;  // null: signed
    const char* stateAfter;
  };
  const std::vector<Step> steps = {
      {"old password", "old password", nullptr, "ENROLLED"},
      {"old password", "a typo", "DEVICE_BINDING_AUTH_FAILED", "ENROLLED"},
      {"new password", "new password", "DEVICE_BINDING_KEY_INVALIDATED", "NOT_ENROLLED"},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.typed);
    const auto signedRun = withPassword(step.current, step.typed, {"binding", "sign", "--config", sign});
    const auto answer = onlyLine(signedRun);
    if (step.errorCode == nullptr) {
      EXPECT_EQ(answer.value("status", ""), "SUCCESS") << signedRun.standardError;
    } else {
      EXPECT_EQ(answer.value("errorCode", ""), step.errorCode) << signedRun.standardError;
    }
    const auto state = withPassword(step.current, step.current, {"binding", "state", keyId});
    EXPECT_EQ(onlyLine(state).value("state", ""), step.stateAfter) << state.standardError;
  }
}

TEST_F(ZavloCliBinding, AnUnusableKeyStoreFailsClearlyAndLeavesOtherKeysAlone) {
  const auto enrolled = run({"binding", "enroll"});
  ASSERT_EQ(enrolled.exitStatus, 0) << enrolled.standardError;
  const std::string keyId = onlyLine(enrolled).at("keyId");

  const std::string good = keystore_;
  keystore_ = (folder_.path() / "no-such-folder" / "keychain.db").string();
  const auto missingFolder = run({"binding", "enroll"});
  EXPECT_EQ(missingFolder.exitStatus, 1);
  EXPECT_NE(missingFolder.standardError.find("no-such-folder"), std::string::npos) << missingFolder.standardError;

  keystore_ = (folder_.path() / "garbage.db").string();
  std::ofstream(keystore_) << std::string(4096, 'z');
  const auto garbage = run({"binding", "enroll"});
  EXPECT_EQ(garbage.exitStatus, 1);
  EXPECT_FALSE(garbage.standardError.empty());

  keystore_ = good;
  EXPECT_EQ(onlyLine(run({"binding", "state", keyId})).at("state"), "ENROLLED");
}

}  // namespace
#endif
