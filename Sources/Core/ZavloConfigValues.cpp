#include "Core/ZavloConfigValues.hpp"

#include "Core/ZavloAuthValidationUtils.hpp"
#include "Core/ZavloJsonDepth.hpp"

namespace {

const nlohmann::json* valueAt(const nlohmann::json& config, std::string_view key) {
  if (!config.is_object()) return nullptr;
  const auto found = config.find(std::string(key));
  return found == config.end() ? nullptr : &*found;
}

}  // namespace

std::string ZavloConfigValues::text(const nlohmann::json& value) {
  if (value.is_string()) {
    return std::string(ZavloAuthValidationUtils::trimWhitespaceAndNewlines(value.get_ref<const std::string&>()));
  }
  // Strings nested in lists or objects may hold invalid UTF-8; replacing it keeps the
  // rendering from failing.
  const auto rendered = value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  return std::string(ZavloAuthValidationUtils::trimWhitespaceAndNewlines(rendered));
}

std::optional<std::string> ZavloConfigValues::text(const nlohmann::json& config, std::string_view key) {
  const auto* value = valueAt(config, key);
  if (!value) return std::nullopt;
  auto converted = text(*value);
  if (converted.empty()) return std::nullopt;
  return converted;
}

std::string ZavloConfigValues::text(const nlohmann::json& config, std::string_view key, std::string_view fallback) {
  return text(config, key).value_or(std::string(fallback));
}

std::vector<std::string> ZavloConfigValues::stringListValue(const nlohmann::json& config, std::string_view key) {
  std::vector<std::string> list;
  const auto* value = valueAt(config, key);
  if (!value) return list;
  if (value->is_array()) {
    for (const auto& element : *value) {
      if (auto converted = text(element); !converted.empty()) list.push_back(std::move(converted));
    }
  } else if (value->is_string()) {
    if (auto converted = text(*value); !converted.empty()) list.push_back(std::move(converted));
  }
  return list;
}

std::optional<nlohmann::json> ZavloConfigValues::parseObject(std::string_view text) {
  // Deep text is refused before anything is built, so a hostile text costs no more than
  // its size. The parser ends the text at a NUL byte (and refuses one inside a string), so
  // only what it reads is measured; kMaxDepth is its own count, one below the values.
  const auto read = text.substr(0, text.find('\0'));
  if (ZavloJsonDepth::exceeds(read, static_cast<std::size_t>(kMaxDepth) + 1, ZavloJsonDepth::Levels::values)) {
    return std::nullopt;
  }
  auto parsed = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (!parsed.is_object()) return std::nullopt;
  return parsed;
}
