// zavlo-fuzz-javascript-call: ZavloAuthJavaScriptUtils::javaScriptCallbackWithJsonStringArgument
// for fuzzed callback names and dictionaries, built value by value from the input so that
// they can hold what no JSON text holds: invalid UTF-8, non-finite numbers, binary and
// discarded values.
//
// Properties: a text comes back exactly when the name is a plain identifier and the value
// is an object the strict serialiser takes (both judged here, not by the library); the
// text is NAME("LITERAL") and nothing else, with a literal that JavaScript and JSON read
// alike (see ZavloFuzz::readCallback); the literal holds the object's compact JSON text,
// which parses back to the object.
#include <fuzzer/FuzzedDataProvider.h>

#include <bit>
#include <cstdint>
#include <string>

#include "Bridge/ZavloAuthJavaScriptUtils.hpp"
#include "ZavloFuzzSupport.hpp"

namespace {

constexpr int kMaxDepth = 6;
constexpr std::size_t kMaxElements = 6;

std::string someText(FuzzedDataProvider& input) { return input.ConsumeRandomLengthString(48); }

nlohmann::json someValue(FuzzedDataProvider& input, int depth) {
  const auto kind = input.ConsumeIntegralInRange<int>(0, depth > 0 ? 11 : 9);
  switch (kind) {
    case 0:
      return nullptr;
    case 1:
      return input.ConsumeBool();
    case 2:
      return input.ConsumeIntegral<std::int64_t>();
    case 3:
      return input.ConsumeIntegral<std::uint64_t>();
    case 4:
      // Any bits: NaN and the infinities included.
      return std::bit_cast<double>(input.ConsumeIntegral<std::uint64_t>());
    case 5:
      return input.ConsumeFloatingPoint<double>();
    case 6:
    case 7:
      return someText(input);
    case 8:
      return nlohmann::json::binary(input.ConsumeBytes<std::uint8_t>(input.ConsumeIntegralInRange<int>(0, 8)));
    case 9:
      return input.ConsumeIntegralInRange<int>(0, 15) == 0 ? nlohmann::json(nlohmann::json::value_t::discarded)
                                                           : nlohmann::json::object();
    case 10: {
      auto array = nlohmann::json::array();
      for (auto n = input.ConsumeIntegralInRange<std::size_t>(0, kMaxElements); n > 0; --n) {
        array.push_back(someValue(input, depth - 1));
      }
      return array;
    }
    default: {
      auto object = nlohmann::json::object();
      for (auto n = input.ConsumeIntegralInRange<std::size_t>(0, kMaxElements); n > 0; --n) {
        auto key = someText(input);
        object[key] = someValue(input, depth - 1);
      }
      return object;
    }
  }
}

std::string someName(FuzzedDataProvider& input) {
  static constexpr std::string_view kIdentifier = "abcXYZ_$019";
  // Mostly names a page could use, so that the literal gets most of the work.
  if (input.ConsumeIntegralInRange<int>(0, 7) != 0) {
    std::string name;
    for (auto n = input.ConsumeIntegralInRange<std::size_t>(1, 12); n > 0; --n) {
      name += kIdentifier[input.ConsumeIntegralInRange<std::size_t>(0, kIdentifier.size() - 1)];
    }
    return name;
  }
  return someText(input);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  const auto name = someName(input);
  // Mostly objects: anything else is refused whole.
  nlohmann::json value;
  if (input.ConsumeIntegralInRange<int>(0, 15) == 0) {
    value = someValue(input, kMaxDepth);
  } else {
    value = nlohmann::json::object();
    for (auto n = input.ConsumeIntegralInRange<std::size_t>(0, kMaxElements); n > 0; --n) {
      auto key = someText(input);
      value[key] = someValue(input, kMaxDepth - 1);
    }
  }

  const auto call = ZavloAuthJavaScriptUtils::javaScriptCallbackWithJsonStringArgument(name, value);
  const bool expected = ZavloFuzz::isPlainIdentifier(name) && value.is_object() && ZavloFuzz::isStrictJson(value);
  ZAVLO_FUZZ_CHECK(call.has_value() == expected, "a text exactly for a plain name and a strict JSON object");
  ZAVLO_FUZZ_CHECK(ZavloAuthJavaScriptUtils::isValidCallbackName(name) == ZavloFuzz::isPlainIdentifier(name),
                   "the library judges names as plain identifiers");
  if (!call) return 0;

  const auto parts = ZavloFuzz::requireCallback(*call);
  ZAVLO_FUZZ_CHECK(parts.name == name, "the callee is the name given");
  ZAVLO_FUZZ_CHECK(parts.argument == value.dump(), "the literal holds the object's compact JSON text");
  const auto back = nlohmann::json::parse(parts.argument, nullptr, /*allow_exceptions=*/false);
  ZAVLO_FUZZ_CHECK(back == value, "the JSON text parses back to the object");
  return 0;
}
