#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

/// Outcome of a silent network authentication chain.
struct ZavloSnaStartResponse {
  std::string status;
  std::int64_t httpStatusCode = 0;
  std::optional<std::string> snaToken;

  friend bool operator==(const ZavloSnaStartResponse&, const ZavloSnaStartResponse&) = default;
};

void to_json(nlohmann::json& json, const ZavloSnaStartResponse& record);
void from_json(const nlohmann::json& json, ZavloSnaStartResponse& record);
