#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// Text that others wrote (a page's prompt texts, its origin) made safe to show the device
/// owner, on a terminal or in a dialog: nothing in it can move the cursor, recolour or
/// clear the screen, start a line of its own, or reorder what is shown around it.
class ZavloPromptText {
 public:
  ZavloPromptText() = delete;

  /// How many user-perceived characters a shown text keeps at most, the ellipsis included.
  static constexpr std::size_t kLongest = 200;

  /// text without C0 controls (line feeds and tabs too), DEL and C1 controls; without whole
  /// escape sequences: CSI up to its final byte, OSC and the other string sequences (DCS,
  /// SOS, PM, APC) up to BEL or ST, or to the end when unterminated, and any other ESC
  /// sequence; without the bidirectional embeddings, overrides and isolates (U+202A-U+202E,
  /// U+2066-U+2069) and the line and paragraph separators (U+2028, U+2029). Each byte that
  /// is not part of well-formed UTF-8 becomes U+FFFD. A text left longer than longest
  /// keeps its first longest - 1 characters, then "…".
  static std::string safe(std::string_view text, std::size_t longest = kLongest);

  /// As safe, but an origin too long keeps its end, after "…": the end names the site.
  static std::string safeOrigin(std::string_view origin, std::size_t longest = kLongest);
};
