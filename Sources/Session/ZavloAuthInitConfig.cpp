#include "Session/ZavloAuthInitConfig.hpp"

#include "Core/ZavloAuthValidationUtils.hpp"
#include "Core/ZavloConfigValues.hpp"

ZavloAuthInitConfig::ZavloAuthInitConfig(std::optional<std::string> requestId, nlohmann::json configData)
    : requestId_(std::move(requestId)), configData_(std::move(configData)) {}

std::shared_ptr<ZavloAuthInitConfig> ZavloAuthInitConfig::from(const nlohmann::json& dictionary) {
  const auto data = dictionary.is_object() ? dictionary : nlohmann::json::object();
  std::optional<std::string> requestId;
  if (const auto found = data.find("requestId"); found != data.end() && found->is_string()) {
    requestId = ZavloAuthValidationUtils::sanitizeString(found->get_ref<const std::string&>());
  }
  return std::make_shared<ZavloAuthInitConfig>(std::move(requestId), data);
}

std::shared_ptr<ZavloAuthInitConfig> ZavloAuthInitConfig::fromJsonString(std::string_view text) {
  // The parser rejects text that is not valid UTF-8, like a failed text-to-bytes step.
  const auto parsed = ZavloConfigValues::parseObject(text);
  if (!parsed) return nullptr;
  return from(*parsed);
}

std::optional<std::string> ZavloAuthInitConfig::entityId() const {
  const auto found = configData_.find("entityId");
  if (found == configData_.end()) return std::nullopt;
  std::string text;
  if (found->is_string()) {
    text = found->get<std::string>();
  } else {
    text = found->dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  }
  const auto trimmed = ZavloAuthValidationUtils::trimWhitespaceAndNewlines(text);
  if (trimmed.empty()) return std::nullopt;
  return std::string(trimmed);
}
