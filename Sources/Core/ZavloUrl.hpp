#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

/// A URL, parsed and resolved by libcurl's URL API (RFC 3986). Immutable. absoluteString
/// keeps the text as given when parsed, so that messages and telemetry show the caller's
/// own URL; a resolved reference carries the normalised result.
///
/// Besides absolute URLs, two forms libcurl would refuse or repair are URLs here, because
/// the client judges them itself: a scheme with no host ("http://", "http:x"), and a host
/// with no scheme ("//host/path", a reference that names its host). A URL without a host
/// carries only its text and scheme.
class ZavloUrl {
 public:
  /// A URL with any scheme, with or without a host, or "//host..." without a scheme; absent
  /// when the text does not parse as one (no scheme, blanks, a port out of range, invalid
  /// percent escapes...).
  static std::optional<ZavloUrl> parse(std::string_view text);
  /// Resolves a reference (absolute, or relative such as "/next?x=1") against base. A
  /// reference with a scheme is its own target, with or without a host.
  static std::optional<ZavloUrl> resolve(const ZavloUrl& base, std::string_view reference);

  [[nodiscard]] const std::string& absoluteString() const noexcept { return absolute_; }
  /// As written (a resolved reference takes its base's); empty for "//host...".
  [[nodiscard]] const std::string& scheme() const noexcept { return scheme_; }
  /// Without the brackets of an IPv6 literal; empty when the URL has none.
  [[nodiscard]] const std::string& host() const noexcept { return host_; }
  /// The explicit port, if the URL names one.
  [[nodiscard]] std::optional<std::uint16_t> port() const noexcept { return port_; }
  /// The path as written, percent escapes kept ("" when there is none).
  [[nodiscard]] const std::string& encodedPath() const noexcept { return encodedPath_; }
  /// The path with percent escapes decoded; absent when they decode to control bytes.
  [[nodiscard]] const std::optional<std::string>& decodedPath() const noexcept { return decodedPath_; }
  /// The query as written, without the "?"; absent when there is none.
  [[nodiscard]] const std::optional<std::string>& query() const noexcept { return query_; }

 private:
  ZavloUrl() = default;
  /// The parts of a handle that took a URL; the scheme is left for the caller to set.
  static ZavloUrl fromHandle(void* handle, std::string absolute);
  /// A libcurl handle holding this URL as parsing absolute_ would leave it, kept so that
  /// resolving against it skips that parse (a chain resolves every hop's redirect against
  /// the URL the one before gave); null when unknown. Shared by copies, never changed.
  std::shared_ptr<void> parsed_;
  /// What libcurl writes between the scheme and the path of this URL ("://host:port"),
  /// when known: a plain absolute path is then resolved by joining texts.
  /// Shared by the URLs resolved from it: copying a URL allocates no more for it.
  std::shared_ptr<const std::string> origin_;

  std::string absolute_;
  std::string scheme_;
  std::string host_;
  std::optional<std::uint16_t> port_;
  std::string encodedPath_;
  std::optional<std::string> decodedPath_;
  std::optional<std::string> query_;
};
