#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

/// Builds the JavaScript text that hands a page one result: a call of a global function
/// with the result's JSON text as its single string argument.
class ZavloAuthJavaScriptUtils {
 public:
  ZavloAuthJavaScriptUtils() = delete;

  /// Whether name is a plain JavaScript identifier of ASCII letters, digits, "_" and "$",
  /// not starting with a digit: only a global function can be named that way.
  static bool isValidCallbackName(std::string_view name) noexcept;

  /// NAME("JSON") with the JSON text escaped for a double-quoted literal; absent when the
  /// name is not a valid identifier or jsonObject is not an object that serialises to
  /// JSON (non-finite numbers, binary values, invalid UTF-8).
  static std::optional<std::string> javaScriptCallbackWithJsonStringArgument(std::string_view callbackName,
                                                                             const nlohmann::json& jsonObject);
};
