// The process-wide accessors, all in one place so that code which never asks for them
// links without a default platform.
#include "Telemetry/ZavloAuthEventLog.hpp"
#include "Telemetry/ZavloAuthHTTPManager.hpp"
#include "Telemetry/ZavloAuthLogManager.hpp"
#include "Native/ZavloAuthRequestManager.hpp"
#include "Native/ZavloAuthenticationGraph.hpp"
#include "Platform/ZavloPlatform.hpp"

ZavloAuthenticationGraph& ZavloAuthenticationGraph::shared() {
  static auto* const graph = new ZavloAuthenticationGraph(ZavloPlatform::current());
  return *graph;
}

std::shared_ptr<ZavloAuthHTTPManager> ZavloAuthHTTPManager::shared() {
  return ZavloAuthenticationGraph::shared().httpManager;
}

std::shared_ptr<ZavloAuthLogManager> ZavloAuthLogManager::shared() {
  return ZavloAuthenticationGraph::shared().logManager;
}


std::shared_ptr<ZavloAuthRequestManager> ZavloAuthRequestManager::shared() {
  return ZavloAuthenticationGraph::shared().requestManager;
}

std::shared_ptr<ZavloAuthenticationRepository> ZavloAuthenticationRepository::shared() {
  return ZavloAuthenticationGraph::shared().repository;
}

ZavloAuthenticationNativeWrapper& ZavloAuthenticationNativeWrapper::shared() {
  return ZavloAuthenticationGraph::shared().nativeWrapper;
}

ZavloAuthenticationWrapper& ZavloAuthenticationWrapper::shared() { return ZavloAuthenticationGraph::shared().webWrapper; }

nlohmann::json ZavloAuthEventLog::createDeviceMetadata() {
  return createDeviceMetadata(ZavloAuthenticationGraph::shared().platform().deviceInfo());
}
