// Texts shown to the device owner: what a page could use to act on the terminal, forge a
// line or reorder the prompt goes; a long text is cut between characters.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Core/ZavloPromptText.hpp"

using namespace std::string_literals;

TEST(ZavloPromptText, RemovesWhatCouldActOnTheTerminalOrTheLayout) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"Confirm the payment", "Confirm the payment"},
      {"\u00E9 \u4E2D\u6587 \U0001F44D\U0001F3FD e\u0301", "\u00E9 \u4E2D\u6587 \U0001F44D\U0001F3FD e\u0301"},
      // newline injection: no forged line of its own
      {"Title\nAsked by the page at https://bank.example", "TitleAsked by the page at https://bank.example"},
      {"a\0b\tc\rd\x7f"
       "e\x1f"s,
       "abcde"},
      // CSI, whole
      {"a\x1b[31mred\x1b[0m", "ared"},
      {"\x1b[2J\x1b[1;1HPay\x1b[?25l", "Pay"},
      {"a\x1b[12", "a"},
      {"a\x1b[1\nb", "ab"},
      // OSC and the other string sequences, up to BEL or ST, or the end
      {"x\x1b]0;window title\x07y", "xy"},
      {"\x1b]8;;https://evil.example\x1b\\bank\x1b]8;;\x1b\\", "bank"},
      {"x\x1bPq#0\xc2\x9cy", "xy"},
      {"ok\x1b]0;the rest", "ok"},
      // other ESC sequences, and a lone ESC
      {"a\x1b"
       "cb",
       "ab"},
      {"a\x1b(Bb\x1b", "ab"},
      {"a\x1b\xc3\xa9", "a\u00E9"},
      // C1 controls as code points, and CSI as the raw byte 0x9B (not UTF-8)
      {"a\u009B31mb\u0085c\u009D0;t\u009C", "a31mbc0;t"},
      {"a\x9B"
       "31mb",
       "a\uFFFD31mb"},
      // bidirectional overrides and isolates, line and paragraph separators
      {"pay \u202Egnp.exe\u202C \u202A\u202B\u202D", "pay gnp.exe "},
      {"\u2066x\u2067y\u2068z\u2069", "xyz"},
      {"a\u2028b\u2029c", "abc"},
      // each ill-formed byte becomes U+FFFD: overlong, surrogate, truncated
      {"\xC0\xAF|\xED\xA0\x80|\xE2\x82", "\uFFFD\uFFFD|\uFFFD\uFFFD\uFFFD|\uFFFD\uFFFD"},
  };
  for (const auto& [text, expected] : cases) {
    EXPECT_EQ(ZavloPromptText::safe(text), expected) << testing::PrintToString(text);
  }
}

TEST(ZavloPromptText, CutsALongTextBetweenCharactersWithAnEllipsis) {
  struct Case {
    std::string text;
    std::size_t longest;
    std::string expected;
  };
  const std::vector<Case> cases = {
      {"abcdef", 4, "abc\u2026"},
      {"abcd", 4, "abcd"},
      {"ab\x1b[31mcd\n", 4, "abcd"},  // what is removed does not count
      {"\u00E9\u00E9\u00E9\u00E9\u00E9", 3, "\u00E9\u00E9\u2026"},
      {"e\u0301e\u0301e\u0301", 2, "e\u0301\u2026"},
      {"\U0001F44D\U0001F3FD\U0001F44D\U0001F3FD\U0001F44D\U0001F3FD", 2, "\U0001F44D\U0001F3FD\u2026"},
      {"\U0001F1EB\U0001F1F7\U0001F1E9\U0001F1EA\U0001F1EE\U0001F1F9", 3,
       "\U0001F1EB\U0001F1F7\U0001F1E9\U0001F1EA\U0001F1EE\U0001F1F9"},  // six code points, three flags
      {"\U0001F1EB\U0001F1F7\U0001F1E9\U0001F1EA\U0001F1EE\U0001F1F9", 2, "\U0001F1EB\U0001F1F7\u2026"},
      {std::string(ZavloPromptText::kLongest, 'x'), ZavloPromptText::kLongest,
       std::string(ZavloPromptText::kLongest, 'x')},
      {std::string(250, 'x'), ZavloPromptText::kLongest, std::string(ZavloPromptText::kLongest - 1, 'x') + "\u2026"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ZavloPromptText::safe(c.text, c.longest), c.expected) << c.text << " " << c.longest;
  }
  EXPECT_EQ(ZavloPromptText::safe(std::string(250, 'x')), cases.back().expected) << "the default cap";
  EXPECT_EQ(ZavloPromptText::safe(cases.back().expected), cases.back().expected) << "a cut text stays as it is";
}

TEST(ZavloPromptText, ALongOriginKeepsTheEndThatNamesTheSite) {
  const auto longOrigin = "https://bank.example." + std::string(200, 'a') + ".evil.example";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"https://a.example:8443", "https://a.example:8443"},
      {"null", "null"},
      {"https://a.example\x1b[2K\n", "https://a.example"},
      {longOrigin, "\u2026" + longOrigin.substr(longOrigin.size() - (ZavloPromptText::kLongest - 1))},
  };
  for (const auto& [origin, expected] : cases) {
    EXPECT_EQ(ZavloPromptText::safeOrigin(origin), expected) << testing::PrintToString(origin);
  }
}
