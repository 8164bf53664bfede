#include "Core/ZavloAuthResponseUtils.hpp"

#include "Core/ZavloAuthStatus.hpp"
#include "Core/ZavloAuthVersion.hpp"

std::optional<nlohmann::json> ZavloAuthResponseUtils::objectFromText(const std::string& text) noexcept {
  auto parsed = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (!parsed.is_object()) return std::nullopt;
  return parsed;
}

nlohmann::json ZavloAuthResponseUtils::capabilitiesDictionary() {
  return {
      {"status", ZavloAuthStatus::success},
      {"sdkVersion", ZavloAuthSDKVersion},
      {"platform", "ios"},
      {"bridgeVersion", 2},
      {"factors", {"SNA", "DEVICE_BINDING"}},
      {"supportedMethods",
       {"initAuth", "startAuth", "initSNA", "startSNA", "getDeviceBindingState", "enrollDeviceBinding",
        "signDeviceBindingChallenge", "getCapabilities"}},
  };
}
