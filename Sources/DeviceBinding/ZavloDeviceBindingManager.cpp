#include "DeviceBinding/ZavloDeviceBindingManager.hpp"

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>

#include "Core/ZavloAuthStatus.hpp"
#include "Core/ZavloAuthValidationUtils.hpp"
#include "Core/ZavloAuthVersion.hpp"
#include "Core/ZavloBase64.hpp"
#include "Core/ZavloGraphemes.hpp"
#include "Core/ZavloPublicErrors.hpp"
#include "Telemetry/ZavloAuthEventLog.hpp"
#include "Telemetry/ZavloAuthLogManager.hpp"

namespace {

namespace Key = ZavloKeychainKey;
namespace Status = ZavloKeychainStatus;
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

// Usable for signing only, after biometrics of the current set or the device passcode.
constexpr std::uint64_t kAccessControlFlags =
    ZavloAccessControlFlags::privateKeyUsage | ZavloAccessControlFlags::orFlag |
    ZavloAccessControlFlags::devicePasscode | ZavloAccessControlFlags::biometryCurrentSet;
static_assert(kAccessControlFlags == 0x40004018);

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

// The attributes that name a key id's private key.
ZavloKeychainAttributes privateKeyAttributes(const std::string& keyId) {
  return {{Key::kSecClass, std::string(Key::kSecClassKey)},
          {Key::kSecAttrApplicationTag, keyTag(keyId)},
          {Key::kSecAttrKeyType, std::string(Key::kSecAttrKeyTypeECSECPrimeRandom)}};
}

// The attributes that name a key id's domain-state record.
ZavloKeychainAttributes domainStateAttributes(const std::string& keyId) {
  return {{Key::kSecClass, std::string(Key::kSecClassGenericPassword)},
          {Key::kSecAttrService, std::string(ZavloDeviceBindingManager::kDomainStateService)},
          {Key::kSecAttrAccount, keyId}};
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
  auto query = privateKeyAttributes(keyId);
  query.emplace(Key::kSecReturnRef, false);
  query.emplace(Key::kSecUseAuthenticationUI, std::string(Key::kSecUseAuthenticationUISkip));
  const auto status = platform_.keychain().copyMatching(query).status;
  // A key that would need the owner first still exists.
  return status == Status::success || status == Status::interactionNotAllowed;
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
  auto query = domainStateAttributes(keyId);
  query.emplace(Key::kSecReturnData, true);
  const auto result = platform_.keychain().copyMatching(query);
  if (result.status != Status::success || !result.item) return true;
  const auto* stored = std::get_if<ZavloBytes>(&*result.item);
  return !stored || *stored == *current;
}

void ZavloDeviceBindingManager::storeBiometryDomainState(const std::string& keyId) {
  const auto current = currentBiometryDomainState();
  if (!current) return;
  auto attributes = domainStateAttributes(keyId);
  (void)platform_.keychain().remove(attributes);
  attributes.emplace(Key::kSecValueData, *current);
  attributes.emplace(Key::kSecAttrAccessible, std::string(Key::kSecAttrAccessibleAfterFirstUnlockThisDeviceOnly));
  (void)platform_.keychain().add(attributes);
}

void ZavloDeviceBindingManager::clearBiometryDomainState(const std::string& keyId) {
  (void)platform_.keychain().remove(domainStateAttributes(keyId));
}

bool ZavloDeviceBindingManager::deleteKey(const std::string& keyId) {
  const auto status = platform_.keychain().remove(privateKeyAttributes(keyId));
  clearBiometryDomainState(keyId);
  return status == Status::success || status == Status::itemNotFound;
}

std::shared_ptr<ZavloSecureKey> ZavloDeviceBindingManager::loadPrivateKey(
    const std::string& keyId, const std::shared_ptr<ZavloOwnerAuthenticationContext>& context) {
  auto query = privateKeyAttributes(keyId);
  query.emplace(Key::kSecReturnRef, true);
  query.emplace(Key::kSecUseAuthenticationContext, context);
  const auto result = platform_.keychain().copyMatching(query);
  if (result.status == Status::success && result.item) {
    if (const auto* key = std::get_if<std::shared_ptr<ZavloSecureKey>>(&*result.item); key && *key) return *key;
  }
  diagnose("Private key lookup failed with status " + std::to_string(result.status));
  return nullptr;
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
    const std::string& promptTitle, const std::string& promptSubtitle,
    std::function<void(ZavloDeviceBindingManager&, bool, std::optional<ZavloOwnerAuthenticationError>,
                       const std::shared_ptr<ZavloOwnerAuthenticationContext>&)>
        onReply) {
  auto context = platform_.makeOwnerAuthenticationContext();
  const std::weak_ptr<ZavloDeviceBindingManager> weakSelf = weak_from_this();
  // The reply keeps the context alive (signing uses it afterwards) but not the manager.
  auto reply = [weakSelf, context, onReply = std::move(onReply)](bool success,
                                                                 std::optional<ZavloOwnerAuthenticationError> error) {
    const auto self = weakSelf.lock();
    if (!self) return;
    self->platform_.mainQueue().post([weakSelf, context, onReply, success, error = std::move(error)] {
      if (const auto alive = weakSelf.lock()) onReply(*alive, success, error, context);
    });
  };
  if (!context) return reply(false, std::nullopt);
  context->setLocalizedFallbackTitle(std::string());  // hides the fallback button
  context->evaluatePolicy(Policy::deviceOwnerAuthentication, promptSubtitle.empty() ? promptTitle : promptSubtitle,
                          std::move(reply));
}

// MARK: enrolment

void ZavloDeviceBindingManager::enroll(const std::optional<std::string>& attestationChallenge,
                                       const std::string& promptTitle, const std::string& promptSubtitle,
                                       std::optional<std::string> requestId, std::optional<std::string> entityId,
                                       EnrollCompletion completion) {
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

  prompt(promptTitle, promptSubtitle,
         [flow](ZavloDeviceBindingManager& self, bool success, std::optional<ZavloOwnerAuthenticationError> error,
                const std::shared_ptr<ZavloOwnerAuthenticationContext>&) {
           self.finishEnrollmentPrompt(*flow, success, error);
         });
}

void ZavloDeviceBindingManager::finishEnrollmentPrompt(EnrollFlow& flow, bool success,
                                                       const std::optional<ZavloOwnerAuthenticationError>& error) {
  if (success) {
    sendEvent(kBiometricResult, flow.telemetry, nullptr,
              merged(flow.metadata, {{{"status", ZavloAuthStatus::success}}, {{"promptShown", true}}}));
    return createKeyAndRespond(flow);
  }
  auto [reason, extra] = promptFailureMetadata(error);
  const auto exception = map(error);
  flow.complete(zavloFailure(exception));
  sendEvent(kBiometricResult, flow.telemetry, &exception,
            merged(flow.metadata, {outcomeMetadata(reason, &exception), std::move(extra)}));
}

void ZavloDeviceBindingManager::createKeyAndRespond(EnrollFlow& flow) {
  auto metadata = baseMetadata(kEnrollOperation);
  metadata["algorithm"] = kAlgorithm;
  metadata["curve"] = kCurve;
  metadata["attestationRequested"] = flow.attestationRequested;
  const auto keyId = ZavloAuthEventLog::makeTransactionId();  // a random UUID, upper-case text

  const auto fail = [this, &flow, &metadata](const char* reason, json extra) {
    const auto exception = exceptionFor(Public::enrollFailed);
    flow.complete(zavloFailure(exception));
    sendEvent(kKeyCreateResult, flow.telemetry, &exception,
              merged(metadata, {outcomeMetadata(reason, &exception), std::move(extra)}));
  };

  auto& keys = platform_.secureKeys();
  const auto access = keys.createAccessControl(Key::kSecAttrAccessibleWhenUnlockedThisDeviceOnly, kAccessControlFlags);
  if (!access) {
    diagnose("Access control creation failed: " + access.error().description);
    return fail("ACCESS_CONTROL_ERROR", {{"osErrorCode", access.error().code}});
  }

  const auto privateKeyAttributes = std::make_shared<const ZavloKeychainAttributes>(ZavloKeychainAttributes{
      {Key::kSecAttrIsPermanent, true},
      {Key::kSecAttrApplicationTag, keyTag(keyId)},
      {Key::kSecAttrAccessControl, access.value()},
  });
  const ZavloKeychainAttributes attributes{
      {Key::kSecAttrKeyType, std::string(Key::kSecAttrKeyTypeECSECPrimeRandom)},
      {Key::kSecAttrKeySizeInBits, std::int64_t{256}},
      {Key::kSecAttrTokenID, std::string(Key::kSecAttrTokenIDSecureEnclave)},
      {Key::kSecPrivateKeyAttrs, privateKeyAttributes},
  };
  const auto created = keys.createRandomKey(attributes);
  if (!created) {
    diagnose("Secure Enclave key creation failed: " + created.error().description);
    return fail("KEYSTORE_ERROR", {{"osErrorCode", created.error().code}});
  }
  if (!created.value()) {
    diagnose("Secure Enclave key creation failed: no key was returned");
    return fail("KEYSTORE_ERROR", json::object());
  }

  std::optional<ZavloBytes> point;
  if (const auto publicKey = keys.copyPublicKey(*created.value())) {
    auto exported = keys.copyExternalRepresentation(*publicKey);
    if (exported) {
      point = std::move(exported).value();
    } else {
      diagnose("Public key export failed: " + exported.error().description);
    }
  } else {
    diagnose("Public key export failed: the key has no public key");
  }
  if (!point) {
    (void)deleteKey(keyId);  // no orphan key stays behind
    return fail("PUBLIC_KEY_EXPORT_ERROR", json::object());
  }
  // Sized once and filled by copy: GCC 12 at -O2 misreads a range insert here as an overflow.
  ZavloBytes publicKeyInfo(kPublicKeyPrefix.size() + point->size());
  const auto pointStart = std::copy(kPublicKeyPrefix.begin(), kPublicKeyPrefix.end(), publicKeyInfo.begin());
  std::copy(point->begin(), point->end(), pointStart);

  storeBiometryDomainState(keyId);
  flow.complete(ZavloDeviceBindingEnrollResponse{std::string(ZavloAuthStatus::success), keyId,
                                                 ZavloBase64::encode(publicKeyInfo), std::string(kAlgorithm),
                                                 std::nullopt});
  sendEvent(kKeyCreateResult, flow.telemetry, nullptr,
            merged(metadata, {{{"status", ZavloAuthStatus::success}},
                              {{"keyId", keyId}, {"hardwareBacked", true}, {"attestationReturned", false}}}));
}

// MARK: signing

void ZavloDeviceBindingManager::signChallenge(const std::vector<std::string>& allowedKeyIds,
                                              const std::string& challenge, const std::string& promptTitle,
                                              const std::string& promptSubtitle, std::optional<std::string> requestId,
                                              std::optional<std::string> entityId, SignCompletion completion) {
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

  prompt(promptTitle, promptSubtitle,
         [flow](ZavloDeviceBindingManager& self, bool success, std::optional<ZavloOwnerAuthenticationError> error,
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

  // The context has just authenticated, so using the key does not prompt again.
  const auto key = loadPrivateKey(flow.keyId, context);
  if (!key) {
    (void)deleteKey(flow.keyId);
    return failSigning(flow, exceptionFor(Public::keyInvalidated), "KEY_INVALIDATED",
                       {{"keyId", flow.keyId}, {"keyDeleted", true}});
  }
  const auto signature = platform_.secureKeys().createSignature(
      *key, ZavloSecureKeys::kSecKeyAlgorithmECDSASignatureMessageX962SHA256, zavloBytes(flow.challenge));
  if (!signature) {
    diagnose("Device binding signing failed: " + signature.error().description);
    return failSigning(flow, exceptionFor(Public::signFailed), "SIGN_ERROR", {{"osErrorCode", signature.error().code}});
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
