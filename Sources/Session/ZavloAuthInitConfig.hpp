#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

/// The configuration given to initAuth: the whole dictionary, plus the request id taken
/// from it (sanitised) and, on demand, the entity id.
class ZavloAuthInitConfig {
 public:
  ZavloAuthInitConfig() = delete;
  /// Holds exactly these values: no sanitising, no parsing.
  ZavloAuthInitConfig(std::optional<std::string> requestId, nlohmann::json configData);

  /// Never fails: a missing or non-string "requestId" leaves requestId absent; a string
  /// one is sanitised and kept even when it becomes empty. A non-object is treated as an
  /// empty dictionary.
  static std::shared_ptr<ZavloAuthInitConfig> from(const nlohmann::json& dictionary);
  /// Absent when the text is not JSON or its top level is not an object.
  static std::shared_ptr<ZavloAuthInitConfig> fromJsonString(std::string_view text);

  [[nodiscard]] const std::optional<std::string>& requestId() const noexcept { return requestId_; }
  [[nodiscard]] const nlohmann::json& configData() const noexcept { return configData_; }
  /// "entityId" of any JSON type as trimmed text (a string as is, 42 as "42"); absent
  /// when missing or blank. Read afresh on every call.
  [[nodiscard]] std::optional<std::string> entityId() const;
  /// A hook for debugging builds; deliberately does nothing.
  void logConfigProperties() const {}

 private:
  std::optional<std::string> requestId_;
  nlohmann::json configData_;
};
