#include "Native/ZavloAuthenticationGraph.hpp"

#include "Cellular/ZavloCellularPathChecker.hpp"
#include "Telemetry/ZavloAuthHTTPManager.hpp"
#include "Telemetry/ZavloAuthLogManager.hpp"
#include "DeviceBinding/ZavloDeviceBindingManager.hpp"
#include "Native/ZavloAuthRequestManager.hpp"
#include "Platform/ZavloPlatform.hpp"

ZavloAuthenticationGraph::ZavloAuthenticationGraph(ZavloPlatform& platform)
    : platform_(platform),
      httpManager(ZavloAuthHTTPManager::create(platform)),
      logManager(std::make_shared<ZavloAuthLogManager>(httpManager)),
      pathChecker(std::make_shared<ZavloCellularPathChecker>(platform)),
      requestManager(ZavloAuthRequestManager::create(platform, logManager, pathChecker)),
      repository(std::make_shared<ZavloAuthenticationRepository>(requestManager)),
      deviceBindingManager(ZavloDeviceBindingManager::create(platform, logManager)),
      nativeWrapper(repository, logManager, deviceBindingManager),
      webWrapper({platform.mainQueue(), repository, nativeWrapper}, logManager) {}

ZavloAuthenticationGraph::~ZavloAuthenticationGraph() = default;
