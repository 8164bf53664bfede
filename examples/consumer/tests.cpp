// A host's own test: the library's graph on the deterministic test platform, with no
// Linux part linked. A session start with no cellular path fails after the 2-second
// preflight, on the virtual clock.
#include <iostream>
#include <memory>

#include "Graph/ZavloAuthenticationGraph.hpp"
#include "Testing/ZavloTestPlatform.hpp"

int main() {
  ZavloTestPlatform platform;
  ZavloAuthenticationGraph graph(platform);
  const auto screen = std::make_shared<int>(0);
  graph.nativeWrapper.setup(screen, ZavloAuthEnvironment::development);
  platform.pathMonitors().setCurrentPath(ZavloTestPathMonitorController::unsatisfiedPath());

  std::optional<ZavloResult<nlohmann::json>> outcome;
  graph.nativeWrapper.initAuth({{"requestId", "consumer"}}, [&](auto result) { outcome = std::move(result); });
  platform.advanceBy(std::chrono::seconds(2));
  if (!outcome || outcome->hasValue()) {
    std::cerr << "initAuth did not fail as expected\n";
    return 1;
  }
  std::cout << outcome->error().errorCode().value_or("") << '\n';
  return outcome->error().errorCode() == "SNA_CELLULAR_UNAVAILABLE" ? 0 : 1;
}
