#include "Core/ZavloGraphemes.hpp"

#include <algorithm>
#include <cstdint>
#include <iterator>

namespace {

enum class GraphemeClass : std::uint8_t {
  other,
  cr,
  lf,
  control,
  extend,
  zwj,
  regionalIndicator,
  prepend,
  spacingMark,
  l,
  v,
  t,
  lv,
  lvt,
  extendedPictographic,
};

struct Range {
  char32_t first;
  char32_t last;
  GraphemeClass graphemeClass;
};

constexpr Range kRanges[] = {
#include "Core/ZavloGraphemeBreakTable.inc"
};

GraphemeClass classOf(char32_t c) noexcept {
  // Hangul syllables: LV every 28th code point from U+AC00, LVT the others.
  if (c >= 0xAC00 && c <= 0xD7A3) return (c - 0xAC00) % 28 == 0 ? GraphemeClass::lv : GraphemeClass::lvt;
  const auto after = std::upper_bound(std::begin(kRanges), std::end(kRanges), c,
                                      [](char32_t value, const Range& range) { return value < range.first; });
  if (after == std::begin(kRanges)) return GraphemeClass::other;
  const auto& range = *std::prev(after);
  return c <= range.last ? range.graphemeClass : GraphemeClass::other;
}

// Decodes one code point at the front of text; an ill-formed byte decodes as U+FFFD, one byte long.
std::size_t decode(std::string_view text, char32_t& out) noexcept {
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
  }
  bool valid = length != 0 && text.size() >= length;
  for (std::size_t i = 1; valid && i < length; ++i) {
    valid = (byte(i) & 0xC0) == 0x80;
    value = (value << 6) | (byte(i) & 0x3F);
  }
  if (valid) {
    const bool overlong = (length == 3 && value < 0x800) || (length == 4 && value < 0x10000);
    valid = !overlong && value <= 0x10FFFF && !(value >= 0xD800 && value <= 0xDFFF);
  }
  if (!valid) {
    out = 0xFFFD;
    return 1;
  }
  out = value;
  return length;
}

bool isControl(GraphemeClass c) noexcept {
  return c == GraphemeClass::control || c == GraphemeClass::cr || c == GraphemeClass::lf;
}

}  // namespace

std::size_t ZavloGraphemes::count(std::string_view text) noexcept {
  using G = GraphemeClass;
  std::size_t clusters = 0;
  G previous = G::other;
  std::size_t regionalIndicatorRun = 0;  // regional indicators in a row, ending at previous
  bool pictographicRun = false;          // previous is an emoji, or its Extend after one
  bool zwjAfterPictographic = false;     // previous is a ZWJ that follows such a run
  bool first = true;

  while (!text.empty()) {
    char32_t c = 0;
    text.remove_prefix(decode(text, c));
    const G current = classOf(c);

    bool boundary = true;
    if (first) {
      boundary = true;
    } else if (previous == G::cr && current == G::lf) {
      boundary = false;
    } else if (isControl(previous) || isControl(current)) {
      boundary = true;
    } else if (previous == G::l && (current == G::l || current == G::v || current == G::lv || current == G::lvt)) {
      boundary = false;
    } else if ((previous == G::lv || previous == G::v) && (current == G::v || current == G::t)) {
      boundary = false;
    } else if ((previous == G::lvt || previous == G::t) && current == G::t) {
      boundary = false;
    } else if (current == G::extend || current == G::zwj || current == G::spacingMark || previous == G::prepend) {
      boundary = false;
    } else if (previous == G::zwj && current == G::extendedPictographic && zwjAfterPictographic) {
      boundary = false;
    } else if (previous == G::regionalIndicator && current == G::regionalIndicator) {
      boundary = regionalIndicatorRun % 2 == 0;  // pairs: a flag ends after its second half
    }
    if (boundary) ++clusters;

    regionalIndicatorRun = current == G::regionalIndicator ? regionalIndicatorRun + 1 : 0;
    zwjAfterPictographic = current == G::zwj && pictographicRun;
    pictographicRun = current == G::extendedPictographic || (current == G::extend && pictographicRun);
    previous = current;
    first = false;
  }
  return clusters;
}
