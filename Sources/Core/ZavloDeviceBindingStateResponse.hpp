#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

/// Whether a binding key exists for a key id and is still valid.
struct ZavloDeviceBindingStateResponse {
  std::string status;
  std::string state;
  std::optional<std::string> keyId;

  friend bool operator==(const ZavloDeviceBindingStateResponse&, const ZavloDeviceBindingStateResponse&) = default;
};

void to_json(nlohmann::json& json, const ZavloDeviceBindingStateResponse& record);
void from_json(const nlohmann::json& json, ZavloDeviceBindingStateResponse& record);
