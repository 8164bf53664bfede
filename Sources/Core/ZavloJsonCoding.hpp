#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

/// Strict keyed coding helpers shared by the records: no silent number/string
/// conversions, absent optionals omitted, a missing required key is an error.
namespace ZavloJsonCoding {

struct DecodingError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

inline void putOptional(nlohmann::json& object, const char* key, const std::optional<std::string>& value) {
  if (value) object[key] = *value;
}

inline const nlohmann::json& require(const nlohmann::json& object, const char* key) {
  if (!object.is_object()) throw DecodingError("expected a JSON object");
  auto found = object.find(key);
  if (found == object.end()) throw DecodingError(std::string("missing key \"") + key + "\"");
  return *found;
}

inline std::string requireString(const nlohmann::json& object, const char* key) {
  const auto& value = require(object, key);
  if (!value.is_string()) throw DecodingError(std::string("\"") + key + "\" is not a string");
  return value.get<std::string>();
}

inline std::int64_t requireInt64(const nlohmann::json& object, const char* key) {
  const auto& value = require(object, key);
  if (value.is_number_integer()) return value.get<std::int64_t>();
  throw DecodingError(std::string("\"") + key + "\" is not an integer");
}

/// A missing key or null decodes as absent; any other non-string is an error.
inline std::optional<std::string> optionalString(const nlohmann::json& object, const char* key) {
  if (!object.is_object()) throw DecodingError("expected a JSON object");
  auto found = object.find(key);
  if (found == object.end() || found->is_null()) return std::nullopt;
  if (!found->is_string()) throw DecodingError(std::string("\"") + key + "\" is not a string");
  return found->get<std::string>();
}

}  // namespace ZavloJsonCoding
