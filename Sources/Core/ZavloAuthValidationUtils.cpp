#include "Core/ZavloAuthValidationUtils.hpp"

#include <cstdint>

namespace {

bool isWhitespaceOrNewline(char32_t c) noexcept {
  switch (c) {
    case 0x09:
    case 0x0A:
    case 0x0B:
    case 0x0C:
    case 0x0D:
    case 0x20:
    case 0x85:
    case 0xA0:
    case 0x1680:
    case 0x2028:
    case 0x2029:
    case 0x202F:
    case 0x205F:
    case 0x3000:
      return true;
    default:
      return c >= 0x2000 && c <= 0x200A;
  }
}

// Decodes one well-formed UTF-8 sequence at the front of text. Returns its length, or 0
// when the bytes there are not a valid sequence (those are never white space).
std::size_t decodeFront(std::string_view text, char32_t& out) noexcept {
  const auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
  const std::uint8_t lead = byte(0);
  std::size_t length = 0;
  char32_t value = 0;
  if (lead < 0x80) {
    out = lead;
    return 1;
  }
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

// Length of the last well-formed sequence ending at the back of text, or 0.
std::size_t decodeBack(std::string_view text, char32_t& out) noexcept {
  for (std::size_t length = 1; length <= 4 && length <= text.size(); ++length) {
    const auto tail = text.substr(text.size() - length);
    if (decodeFront(tail, out) == length) return length;
  }
  return 0;
}

// Matches pattern (lower-case ASCII) at the front of text, ignoring case. The long s
// (U+017F) folds to "s" under Unicode case folding, so it matches an "s" too.
std::size_t matchIgnoringCase(std::string_view text, std::string_view pattern) noexcept {
  std::size_t at = 0;
  for (const char expected : pattern) {
    if (at >= text.size()) return 0;
    const char c = text[at];
    const char lower = (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
    if (lower == expected) {
      ++at;
    } else if (expected == 's' && text.substr(at, 2) == "\xC5\xBF") {
      at += 2;
    } else {
      return 0;
    }
  }
  return at;
}

std::string removeAllIgnoringCase(std::string_view text, std::string_view pattern) {
  std::string out;
  out.reserve(text.size());
  std::size_t at = 0;
  while (at < text.size()) {
    if (const auto matched = matchIgnoringCase(text.substr(at), pattern)) {
      at += matched;
    } else {
      out.push_back(text[at++]);
    }
  }
  return out;
}

}  // namespace

std::string_view ZavloAuthValidationUtils::trimWhitespaceAndNewlines(std::string_view input) noexcept {
  char32_t c = 0;
  while (!input.empty()) {
    const auto length = decodeFront(input, c);
    if (length == 0 || !isWhitespaceOrNewline(c)) break;
    input.remove_prefix(length);
  }
  while (!input.empty()) {
    const auto length = decodeBack(input, c);
    if (length == 0 || !isWhitespaceOrNewline(c)) break;
    input.remove_suffix(length);
  }
  return input;
}

bool ZavloAuthValidationUtils::isWellFormedUtf8(std::string_view text) noexcept {
  char32_t ignored = 0;
  while (!text.empty()) {
    const auto length = decodeFront(text, ignored);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

std::string ZavloAuthValidationUtils::sanitizeString(std::string_view input) {
  const auto withoutScriptTags = removeAllIgnoringCase(trimWhitespaceAndNewlines(input), "<script>");
  return removeAllIgnoringCase(withoutScriptTags, "javascript:");
}
