// zavlo-fuzz-init-config: ZavloAuthInitConfig::fromJsonString on arbitrary text, and the
// reads that follow it (the request id, the entity id, every key as configuration text).
//
// Properties: a configuration comes back exactly for JSON text whose top level is an
// object and that nests no deeper than the library's limit (judged here by how many arrays
// and objects are open at once, with one level of slack around the limit, where the exact
// count is the parser's); its data is that object; the request id is the sanitised
// "requestId" when that is a string and absent otherwise; the entity id is trimmed and
// never blank; reading any key as text or as a list never throws, and the data serialises
// strictly.
#include <cstdint>
#include <string>

#include "Core/ZavloAuthValidationUtils.hpp"
#include "Core/ZavloConfigValues.hpp"
#include "Core/ZavloJsonDepth.hpp"
#include "Session/ZavloAuthInitConfig.hpp"
#include "ZavloFuzzSupport.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto text = ZavloFuzz::asText(data, size);
  const auto config = ZavloAuthInitConfig::fromJsonString(text);

  // The reference: nlohmann's own verdict on the text, with the depth counted here.
  const auto plain = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
  const bool isObject = !plain.is_discarded() && plain.is_object();
  if (!isObject) {
    ZAVLO_FUZZ_CHECK(!config, "only an object's text is a configuration");
    return 0;
  }
  const auto parsed = ZavloFuzz::parsedPart(text);
  constexpr auto kLimit = static_cast<std::size_t>(ZavloConfigValues::kMaxDepth);
  if (!ZavloJsonDepth::exceeds(parsed, kLimit))
    ZAVLO_FUZZ_CHECK(config != nullptr, "an object within the limit is taken");
  if (ZavloJsonDepth::exceeds(parsed, kLimit + 1)) ZAVLO_FUZZ_CHECK(!config, "an object past the limit is refused");
  if (!config) return 0;

  const auto& dictionary = config->configData();
  ZAVLO_FUZZ_CHECK(dictionary == plain, "the data is the object the text holds");
  const auto requestId = dictionary.find("requestId");
  if (requestId != dictionary.end() && requestId->is_string()) {
    ZAVLO_FUZZ_CHECK(
        config->requestId() == ZavloAuthValidationUtils::sanitizeString(requestId->get_ref<const std::string&>()),
        "the request id is the sanitised text");
  } else {
    ZAVLO_FUZZ_CHECK(!config->requestId(), "no request id without a string");
  }
  if (const auto entityId = config->entityId()) {
    ZAVLO_FUZZ_CHECK(!entityId->empty(), "an entity id is never blank");
    ZAVLO_FUZZ_CHECK(ZavloFuzz::trimWhiteSpace(*entityId) == *entityId, "an entity id is trimmed");
  }
  for (const auto& [key, value] : dictionary.items()) {
    const auto asText = ZavloConfigValues::text(dictionary, key);
    ZAVLO_FUZZ_CHECK(!asText || !asText->empty(), "a key's text is absent rather than empty");
    if (asText) ZAVLO_FUZZ_CHECK(ZavloFuzz::isUtf8(*asText), "a key's text is UTF-8");
    for (const auto& element : ZavloConfigValues::stringListValue(dictionary, key)) {
      ZAVLO_FUZZ_CHECK(!element.empty(), "a list holds no empty text");
    }
  }
  try {
    ZAVLO_FUZZ_CHECK(ZavloFuzz::isUtf8(dictionary.dump()), "the data serialises as UTF-8");
  } catch (const nlohmann::json::exception& error) {
    std::fprintf(stderr, "zavlo-fuzz: %s\n", error.what());
    ZAVLO_FUZZ_CHECK(false, "the data serialises strictly");
  }
  return 0;
}
