#include "Bridge/ZavloAuthJavaScriptUtils.hpp"

#include <cmath>

namespace {

bool isIdentifierStart(char c) noexcept {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == '$';
}

bool isIdentifierPart(char c) noexcept { return isIdentifierStart(c) || (c >= '0' && c <= '9'); }

// What a strict JSON serialiser refuses and nlohmann would write anyway (non-finite
// numbers as null, binary values as objects) or not at all (discarded values).
bool isSerialisable(const nlohmann::json& value) {
  switch (value.type()) {
    case nlohmann::json::value_t::number_float:
      return std::isfinite(value.get<double>());
    case nlohmann::json::value_t::binary:
    case nlohmann::json::value_t::discarded:
      return false;
    case nlohmann::json::value_t::object:
    case nlohmann::json::value_t::array:
      for (const auto& element : value) {
        if (!isSerialisable(element)) return false;
      }
      return true;
    default:
      return true;
  }
}

}  // namespace

bool ZavloAuthJavaScriptUtils::isValidCallbackName(std::string_view name) noexcept {
  if (name.empty() || !isIdentifierStart(name.front())) return false;
  for (const char c : name) {
    if (!isIdentifierPart(c)) return false;
  }
  return true;
}

std::optional<std::string> ZavloAuthJavaScriptUtils::javaScriptCallbackWithJsonStringArgument(
    std::string_view callbackName, const nlohmann::json& jsonObject) {
  if (!isValidCallbackName(callbackName)) return std::nullopt;
  if (!jsonObject.is_object() || !isSerialisable(jsonObject)) return std::nullopt;
  std::string json;
  try {
    json = jsonObject.dump();  // strict: invalid UTF-8 throws
  } catch (const nlohmann::json::exception&) {
    return std::nullopt;
  }

  // The compact text holds no raw line break or tab (JSON escapes them), so in practice
  // only backslashes and quotes change; the whole set keeps the literal safe regardless.
  std::string call;
  call.reserve(callbackName.size() + json.size() + json.size() / 4 + 4);
  call.append(callbackName);
  call.append("(\"");
  for (const char c : json) {
    switch (c) {
      case '\\':
        call.append("\\\\");
        break;
      case '"':
        call.append("\\\"");
        break;
      case '\n':
        call.append("\\n");
        break;
      case '\r':
        call.append("\\r");
        break;
      case '\t':
        call.append("\\t");
        break;
      default:
        call.push_back(c);
    }
  }
  call.append("\")");
  return call;
}
