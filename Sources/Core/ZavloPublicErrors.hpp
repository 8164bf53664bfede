#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Core/ZavloAuthException.hpp"
#include "Platform/ZavloOwnerAuthentication.hpp"

/// Why the cellular path check failed (ZavloCellularPathChecker::PreflightError).
enum class ZavloPreflightError { noCellularNetwork, notOnMobileData };

/// Why a hop of the cellular chain failed (ZavloNetworkError::Kind).
enum class ZavloNetworkErrorKind {
  invalidRedirectURL,
  connectionFailed,
  connectionCantBeCreated,
  other,
  tooManyRedirects
};

/// The failures the public surface reports under a fixed code and message.
enum class ZavloPublicError {
  noViewController,
  sessionNotInitialized,
  invalidSnaUri,
  cellularUnavailable,
  notOnMobileData,
  deviceNotSecure,
  bindingUnsupported,
  enrollFailed,
  invalidChallenge,
  notEnrolled,
  keyInvalidated,
  signFailed,
  promptCancelled,
  promptLockedOut,
  promptFailed,
  invalidJsonConfiguration,
};

/// Every code and message that leaves the library, and which internal failure becomes
/// which: one table, so that no two places can disagree about a word.
namespace ZavloPublicErrors {

ZavloAuthException exception(ZavloPublicError error);
ZavloAuthException preflight(ZavloPreflightError error);
/// A page named a method the bridge does not offer.
ZavloAuthException unsupportedMethod(const std::string& method);

/// A failed chain as its dictionary states it: the word under "error" and the text under
/// "error_description". A server's JSON answer may bring its own word.
struct ChainFailure {
  std::string word;
  std::string description;
};
ChainFailure networkFailure(ZavloNetworkErrorKind kind, std::string message);
/// The client went away before its chain could finish.
ChainFailure clientGone();
/// A word a server put in its answer; without a description of its own it gets a stock one.
ChainFailure serverFailure(std::string word, std::optional<std::string> description);
/// The exception for a chain's failure: its word in upper case, whoever wrote it.
ZavloAuthException exception(const ChainFailure& failure);

/// A failed owner-authentication prompt: the exception, the reason word of its telemetry,
/// and the LocalAuthentication code when the error carries one.
struct PromptFailure {
  ZavloAuthException exception;
  std::string reason;
  std::optional<std::int64_t> localAuthenticationCode;
};
PromptFailure promptFailure(const std::optional<ZavloOwnerAuthenticationError>& error);

}  // namespace ZavloPublicErrors
