#include <gtest/gtest.h>

#include <array>
#include <nlohmann/json.hpp>

#include "Core/ZavloAuthValidationUtils.hpp"

namespace {
std::string sanitize(std::string_view text) { return ZavloAuthValidationUtils::sanitizeString(text); }
}  // namespace

TEST(ZavloAuthValidationUtils, TrimsUnicodeWhitespaceAndLineBreaks) {
  EXPECT_EQ(sanitize("  abc\n"), "abc");
  EXPECT_EQ(sanitize("\t\r\n \v\f"), "");
  EXPECT_EQ(sanitize(""), "");
  // No-break space, ideographic space, line separator, next line.
  EXPECT_EQ(sanitize("\xC2\xA0\xE3\x80\x80x y\xE2\x80\xA8\xC2\x85"), "x y");
  // A zero-width space is not white space.
  EXPECT_EQ(sanitize("\xE2\x80\x8Bx"), "\xE2\x80\x8Bx");
}

TEST(ZavloAuthValidationUtils, RemovesScriptTagsAndSchemeIgnoringCase) {
  EXPECT_EQ(sanitize(" a<SCRIPT>b "), "ab");
  EXPECT_EQ(sanitize("<SCRIPT>x"), "x");
  EXPECT_EQ(sanitize("JavaScript:alert(1)"), "alert(1)");
  EXPECT_EQ(sanitize("<script>javascript:<ScRiPt>x"), "x");
  // Case folding maps the long s to "s".
  EXPECT_EQ(sanitize("<\xC5\xBF"
                     "cript>x"),
            "x");
  EXPECT_EQ(sanitize("<scrip>t"), "<scrip>t");
}

TEST(ZavloAuthValidationUtils, EachRemovalIsOnePassOnly) {
  EXPECT_EQ(sanitize("<scr<script>ipt>"), "<script>");
  EXPECT_EQ(sanitize("javajavascript:script:"), "javascript:");
  // Scheme removal runs after tag removal, so it can expose a tag that stays.
  EXPECT_EQ(sanitize("<scrjavascript:ipt>"), "<script>");
  // Removing a tag can expose the scheme, which the second pass then removes.
  EXPECT_EQ(sanitize("java<script>script:x"), "x");
}

TEST(ZavloAuthValidationUtils, AcceptsInvalidUtf8WithoutLosingBytes) {
  EXPECT_EQ(sanitize("\xff<script>\xc3"), "\xff\xc3");
  EXPECT_EQ(sanitize(" \xed\xa0\x80 "), "\xed\xa0\x80");  // an encoded surrogate is not white space
  EXPECT_EQ(sanitize(std::string("\0a\0", 3)), std::string("\0a\0", 3));
  EXPECT_EQ(sanitize("\xe3\x80"), "\xe3\x80");  // truncated sequence at the end
}

// The JSON library's strict serialiser is the reference: where a text was judged by it
// before, the answer must not change.
TEST(ZavloAuthValidationUtils, WellFormedUtf8AgreesWithTheStrictJsonSerialiser) {
  const auto serialises = [](const std::string& text) {
    try {
      (void)nlohmann::json(text).dump();
      return true;
    } catch (const nlohmann::json::exception&) {
      return false;
    }
  };
  const auto agree = [&](const std::string& text) {
    const bool expected = serialises(text);
    EXPECT_EQ(ZavloAuthValidationUtils::isWellFormedUtf8(text), expected) << ::testing::PrintToString(text);
    return expected;
  };
  std::size_t wellFormed = 0;
  for (int first = 0; first < 256; ++first) {
    for (int second = 0; second < 256; ++second) {
      wellFormed += agree({static_cast<char>(first), static_cast<char>(second)});
    }
  }
  EXPECT_EQ(wellFormed, 128U * 128U + 30U * 64U);  // two ASCII bytes, or one two-byte sequence
  // Longer sequences: every lead byte with the continuation values at each range's edges.
  constexpr std::array<unsigned char, 10> kEdges{0x00, 0x7F, 0x80, 0x8F, 0x90, 0x9F, 0xA0, 0xBF, 0xC0, 0xFF};
  for (int lead = 0x80; lead < 0x100; ++lead) {
    for (const auto b : kEdges) {
      for (const auto c : kEdges) {
        const std::string three{static_cast<char>(lead), static_cast<char>(b), static_cast<char>(c)};
        agree(three);
        agree("GET /" + three + " HTTP/1.1");
        for (const auto d : kEdges) agree(three + static_cast<char>(d));
      }
    }
  }
  EXPECT_TRUE(ZavloAuthValidationUtils::isWellFormedUtf8(""));
  EXPECT_TRUE(ZavloAuthValidationUtils::isWellFormedUtf8(std::string("a\0b", 3)));
  EXPECT_TRUE(ZavloAuthValidationUtils::isWellFormedUtf8("\xf4\x8f\xbf\xbf"));   // U+10FFFF
  EXPECT_FALSE(ZavloAuthValidationUtils::isWellFormedUtf8("\xf4\x90\x80\x80"));  // beyond it
  EXPECT_FALSE(ZavloAuthValidationUtils::isWellFormedUtf8("\xed\xa0\x80"));      // a surrogate
  EXPECT_FALSE(ZavloAuthValidationUtils::isWellFormedUtf8("\xe0\x9f\xbf"));      // overlong
}
