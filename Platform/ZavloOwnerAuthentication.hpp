#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/ZavloKeychain.hpp"

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

/// One owner-authentication context: asks whether a policy can be evaluated, prompts the
/// owner, and, once evaluated, lets keys be used without prompting again.
///
/// Threading contract: every operation may be called from any thread. evaluatePolicy
/// returns at once; the reply runs exactly once, on an arbitrary thread (never inline in
/// the call), unless the context is destroyed first on a platform that cancels then.
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
  virtual void evaluatePolicy(ZavloOwnerAuthenticationPolicy policy, const std::string& localizedReason,
                              Reply reply) = 0;
  /// An opaque digest of the enrolled biometrics; absent without usable biometrics.
  virtual std::optional<ZavloBytes> evaluatedPolicyDomainState() = 0;
  /// True once an evaluation of this context has succeeded.
  [[nodiscard]] virtual bool isAuthenticated() const = 0;
};
