// The one depth rule for JSON text: the counts themselves, their agreement with the
// parser's own depth, and the configuration limit that rests on them.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Core/ZavloConfigValues.hpp"
#include "Core/ZavloJsonDepth.hpp"

using Levels = ZavloJsonDepth::Levels;
using namespace std::string_literals;

TEST(ZavloJsonDepth, CountsTheLevelsOfTheText) {
  struct Case {
    std::string text;
    Levels levels;
    std::size_t deepest;  ///< exceeds(text, limit) holds exactly for limits below this
  };
  const std::vector<Case> cases{
      {"", Levels::containers, 0},
      {"1", Levels::containers, 0},
      {"[]", Levels::containers, 1},
      {"[{}]", Levels::containers, 2},
      {R"({"a":[1,{"b":[]}],"c":{}})", Levels::containers, 4},
      {R"(["[[[[", "{{"])", Levels::containers, 1},  // brackets in strings
      {R"(["\"[[", "]"])", Levels::containers, 1},   // an escaped quote ends no string
      {R"(["\\", [[]]])", Levels::containers, 3},    // an escaped backslash escapes no quote
      {"]][[[", Levels::containers, 3},              // nothing open: a closer counts for nothing
      {"[]]][[", Levels::containers, 2},             //
      {"[1]\0[[[["s, Levels::containers, 4},         // the whole text, NUL or not
      {"[\"\\", Levels::containers, 1},              // an escape at the very end
      {"", Levels::values, 0},
      {"1", Levels::values, 1},
      {" \"s\" ", Levels::values, 1},
      {"[]", Levels::values, 1},
      {"[1]", Levels::values, 2},
      {"[[]]", Levels::values, 2},
      {"[[null]]", Levels::values, 3},
      {R"({"a":{}})", Levels::values, 2},
      {R"({"a":{"b":1}})", Levels::values, 3},
      {R"([["]]]"]])", Levels::values, 3},
  };
  for (const auto& [text, levels, deepest] : cases) {
    SCOPED_TRACE(::testing::PrintToString(text) + (levels == Levels::values ? " values" : " containers"));
    if (deepest > 0) {
      EXPECT_TRUE(ZavloJsonDepth::exceeds(text, deepest - 1, levels));
    }
    EXPECT_FALSE(ZavloJsonDepth::exceeds(text, deepest, levels));
  }
}

// Counting values is the parser's own depth plus one: the two must agree on where a text
// becomes too deep, empty containers and scalars at the bottom alike.
TEST(ZavloJsonDepth, ValuesAgreeWithTheParsersDepth) {
  for (const std::string inner : {"", "1", "{}", R"({"k":0})", R"("s]")", "[[]]"}) {
    for (int open = 0; open <= 4; ++open) {
      const auto text = std::string(open, '[') + inner + std::string(open, ']');
      for (int limit = 0; limit <= 6; ++limit) {
        bool tooDeep = false;
        [[maybe_unused]] const auto parsed = nlohmann::json::parse(
            text,
            [&](int depth, nlohmann::json::parse_event_t, const nlohmann::json&) {
              tooDeep = tooDeep || depth > limit;
              return true;
            },
            /*allow_exceptions=*/false);
        EXPECT_EQ(ZavloJsonDepth::exceeds(text, static_cast<std::size_t>(limit) + 1, Levels::values), tooDeep)
            << text << " at " << limit;
      }
    }
  }
}

// Configuration text keeps the parser's own limit: a value 256 levels below the top object
// is refused, an empty array there is not, and nothing after a NUL byte is read.
TEST(ZavloJsonDepth, ConfigurationTextIsLimitedAsTheParserCounts) {
  const auto nested = [](int arrays, const std::string& inner) {
    return R"({"a":)" + std::string(arrays, '[') + inner + std::string(arrays, ']') + "}";
  };
  const std::vector<std::pair<std::string, bool>> cases{
      {nested(255, "1"), true}, {nested(256, "1"), false}, {nested(256, R"("]")"), false},
      {nested(256, ""), true},  {nested(257, ""), false},  {"{}\0"s + std::string(300, '['), true},
  };
  for (const auto& [text, taken] : cases) {
    EXPECT_EQ(ZavloConfigValues::parseObject(text).has_value(), taken) << text.substr(0, 12) << "... " << text.size();
  }
}
