// zavlo-fuzz-sanitize: ZavloAuthValidationUtils::sanitizeString (and the UTF-8 judge it
// shares with the client) on arbitrary bytes.
//
// What the function promises: trim Unicode white space at both ends, then remove every
// "<script>" and then every "javascript:" in one pass each, ignoring letter case (the long
// s counts as an "s"), for any bytes, never failing. It is not idempotent (one pass can
// join a new "<script>"), so that is not checked.
//
// Properties: the output equals this file's own reading of that rule; it is the input
// with bytes taken out, never added or reordered; it is no longer than the input; UTF-8
// in gives UTF-8 out. And the library's UTF-8 judge agrees with this file's and with
// the strict JSON serialiser.
#include <cstdint>
#include <string>

#include "Core/ZavloAuthValidationUtils.hpp"
#include "ZavloFuzzSupport.hpp"

namespace {

// The length of pattern (lower-case ASCII) matched at the front of text ignoring ASCII
// letter case, with U+017F standing for "s"; 0 when it does not match.
std::size_t matchAt(std::string_view text, std::string_view pattern) {
  std::size_t used = 0;
  for (const char wanted : pattern) {
    if (used < text.size() && (text[used] == wanted || (wanted >= 'a' && wanted <= 'z' && text[used] == wanted - 32))) {
      used += 1;
    } else if (wanted == 's' && text.substr(used).starts_with("\xC5\xBF")) {
      used += 2;
    } else {
      return 0;
    }
  }
  return used;
}

std::string removeEvery(std::string_view text, std::string_view pattern) {
  std::string kept;
  for (std::size_t i = 0; i < text.size();) {
    if (const auto length = matchAt(text.substr(i), pattern); length != 0) {
      i += length;
    } else {
      kept += text[i++];
    }
  }
  return kept;
}

bool isSubsequence(std::string_view part, std::string_view whole) {
  std::size_t at = 0;
  for (const char c : whole) {
    if (at < part.size() && part[at] == c) ++at;
  }
  return at == part.size();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto input = ZavloFuzz::asText(data, size);
  const auto output = ZavloAuthValidationUtils::sanitizeString(input);

  const auto expected = removeEvery(removeEvery(ZavloFuzz::trimWhiteSpace(input), "<script>"), "javascript:");
  ZAVLO_FUZZ_CHECK(output == expected, "the output follows the rule");
  ZAVLO_FUZZ_CHECK(output.size() <= input.size(), "nothing is added");
  ZAVLO_FUZZ_CHECK(isSubsequence(output, input), "bytes are only taken out");

  const bool wellFormed = ZavloFuzz::isUtf8(input);
  ZAVLO_FUZZ_CHECK(ZavloAuthValidationUtils::isWellFormedUtf8(input) == wellFormed, "the UTF-8 judges agree");
  if (wellFormed) ZAVLO_FUZZ_CHECK(ZavloFuzz::isUtf8(output), "UTF-8 in gives UTF-8 out");
  bool serialises = true;
  try {
    (void)nlohmann::json(std::string(input)).dump();
  } catch (const nlohmann::json::exception&) {
    serialises = false;
  }
  ZAVLO_FUZZ_CHECK(serialises == wellFormed, "the strict serialiser judges UTF-8 alike");
  ZAVLO_FUZZ_CHECK(ZavloAuthValidationUtils::trimWhitespaceAndNewlines(input) == ZavloFuzz::trimWhiteSpace(input),
                   "trimming follows Unicode's white space");
  return 0;
}
