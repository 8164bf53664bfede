#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// An absolute URL, parsed and resolved by libcurl's URL API (RFC 3986). Immutable.
/// absoluteString keeps the text as given when parsed, so that messages and telemetry
/// show the caller's own URL; a resolved reference carries the normalised result.
class ZavloUrl {
 public:
  /// An absolute URL with any scheme, or absent when the text does not parse as one
  /// (no scheme, blanks, a port out of range, invalid percent escapes...).
  static std::optional<ZavloUrl> parse(std::string_view text);
  /// Resolves a reference (absolute, or relative such as "/next?x=1") against base.
  static std::optional<ZavloUrl> resolve(const ZavloUrl& base, std::string_view reference);

  [[nodiscard]] const std::string& absoluteString() const noexcept { return absolute_; }
  /// Lower case, as the URL API normalises it.
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
  static std::optional<ZavloUrl> fromHandle(void* handle, std::string absolute);

  std::string absolute_;
  std::string scheme_;
  std::string host_;
  std::optional<std::uint16_t> port_;
  std::string encodedPath_;
  std::optional<std::string> decodedPath_;
  std::optional<std::string> query_;
};
