// The call text of the web bridge: which callback names it takes, what it refuses, and the
// exact literal for a few dictionaries. tests/integration evaluates many more in Node.
#include <gtest/gtest.h>

#include <limits>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Bridge/ZavloAuthJavaScriptUtils.hpp"

using nlohmann::json;

namespace {
std::optional<std::string> callText(std::string_view name, const json& value) {
  return ZavloAuthJavaScriptUtils::javaScriptCallbackWithJsonStringArgument(name, value);
}
}  // namespace

TEST(ZavloAuthJavaScriptUtils, TakesOnlyPlainAsciiIdentifiersAsCallbackNames) {
  using namespace std::string_literals;
  const std::vector<std::pair<std::string, bool>> names = {
      {"onResult", true},
      {"$a_1", true},
      {"$", true},
      {"_", true},
      {"A9$_z", true},
      {std::string(10000, 'a'), true},
      {"", false},
      {"window.onResult", false},
      {"onResult()", false},
      {"on Result", false},
      {"a;b", false},
      {"1a", false},
      {"a-b", false},
      {"onResult\n", false},
      {"a\0b"s, false},
      {"alert(document.cookie)//", false},
      {"</script><script>x", false},
      {"caf\u00E9", false},  // Latin small e with acute
      {"\u0430bc", false},   // Cyrillic a
      {"a\u200Db", false},   // zero-width joiner, an identifier part in JavaScript
      {"\xFFz", false},      // not UTF-8 at all
  };
  for (const auto& [name, valid] : names) {
    const auto shown = name.substr(0, 40);
    EXPECT_EQ(ZavloAuthJavaScriptUtils::isValidCallbackName(name), valid) << shown;
    const auto call = callText(name, {{"status", "SUCCESS"}});
    ASSERT_EQ(call.has_value(), valid) << shown;
    if (valid) {
      EXPECT_EQ(call->substr(0, name.size() + 2), name + "(\"") << shown;
    }
  }
}

TEST(ZavloAuthJavaScriptUtils, WritesTheJsonTextAsOneDoubleQuotedLiteral) {
  const std::vector<std::tuple<std::string, json, std::string>> cases = {
      {"onResult", {{"status", "SUCCESS"}}, R"(onResult("{\"status\":\"SUCCESS\"}"))"},
      {"$", json::object(), R"($("{}"))"},
      // JSON escapes the line feed; each backslash and quote of the JSON text is escaped again.
      {"cb", {{"a", "x\ny\"z\\"}}, R"(cb("{\"a\":\"x\\ny\\\"z\\\\\"}"))"},
      {"cb", {{"k\t", {"\r", nullptr, 1.5, -3}}}, R"(cb("{\"k\\t\":[\"\\r\",null,1.5,-3]}"))"},
  };
  for (const auto& [name, value, expected] : cases) {
    const auto call = callText(name, value);
    ASSERT_TRUE(call.has_value()) << expected;
    EXPECT_EQ(*call, expected);
    EXPECT_EQ(call->find_first_of("\n\r\t"), std::string::npos) << expected;
  }
}

TEST(ZavloAuthJavaScriptUtils, RefusesWhatIsNotAnObjectOfStrictJson) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double infinity = std::numeric_limits<double>::infinity();
  const std::vector<std::pair<const char*, json>> refused = {
      {"null", nullptr},
      {"number", 1},
      {"string", "{}"},
      {"boolean", true},
      {"array", json::array({json::object()})},
      {"NaN", {{"a", nan}}},
      {"infinity deep in arrays", {{"a", {1, {2, infinity}}}}},
      {"negative infinity in a nested object", {{"a", {{"b", {{"c", -infinity}}}}}}},
      {"binary", {{"a", json::binary({1, 2, 3})}}},
      {"binary in an array", {{"a", {1, json::binary({})}}}},
      {"discarded", {{"a", json(json::value_t::discarded)}}},
      {"invalid byte in a value", {{"a", "\xFF"}}},
      {"truncated sequence in a value", {{"a", "ok\xC3"}}},
      {"overlong slash in a key", {{"\xC0\xAF", 1}}},
      {"encoded surrogate in a nested key", {{"a", {{"\xED\xA0\x80", 1}}}}},
      {"invalid byte in an array", {{"a", json::array({"fine", "\x80"})}}},
  };
  for (const auto& [what, value] : refused) EXPECT_EQ(callText("onResult", value), std::nullopt) << what;
}
