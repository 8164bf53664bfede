#include "Core/ZavloPromptText.hpp"

#include "Core/ZavloGraphemes.hpp"
#include "Core/ZavloUtf8.hpp"

namespace {

constexpr char kEscape = 0x1B;
constexpr unsigned char kBell = 0x07;
constexpr std::string_view kReplacement = "\xEF\xBF\xBD";     // U+FFFD
constexpr std::string_view kStringTerminatorC1 = "\xC2\x9C";  // U+009C
constexpr std::string_view kEllipsis = "\xE2\x80\xA6";        // U+2026
constexpr std::string_view kStringSequences = "]PX^_";        // OSC, DCS, SOS, PM, APC

bool isRemoved(char32_t c) {
  return c < 0x20 || (c >= 0x7F && c <= 0x9F) || (c >= 0x202A && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069) ||
         c == 0x2028 || c == 0x2029;
}

// The length of the escape sequence at the front of text, which starts with ESC. A
// sequence cut short by a byte that cannot continue it ends before that byte; one that
// the text ends inside takes the rest of the text, as a terminal would swallow it.
std::size_t escapeLength(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  if (text.size() < 2) return text.size();
  if (byte(1) == '[') {
    std::size_t end = 2;
    while (end < text.size() && byte(end) >= 0x20 && byte(end) <= 0x3F) ++end;  // parameters, intermediates
    if (end < text.size() && byte(end) >= 0x40 && byte(end) <= 0x7E) ++end;     // the final byte
    return end;
  }
  if (kStringSequences.find(text[1]) != std::string_view::npos) {
    for (std::size_t end = 2; end < text.size(); ++end) {
      if (byte(end) == kBell) return end + 1;
      if (text[end] == kEscape && end + 1 < text.size() && text[end + 1] == '\\') return end + 2;
      if (text.substr(end).starts_with(kStringTerminatorC1)) return end + kStringTerminatorC1.size();
    }
    return text.size();
  }
  std::size_t end = 1;
  while (end < text.size() && byte(end) >= 0x20 && byte(end) <= 0x2F) ++end;  // intermediates
  if (end < text.size() && byte(end) >= 0x30 && byte(end) <= 0x7E) ++end;     // the final byte
  return end;
}

std::string cleaned(std::string_view text) {
  std::string clean;
  clean.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    if (text[at] == kEscape) {
      at += escapeLength(text.substr(at));
      continue;
    }
    char32_t c = 0;
    const auto length = ZavloUtf8::decodeFront(text.substr(at), c);
    if (length == 0) {
      // A lone 0x9B would be CSI to a terminal that reads 8-bit controls.
      clean += kReplacement;
      ++at;
      continue;
    }
    if (!isRemoved(c)) clean += text.substr(at, length);
    at += length;
  }
  return clean;
}

}  // namespace

std::string ZavloPromptText::safe(std::string_view text, std::size_t longest) {
  auto clean = cleaned(text);
  if (ZavloGraphemes::count(clean) <= longest) return clean;
  if (longest == 0) return {};
  clean.resize(ZavloGraphemes::prefixLength(clean, longest - 1));
  clean += kEllipsis;
  return clean;
}

std::string ZavloPromptText::safeOrigin(std::string_view origin, std::size_t longest) {
  auto clean = cleaned(origin);
  const auto characters = ZavloGraphemes::count(clean);
  if (characters <= longest) return clean;
  if (longest == 0) return {};
  const auto start = ZavloGraphemes::prefixLength(clean, characters - (longest - 1));
  return std::string(kEllipsis) + clean.substr(start);
}
