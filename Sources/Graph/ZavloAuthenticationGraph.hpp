#pragma once

#include <memory>

#include "Bridge/ZavloAuthenticationWrapper.hpp"
#include "Native/ZavloAuthenticationNativeWrapper.hpp"
#include "Session/ZavloAuthenticationRepository.hpp"
#include "Operations/ZavloAuthenticationOperations.hpp"

class ZavloAuthHTTPManager;
class ZavloAuthLogManager;
class ZavloCellularPathChecker;
class ZavloDeviceBindingManager;
class ZavloAuthRequestManager;
class ZavloPlatform;

/// The library's whole object graph on one platform, built once in dependency order: the
/// one place that wires managers together and the owner of every process-wide instance.
/// The shared() accessors of the library's classes return members of shared(); tests,
/// benchmarks and hosts that want a private graph build their own on any platform, which
/// must outlive the graph.
///
/// Both entry classes run every operation through the one operations facade, so the
/// native host and the page share the session and the configuration reading.
///
/// Lifetime: a private graph is destroyed like any object (members in reverse order). The
/// process-wide graph is built on first use on ZavloPlatform::current() and never
/// destroyed, because platform threads may still reach its managers while the process
/// exits.
class ZavloAuthenticationGraph {
 public:
  explicit ZavloAuthenticationGraph(ZavloPlatform& platform);
  ZavloAuthenticationGraph(const ZavloAuthenticationGraph&) = delete;
  ZavloAuthenticationGraph& operator=(const ZavloAuthenticationGraph&) = delete;
  ~ZavloAuthenticationGraph();

  /// The process-wide graph.
  static ZavloAuthenticationGraph& shared();

  [[nodiscard]] ZavloPlatform& platform() const noexcept { return platform_; }

 private:
  ZavloPlatform& platform_;

 public:
  const std::shared_ptr<ZavloAuthHTTPManager> httpManager;
  const std::shared_ptr<ZavloAuthLogManager> logManager;
  const std::shared_ptr<ZavloCellularPathChecker> pathChecker;
  const std::shared_ptr<ZavloAuthRequestManager> requestManager;
  const std::shared_ptr<ZavloAuthenticationRepository> repository;
  ZavloAuthenticationManger manger;
  const std::shared_ptr<ZavloDeviceBindingManager> deviceBindingManager;
  /// What both entry classes below run operations through; a host's diagnostics (the hop
  /// observer) are set here too.
  const std::shared_ptr<ZavloAuthenticationOperations> operations;
  ZavloAuthenticationNativeWrapper nativeWrapper;
  ZavloAuthenticationWrapper webWrapper;
};
