#include "Core/ZavloAuthValidationUtils.hpp"

#include <cstdint>

#include "Core/ZavloUtf8.hpp"

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

// Length of the last well-formed sequence ending at the back of text, or 0.
std::size_t decodeBack(std::string_view text, char32_t& out) noexcept {
  for (std::size_t length = 1; length <= 4 && length <= text.size(); ++length) {
    const auto tail = text.substr(text.size() - length);
    if (ZavloUtf8::decodeFront(tail, out) == length) return length;
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
    const auto length = ZavloUtf8::decodeFront(input, c);
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
    const auto length = ZavloUtf8::decodeFront(text, ignored);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

std::string ZavloAuthValidationUtils::sanitizeString(std::string_view input) {
  const auto withoutScriptTags = removeAllIgnoringCase(trimWhitespaceAndNewlines(input), "<script>");
  return removeAllIgnoringCase(withoutScriptTags, "javascript:");
}
