#pragma once

#include <cstddef>
#include <string_view>

/// How deeply JSON text nests, judged on the text itself before anything is parsed: every
/// reader that later walks a value recursively (serialising it, copying it, destroying it)
/// goes as deep as the value nests, so deep text is refused before a value is built.
namespace ZavloJsonDepth {

/// What one level of nesting is.
enum class Levels {
  /// Open arrays and objects: "1" is 0 deep, "[]" and {"a":1} 1, "[{}]" 2.
  containers,
  /// Values and keys, arrays and objects among them: "1" and "[]" are 1 deep, "[1]" and
  /// "[[]]" 2. One more than the depth nlohmann's parser gives a callback for the deepest
  /// event of the text.
  values,
};

/// Whether text nests more than limit levels deep. Brackets inside strings do not count
/// (escaped quotes included), nor does a closing bracket with nothing open. The whole
/// text is read; nlohmann's parser stops at a NUL byte outside a string, so callers that
/// judge what it parses pass the text before the first NUL. Any text is accepted: what is
/// not JSON is measured all the same.
bool exceeds(std::string_view text, std::size_t limit, Levels levels = Levels::containers);

}  // namespace ZavloJsonDepth
