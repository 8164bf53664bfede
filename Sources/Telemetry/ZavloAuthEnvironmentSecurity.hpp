#pragma once

#include <string>
#include <string_view>

#include "Core/ZavloAuthEnvironment.hpp"

/// The web hosts of the two environments; every tracking endpoint and check derives from
/// these two names.
inline constexpr std::string_view ZavloProductionWebHost = "auth.zavlo.in";
inline constexpr std::string_view ZavloSandboxWebHost = "sandbox-auth.zavlo.in";
/// Path of the tracking endpoint on either web host.
inline constexpr std::string_view ZavloTrackingPath = "/redirection/api/auth-tracking";

/// Which telemetry endpoints the entry points accept for an environment.
class ZavloAuthEnvironmentSecurity {
 public:
  ZavloAuthEnvironmentSecurity() = delete;

  /// True when url starts with "https://", exactly the environment's own web host and a
  /// slash (a case-sensitive regular-expression search anchored at the start).
  static bool isValidLoggingURL(std::string_view url, ZavloAuthEnvironment environment) noexcept;

  /// production: the production web host; development: the sandbox web host.
  static std::string_view webHost(ZavloAuthEnvironment environment) noexcept;
  /// "https://" + the environment's web host + the tracking path.
  static std::string trackingEndpoint(ZavloAuthEnvironment environment);
  /// The pattern isValidLoggingURL searches for: "^https://" + the host with every dot
  /// escaped + "/.*".
  static std::string loggingURLPattern(ZavloAuthEnvironment environment);
};
