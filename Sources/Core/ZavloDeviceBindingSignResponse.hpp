#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

/// A challenge signed with the binding key.
struct ZavloDeviceBindingSignResponse {
  std::string status;
  std::string keyId;
  std::string signature;
  std::string algorithm;

  friend bool operator==(const ZavloDeviceBindingSignResponse&, const ZavloDeviceBindingSignResponse&) = default;
};

void to_json(nlohmann::json& json, const ZavloDeviceBindingSignResponse& record);
void from_json(const nlohmann::json& json, ZavloDeviceBindingSignResponse& record);
