// The text rules of the device binding entry points: configuration values as text and
// lists, base64, and user-perceived character counts.
#include <gtest/gtest.h>

#include "Core/ZavloBase64.hpp"
#include "Core/ZavloConfigValues.hpp"
#include "Core/ZavloGraphemes.hpp"

using nlohmann::json;

TEST(ZavloConfigValues, ReadsAnyJsonValueAsTrimmedTextAndListsWithoutSplitting) {
  const json config = {
      {"padded", " \n\tid 1\u00A0 "}, {"number", 42}, {"real", 1.5}, {"flag", true}, {"blank", "\u3000"},
      {"object", {{"a", 1}}}};
  EXPECT_EQ(ZavloConfigValues::text(config, "padded"), "id 1");
  EXPECT_EQ(ZavloConfigValues::text(config, "number"), "42");
  EXPECT_EQ(ZavloConfigValues::text(config, "real"), "1.5");
  EXPECT_EQ(ZavloConfigValues::text(config, "flag"), "true");
  EXPECT_EQ(ZavloConfigValues::text(config, "object"), R"({"a":1})");
  EXPECT_EQ(ZavloConfigValues::text(config, "blank"), std::nullopt);
  EXPECT_EQ(ZavloConfigValues::text(config, "missing"), std::nullopt);
  EXPECT_EQ(ZavloConfigValues::text(config, "blank", "fallback"), "fallback");
  EXPECT_EQ(ZavloConfigValues::text(json::array({1, 2}), "padded", "fallback"), "fallback");

  const std::vector<std::pair<json, std::vector<std::string>>> lists = {
      {"a,b", {"a,b"}},
      {"  a b  ", {"a b"}},
      {" \n ", {}},
      {json::array({" k1 ", "", 5, "  ", nullptr, json::array({"x"})}), {"k1", "5", "null", R"(["x"])"}},
      {json::object({{"k", "v"}}), {}},
      {7, {}},
  };
  for (const auto& [value, expected] : lists) {
    EXPECT_EQ(ZavloConfigValues::stringListValue({{"ids", value}}, "ids"), expected) << value;
  }
  EXPECT_TRUE(ZavloConfigValues::stringListValue(json::object(), "ids").empty());
}

TEST(ZavloBase64, EncodesAndDecodesTheStandardAlphabetWithPadding) {
  const std::vector<std::pair<std::string, std::string>> vectors = {
      {"", ""},
      {"f", "Zg=="},
      {"fo", "Zm8="},
      {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="},
      {"fooba", "Zm9vYmE="},
      {"foobar", "Zm9vYmFy"},
      {"\xFB\xFF\xBF", "+/+/"},
  };
  for (const auto& [plain, encoded] : vectors) {
    const std::vector<std::uint8_t> bytes(plain.begin(), plain.end());
    EXPECT_EQ(ZavloBase64::encode(bytes), encoded);
    EXPECT_EQ(ZavloBase64::decode(encoded), bytes) << encoded;
  }
  for (const auto* bad : {"Zg", "Zg=", "Z===", "Zh==", "Zm9v!A==", "Zg==Zg==", "-_-_"}) {
    EXPECT_EQ(ZavloBase64::decode(bad), std::nullopt) << bad;
  }
}

TEST(ZavloGraphemes, CountsUserPerceivedCharacters) {
  const std::vector<std::pair<std::string, std::size_t>> cases = {
      {"", 0},
      {"abc", 3},
      {"e\u0301", 1},                                     // combining accent
      {"\r\n", 1},                                        // one line break
      {"\n\r", 2},                                        //
      {"\U0001F1EB\U0001F1F7\U0001F1E9\U0001F1EA", 2},    // two flags
      {"\U0001F1EB\U0001F1F7\U0001F1E9", 2},              // a flag and half of one
      {"\U0001F468\u200D\U0001F469\u200D\U0001F467", 1},  // family: emoji joined by ZWJ
      {"\U0001F44D\U0001F3FD", 1},                        // emoji with skin tone
      {"a\u200D\U0001F469", 2},                           // ZWJ after a letter joins nothing after it
      {"\u1100\u1161\u11A8", 1},                          // Hangul jamo L V T
      {"\uD55C\uAE00", 2},                                // two Hangul syllables
      {"\u0915\u093F", 1},                                // Devanagari consonant and spacing vowel sign
      {"\u0600\u0661", 1},                                // prepended concatenation mark
      {"a\x01"
       "b",
       3},  // control characters stand alone
      {"\xFF\xFE"
       "a",
       3},  // each ill-formed byte counts once
  };
  for (const auto& [text, expected] : cases) {
    EXPECT_EQ(ZavloGraphemes::count(text), expected) << text;
  }
}
