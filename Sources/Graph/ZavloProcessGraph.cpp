// The process-wide graph and the accessors of the library's named process-wide instances,
// each a member of it. Built into the process library, beside the platform registry, so
// that code which never asks for them links without a default platform.
#include "Graph/ZavloAuthenticationGraph.hpp"
#include "Session/ZavloAuthRequestManager.hpp"
#include "Platform/ZavloPlatform.hpp"
#include "Telemetry/ZavloAuthEventLog.hpp"
#include "Telemetry/ZavloAuthHTTPManager.hpp"
#include "Telemetry/ZavloAuthLogManager.hpp"

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

ZavloAuthenticationManger& ZavloAuthenticationManger::shared() { return ZavloAuthenticationGraph::shared().manger; }

ZavloAuthenticationNativeWrapper& ZavloAuthenticationNativeWrapper::shared() {
  return ZavloAuthenticationGraph::shared().nativeWrapper;
}

ZavloAuthenticationWrapper& ZavloAuthenticationWrapper::shared() {
  return ZavloAuthenticationGraph::shared().webWrapper;
}

nlohmann::json ZavloAuthEventLog::createDeviceMetadata() {
  return createDeviceMetadata(ZavloAuthenticationGraph::shared().platform().deviceInfo());
}
