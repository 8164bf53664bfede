#include "Core/ZavloBase64.hpp"

#include <array>

namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int valueOf(char c) noexcept {
  const auto found = kAlphabet.find(c);
  return found == std::string_view::npos ? -1 : static_cast<int>(found);
}

}  // namespace

std::string ZavloBase64::encode(const std::vector<std::uint8_t>& bytes) {
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  std::size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const std::uint32_t group = (std::uint32_t{bytes[i]} << 16) | (std::uint32_t{bytes[i + 1]} << 8) | bytes[i + 2];
    for (int shift = 18; shift >= 0; shift -= 6) text.push_back(kAlphabet[(group >> shift) & 0x3F]);
  }
  const std::size_t rest = bytes.size() - i;
  if (rest > 0) {
    std::uint32_t group = std::uint32_t{bytes[i]} << 16;
    if (rest == 2) group |= std::uint32_t{bytes[i + 1]} << 8;
    text.push_back(kAlphabet[(group >> 18) & 0x3F]);
    text.push_back(kAlphabet[(group >> 12) & 0x3F]);
    text.push_back(rest == 2 ? kAlphabet[(group >> 6) & 0x3F] : '=');
    text.push_back('=');
  }
  return text;
}

std::optional<std::vector<std::uint8_t>> ZavloBase64::decode(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  std::vector<std::uint8_t> bytes;
  bytes.reserve(text.size() / 4 * 3);
  for (std::size_t at = 0; at < text.size(); at += 4) {
    const bool last = at + 4 == text.size();
    const std::size_t padding = last ? (text[at + 3] == '=') + (text[at + 2] == '=' && text[at + 3] == '=') : 0;
    std::array<int, 4> values{};
    for (std::size_t k = 0; k < 4 - padding; ++k) {
      values[k] = valueOf(text[at + k]);
      if (values[k] < 0) return std::nullopt;
    }
    const std::uint32_t group = (static_cast<std::uint32_t>(values[0]) << 18) |
                                (static_cast<std::uint32_t>(values[1]) << 12) |
                                (static_cast<std::uint32_t>(values[2]) << 6) | static_cast<std::uint32_t>(values[3]);
    // Canonical only: the bits a padded group leaves over must be zero.
    if ((padding == 1 && (group & 0xFF) != 0) || (padding == 2 && (group & 0xFFFF) != 0)) return std::nullopt;
    bytes.push_back(static_cast<std::uint8_t>(group >> 16));
    if (padding < 2) bytes.push_back(static_cast<std::uint8_t>(group >> 8));
    if (padding < 1) bytes.push_back(static_cast<std::uint8_t>(group));
  }
  return bytes;
}
