#include <gtest/gtest.h>

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
