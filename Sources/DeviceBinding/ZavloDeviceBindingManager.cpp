#include "DeviceBinding/ZavloDeviceBindingManager.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <exception>
#include <string>

#include "Core/ZavloAuthStatus.hpp"
#include "Core/ZavloAuthValidationUtils.hpp"
#include "Core/ZavloAuthVersion.hpp"
#include "Core/ZavloBase64.hpp"
#include "Core/ZavloGraphemes.hpp"
#include "Core/ZavloPublicErrors.hpp"
#include "Core/ZavloUuid.hpp"
#include "Telemetry/ZavloAuthEventLog.hpp"
#include "Telemetry/ZavloAuthLogManager.hpp"

namespace {

using Failure = ZavloKeyStoreFailure;
using Policy = ZavloOwnerAuthenticationPolicy;
using Public = ZavloPublicError;
using nlohmann::json;

constexpr const char* kAuthProvider = "DEVICE_BINDING";
constexpr const char* kAllowedAuthenticators = "BIOMETRIC_OR_DEVICE_CREDENTIAL";
constexpr const char* kCurve = "secp256r1";
constexpr const char* kEnrollOperation = "ENROLL";
constexpr const char* kSignOperation = "SIGN";

constexpr const char* kBiometricResult = "DEVICE_BINDING_BIOMETRIC_RESULT";
constexpr const char* kKeyCreateResult = "DEVICE_BINDING_KEY_CREATE_RESULT";
constexpr const char* kSignResult = "DEVICE_BINDING_SIGN_RESULT";

// DER header of a SubjectPublicKeyInfo for id-ecPublicKey on prime256v1; the 65-byte
// uncompressed point follows it.
constexpr std::array<std::uint8_t, 26> kPublicKeyPrefix = {0x30, 0x59, 0x30, 0x13, 0x06, 0x07, 0x2a, 0x86, 0x48,
                                                           0xce, 0x3d, 0x02, 0x01, 0x06, 0x08, 0x2a, 0x86, 0x48,
                                                           0xce, 0x3d, 0x03, 0x01, 0x07, 0x03, 0x42, 0x00};

ZavloAuthException exceptionFor(Public error) { return ZavloPublicErrors::exception(error); }

std::string trimmed(std::string_view text) {
  return std::string(ZavloAuthValidationUtils::trimWhitespaceAndNewlines(text));
}

ZavloBytes keyTag(const std::string& keyId) {
  std::string tag(ZavloDeviceBindingManager::kKeyTagPrefix);
  tag += keyId;
  return zavloBytes(tag);
}

// A proof that gives nothing: what a store gets when a context hands out no proof.
class ZavloEmptyOwnerProof final : public ZavloOwnerProof {
 public:
  [[nodiscard]] std::span<const std::uint8_t> secret() const override { return {}; }
  [[nodiscard]] bool verified() const override { return false; }
};

std::unique_ptr<ZavloOwnerProof> proofOf(ZavloOwnerAuthenticationContext* context) {
  auto proof = context ? context->takeOwnerProof() : nullptr;
  if (!proof) proof = std::make_unique<ZavloEmptyOwnerProof>();
  return proof;
}

// What a store's refusal of the owner's proof is reported as: the failure a prompt that
// ended so would get.
ZavloPublicErrors::PromptFailure refusal(Failure failure) {
  const auto code = failure == Failure::lockedOut ? ZavloLAError::biometryLockout : ZavloLAError::authenticationFailed;
  return ZavloPublicErrors::promptFailure(ZavloOwnerAuthenticationError::localAuthentication(code, {}));
}

}  // namespace

struct ZavloDeviceBindingManager::EnrollFlow {
  json metadata;
  Telemetry telemetry;
  bool attestationRequested = false;
  EnrollCompletion completion;

  void complete(ZavloResult<ZavloDeviceBindingEnrollResponse> result) const {
    if (completion) completion(std::move(result));
  }
};

struct ZavloDeviceBindingManager::SignFlow {
  json metadata;
  Telemetry telemetry;
  std::string challenge;
  std::string keyId;
  SignCompletion completion;

  void complete(ZavloResult<ZavloDeviceBindingSignResponse> result) const {
    if (completion) completion(std::move(result));
  }
};

std::shared_ptr<ZavloDeviceBindingManager> ZavloDeviceBindingManager::create(
    ZavloPlatform& platform, std::shared_ptr<ZavloAuthLogManager> logManager) {
  return std::shared_ptr<ZavloDeviceBindingManager>(new ZavloDeviceBindingManager(platform, std::move(logManager)));
}

ZavloDeviceBindingManager::ZavloDeviceBindingManager(ZavloPlatform& platform,
                                                     std::shared_ptr<ZavloAuthLogManager> logManager)
    : platform_(platform), logManager_(std::move(logManager)) {}

void ZavloDeviceBindingManager::setDiagnosticLog(DiagnosticLog log) {
  std::lock_guard lock(diagnosticMutex_);
  diagnosticLog_ = std::move(log);
}

void ZavloDeviceBindingManager::diagnose(const std::string& text) {
  DiagnosticLog log;
  {
    std::lock_guard lock(diagnosticMutex_);
    log = diagnosticLog_;
  }
  if (log) log(text);
}

// MARK: key store

bool ZavloDeviceBindingManager::isDeviceSecure() {
  // A fresh context every time: an answer is never reused.
  const auto context = platform_.makeOwnerAuthenticationContext();
  return context && context->canEvaluatePolicy(Policy::deviceOwnerAuthentication);
}

bool ZavloDeviceBindingManager::privateKeyExists(const std::string& keyId) {
  const auto found = platform_.keyStore().findKey(keyTag(keyId));
  return found && found.value().has_value();
}

std::optional<ZavloBytes> ZavloDeviceBindingManager::currentBiometryDomainState() {
  const auto context = platform_.makeOwnerAuthenticationContext();
  if (!context || !context->canEvaluatePolicy(Policy::deviceOwnerAuthenticationWithBiometrics)) return std::nullopt;
  return context->evaluatedPolicyDomainState();
}

bool ZavloDeviceBindingManager::biometryUnchanged(const std::string& keyId) {
  // Without usable biometrics, or without a record from enrolment, nothing counts as changed.
  const auto current = currentBiometryDomainState();
  if (!current) return true;
  const auto stored = platform_.keyStore().domainState(keyId);
  if (!stored || !stored.value()) return true;
  return *stored.value() == *current;
}

void ZavloDeviceBindingManager::storeBiometryDomainState(const std::string& keyId) {
  const auto current = currentBiometryDomainState();
  if (!current) return;
  (void)platform_.keyStore().setDomainState(keyId, current);
}

void ZavloDeviceBindingManager::clearBiometryDomainState(const std::string& keyId) {
  (void)platform_.keyStore().setDomainState(keyId, std::nullopt);
}

bool ZavloDeviceBindingManager::deleteKey(const std::string& keyId) {
  const auto deleted = platform_.keyStore().deleteKey(keyTag(keyId));
  clearBiometryDomainState(keyId);
  return deleted.hasValue();
}

std::string ZavloDeviceBindingManager::newKeyId() {
  std::array<std::uint8_t, 16> bytes{};
  platform_.fillRandom(bytes);
  return zavloRandomUuidText(bytes);
}

void ZavloDeviceBindingManager::getState(const std::string& keyId, const StateCompletion& completion) {
  const auto state = [&]() -> ZavloDeviceBindingStateResponse {
    const std::string success(ZavloAuthStatus::success);
    if (!isDeviceSecure()) return {success, "NO_SCREEN_LOCK", std::nullopt};
    // The second, independent evaluation stands for "device binding supported".
    if (!isDeviceSecure()) return {success, "UNSUPPORTED", std::nullopt};
    auto id = trimmed(keyId);
    if (id.empty() || !privateKeyExists(id)) return {success, "NOT_ENROLLED", std::nullopt};
    if (biometryUnchanged(id)) return {success, "ENROLLED", std::move(id)};
    (void)deleteKey(id);
    return {success, "INVALIDATED", std::move(id)};
  }();
  if (completion) completion(state);
}

// MARK: prompt

void ZavloDeviceBindingManager::prompt(
    const std::string& promptTitle, const std::string& promptSubtitle, std::string requestingOrigin,
    std::function<void(ZavloDeviceBindingManager&, bool, std::optional<ZavloOwnerAuthenticationError>,
                       const std::shared_ptr<ZavloOwnerAuthenticationContext>&)>
        onReply) {
  auto context = platform_.makeOwnerAuthenticationContext();
  const std::weak_ptr<ZavloDeviceBindingManager> weakSelf = weak_from_this();
  // The reply keeps the context alive (its proof is taken afterwards) but not the manager.
  // It answers once, even if a platform that throws had already scheduled it.
  auto answered = std::make_shared<std::atomic<bool>>(false);
  auto reply = [weakSelf, context, answered, onReply = std::move(onReply)](
                   bool success, std::optional<ZavloOwnerAuthenticationError> error) {
    if (answered->exchange(true)) return;
    const auto self = weakSelf.lock();
    if (!self) return;
    self->platform_.mainQueue().post([weakSelf, context, onReply, success, error = std::move(error)] {
      if (const auto alive = weakSelf.lock()) onReply(*alive, success, error, context);
    });
  };
  if (!context) return reply(false, std::nullopt);
  try {
    context->setLocalizedFallbackTitle(std::string());  // hides the fallback button
    context->setRequestingOrigin(std::move(requestingOrigin));
    context->evaluatePolicy(Policy::deviceOwnerAuthentication, promptSubtitle.empty() ? promptTitle : promptSubtitle,
                            reply);
  } catch (const std::exception& exception) {
    // A prompt that cannot start is a failed prompt, answered like any other.
    diagnose(std::string("The owner prompt could not start: ") + exception.what());
    reply(false, ZavloOwnerAuthenticationError{"ZavloDeviceBinding", 0, exception.what()});
  } catch (...) {
    reply(false, ZavloOwnerAuthenticationError{"ZavloDeviceBinding", 0, "The owner prompt could not start."});
  }
}

// MARK: enrolment

void ZavloDeviceBindingManager::enroll(const std::optional<std::string>& attestationChallenge,
                                       const std::string& promptTitle, const std::string& promptSubtitle,
                                       std::optional<std::string> requestId, std::optional<std::string> entityId,
                                       EnrollCompletion completion, std::string requestingOrigin) {
  auto flow = std::make_shared<EnrollFlow>();
  flow->telemetry = {std::move(requestId), std::move(entityId)};
  flow->attestationRequested = attestationChallenge && !attestationChallenge->empty();
  flow->completion = std::move(completion);
  flow->metadata = baseMetadata(kEnrollOperation);
  flow->metadata["attestationRequested"] = flow->attestationRequested;

  const auto refuse = [this, &flow](const ZavloAuthException& exception, const char* reason) {
    flow->complete(zavloFailure(exception));
    sendEvent(kBiometricResult, flow->telemetry, &exception,
              merged(flow->metadata, {outcomeMetadata(reason, &exception), {{"promptShown", false}}}));
  };
  if (!isDeviceSecure()) return refuse(exceptionFor(Public::deviceNotSecure), "PASSCODE_NOT_SET");
  if (!isDeviceSecure()) return refuse(exceptionFor(Public::bindingUnsupported), "HARDWARE_UNAVAILABLE");

  prompt(
      promptTitle, promptSubtitle, std::move(requestingOrigin),
      [flow](ZavloDeviceBindingManager& self, bool success, const std::optional<ZavloOwnerAuthenticationError>& error,
             const std::shared_ptr<ZavloOwnerAuthenticationContext>& context) {
        self.finishEnrollmentPrompt(*flow, success, error, context);
      });
}

void ZavloDeviceBindingManager::finishEnrollmentPrompt(
    EnrollFlow& flow, bool success, const std::optional<ZavloOwnerAuthenticationError>& error,
    const std::shared_ptr<ZavloOwnerAuthenticationContext>& context) {
  if (success) {
    sendEvent(kBiometricResult, flow.telemetry, nullptr,
              merged(flow.metadata, {{{"status", ZavloAuthStatus::success}}, {{"promptShown", true}}}));
    return createKeyAndRespond(flow, *proofOf(context.get()));
  }
  auto [reason, extra] = promptFailureMetadata(error);
  const auto exception = map(error);
  flow.complete(zavloFailure(exception));
  sendEvent(kBiometricResult, flow.telemetry, &exception,
            merged(flow.metadata, {outcomeMetadata(reason, &exception), std::move(extra)}));
}

void ZavloDeviceBindingManager::createKeyAndRespond(EnrollFlow& flow, const ZavloOwnerProof& proof) {
  auto metadata = baseMetadata(kEnrollOperation);
  metadata["algorithm"] = kAlgorithm;
  metadata["curve"] = kCurve;
  metadata["attestationRequested"] = flow.attestationRequested;
  const auto keyId = newKeyId();

  const auto fail = [this, &flow, &metadata](const char* reason, json extra) {
    const auto exception = exceptionFor(Public::enrollFailed);
    flow.complete(zavloFailure(exception));
    sendEvent(kKeyCreateResult, flow.telemetry, &exception,
              merged(metadata, {outcomeMetadata(reason, &exception), std::move(extra)}));
  };

  auto created = platform_.keyStore().createKey(keyTag(keyId), proof);
  if (!created) {
    const auto& error = created.error();
    switch (error.failure) {
      case Failure::noOwnerSecret:
      case Failure::ownerRefused:
      case Failure::lockedOut:
        // The key's protection could not be tied to the owner.
        diagnose("Access control creation failed: " + error.description);
        return fail("ACCESS_CONTROL_ERROR", {{"osErrorCode", error.code}});
      case Failure::publicKeyExport:
        diagnose("Public key export failed: " + error.description);
        (void)deleteKey(keyId);  // no orphan key stays behind
        return fail("PUBLIC_KEY_EXPORT_ERROR", json::object());
      default:
        diagnose("Key creation failed: " + error.description);
        return fail("KEYSTORE_ERROR", {{"osErrorCode", error.code}});
    }
  }
  const auto& point = created.value().publicKey;
  // Sized once and filled by copy: GCC 12 at -O2 misreads a range insert here as an overflow.
  ZavloBytes publicKeyInfo(kPublicKeyPrefix.size() + point.size());
  const auto pointStart = std::copy(kPublicKeyPrefix.begin(), kPublicKeyPrefix.end(), publicKeyInfo.begin());
  std::copy(point.begin(), point.end(), pointStart);

  storeBiometryDomainState(keyId);
  flow.complete(ZavloDeviceBindingEnrollResponse{std::string(ZavloAuthStatus::success), keyId,
                                                 ZavloBase64::encode(publicKeyInfo), std::string(kAlgorithm),
                                                 std::nullopt});
  sendEvent(kKeyCreateResult, flow.telemetry, nullptr,
            merged(metadata, {{{"status", ZavloAuthStatus::success}},
                              {{"keyId", keyId},
                               {"hardwareBacked", created.value().location.hardwareBacked},
                               {"attestationReturned", false}}}));
}

// MARK: signing

void ZavloDeviceBindingManager::signChallenge(const std::vector<std::string>& allowedKeyIds,
                                              const std::string& challenge, const std::string& promptTitle,
                                              const std::string& promptSubtitle, std::optional<std::string> requestId,
                                              std::optional<std::string> entityId, SignCompletion completion,
                                              std::string requestingOrigin) {
  auto flow = std::make_shared<SignFlow>();
  flow->telemetry = {std::move(requestId), std::move(entityId)};
  flow->challenge = challenge;
  flow->completion = std::move(completion);
  flow->metadata = baseMetadata(kSignOperation);
  flow->metadata["allowedKeyIdCount"] = allowedKeyIds.size();
  flow->metadata["challengeLength"] = ZavloGraphemes::count(challenge);

  if (trimmed(challenge).empty()) {
    return failSigning(*flow, exceptionFor(Public::invalidChallenge), "INVALID_CHALLENGE", json::object());
  }

  std::vector<std::string> ids;
  for (const auto& entry : allowedKeyIds) {
    if (auto id = trimmed(entry); !id.empty()) ids.push_back(std::move(id));
  }
  if (ids.empty()) return failSigning(*flow, exceptionFor(Public::notEnrolled), "NO_KEY_IDS", json::object());

  // The first id with a key decides; later ids are not tried, even when that key is invalid.
  for (const auto& id : ids) {
    if (!privateKeyExists(id)) continue;
    if (!biometryUnchanged(id)) {
      (void)deleteKey(id);
      return failSigning(*flow, exceptionFor(Public::keyInvalidated), "KEY_INVALIDATED",
                         {{"keyId", id}, {"keyDeleted", true}});
    }
    flow->keyId = id;
    break;
  }
  if (flow->keyId.empty()) {
    return failSigning(*flow, exceptionFor(Public::notEnrolled), "KEY_NOT_FOUND", json::object());
  }

  prompt(
      promptTitle, promptSubtitle, std::move(requestingOrigin),
      [flow](ZavloDeviceBindingManager& self, bool success, const std::optional<ZavloOwnerAuthenticationError>& error,
             const std::shared_ptr<ZavloOwnerAuthenticationContext>& context) {
        self.finishSigningPrompt(*flow, success, error, context);
      });
}

void ZavloDeviceBindingManager::finishSigningPrompt(SignFlow& flow, bool success,
                                                    const std::optional<ZavloOwnerAuthenticationError>& error,
                                                    const std::shared_ptr<ZavloOwnerAuthenticationContext>& context) {
  if (!success) {
    auto [reason, extra] = promptFailureMetadata(error);
    const auto exception = map(error);
    flow.complete(zavloFailure(exception));
    sendEvent(kBiometricResult, flow.telemetry, &exception,
              merged(flow.metadata, {outcomeMetadata(reason, &exception), std::move(extra), {{"keyId", flow.keyId}}}));
    return;
  }
  sendEvent(
      kBiometricResult, flow.telemetry, nullptr,
      merged(flow.metadata, {{{"status", ZavloAuthStatus::success}}, {{"keyId", flow.keyId}, {"promptShown", true}}}));

  const auto proof = proofOf(context.get());
  const auto signature = platform_.keyStore().sign(keyTag(flow.keyId), zavloBytes(flow.challenge), *proof);
  if (!signature) {
    const auto& error = signature.error();
    switch (error.failure) {
      case Failure::ownerRefused:
        // Only a secret that PAM accepted and the key refuses means that it changed since
        // enrolment, as a changed biometric set does; any other refusal is a wrong secret.
        if (!proof->verified()) break;
        [[fallthrough]];
      case Failure::notFound:
        diagnose("Private key use failed: " + error.description);
        (void)deleteKey(flow.keyId);
        return failSigning(flow, exceptionFor(Public::keyInvalidated), "KEY_INVALIDATED",
                           {{"keyId", flow.keyId}, {"keyDeleted", true}});
      case Failure::noOwnerSecret:
      case Failure::lockedOut:
        break;
      default:
        diagnose("Device binding signing failed: " + error.description);
        return failSigning(flow, exceptionFor(Public::signFailed), "SIGN_ERROR", {{"osErrorCode", error.code}});
    }
    diagnose("The key store refused the owner's proof: " + error.description);
    const auto refused = refusal(error.failure);
    return failSigning(flow, refused.exception, refused.reason.c_str(), {{"keyId", flow.keyId}});
  }
  flow.complete(ZavloDeviceBindingSignResponse{std::string(ZavloAuthStatus::success), flow.keyId,
                                               ZavloBase64::encode(signature.value()), std::string(kAlgorithm)});
  sendEvent(kSignResult, flow.telemetry, nullptr,
            merged(flow.metadata,
                   {{{"status", ZavloAuthStatus::success}}, {{"keyId", flow.keyId}, {"algorithm", kAlgorithm}}}));
}

void ZavloDeviceBindingManager::failSigning(SignFlow& flow, const ZavloAuthException& exception, const char* reason,
                                            json extra) {
  flow.complete(zavloFailure(exception));
  sendEvent(kSignResult, flow.telemetry, &exception,
            merged(flow.metadata, {outcomeMetadata(reason, &exception), std::move(extra)}));
}

// MARK: telemetry and prompt errors

ZavloAuthException ZavloDeviceBindingManager::map(const std::optional<ZavloOwnerAuthenticationError>& error) {
  return ZavloPublicErrors::promptFailure(error).exception;
}

json ZavloDeviceBindingManager::baseMetadata(std::string_view operation) {
  auto metadata = ZavloAuthEventLog::createDeviceMetadata(platform_.deviceInfo());
  metadata["operation"] = operation;
  metadata["deviceSecure"] = isDeviceSecure();
  metadata["secureEnclaveAvailable"] = true;  // stated, never measured
  metadata["allowedAuthenticators"] = kAllowedAuthenticators;
  return metadata;
}

json ZavloDeviceBindingManager::outcomeMetadata(const std::optional<std::string>& reason,
                                                const ZavloAuthException* exception) {
  // A reason without an exception is dropped on purpose: successes carry no reason.
  if (!exception) return {{"status", ZavloAuthStatus::success}};
  json metadata = {{"status", ZavloAuthStatus::failure},
                   {"errorCode", exception->errorCode().value_or("")},
                   {"errorMessage", exception->errorMessage()}};
  if (reason) metadata["reason"] = *reason;
  return metadata;
}

std::pair<std::string, json> ZavloDeviceBindingManager::promptFailureMetadata(
    const std::optional<ZavloOwnerAuthenticationError>& error) {
  auto failure = ZavloPublicErrors::promptFailure(error);
  json extra = {{"promptShown", true}};
  if (failure.localAuthenticationCode) extra["promptErrorCode"] = *failure.localAuthenticationCode;
  extra["cancelledByUser"] = failure.reason == "USER_CANCELLED";
  return {std::move(failure.reason), extra};
}

json ZavloDeviceBindingManager::merged(json base, std::initializer_list<json> dictionaries) {
  for (const auto& dictionary : dictionaries) {
    if (!dictionary.is_object()) continue;
    for (const auto& [key, value] : dictionary.items()) base[key] = value;  // the later value wins
  }
  return base;
}

void ZavloDeviceBindingManager::sendEvent(const char* eventName, const Telemetry& telemetry,
                                          const ZavloAuthException* failure, json metaData) {
  if (!logManager_) return;
  auto event = std::make_shared<ZavloAuthEventLog>();
  event->entityId = telemetry.entityId;
  event->requestId = telemetry.requestId;
  event->authProvider = kAuthProvider;
  event->authType = kAuthProvider;
  event->status = std::string(failure ? ZavloAuthStatus::failure : ZavloAuthStatus::success);
  if (failure) event->failureReason = failure->errorMessage();
  metaData["sdkVersion"] = ZavloAuthSDKVersion;  // set last: it overrides the device metadata's
  event->metaData = std::move(metaData);
  event->eventName = eventName;
  logManager_->sendEventLog(event);
}
