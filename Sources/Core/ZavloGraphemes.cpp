#include "Core/ZavloGraphemes.hpp"

#include <algorithm>
#include <cstdint>
#include <iterator>

#include "Core/ZavloUtf8.hpp"

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
  if (const auto length = ZavloUtf8::decodeFront(text, out)) return length;
  out = 0xFFFD;
  return 1;
}

bool isControl(GraphemeClass c) noexcept {
  return c == GraphemeClass::control || c == GraphemeClass::cr || c == GraphemeClass::lf;
}

// Whether a user-perceived character starts at current, the rules in their order.
bool isBoundary(GraphemeClass previous, GraphemeClass current, bool first, std::size_t regionalIndicatorRun,
                bool zwjAfterPictographic) noexcept {
  using G = GraphemeClass;
  if (first) return true;
  if (previous == G::cr && current == G::lf) return false;
  if (isControl(previous) || isControl(current)) return true;
  if (previous == G::l && (current == G::l || current == G::v || current == G::lv || current == G::lvt)) return false;
  if ((previous == G::lv || previous == G::v) && (current == G::v || current == G::t)) return false;
  if ((previous == G::lvt || previous == G::t) && current == G::t) return false;
  if (current == G::extend || current == G::zwj || current == G::spacingMark || previous == G::prepend) return false;
  if (previous == G::zwj && current == G::extendedPictographic && zwjAfterPictographic) return false;
  if (previous == G::regionalIndicator && current == G::regionalIndicator) {
    return regionalIndicatorRun % 2 == 0;  // pairs: a flag ends after its second half
  }
  return true;
}

// Calls atBoundary with the byte offset where each user-perceived character starts, until it
// answers false.
template <class AtBoundary>
void forEachBoundary(std::string_view text, AtBoundary atBoundary) noexcept {
  using G = GraphemeClass;
  G previous = G::other;
  std::size_t regionalIndicatorRun = 0;  // regional indicators in a row, ending at previous
  bool pictographicRun = false;          // previous is an emoji, or its Extend after one
  bool zwjAfterPictographic = false;     // previous is a ZWJ that follows such a run
  bool first = true;

  for (std::size_t offset = 0; offset < text.size();) {
    char32_t c = 0;
    const auto length = decode(text.substr(offset), c);
    const G current = classOf(c);

    const bool boundary = isBoundary(previous, current, first, regionalIndicatorRun, zwjAfterPictographic);
    if (boundary && !atBoundary(offset)) return;

    regionalIndicatorRun = current == G::regionalIndicator ? regionalIndicatorRun + 1 : 0;
    zwjAfterPictographic = current == G::zwj && pictographicRun;
    pictographicRun = current == G::extendedPictographic || (current == G::extend && pictographicRun);
    previous = current;
    first = false;
    offset += length;
  }
}

}  // namespace

std::size_t ZavloGraphemes::count(std::string_view text) noexcept {
  std::size_t clusters = 0;
  forEachBoundary(text, [&](std::size_t) {
    ++clusters;
    return true;
  });
  return clusters;
}

std::size_t ZavloGraphemes::prefixLength(std::string_view text, std::size_t clusters) noexcept {
  std::size_t length = text.size();
  std::size_t seen = 0;
  forEachBoundary(text, [&](std::size_t offset) {
    if (seen++ < clusters) return true;
    length = offset;
    return false;
  });
  return length;
}
