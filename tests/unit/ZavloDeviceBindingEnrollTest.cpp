// Enrolment: the prompt, the key, the public key, the domain-state record, telemetry.
#include <functional>
#include <regex>

#include "Core/ZavloBase64.hpp"
#include "ZavloBindingHarness.hpp"

using nlohmann::json;
using Policy = ZavloOwnerAuthenticationPolicy;
using Outcome = ZavloTestOwnerAuthentication::Outcome;
using Operation = ZavloTestKeyStore::Operation;
using Failure = ZavloKeyStoreFailure;

namespace {

const json kDevice = {{"clientAppVersion", "1.0.0"}, {"sdkVersion", "1.1.1"}, {"deviceType", "iOS"}, {"os", "17.4.1"}};

json enrollMetadata(const json& extra) {
  json metadata = kDevice;
  metadata.update({{"operation", "ENROLL"},
                   {"deviceSecure", true},
                   {"secureEnclaveAvailable", true},
                   {"allowedAuthenticators", "BIOMETRIC_OR_DEVICE_CREDENTIAL"},
                   {"attestationRequested", false}});
  metadata.update(extra);
  return metadata;
}

}  // namespace

TEST(ZavloDeviceBindingEnroll, CreatesAKeyAfterThePromptAndReportsEachStep) {
  ZavloBindingHarness h;
  const auto outcomes = h.call(ZavloBindingHarness::kEnroll, {{"requestId", " r1 "}, {"entityId", 7}});
  ASSERT_EQ(outcomes.results.size(), 1U);
  EXPECT_FALSE(outcomes.beforeReturn);
  EXPECT_TRUE(outcomes.onMainQueue);
  ASSERT_TRUE(outcomes.results[0]);
  const auto result = outcomes.results[0].value();
  const auto keyId = result.value("keyId", "");
  EXPECT_TRUE(
      std::regex_match(keyId, std::regex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}")))
      << keyId;
  EXPECT_EQ(result, (json{{"status", "SUCCESS"},
                          {"keyId", keyId},
                          {"publicKey", result.value("publicKey", "")},
                          {"algorithm", "ES256"}}))
      << "no attestation";
  const auto publicKey = ZavloBase64::decode(result.value("publicKey", ""));
  ASSERT_TRUE(publicKey);
  ASSERT_EQ(publicKey->size(), 91U);
  const ZavloBytes prefix = {0x30, 0x59, 0x30, 0x13, 0x06, 0x07, 0x2a, 0x86, 0x48, 0xce, 0x3d, 0x02, 0x01, 0x06,
                             0x08, 0x2a, 0x86, 0x48, 0xce, 0x3d, 0x03, 0x01, 0x07, 0x03, 0x42, 0x00, 0x04};
  EXPECT_TRUE(std::equal(prefix.begin(), prefix.end(), publicKey->begin()));

  const auto prompts = h.owner.prompts();
  ASSERT_EQ(prompts.size(), 1U);
  EXPECT_EQ(prompts[0].policy, Policy::deviceOwnerAuthentication);
  EXPECT_EQ(prompts[0].localizedReason, "Confirm your identity to continue");
  EXPECT_EQ(prompts[0].fallbackTitle, "") << "the fallback button is hidden";

  const auto calls = h.store.calls();
  ASSERT_EQ(calls.size(), 2U) << "the key, then its domain state";
  EXPECT_EQ(calls[0].operation, Operation::createKey);
  EXPECT_EQ(calls[0].subject, "in.zavlo.authsdk.devicebinding." + keyId);
  EXPECT_EQ(calls[1].operation, Operation::setDomainState);
  EXPECT_EQ(calls[1].subject, keyId);
  EXPECT_EQ(h.store.domainState(keyId).value(), zavloBytes("biometry-1"));
  const ZavloBytes point(publicKey->begin() + 26, publicKey->end());
  const auto signature =
      h.store.sign(ZavloBindingHarness::tag(keyId), zavloBytes("c"), ZavloTestOwnerProof("owner secret"));
  ASSERT_TRUE(signature) << "the key is made for the secret the owner gave";
  EXPECT_TRUE(ZavloTestKeyStore::verify(point, zavloBytes("c"), signature.value())) << "and published as it is";
  EXPECT_EQ(
      h.store.sign(ZavloBindingHarness::tag(keyId), zavloBytes("c"), ZavloTestOwnerProof("other")).error().failure,
      Failure::ownerRefused);

  EXPECT_EQ(h.order, (std::vector<std::string>{"DEVICE_BINDING_BIOMETRIC_RESULT", "completion",
                                               "DEVICE_BINDING_KEY_CREATE_RESULT"}));
  const auto events = h.graph.events();
  ASSERT_EQ(events.size(), 2U);
  for (const auto& event : events) {
    EXPECT_EQ(event.at("requestId"), "r1");
    EXPECT_EQ(event.at("entityId"), "7");
    EXPECT_EQ(event.at("authProvider"), "DEVICE_BINDING");
    EXPECT_EQ(event.at("authType"), "DEVICE_BINDING");
    EXPECT_EQ(event.at("status"), "SUCCESS");
    EXPECT_FALSE(event.contains("failureReason"));
  }
  EXPECT_EQ(events[0].at("metaData"), enrollMetadata({{"status", "SUCCESS"}, {"promptShown", true}}));
  EXPECT_EQ(events[1].at("metaData"), enrollMetadata({{"status", "SUCCESS"},
                                                      {"algorithm", "ES256"},
                                                      {"curve", "secp256r1"},
                                                      {"keyId", keyId},
                                                      {"hardwareBacked", false},
                                                      {"attestationReturned", false}}));

  EXPECT_EQ(h.success(ZavloBindingHarness::kState, {{"keyId", keyId}}),
            (json{{"status", "SUCCESS"}, {"state", "ENROLLED"}, {"keyId", keyId}}));
  EXPECT_NE(h.success(ZavloBindingHarness::kEnroll, json::object()).value("keyId", keyId), keyId)
      << "every enrolment makes a new key id";
}

TEST(ZavloDeviceBindingEnroll, PromptTextAttestationAndBiometricsFollowTheirInputs) {
  struct Case {
    json config;
    const char* reason;
    bool attestationRequested;
  };
  const std::vector<Case> cases = {
      {{{"promptTitle", "Title"}, {"promptSubtitle", "   "}}, "Confirm your identity to continue", false},
      {{{"promptTitle", "Title"}, {"promptSubtitle", " Sub "}}, "Sub", false},
      {{{"attestationChallenge", ""}}, "Confirm your identity to continue", false},
      {{{"attestationChallenge", " \n"}}, "Confirm your identity to continue", false},
      {{{"attestationChallenge", "nonce"}}, "Confirm your identity to continue", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.config.dump());
    ZavloBindingHarness h;
    const auto result = h.success(ZavloBindingHarness::kEnroll, c.config);
    EXPECT_FALSE(result.contains("attestation"));
    ASSERT_EQ(h.owner.prompts().size(), 1U);
    EXPECT_EQ(h.owner.prompts()[0].localizedReason, c.reason);
    for (const auto& event : h.graph.events()) {
      EXPECT_EQ(event.at("metaData").at("attestationRequested"), c.attestationRequested);
    }
  }

  // Without a subtitle the title is the reason; a passcode-only device enrols without a record.
  ZavloBindingHarness h;
  h.owner.setCanEvaluatePolicy(Policy::deviceOwnerAuthenticationWithBiometrics, false);
  int completions = 0;
  h.graph.graph.deviceBindingManager->enroll(std::nullopt, "Title", "", std::nullopt, std::nullopt,
                                             [&](auto result) { completions += result ? 1 : 100; });
  h.graph.platform.runUntilIdle();
  EXPECT_EQ(completions, 1);
  EXPECT_EQ(h.owner.prompts().at(0).localizedReason, "Title");
  EXPECT_EQ(h.store.itemCount(), 1U) << "the key only";
  EXPECT_EQ(h.store.calls().size(), 1U);
}

TEST(ZavloDeviceBindingEnroll, FailuresCompleteFirstThenReportTheirReason) {
  struct Case {
    const char* name;
    std::function<void(ZavloBindingHarness&)> arrange;
    const char* errorCode;
    const char* errorMessage;
    const char* event;
    json extra;  // metadata beyond the failure's status, errorCode, errorMessage and reason
  };
  const char* const kEnrollFailed = "Device binding enrollment failed.";
  const std::vector<Case> cases = {
      {"PASSCODE_NOT_SET",
       [](auto& h) {
         h.owner.queueCanEvaluatePolicyAnswers(Policy::deviceOwnerAuthentication, {false, false});
       },
       "DEVICE_NOT_SECURE",
       "No screen lock is set on this device. Set a passcode or biometric and try again.",
       "DEVICE_BINDING_BIOMETRIC_RESULT",
       {{"promptShown", false}, {"deviceSecure", false}}},
      {"HARDWARE_UNAVAILABLE",
       [](auto& h) {
         h.owner.queueCanEvaluatePolicyAnswers(Policy::deviceOwnerAuthentication, {true, true, false});
       },
       "DEVICE_BINDING_UNSUPPORTED",
       "This device does not support device binding.",
       "DEVICE_BINDING_BIOMETRIC_RESULT",
       {{"promptShown", false}}},
      {"USER_CANCELLED",
       [](auto& h) { h.owner.scriptNextPrompt(Outcome::laError(ZavloLAError::userFallback)); },
       "DEVICE_BINDING_USER_CANCELLED",
       "Device authentication was cancelled.",
       "DEVICE_BINDING_BIOMETRIC_RESULT",
       {{"promptShown", true}, {"cancelledByUser", true}, {"promptErrorCode", -3}}},
      {"ACCESS_CONTROL_ERROR",
       [](auto& h) {
         h.store.fail(Operation::createKey, {Failure::noOwnerSecret, -4, "no secret"});
       },
       "DEVICE_BINDING_ENROLL_FAILED",
       kEnrollFailed,
       "DEVICE_BINDING_KEY_CREATE_RESULT",
       {{"osErrorCode", -4}}},
      {"KEYSTORE_ERROR",
       [](auto& h) {
         h.store.fail(Operation::createKey, {Failure::unavailable, -25293, "no TPM"});
       },
       "DEVICE_BINDING_ENROLL_FAILED",
       kEnrollFailed,
       "DEVICE_BINDING_KEY_CREATE_RESULT",
       {{"osErrorCode", -25293}}},
      {"PUBLIC_KEY_EXPORT_ERROR",
       [](auto& h) {
         h.store.fail(Operation::createKey, {Failure::publicKeyExport, -50, "bad point"});
       },
       "DEVICE_BINDING_ENROLL_FAILED", kEnrollFailed, "DEVICE_BINDING_KEY_CREATE_RESULT", json::object()},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ZavloBindingHarness h;
    std::vector<std::string> diagnostics;
    h.graph.graph.deviceBindingManager->setDiagnosticLog([&](const std::string& text) { diagnostics.push_back(text); });
    c.arrange(h);
    const auto outcomes = h.call(ZavloBindingHarness::kEnroll, {{"requestId", "r1"}});
    ASSERT_EQ(outcomes.results.size(), 1U);
    ASSERT_FALSE(outcomes.results[0]);
    EXPECT_EQ(outcomes.results[0].error(), ZavloAuthException::failure(c.errorCode, c.errorMessage));
    const bool beforePrompt =
        std::string(c.name) == "PASSCODE_NOT_SET" || std::string(c.name) == "HARDWARE_UNAVAILABLE";
    EXPECT_EQ(outcomes.beforeReturn, beforePrompt);
    EXPECT_EQ(h.owner.prompts().size(), beforePrompt ? 0U : 1U);
    EXPECT_EQ(h.order.at(h.order.size() - 2), "completion");
    EXPECT_EQ(h.order.back(), c.event);

    const auto event = h.graph.events().back();
    EXPECT_EQ(event.at("status"), "FAILURE");
    EXPECT_EQ(event.at("failureReason"), c.errorMessage);
    EXPECT_EQ(event.at("requestId"), "r1");
    json failure = {
        {"status", "FAILURE"}, {"errorCode", c.errorCode}, {"errorMessage", c.errorMessage}, {"reason", c.name}};
    failure.update(c.extra);
    if (std::string(c.event) == "DEVICE_BINDING_KEY_CREATE_RESULT") {
      failure.update({{"algorithm", "ES256"}, {"curve", "secp256r1"}});
    }
    EXPECT_EQ(event.at("metaData"), enrollMetadata(failure));
    EXPECT_EQ(h.store.itemCount(), 0U) << "no key and no record is left behind";
    for (const auto& text : diagnostics) EXPECT_EQ(event.dump().find(text), std::string::npos) << text;
    if (std::string(c.name) == "ACCESS_CONTROL_ERROR") {
      EXPECT_EQ(diagnostics, std::vector<std::string>{"Access control creation failed: no secret"});
    }
    if (std::string(c.name) == "PUBLIC_KEY_EXPORT_ERROR") {
      const auto calls = h.store.calls();
      EXPECT_TRUE(std::any_of(calls.begin(), calls.end(), [](const auto& call) {
        return call.operation == Operation::deleteKey;
      })) << "a key whose public key is lost is deleted";
    }
  }
}
