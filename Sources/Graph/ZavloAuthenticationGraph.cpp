#include "Graph/ZavloAuthenticationGraph.hpp"

#include "Cellular/ZavloCellularPathChecker.hpp"
#include "DeviceBinding/ZavloDeviceBindingManager.hpp"
#include "Session/ZavloAuthRequestManager.hpp"
#include "Platform/ZavloPlatform.hpp"
#include "Telemetry/ZavloAuthHTTPManager.hpp"
#include "Telemetry/ZavloAuthLogManager.hpp"

ZavloAuthenticationGraph::ZavloAuthenticationGraph(ZavloPlatform& platform)
    : platform_(platform),
      httpManager(ZavloAuthHTTPManager::create(platform)),
      logManager(std::make_shared<ZavloAuthLogManager>(httpManager)),
      pathChecker(std::make_shared<ZavloCellularPathChecker>(platform)),
      requestManager(ZavloAuthRequestManager::create(platform, logManager, pathChecker)),
      repository(std::make_shared<ZavloAuthenticationRepository>(requestManager)),
      deviceBindingManager(ZavloDeviceBindingManager::create(platform, logManager)),
      operations(std::make_shared<ZavloAuthenticationOperations>(repository, logManager, deviceBindingManager)),
      nativeWrapper(operations),
      webWrapper({platform.mainQueue(), operations}) {}

ZavloAuthenticationGraph::~ZavloAuthenticationGraph() = default;
