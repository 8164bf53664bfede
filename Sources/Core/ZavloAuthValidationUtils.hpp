#pragma once

#include <string>
#include <string_view>

/// Cleaning of identifiers and URLs received from hosts and pages.
class ZavloAuthValidationUtils {
 public:
  ZavloAuthValidationUtils() = delete;

  /// Trims Unicode white space and line breaks from both ends, then removes every
  /// "<script>" and then every "javascript:", ignoring letter case. Each removal is one
  /// pass, not repeated. Accepts any bytes, including invalid UTF-8, and never fails.
  static std::string sanitizeString(std::string_view input);

  /// The trimming step alone (also used where only trimming is wanted).
  static std::string_view trimWhitespaceAndNewlines(std::string_view input) noexcept;

  /// Whether text is well-formed UTF-8: no overlong forms, no encoded surrogates, nothing
  /// above U+10FFFF, no truncated sequence. NUL bytes are well-formed.
  static bool isWellFormedUtf8(std::string_view text) noexcept;
};
