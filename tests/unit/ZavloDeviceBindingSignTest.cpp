// Challenge signing: choosing the key, the prompt and its errors, telemetry, and input
// that tries to break the key ids.
#include <functional>

#include "Core/ZavloBase64.hpp"
#include "Core/ZavloConfigValues.hpp"
#include "Core/ZavloGraphemes.hpp"
#include "ZavloBindingHarness.hpp"

using nlohmann::json;
using Policy = ZavloOwnerAuthenticationPolicy;
using Outcome = ZavloTestOwnerAuthentication::Outcome;
using Operation = ZavloTestKeyStore::Operation;
using Failure = ZavloKeyStoreFailure;

namespace {

json signMetadata(std::size_t keyIds, std::size_t challengeLength, const json& extra) {
  json metadata = {{"clientAppVersion", "1.0.0"},
                   {"sdkVersion", "1.1.1"},
                   {"deviceType", "iOS"},
                   {"os", "17.4.1"},
                   {"operation", "SIGN"},
                   {"deviceSecure", true},
                   {"secureEnclaveAvailable", true},
                   {"allowedAuthenticators", "BIOMETRIC_OR_DEVICE_CREDENTIAL"},
                   {"allowedKeyIdCount", keyIds},
                   {"challengeLength", challengeLength}};
  metadata.update(extra);
  return metadata;
}

bool verifies(const ZavloBytes& point, const std::string& message, const json& result) {
  const auto signature = ZavloBase64::decode(result.value("signature", ""));
  return signature && signature->size() <= 72 && ZavloTestKeyStore::verify(point, zavloBytes(message), *signature);
}

}  // namespace

TEST(ZavloDeviceBindingSign, SignsWithTheFirstListedIdThatHasAKey) {
  ZavloBindingHarness h;
  const auto point = h.enrolled("5");
  h.enrolled("k2");
  const json config = {{"allowedKeyIds", {" k0 ", "", 5, "k2"}}, {"challenge", "  hello \n"}, {"entityId", "e1"}};
  const auto outcomes = h.call(ZavloBindingHarness::kSign, config);
  ASSERT_EQ(outcomes.results.size(), 1U);
  EXPECT_TRUE(outcomes.onMainQueue);
  ASSERT_TRUE(outcomes.results[0]);
  const auto result = outcomes.results[0].value();
  EXPECT_EQ(result, (json{{"status", "SUCCESS"},
                          {"keyId", "5"},
                          {"signature", result.value("signature", "")},
                          {"algorithm", "ES256"}}));
  EXPECT_TRUE(verifies(point, "hello", result)) << "the entry point trims the challenge";
  EXPECT_EQ(h.store.signatureRequests().at(0).message, zavloBytes("hello"));
  EXPECT_EQ(h.owner.prompts().at(0).localizedReason, "Confirm your identity to continue");
  EXPECT_EQ(h.owner.prompts().at(0).fallbackTitle, "");

  std::vector<std::pair<Operation, std::string>> calls;
  for (const auto& call : h.store.calls()) calls.emplace_back(call.operation, call.subject);
  const std::string prefix = "in.zavlo.authsdk.devicebinding.";
  EXPECT_EQ(calls, (std::vector<std::pair<Operation, std::string>>{{Operation::findKey, prefix + "k0"},
                                                                   {Operation::findKey, prefix + "5"},
                                                                   {Operation::domainState, "5"},
                                                                   {Operation::sign, prefix + "5"}}));

  EXPECT_EQ(h.order,
            (std::vector<std::string>{"DEVICE_BINDING_BIOMETRIC_RESULT", "completion", "DEVICE_BINDING_SIGN_RESULT"}));
  const auto events = h.graph.events();
  ASSERT_EQ(events.size(), 2U);
  EXPECT_EQ(events[0].at("metaData"),
            signMetadata(3, 5, {{"status", "SUCCESS"}, {"keyId", "5"}, {"promptShown", true}}));
  EXPECT_EQ(events[1].at("metaData"),
            signMetadata(3, 5, {{"status", "SUCCESS"}, {"keyId", "5"}, {"algorithm", "ES256"}}));
  EXPECT_EQ(events[1].at("entityId"), "e1");
  EXPECT_FALSE(events[1].contains("requestId"));

  // Called directly, the challenge is signed as received and measured in characters.
  const std::string challenge = " e\u0301\U0001F1EB\U0001F1F7 \n";
  std::optional<ZavloResult<ZavloDeviceBindingSignResponse>> direct;
  h.graph.graph.deviceBindingManager->signChallenge({"5"}, challenge, "T", "S", std::nullopt, std::nullopt,
                                                    [&](auto signed_) { direct = std::move(signed_); });
  h.graph.platform.runUntilIdle();
  ASSERT_TRUE(direct && *direct);
  EXPECT_TRUE(verifies(point, challenge, {{"signature", direct->value().signature}}));
  EXPECT_EQ(h.owner.prompts().at(1).localizedReason, "S");
  EXPECT_EQ(h.graph.events().back().at("metaData").at("challengeLength"), 5);
}

TEST(ZavloDeviceBindingSign, FailuresCompleteFirstThenReportTheirReason) {
  struct Case {
    const char* reason;
    std::function<void(ZavloBindingHarness&)> arrange;
    json config;
    const char* errorCode;
    json extra;
    bool prompted;
    bool keyKept = true;
  };
  const json twoIds = {{"challenge", "c"}, {"allowedKeyIds", {"k1", "k2"}}};
  const json noExtra = json::object();
  const char* const kNotEnrolled = "DEVICE_BINDING_NOT_ENROLLED";
  const char* const kInvalidated = "DEVICE_BINDING_KEY_INVALIDATED";
  const json deleted = {{"keyId", "k1"}, {"keyDeleted", true}};
  using Arrange = std::function<void(ZavloBindingHarness&)>;
  const Arrange none = [](auto&) {};
  const Arrange k1 = [](auto& h) { h.enrolled("k1"); };
  const Arrange ab = [](auto& h) {
    h.enrolled("a");
    h.enrolled("b");
  };
  const Arrange k1Invalid = [](auto& h) {
    h.enrolled("k1", "biometry-0");
    h.enrolled("k2");
  };
  // The key existed when looked for, and is gone when used after the prompt.
  const Arrange k1Vanishes = [](auto& h) {
    h.enrolled("k1");
    h.store.fail(Operation::sign, {Failure::notFound, 0, "gone"});
  };
  const Arrange signFails = [](auto& h) {
    h.enrolled("k1");
    h.store.fail(Operation::sign, {Failure::internal, -3, "no"});
  };
  // The owner's secret changed since enrolment: PAM accepts the new one, the key does not.
  const Arrange secretChanged = [](auto& h) { h.enrolled("k1", "biometry-1", "old secret"); };
  // Nobody but the key checked the secret, so a refusal is only a wrong secret.
  const Arrange wrongSecret = [](auto& h) {
    h.enrolled("k1", "biometry-1", "old secret");
    h.owner.setOwnerSecret("typo", false);
  };
  const Arrange noSecret = [](auto& h) {
    h.enrolled("k1", "biometry-1", "old secret");
    h.owner.setOwnerSecret("", false);
  };
  const Arrange lockedOut = [](auto& h) {
    h.enrolled("k1");
    h.store.fail(Operation::sign, {Failure::lockedOut, 0x921, "lockout"});
  };
  const json refusedExtra = {{"keyId", "k1"}};
  const std::vector<Case> cases = {
      {"INVALID_CHALLENGE", none, {{"allowedKeyIds", "k1"}}, "INVALID_CHALLENGE", noExtra, false},
      {"INVALID_CHALLENGE", k1, {{"challenge", " \t\n"}, {"allowedKeyIds", "k1"}}, "INVALID_CHALLENGE", noExtra, false},
      {"NO_KEY_IDS", none, {{"challenge", "c"}}, kNotEnrolled, noExtra, false},
      {"NO_KEY_IDS", none, {{"challenge", "c"}, {"allowedKeyIds", {"", "  ", "\n"}}}, kNotEnrolled, noExtra, false},
      {"NO_KEY_IDS", k1, {{"challenge", "c"}, {"allowedKeyIds", {{"k1", "k1"}}}}, kNotEnrolled, noExtra, false},
      {"KEY_NOT_FOUND", ab, {{"challenge", "c"}, {"allowedKeyIds", "a,b"}}, kNotEnrolled, noExtra, false},
      {"KEY_INVALIDATED", k1Invalid, twoIds, kInvalidated, deleted, false},
      {"KEY_INVALIDATED", k1Vanishes, twoIds, kInvalidated, deleted, true},
      {"SIGN_ERROR", signFails, twoIds, "DEVICE_BINDING_SIGN_FAILED", {{"osErrorCode", -3}}, true},
      {"KEY_INVALIDATED", secretChanged, twoIds, kInvalidated, deleted, true, false},
      {"AUTH_FAILED", wrongSecret, twoIds, "DEVICE_BINDING_AUTH_FAILED", refusedExtra, true},
      {"AUTH_FAILED", noSecret, twoIds, "DEVICE_BINDING_AUTH_FAILED", refusedExtra, true},
      {"LOCKOUT", lockedOut, twoIds, "DEVICE_BINDING_AUTH_FAILED", refusedExtra, true},
  };
  const std::map<std::string, std::string> messages = {
      {"INVALID_CHALLENGE", "Invalid or empty challenge provided."},
      {"DEVICE_BINDING_NOT_ENROLLED", "Device is not enrolled. Please enroll before signing a challenge."},
      {"DEVICE_BINDING_KEY_INVALIDATED", "Device binding key is no longer valid. Please enroll again."},
      {"DEVICE_BINDING_SIGN_FAILED", "Failed to sign the device binding challenge."},
      {"AUTH_FAILED", "Device authentication failed."},
      {"LOCKOUT", "Too many failed attempts. Unlock the device and try again."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.reason) + " " + c.config.dump());
    ZavloBindingHarness h;
    c.arrange(h);
    const auto outcomes = h.call(ZavloBindingHarness::kSign, c.config);
    ASSERT_EQ(outcomes.results.size(), 1U);
    ASSERT_FALSE(outcomes.results[0]);
    const auto& message = messages.count(c.reason) != 0 ? messages.at(c.reason) : messages.at(c.errorCode);
    EXPECT_EQ(outcomes.results[0].error(), ZavloAuthException::failure(c.errorCode, message));
    EXPECT_EQ(outcomes.beforeReturn, !c.prompted);
    EXPECT_EQ(h.owner.prompts().size(), c.prompted ? 1U : 0U);
    const std::vector<std::string> expectedOrder =
        c.prompted
            ? std::vector<std::string>{"DEVICE_BINDING_BIOMETRIC_RESULT", "completion", "DEVICE_BINDING_SIGN_RESULT"}
            : std::vector<std::string>{"completion", "DEVICE_BINDING_SIGN_RESULT"};
    EXPECT_EQ(h.order, expectedOrder);
    const auto event = h.graph.events().back();
    EXPECT_EQ(event.at("status"), "FAILURE");
    EXPECT_EQ(event.at("failureReason"), message);
    json failure = {{"status", "FAILURE"}, {"errorCode", c.errorCode}, {"errorMessage", message}, {"reason", c.reason}};
    failure.update(c.extra);
    const auto ids = ZavloConfigValues::stringListValue(c.config, "allowedKeyIds").size();
    const auto length = ZavloGraphemes::count(ZavloConfigValues::text(c.config, "challenge", ""));
    EXPECT_EQ(event.at("metaData"), signMetadata(ids, length, failure));
    if (std::string(c.reason) == "KEY_INVALIDATED") {
      EXPECT_FALSE(h.hasKey("k1") || h.hasDomainState("k1")) << "the invalid key and its record are gone";
      if (!c.prompted) {
        EXPECT_TRUE(h.hasKey("k2")) << "later ids are not tried, and kept";
      }
    } else if (c.prompted) {
      EXPECT_EQ(h.hasKey("k1"), c.keyKept);
    }
  }
}

TEST(ZavloDeviceBindingSign, PromptErrorsMapToExceptionsAndReasons) {
  struct Case {
    Outcome outcome;
    const char* errorCode;
    const char* errorMessage;
    const char* reason;
    std::optional<std::int64_t> promptErrorCode;
  };
  const char* const kCancelled = "Device authentication was cancelled.";
  const char* const kFailed = "Device authentication failed.";
  const char* const kUnsupported = "This device does not support device binding.";
  const auto la = [](std::int64_t code) { return Outcome::laError(code); };
  const std::vector<Case> cases = {
      {la(-1), "DEVICE_BINDING_AUTH_FAILED", kFailed, "AUTH_FAILED", -1},
      {la(-2), "DEVICE_BINDING_USER_CANCELLED", kCancelled, "USER_CANCELLED", -2},
      {la(-3), "DEVICE_BINDING_USER_CANCELLED", kCancelled, "USER_CANCELLED", -3},
      {la(-4), "DEVICE_BINDING_USER_CANCELLED", kCancelled, "USER_CANCELLED", -4},
      {la(-9), "DEVICE_BINDING_USER_CANCELLED", kCancelled, "USER_CANCELLED", -9},
      {la(-5), "DEVICE_BINDING_UNSUPPORTED", kUnsupported, "PASSCODE_NOT_SET", -5},
      {la(-6), "DEVICE_BINDING_UNSUPPORTED", kUnsupported, "HARDWARE_UNAVAILABLE", -6},
      {la(-7), "DEVICE_BINDING_UNSUPPORTED", kUnsupported, "NONE_ENROLLED", -7},
      {la(-8), "DEVICE_BINDING_AUTH_FAILED", "Too many failed attempts. Unlock the device and try again.", "LOCKOUT",
       -8},
      {la(-10), "DEVICE_BINDING_AUTH_FAILED", kFailed, "OTHER", -10},
      {la(-1004), "DEVICE_BINDING_AUTH_FAILED", kFailed, "OTHER", -1004},
      {Outcome::otherError("PAMErrorDomain", -2), "DEVICE_BINDING_AUTH_FAILED", kFailed, "OTHER", std::nullopt},
      {Outcome::failedWithoutError(), "DEVICE_BINDING_AUTH_FAILED", kFailed, "OTHER", std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reason + std::string(" ") + std::to_string(c.promptErrorCode.value_or(0)));
    ZavloBindingHarness h;
    h.enrolled("k1");
    h.owner.scriptNextPrompt(c.outcome);
    const auto outcomes = h.call(ZavloBindingHarness::kSign, {{"challenge", "c"}, {"allowedKeyIds", "k1"}});
    ASSERT_EQ(outcomes.results.size(), 1U);
    ASSERT_FALSE(outcomes.results[0]);
    EXPECT_TRUE(outcomes.onMainQueue);
    EXPECT_EQ(outcomes.results[0].error(), ZavloAuthException::failure(c.errorCode, c.errorMessage));
    EXPECT_EQ(h.order, (std::vector<std::string>{"completion", "DEVICE_BINDING_BIOMETRIC_RESULT"}))
        << "no sign result follows a failed prompt";
    json expected = {{"status", "FAILURE"},
                     {"errorCode", c.errorCode},
                     {"errorMessage", c.errorMessage},
                     {"reason", c.reason},
                     {"promptShown", true},
                     {"cancelledByUser", std::string(c.reason) == "USER_CANCELLED"},
                     {"keyId", "k1"}};
    if (c.promptErrorCode) expected["promptErrorCode"] = *c.promptErrorCode;
    EXPECT_EQ(h.graph.events().back().at("metaData"), signMetadata(1, 1, expected));
    EXPECT_TRUE(h.hasKey("k1")) << "a failed prompt deletes nothing";
  }
}

TEST(ZavloDeviceBindingSign, AManagerDestroyedDuringThePromptNeverAnswers) {
  ZavloBindingHarness h;
  h.enrolled("k1");
  h.owner.setDefaultOutcome(std::nullopt);
  auto manager = ZavloDeviceBindingManager::create(h.graph.platform, h.graph.log);
  int completions = 0;
  manager->enroll(std::nullopt, "T", "S", std::nullopt, std::nullopt, [&](auto) { ++completions; });
  manager->signChallenge({"k1"}, "c", "T", "S", std::nullopt, std::nullopt, [&](auto) { ++completions; });
  h.graph.platform.runUntilIdle();
  ASSERT_EQ(h.owner.heldPromptCount(), 2U);
  const std::weak_ptr<ZavloDeviceBindingManager> weak = manager;
  manager.reset();
  EXPECT_TRUE(weak.expired()) << "the prompt does not keep the manager alive";
  EXPECT_TRUE(h.owner.replyToPrompt(0, Outcome::succeeded()));
  EXPECT_TRUE(h.owner.replyToPrompt(1, Outcome::laError(ZavloLAError::userCancel)));
  h.graph.platform.runUntilIdle();
  EXPECT_EQ(completions, 0);
  EXPECT_TRUE(h.order.empty());
  EXPECT_EQ(h.store.keyCount(), 1U) << "no key was created after the prompt";
}

TEST(ZavloDeviceBindingSign, HostileKeyIdsAreUsedVerbatimAndLeaveOtherItemsAlone) {
  ZavloBindingHarness h;
  const std::vector<std::string> ids = {
      std::string(10000, 'x'), R"(a"b'c)",  "100%25%s%n",       std::string("nul\0in", 6),
      "tab\there\x7f\x1b[0m",  "k1 OR 1=1", "\u00e9\U0001F600",
  };
  h.enrolled("bystander");
  for (const auto& id : ids) h.enrolled(id);
  const auto items = h.store.itemCount();

  for (const auto& id : ids) {
    SCOPED_TRACE(id.substr(0, 20));
    EXPECT_EQ(h.success(ZavloBindingHarness::kState, {{"keyId", id}}).value("state", ""), "ENROLLED");
    const auto signed_ = h.success(ZavloBindingHarness::kSign, {{"challenge", id}, {"allowedKeyIds", {id}}});
    EXPECT_EQ(signed_.value("keyId", ""), id);
  }
  EXPECT_EQ(h.store.itemCount(), items);
  EXPECT_EQ(h.success(ZavloBindingHarness::kState, {{"keyId", "x"}}).value("state", ""), "NOT_ENROLLED");

  h.owner.setBiometryDomainState(zavloBytes("biometry-2"));
  for (const auto& id : ids) {
    EXPECT_EQ(h.success(ZavloBindingHarness::kState, {{"keyId", id}}).value("state", ""), "INVALIDATED");
  }
  EXPECT_EQ(h.store.itemCount(), 2U);
  EXPECT_TRUE(h.hasKey("bystander") && h.hasDomainState("bystander"));
}
