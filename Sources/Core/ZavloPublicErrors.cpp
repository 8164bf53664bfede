#include "Core/ZavloPublicErrors.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>

namespace {

struct Row {
  ZavloPublicError error;
  std::string_view code;
  std::string_view message;
};

constexpr std::array kRows = {
    Row{ZavloPublicError::noViewController, "NO_VIEW_CONTROLLER", "ViewController is required but not provided"},
    Row{ZavloPublicError::sessionNotInitialized, "SESSION_NOT_INITIALIZED",
        "Session not initialized. Please call initAuth first."},
    Row{ZavloPublicError::invalidSnaUri, "INVALID_SNA_URI", "Invalid SNA URI provided"},
    Row{ZavloPublicError::cellularUnavailable, "SNA_CELLULAR_UNAVAILABLE",
        "No cellular network available. Please ensure cellular data is enabled."},
    Row{ZavloPublicError::notOnMobileData, "SNA_DEVICE_NOT_ON_MOBILE_DATA",
        "Not connected to mobile data. Please disable WiFi and use cellular network."},
    Row{ZavloPublicError::deviceNotSecure, "DEVICE_NOT_SECURE",
        "No screen lock is set on this device. Set a passcode or biometric and try again."},
    Row{ZavloPublicError::bindingUnsupported, "DEVICE_BINDING_UNSUPPORTED",
        "This device does not support device binding."},
    Row{ZavloPublicError::enrollFailed, "DEVICE_BINDING_ENROLL_FAILED", "Device binding enrollment failed."},
    Row{ZavloPublicError::invalidChallenge, "INVALID_CHALLENGE", "Invalid or empty challenge provided."},
    Row{ZavloPublicError::notEnrolled, "DEVICE_BINDING_NOT_ENROLLED",
        "Device is not enrolled. Please enroll before signing a challenge."},
    Row{ZavloPublicError::keyInvalidated, "DEVICE_BINDING_KEY_INVALIDATED",
        "Device binding key is no longer valid. Please enroll again."},
    Row{ZavloPublicError::signFailed, "DEVICE_BINDING_SIGN_FAILED", "Failed to sign the device binding challenge."},
    Row{ZavloPublicError::promptCancelled, "DEVICE_BINDING_USER_CANCELLED", "Device authentication was cancelled."},
    Row{ZavloPublicError::promptLockedOut, "DEVICE_BINDING_AUTH_FAILED",
        "Too many failed attempts. Unlock the device and try again."},
    Row{ZavloPublicError::promptFailed, "DEVICE_BINDING_AUTH_FAILED", "Device authentication failed."},
    Row{ZavloPublicError::invalidJsonConfiguration, "INVALID_JSON_CONFIGURATION",
        "Invalid JSON configuration for Zavlo Authentication SDK."},
};

struct PreflightRow {
  ZavloPreflightError error;
  ZavloPublicError reported;
};

constexpr std::array kPreflightRows = {
    PreflightRow{ZavloPreflightError::noCellularNetwork, ZavloPublicError::cellularUnavailable},
    PreflightRow{ZavloPreflightError::notOnMobileData, ZavloPublicError::notOnMobileData},
};

// A chain's words are its dictionary's; the exception upper-cases them, which changes
// only "sdk_error" here (and whatever a server wrote). An empty text: the failure's own.
struct ChainWords {
  std::string_view word;
  std::string_view description;
};
struct ChainRow {
  ZavloNetworkErrorKind kind;
  ChainWords words;
};

constexpr std::array kChainRows = {
    ChainRow{ZavloNetworkErrorKind::invalidRedirectURL, {"SNA_INVALID_REDIRECT", ""}},
    ChainRow{ZavloNetworkErrorKind::connectionFailed, {"SNA_CONNECTION_FAILED", ""}},
    ChainRow{ZavloNetworkErrorKind::connectionCantBeCreated, {"SNA_CONNECTION_FAILED", ""}},
    ChainRow{ZavloNetworkErrorKind::other, {"SNA_CELLULAR_REQUEST_FAILED", ""}},
    ChainRow{ZavloNetworkErrorKind::tooManyRedirects, {"SNA_TOO_MANY_REDIRECTS", "Too many redirects"}},
};
constexpr ChainWords kClientGone{"sdk_error", "Unable to carry on"};
constexpr std::string_view kServerWithoutDescription = "Unknown error";

// By LocalAuthentication code. A user fallback counts as a cancel, and a passcode missing
// at prompt time as unsupported (only the check before the prompt says "not secure").
struct PromptRow {
  std::int64_t code;
  std::string_view reason;
  ZavloPublicError reported;
};

constexpr std::array kPromptRows = {
    PromptRow{ZavloLAError::authenticationFailed, "AUTH_FAILED", ZavloPublicError::promptFailed},
    PromptRow{ZavloLAError::userCancel, "USER_CANCELLED", ZavloPublicError::promptCancelled},
    PromptRow{ZavloLAError::userFallback, "USER_CANCELLED", ZavloPublicError::promptCancelled},
    PromptRow{ZavloLAError::systemCancel, "USER_CANCELLED", ZavloPublicError::promptCancelled},
    PromptRow{ZavloLAError::appCancel, "USER_CANCELLED", ZavloPublicError::promptCancelled},
    PromptRow{ZavloLAError::passcodeNotSet, "PASSCODE_NOT_SET", ZavloPublicError::bindingUnsupported},
    PromptRow{ZavloLAError::biometryNotAvailable, "HARDWARE_UNAVAILABLE", ZavloPublicError::bindingUnsupported},
    PromptRow{ZavloLAError::biometryNotEnrolled, "NONE_ENROLLED", ZavloPublicError::bindingUnsupported},
    PromptRow{ZavloLAError::biometryLockout, "LOCKOUT", ZavloPublicError::promptLockedOut},
};
// Any other code, an error of another domain, or no error at all.
constexpr std::string_view kOtherPromptReason = "OTHER";
constexpr ZavloPublicError kOtherPromptError = ZavloPublicError::promptFailed;

// The tables are indexed by their enumeration; each row sits at its own value's place and
// the last value has a row.
template <class Rows, class Key>
constexpr bool complete(const Rows& rows, Key Rows::value_type::*key, Key last) {
  for (std::size_t i = 0; i < rows.size(); ++i) {
    if (rows[i].*key != static_cast<Key>(i)) return false;
  }
  return rows.size() == static_cast<std::size_t>(last) + 1;
}
static_assert(complete(kRows, &Row::error, ZavloPublicError::invalidJsonConfiguration));
static_assert(complete(kPreflightRows, &PreflightRow::error, ZavloPreflightError::notOnMobileData));
static_assert(complete(kChainRows, &ChainRow::kind, ZavloNetworkErrorKind::tooManyRedirects));

template <class Rows, class Key>
const typename Rows::value_type& rowOf(const Rows& rows, Key key) {
  return rows.at(static_cast<std::size_t>(key));
}

ZavloPublicErrors::ChainFailure chainFailure(const ChainWords& words, std::string message) {
  return {std::string(words.word), words.description.empty() ? std::move(message) : std::string(words.description)};
}

}  // namespace

ZavloAuthException ZavloPublicErrors::exception(ZavloPublicError error) {
  const auto& row = rowOf(kRows, error);
  return ZavloAuthException::failure(std::string(row.code), std::string(row.message));
}

ZavloAuthException ZavloPublicErrors::unsupportedMethod(const std::string& method) {
  return ZavloAuthException::failure("UNSUPPORTED_METHOD", "Unsupported method: " + method);
}

ZavloAuthException ZavloPublicErrors::preflight(ZavloPreflightError error) {
  return exception(rowOf(kPreflightRows, error).reported);
}

ZavloPublicErrors::ChainFailure ZavloPublicErrors::networkFailure(ZavloNetworkErrorKind kind, std::string message) {
  return chainFailure(rowOf(kChainRows, kind).words, std::move(message));
}

ZavloPublicErrors::ChainFailure ZavloPublicErrors::clientGone() { return chainFailure(kClientGone, {}); }

ZavloPublicErrors::ChainFailure ZavloPublicErrors::serverFailure(std::string word,
                                                                 std::optional<std::string> description) {
  return {std::move(word), description ? std::move(*description) : std::string(kServerWithoutDescription)};
}

ZavloAuthException ZavloPublicErrors::exception(const ChainFailure& failure) {
  std::string code = failure.word;
  std::transform(code.begin(), code.end(), code.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return ZavloAuthException::failure(std::move(code), failure.description);
}

ZavloPublicErrors::PromptFailure ZavloPublicErrors::promptFailure(
    const std::optional<ZavloOwnerAuthenticationError>& error) {
  if (!error || !error->isLocalAuthenticationError()) {
    return {exception(kOtherPromptError), std::string(kOtherPromptReason), std::nullopt};
  }
  const auto row = std::find_if(kPromptRows.begin(), kPromptRows.end(),
                                [code = error->code](const PromptRow& r) { return r.code == code; });
  if (row == kPromptRows.end()) return {exception(kOtherPromptError), std::string(kOtherPromptReason), error->code};
  return {exception(row->reported), std::string(row->reason), error->code};
}
