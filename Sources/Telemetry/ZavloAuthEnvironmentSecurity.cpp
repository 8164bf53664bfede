#include "Telemetry/ZavloAuthEnvironmentSecurity.hpp"

#include <regex>

std::string_view ZavloAuthEnvironmentSecurity::webHost(ZavloAuthEnvironment environment) noexcept {
  return environment == ZavloAuthEnvironment::production ? ZavloProductionWebHost : ZavloSandboxWebHost;
}

std::string ZavloAuthEnvironmentSecurity::trackingEndpoint(ZavloAuthEnvironment environment) {
  std::string endpoint = "https://";
  endpoint.append(webHost(environment)).append(ZavloTrackingPath);
  return endpoint;
}

std::string ZavloAuthEnvironmentSecurity::loggingURLPattern(ZavloAuthEnvironment environment) {
  std::string pattern = "^https://";
  for (const char c : webHost(environment)) {
    if (c == '.') pattern.push_back('\\');
    pattern.push_back(c);
  }
  pattern.append("/.*");
  return pattern;
}

bool ZavloAuthEnvironmentSecurity::isValidLoggingURL(std::string_view url, ZavloAuthEnvironment environment) noexcept {
  try {
    // Compiled once per environment; std::regex objects are safe to share for matching.
    static const std::regex development(loggingURLPattern(ZavloAuthEnvironment::development));
    static const std::regex production(loggingURLPattern(ZavloAuthEnvironment::production));
    const auto& pattern = environment == ZavloAuthEnvironment::production ? production : development;
    // The anchored prefix decides the answer (".*" also matches nothing), so the search
    // reads only the head of the text: the engine recurses per character and a huge URL
    // would exhaust the stack.
    const auto head = url.substr(0, 512);
    return std::regex_search(head.begin(), head.end(), pattern);
  } catch (const std::exception&) {
    return false;  // a search too complex for the engine is no valid endpoint either
  }
}
