#pragma once

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "Core/ZavloAuthStatus.hpp"

/// The error value of the whole public surface. Passed to completions, never thrown
/// across the public surface.
class ZavloAuthException {
 public:
  ZavloAuthException(std::string status, std::optional<std::string> errorCode, std::string errorMessage)
      : status_(std::move(status)), errorCode_(std::move(errorCode)), errorMessage_(std::move(errorMessage)) {}

  /// A failure as the library builds it: status "FAILURE".
  static ZavloAuthException failure(std::optional<std::string> errorCode, std::string errorMessage) {
    return {std::string(ZavloAuthStatus::failure), std::move(errorCode), std::move(errorMessage)};
  }

  [[nodiscard]] const std::string& status() const noexcept { return status_; }
  [[nodiscard]] const std::optional<std::string>& errorCode() const noexcept { return errorCode_; }
  [[nodiscard]] const std::string& errorMessage() const noexcept { return errorMessage_; }

  friend bool operator==(const ZavloAuthException&, const ZavloAuthException&) = default;

 private:
  std::string status_;
  std::optional<std::string> errorCode_;
  std::string errorMessage_;
};

// Coded form: "errorCode" is left out when absent; a missing "status" or "errorMessage"
// fails to decode (nlohmann::json::exception).
template <>
struct nlohmann::adl_serializer<ZavloAuthException> {
  static void to_json(json& json, const ZavloAuthException& exception);
  static ZavloAuthException from_json(const json& json);
};
