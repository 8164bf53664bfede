#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

/// How the entry points read keys of a configuration dictionary (any JSON values) as text.
/// A configuration that is not an object reads as an empty one.
class ZavloConfigValues {
 public:
  ZavloConfigValues() = delete;

  /// A value's text: a string as is, anything else in its JSON rendering (42 as "42",
  /// true as "true"), trimmed of white space and line breaks at both ends.
  static std::string text(const nlohmann::json& value);
  /// The text of config[key]; absent when the key is missing or the text is empty.
  static std::optional<std::string> text(const nlohmann::json& config, std::string_view key);
  /// The text of config[key], or fallback when the key is missing or the text is empty.
  static std::string text(const nlohmann::json& config, std::string_view key, std::string_view fallback);
  /// config[key] as a list of texts: a list gives the non-empty texts of its elements in
  /// order; a string gives itself (trimmed, never split) when not empty; anything else,
  /// or a missing key, the empty list.
  static std::vector<std::string> stringListValue(const nlohmann::json& config, std::string_view key);

  /// JSON text that holds an object, parsed; absent for anything else, and for values
  /// nested deeper than kMaxDepth, which reading them as text would walk recursively.
  static std::optional<nlohmann::json> parseObject(std::string_view text);
  static constexpr int kMaxDepth = 256;
};
