#include "Platform/Linux/Web/ZavloLinuxPageMessage.hpp"

#include <string>

#include "Core/ZavloJsonDepth.hpp"

namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The code unit of a \uXXXX escape starting at text[at], or -1.
int escapedUnit(std::string_view text, std::size_t at) {
  if (at + 6 > text.size() || text[at] != '\\' || text[at + 1] != 'u') return -1;
  int unit = 0;
  for (std::size_t k = at + 2; k < at + 6; ++k) {
    const int digit = hexValue(text[k]);
    if (digit < 0) return -1;
    unit = unit * 16 + digit;
  }
  return unit;
}

bool isHigh(int unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
bool isLow(int unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

// Rewrites every \uXXXX escape of an unpaired surrogate as \uFFFD; pairs stay.
std::string replaceLoneSurrogates(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    if (text[i] != '\\' || i + 1 >= text.size()) {
      out.push_back(text[i++]);
      continue;
    }
    const int unit = escapedUnit(text, i);
    if (unit < 0) {  // another escape: copy it whole so that "\\u" is not misread
      out.append(text.substr(i, 2));
      i += 2;
      continue;
    }
    if (isHigh(unit) && isLow(escapedUnit(text, i + 6))) {
      out.append(text.substr(i, 12));
      i += 12;
    } else if (isHigh(unit) || isLow(unit)) {
      out.append("\\uFFFD");
      i += 6;
    } else {
      out.append(text.substr(i, 6));
      i += 6;
    }
  }
  return out;
}

}  // namespace

std::optional<nlohmann::json> zavloParsePageMessage(std::string_view text) {
  if (ZavloJsonDepth::exceeds(text, kMaxPageMessageDepth)) return std::nullopt;
  auto value = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (value.is_discarded() && text.find("\\u") != std::string_view::npos) {
    value = nlohmann::json::parse(replaceLoneSurrogates(text), nullptr, false);
  }
  if (value.is_discarded()) return std::nullopt;
  return value;
}
