#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

/// Result of enrolment: the public key of the new binding key.
struct ZavloDeviceBindingEnrollResponse {
  std::string status;
  std::string keyId;
  std::string publicKey;
  std::string algorithm;
  std::optional<std::string> attestation;

  friend bool operator==(const ZavloDeviceBindingEnrollResponse&, const ZavloDeviceBindingEnrollResponse&) = default;
};

void to_json(nlohmann::json& json, const ZavloDeviceBindingEnrollResponse& record);
void from_json(const nlohmann::json& json, ZavloDeviceBindingEnrollResponse& record);
