#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

/// Success of initAuth. statusCode is text ("200") by contract, unlike the SNA record.
struct ZavloAuthInitSuccessResponse {
  std::string status;
  std::string statusCode;
  std::string mcc;
  std::string mnc;

  friend bool operator==(const ZavloAuthInitSuccessResponse&, const ZavloAuthInitSuccessResponse&) = default;
};

void to_json(nlohmann::json& json, const ZavloAuthInitSuccessResponse& record);
void from_json(const nlohmann::json& json, ZavloAuthInitSuccessResponse& record);
