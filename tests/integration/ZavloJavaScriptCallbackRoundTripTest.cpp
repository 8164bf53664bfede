// The web bridge's call text evaluated by a real JavaScript engine (Node): for every
// dictionary, the page's named callback must receive one string that parses back to it.
#include <gtest/gtest.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "Bridge/ZavloAuthJavaScriptUtils.hpp"
#include "Testing/Network/ZavloProcess.hpp"
#include "tools/peers/ZavloTemporaryDirectory.hpp"

using nlohmann::json;

namespace {

constexpr std::uint64_t kDefaultSeed = 0x5A61766C6F4A5331;
constexpr std::size_t kDictionaries = 3000;

// SplitMix64: the same draws under every standard library, so a seed and an index name one
// dictionary for good.
class Draws {
 public:
  Draws(std::uint64_t seed, std::uint64_t index) : state_(seed ^ (index * 0xD1B54A32D192ED03)) {}

  std::uint64_t next() {
    std::uint64_t z = (state_ += 0x9E3779B97F4A7C15);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EB;
    return z ^ (z >> 31);
  }
  std::size_t below(std::size_t bound) { return static_cast<std::size_t>(next() % bound); }
  bool oneIn(std::size_t n) { return below(n) == 0; }
  template <class T>
  const T& pick(const std::vector<T>& from) {
    return from[below(from.size())];
  }

 private:
  std::uint64_t state_;
};

// Pieces of keys and strings. The library's strings are UTF-8, so a lone surrogate can only
// appear as the text of its escape.
const std::vector<std::string>& textPieces() {
  static const std::vector<std::string> pieces = [] {
    // What the literal escapes, and what ends a line in JavaScript.
    std::vector<std::string> all = {"\"", "\\", "\n", "\r", "\t", "\r\n", "\u2028", "\u2029"};
    // Beyond the basic plane, and other characters of note.
    all.insert(all.end(),
               {"\U0001F600", "\U0010FFFF", "\U0001F468\u200D\U0001F469", "\u00E9", "\uFEFF", "\u0085", "\x7F"});
    // Texts of escapes: a skipped step would turn them into what they name.
    all.insert(all.end(), {"\\ud800", "\\uDC00", "\\u0022", "\\n", "\\\"", "\\\\"});
    // What a page or a script parser reads specially, and plain text.
    all.insert(all.end(), {"</script>", "<!--", "'", "`", "${x}", "(", ")", ";", "//", "/*", "__proto__", "constructor",
                           "abc", "Z", " ", "0"});
    for (int c = 0; c < 0x20; ++c) all.emplace_back(1, static_cast<char>(c));
    return all;
  }();
  return pieces;
}

std::string randomText(Draws& draws, std::size_t maxPieces) {
  std::string text;
  for (std::size_t n = draws.below(maxPieces + 1); n > 0; --n) text += draws.pick(textPieces());
  return text;
}

// Only numbers whose JSON text a double reads back exactly, and whose shortest JavaScript
// rendering nlohmann reads back as the same value.
json randomNumber(Draws& draws) {
  constexpr std::int64_t edge = std::int64_t{1} << 53;
  switch (draws.below(6)) {
    case 0:
      return draws.pick(std::vector<std::int64_t>{edge, -edge, edge - 1, 1 - edge, 0, -1});
    case 1:
      return static_cast<std::int64_t>(draws.below(2 * static_cast<std::uint64_t>(edge) + 1)) - edge;
    case 2:
      return static_cast<std::uint64_t>(draws.below(static_cast<std::uint64_t>(edge) + 1));
    case 3:
      return draws.pick(std::vector<double>{-0.0, 0.1, 0.5, -2.75, 1e-300, 5e-324, 1.7976931348623157e308, 1e21});
    case 4:
      return static_cast<double>(static_cast<std::int64_t>(draws.below(2000001)) - 1000000) /
             static_cast<double>(std::uint64_t{1} << draws.below(40));
    default:
      for (;;) {
        const auto value = std::bit_cast<double>(draws.next());
        if (std::isfinite(value)) return value;
      }
  }
}

json randomValue(Draws& draws, int depth);

json randomObject(Draws& draws, int depth, std::size_t leastEntries = 0) {
  json object = json::object();
  for (std::size_t n = leastEntries + draws.below(6); n > 0; --n) {
    auto key = randomText(draws, 4);
    object[std::move(key)] = randomValue(draws, depth);
  }
  return object;
}

json randomValue(Draws& draws, int depth) {
  switch (draws.below(depth > 0 ? 9 : 6)) {
    case 0:
      return randomText(draws, 12);
    case 1:
      return randomNumber(draws);
    case 2:
      return draws.oneIn(2);
    case 3:
      return nullptr;
    case 4:
      return json::object();
    case 5:
      return json::array();
    case 6: {
      json array = json::array();
      for (std::size_t n = draws.below(5) + 1; n > 0; --n) array.push_back(randomValue(draws, depth - 1));
      return array;
    }
    default:
      return randomObject(draws, depth - 1);
  }
}

json randomDictionary(Draws& draws, std::size_t index) {
  // Mostly not empty: an empty dictionary's text has little to escape.
  json dictionary = randomObject(draws, 3, draws.oneIn(50) ? 0 : 1);
  if (index % 200 == 7) {
    std::string longText;
    while (longText.size() < 100 * 1024) longText += draws.pick(textPieces());
    dictionary[randomText(draws, 2)] = longText;
  }
  if (index % 200 == 13) {
    json nested = randomValue(draws, 0);
    for (int level = 0; level < 100; ++level) {
      if (draws.oneIn(2)) {
        nested = json::array({std::move(nested)});
      } else {
        json object = json::object();
        object[randomText(draws, 2)] = std::move(nested);
        nested = std::move(object);
      }
    }
    dictionary["deep"] = nested;
  }
  return dictionary;
}

// Names the rule lets through, each kind of character in each place; JavaScript's reserved
// words pass the rule too, but a page cannot define a global function of such a name.
std::string nameFor(std::size_t index) {
  static const std::vector<std::string> names = {"$", "_", "$_", "_$0", "onResult", "$a_1", "Zz9"};
  return names[index % names.size()] + (index < names.size() ? "" : std::to_string(index));
}

std::uint64_t seedToUse() {
  const char* text = std::getenv("ZAVLO_ROUNDTRIP_SEED");
  return text != nullptr ? std::strtoull(text, nullptr, 0) : kDefaultSeed;
}

std::string cut(std::string text) {
  if (text.size() > 400) {
    text.resize(400);
    text += "...";
  }
  return text;
}

// The start of a text as a JSON string, so that control characters show (a cut through a
// UTF-8 sequence shows as U+FFFD).
std::string excerpt(const std::string& text) {
  return json(cut(text)).dump(-1, ' ', false, json::error_handler_t::replace);
}

}  // namespace

TEST(ZavloJavaScriptCallbackRoundTrip, NodeHandsEveryNamedCallbackTheDictionarySent) {
  const std::string node = ZAVLO_NODE;
  if (node.empty() || access(node.c_str(), X_OK) != 0) {
    GTEST_SKIP() << "No Node to run (" << (node.empty() ? "none found at configure time" : node + " is not executable")
                 << "): the call texts are not evaluated by a JavaScript engine";
  }
  const std::uint64_t seed = seedToUse();
  const auto where = [seed](std::size_t index) {
    std::ostringstream text;
    text << "seed 0x" << std::hex << seed << std::dec << " index " << index << " (ZAVLO_ROUNDTRIP_SEED=0x" << std::hex
         << seed << " reproduces it)";
    return text.str();
  };

  ZavloTemporaryDirectory folder;
  const auto callsPath = folder.path() / "calls.jsonl";
  const auto answersPath = folder.path() / "answers.jsonl";
  std::vector<json> sent;
  std::vector<std::string> calls;
  {
    std::ofstream file(callsPath, std::ios::binary);
    for (std::size_t index = 0; index < kDictionaries; ++index) {
      Draws draws(seed, index);
      const auto name = nameFor(index);
      sent.push_back(randomDictionary(draws, index));
      const auto call = ZavloAuthJavaScriptUtils::javaScriptCallbackWithJsonStringArgument(name, sent.back());
      ASSERT_TRUE(call.has_value()) << where(index);
      calls.push_back(*call);
      file << json{{"name", name}, {"call", *call}}.dump() << '\n';
    }
    ASSERT_TRUE(file.good());
  }

  const auto run = zavloRunProcess({node, ZAVLO_CALLBACK_ROUNDTRIP_SCRIPT, callsPath.string(), answersPath.string()});
  ASSERT_EQ(run.exitStatus, 0) << run.standardError;

  std::ifstream file(answersPath, std::ios::binary);
  std::vector<std::string> answers;
  for (std::string line; std::getline(file, line);) answers.push_back(line);
  ASSERT_EQ(answers.size(), kDictionaries);

  std::size_t failures = 0;
  for (std::size_t index = 0; index < kDictionaries; ++index) {
    const auto answer = json::parse(answers[index], nullptr, false);
    std::string fault;
    if (answer.is_discarded()) {
      fault = "Node's answer is not JSON: " + excerpt(answers[index]);
    } else if (answer.contains("error")) {
      fault = answer["error"].get<std::string>();
    } else if (answer.at("value") != sent[index]) {
      const auto changes = json::diff(sent[index], answer["value"]);
      fault = "the callback received another dictionary; changes: " + cut(changes.dump());
    }
    if (fault.empty()) continue;
    if (++failures <= 10) ADD_FAILURE() << where(index) << ": " << fault << "\ncall text: " << excerpt(calls[index]);
  }
  EXPECT_EQ(failures, 0U) << "dictionaries that did not come back, of " << kDictionaries;
}
