#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "Core/ZavloPublicErrors.hpp"
#include "Core/ZavloUrl.hpp"

/// Why one hop of the cellular chain failed. The message is for people.
struct ZavloNetworkError {
  using Kind = ZavloNetworkErrorKind;

  Kind kind = Kind::other;
  std::string message;  ///< empty for tooManyRedirects

  static ZavloNetworkError invalidRedirectURL(std::string m) { return {Kind::invalidRedirectURL, std::move(m)}; }
  static ZavloNetworkError connectionFailed(std::string m) { return {Kind::connectionFailed, std::move(m)}; }
  static ZavloNetworkError connectionCantBeCreated(std::string m) {
    return {Kind::connectionCantBeCreated, std::move(m)};
  }
  static ZavloNetworkError other(std::string m) { return {Kind::other, std::move(m)}; }
  /// Never produced (a chain has no redirect limit); its dictionary form is part of the
  /// conversion all the same.
  static ZavloNetworkError tooManyRedirects() { return {Kind::tooManyRedirects, {}}; }

  friend bool operator==(const ZavloNetworkError&, const ZavloNetworkError&) = default;
};

/// A final answer of one hop: its status and body bytes, if any.
struct ZavloConnectionResponse {
  std::int64_t status = 0;
  std::optional<std::string> body;

  friend bool operator==(const ZavloConnectionResponse&, const ZavloConnectionResponse&) = default;
};

/// Where the chain goes next. Cookies are never parsed, so they are always absent.
struct ZavloRedirectResult {
  std::optional<ZavloUrl> url;
  std::optional<std::vector<std::string>> cookies;
};

struct ZavloDataOK {
  ZavloConnectionResponse response;
};
struct ZavloDataErr {
  ZavloConnectionResponse response;
};

/// The outcome of one hop: err, dataOK, dataErr or follow (a redirect).
using ZavloConnectionResult = std::variant<ZavloNetworkError, ZavloDataOK, ZavloDataErr, ZavloRedirectResult>;

/// The client was gone when a hop's result reached the chain.
struct ZavloChainAbandoned {
  friend bool operator==(ZavloChainAbandoned, ZavloChainAbandoned) = default;
};

/// How a whole chain ended: a hop's error, an abandoned chain, or the final answer (the
/// last hop's status and body, 2xx or 4xx/5xx alike).
using ZavloChainOutcome = std::variant<ZavloNetworkError, ZavloChainAbandoned, ZavloConnectionResponse>;
