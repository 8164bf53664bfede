#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "Platform/ZavloKeyStore.hpp"

/// What the owner must prove, with the platform's values.
enum class ZavloOwnerAuthenticationPolicy : int {
  deviceOwnerAuthenticationWithBiometrics = 1,  ///< biometrics only
  deviceOwnerAuthentication = 2,                ///< biometrics or the device credential
};

/// Error codes of owner authentication, with the platform's values.
namespace ZavloLAError {
inline constexpr std::int64_t authenticationFailed = -1;
inline constexpr std::int64_t userCancel = -2;
inline constexpr std::int64_t userFallback = -3;
inline constexpr std::int64_t systemCancel = -4;
inline constexpr std::int64_t passcodeNotSet = -5;
inline constexpr std::int64_t biometryNotAvailable = -6;
inline constexpr std::int64_t biometryNotEnrolled = -7;
inline constexpr std::int64_t biometryLockout = -8;
inline constexpr std::int64_t appCancel = -9;
inline constexpr std::int64_t invalidContext = -10;
}  // namespace ZavloLAError

/// Why an evaluation failed. Errors of owner authentication itself carry the
/// LocalAuthentication domain and a ZavloLAError code; anything else (a broken PAM stack,
/// a lost bus) carries another domain.
struct ZavloOwnerAuthenticationError {
  static constexpr std::string_view kLocalAuthenticationDomain = "LAErrorDomain";

  std::string domain;
  std::int64_t code = 0;
  std::string description;

  static ZavloOwnerAuthenticationError localAuthentication(std::int64_t code, std::string description) {
    return {std::string(kLocalAuthenticationDomain), code, std::move(description)};
  }
  [[nodiscard]] bool isLocalAuthenticationError() const { return domain == kLocalAuthenticationDomain; }

  friend bool operator==(const ZavloOwnerAuthenticationError&, const ZavloOwnerAuthenticationError&) = default;
};

/// What the owner gave at a prompt that succeeded, for the key store to check: the secret
/// they typed, if any. Implementations keep the secret out of swap and core dumps where the
/// system allows, and wipe it when the proof goes.
class ZavloOwnerProof {
 public:
  ZavloOwnerProof() = default;
  ZavloOwnerProof(const ZavloOwnerProof&) = delete;
  ZavloOwnerProof& operator=(const ZavloOwnerProof&) = delete;
  virtual ~ZavloOwnerProof() = default;

  /// The secret's bytes (a password, a PIN); empty when the owner gave none (a fingerprint,
  /// a host that answers prompts itself without a secret).
  [[nodiscard]] virtual std::span<const std::uint8_t> secret() const = 0;
  /// True when an authority other than the key store (PAM) accepted the secret: only then
  /// does a store that refuses it mean that the secret changed since the key was made.
  [[nodiscard]] virtual bool verified() const = 0;
};

/// One owner-authentication context: asks whether a policy can be evaluated, prompts the
/// owner, and, once evaluated, holds the proof the owner gave for the key store.
///
/// Threading contract: every operation may be called from any thread. evaluatePolicy
/// returns at once and never throws; the reply runs exactly once, on an arbitrary thread
/// (never inline in the call, except with an error when the evaluation cannot start at
/// all), unless the context is destroyed first on a platform that cancels then.
class ZavloOwnerAuthenticationContext {
 public:
  using Reply = std::function<void(bool success, std::optional<ZavloOwnerAuthenticationError> error)>;

  ZavloOwnerAuthenticationContext() = default;
  ZavloOwnerAuthenticationContext(const ZavloOwnerAuthenticationContext&) = delete;
  ZavloOwnerAuthenticationContext& operator=(const ZavloOwnerAuthenticationContext&) = delete;
  virtual ~ZavloOwnerAuthenticationContext() = default;

  virtual bool canEvaluatePolicy(ZavloOwnerAuthenticationPolicy policy) = 0;
  /// The fallback button's title; the empty string hides the button.
  virtual void setLocalizedFallbackTitle(std::optional<std::string> title) = 0;
  /// The origin of the web page that asked for the next prompt, for the platform to show
  /// the owner apart from the reason, which the page wrote; empty when the host itself
  /// asks. Platforms that have no place to show it keep the default, which ignores it.
  // NOLINTNEXTLINE(performance-unnecessary-value-param): by value for the overrides that keep it
  virtual void setRequestingOrigin(std::string /*origin*/) {}
  virtual void evaluatePolicy(ZavloOwnerAuthenticationPolicy policy, const std::string& localizedReason,
                              Reply reply) = 0;
  /// An opaque digest of the enrolled biometrics; absent without usable biometrics.
  virtual std::optional<ZavloBytes> evaluatedPolicyDomainState() = 0;
  /// The proof of the evaluation that succeeded, handed out once: later calls, and calls
  /// before a success, answer null.
  virtual std::unique_ptr<ZavloOwnerProof> takeOwnerProof() = 0;
};
