#pragma once

#include <cstddef>
#include <string_view>

/// User-perceived characters (extended grapheme clusters, Unicode 14 rules, the rules the
/// library's mobile platform counts by).
class ZavloGraphemes {
 public:
  ZavloGraphemes() = delete;

  /// The number of user-perceived characters of UTF-8 text: "e" + U+0301 is one, a flag
  /// (two regional indicators) is one, CR LF is one. A byte that starts no well-formed
  /// sequence counts as one replacement character.
  static std::size_t count(std::string_view text) noexcept;
  /// The length in bytes of the first `clusters` user-perceived characters of text (all of
  /// it when it has no more): a cut there splits neither a character nor a UTF-8 sequence.
  static std::size_t prefixLength(std::string_view text, std::size_t clusters) noexcept;
};
