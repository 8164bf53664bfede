#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "Core/ZavloAuthException.hpp"
#include "Core/ZavloDeviceBindingEnrollResponse.hpp"
#include "Core/ZavloDeviceBindingSignResponse.hpp"
#include "Core/ZavloDeviceBindingStateResponse.hpp"
#include "Core/ZavloResult.hpp"
#include "Platform/ZavloPlatform.hpp"

class ZavloAuthLogManager;

/// Device binding: one hardware-held P-256 key per key id, created after the owner
/// authenticates (enroll), used to sign server challenges (signChallenge), and a state
/// query that also notices a change of the enrolled biometrics (getState). The platform's
/// key store is the only store; the manager keeps nothing in memory between calls.
///
/// Per key id the store holds the private key, tagged kKeyTagPrefix + key id, made for and
/// used with the proof the owner gave at the prompt, and, when biometrics were available
/// at enrolment, a domain-state record holding the biometric domain state of that time.
///
/// Threading: every operation may be called from any thread and runs there up to the
/// owner-authentication prompt; getState and the failures found before a prompt complete
/// on the calling thread before the call returns. The prompt's reply continues on the main
/// queue, holding the manager weakly: a manager destroyed meanwhile never completes. The
/// caller's completion always runs before the event that closes the operation is sent.
class ZavloDeviceBindingManager : public std::enable_shared_from_this<ZavloDeviceBindingManager> {
 public:
  using StateCompletion = std::function<void(ZavloResult<ZavloDeviceBindingStateResponse>)>;
  using EnrollCompletion = std::function<void(ZavloResult<ZavloDeviceBindingEnrollResponse>)>;
  using SignCompletion = std::function<void(ZavloResult<ZavloDeviceBindingSignResponse>)>;
  /// Receives the diagnostic texts of failed key store operations (never shown to
  /// a caller).
  using DiagnosticLog = std::function<void(const std::string&)>;

  static constexpr std::string_view kKeyTagPrefix = "in.zavlo.authsdk.devicebinding.";
  static constexpr std::string_view kAlgorithm = "ES256";
  /// The prompt texts the entry points use when the caller gives none.
  static constexpr std::string_view kDefaultPromptTitle = "Verify it's you";
  static constexpr std::string_view kDefaultPromptSubtitle = "Confirm your identity to continue";

  /// Uses the platform's key store, owner authentication, random source, device facts and
  /// main queue, each taken when an operation needs it. The platform must outlive the manager.
  static std::shared_ptr<ZavloDeviceBindingManager> create(ZavloPlatform& platform,
                                                           std::shared_ptr<ZavloAuthLogManager> logManager);
  ZavloDeviceBindingManager(const ZavloDeviceBindingManager&) = delete;
  ZavloDeviceBindingManager& operator=(const ZavloDeviceBindingManager&) = delete;

  /// The binding state of keyId (trimmed); always a success. A key whose biometrics
  /// changed since enrolment is deleted here and reported "INVALIDATED" once.
  void getState(const std::string& keyId, const StateCompletion& completion);
  /// Prompts the owner with promptSubtitle (promptTitle when the subtitle is empty), then
  /// creates a key under a new key id and answers its public key. Only the presence of a
  /// non-empty attestationChallenge matters (it is reported; no attestation is made).
  /// requestingOrigin is the origin of the page that asked, empty when the host asks; the
  /// prompt shows it (ZavloOwnerAuthenticationContext::setRequestingOrigin).
  void enroll(const std::optional<std::string>& attestationChallenge, const std::string& promptTitle,
              const std::string& promptSubtitle, std::optional<std::string> requestId,
              std::optional<std::string> entityId, EnrollCompletion completion, std::string requestingOrigin = {});
  /// Signs the UTF-8 bytes of challenge, as given, with the key of the first of
  /// allowedKeyIds (trimmed, blanks dropped) that exists on this device, after the owner
  /// authenticates. requestingOrigin as for enroll.
  void signChallenge(const std::vector<std::string>& allowedKeyIds, const std::string& challenge,
                     const std::string& promptTitle, const std::string& promptSubtitle,
                     std::optional<std::string> requestId, std::optional<std::string> entityId,
                     SignCompletion completion, std::string requestingOrigin = {});

  /// Replaces the diagnostic sink (none by default: the texts are dropped).
  void setDiagnosticLog(DiagnosticLog log);

  /// The exception for a failed owner-authentication prompt.
  static ZavloAuthException map(const std::optional<ZavloOwnerAuthenticationError>& error);

 private:
  struct Telemetry {
    std::optional<std::string> requestId;
    std::optional<std::string> entityId;
  };
  struct EnrollFlow;
  struct SignFlow;

  ZavloDeviceBindingManager(ZavloPlatform& platform, std::shared_ptr<ZavloAuthLogManager> logManager);

  // Key store.
  bool isDeviceSecure();
  bool privateKeyExists(const std::string& keyId);
  std::optional<ZavloBytes> currentBiometryDomainState();
  bool biometryUnchanged(const std::string& keyId);
  void storeBiometryDomainState(const std::string& keyId);
  void clearBiometryDomainState(const std::string& keyId);
  bool deleteKey(const std::string& keyId);
  /// A random UUID in upper-case text, from the platform's secure random source.
  std::string newKeyId();

  // The prompt, whose reply continues on the main queue with onReply if the manager lives.
  void prompt(const std::string& promptTitle, const std::string& promptSubtitle, std::string requestingOrigin,
              std::function<void(ZavloDeviceBindingManager&, bool, std::optional<ZavloOwnerAuthenticationError>,
                                 const std::shared_ptr<ZavloOwnerAuthenticationContext>&)>
                  onReply);

  // Enrolment and signing after the prompt.
  void finishEnrollmentPrompt(EnrollFlow& flow, bool success, const std::optional<ZavloOwnerAuthenticationError>& error,
                              const std::shared_ptr<ZavloOwnerAuthenticationContext>& context);
  void createKeyAndRespond(EnrollFlow& flow, const ZavloOwnerProof& proof);
  void finishSigningPrompt(SignFlow& flow, bool success, const std::optional<ZavloOwnerAuthenticationError>& error,
                           const std::shared_ptr<ZavloOwnerAuthenticationContext>& context);
  void failSigning(SignFlow& flow, const ZavloAuthException& exception, const char* reason, nlohmann::json extra);

  // Telemetry.
  nlohmann::json baseMetadata(std::string_view operation);
  static nlohmann::json outcomeMetadata(const std::optional<std::string>& reason, const ZavloAuthException* exception);
  static std::pair<std::string, nlohmann::json> promptFailureMetadata(
      const std::optional<ZavloOwnerAuthenticationError>& error);
  static nlohmann::json merged(nlohmann::json base, std::initializer_list<nlohmann::json> dictionaries);
  void sendEvent(const char* eventName, const Telemetry& telemetry, const ZavloAuthException* failure,
                 nlohmann::json metaData);

  void diagnose(const std::string& text);

  ZavloPlatform& platform_;
  const std::shared_ptr<ZavloAuthLogManager> logManager_;
  std::mutex diagnosticMutex_;
  DiagnosticLog diagnosticLog_;
};
