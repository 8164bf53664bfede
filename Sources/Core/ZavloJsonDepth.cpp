#include "Core/ZavloJsonDepth.hpp"

namespace ZavloJsonDepth {

bool exceeds(std::string_view text, std::size_t limit, Levels levels) {
  const bool valuesCount = levels == Levels::values;
  std::size_t open = 0;
  bool inString = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (inString) {
      if (c == '\\') {
        ++i;  // the escaped character, a quote or a backslash among them
      } else if (c == '"') {
        inString = false;
      }
      continue;
    }
    switch (c) {
      case '[':
      case '{':
        // Stops at the first level past the limit: a hostile text costs no more than that.
        if (++open > limit) return true;
        break;
      case ']':
      case '}':
        if (open > 0) --open;
        break;
      case ',':
      case ':':
      case ' ':
      case '\t':
      case '\n':
      case '\r':
        break;
      default:
        // A string, number or literal: one level inside whatever is open.
        if (c == '"') inString = true;
        if (valuesCount && open + 1 > limit) return true;
        break;
    }
  }
  return false;
}

}  // namespace ZavloJsonDepth
