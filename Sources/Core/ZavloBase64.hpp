#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Standard base64 (the RFC 4648 alphabet with "+" and "/", "=" padding, no line breaks).
class ZavloBase64 {
 public:
  ZavloBase64() = delete;

  static std::string encode(const std::vector<std::uint8_t>& bytes);
  /// Absent unless text is canonical padded base64 of the standard alphabet.
  static std::optional<std::vector<std::uint8_t>> decode(std::string_view text);
};
