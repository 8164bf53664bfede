#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace ZavloUtf8 {

/// Decodes the well-formed UTF-8 sequence at the front of text into out and returns its
/// length; 0 (out untouched) for an empty text, a truncated, overlong or surrogate
/// sequence, a value past U+10FFFF, or a byte that cannot start a sequence.
inline std::size_t decodeFront(std::string_view text, char32_t& out) noexcept {
  if (text.empty()) return 0;
  const auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
  const std::uint8_t lead = byte(0);
  if (lead < 0x80) {
    out = lead;
    return 1;
  }
  std::size_t length = 0;
  char32_t value = 0;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
    value = lead & 0x1F;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    value = lead & 0x0F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    value = lead & 0x07;
  } else {
    return 0;
  }
  if (text.size() < length) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
    value = (value << 6) | (byte(i) & 0x3F);
  }
  const bool overlong = (length == 3 && value < 0x800) || (length == 4 && value < 0x10000);
  if (overlong || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return 0;
  out = value;
  return length;
}

}  // namespace ZavloUtf8
