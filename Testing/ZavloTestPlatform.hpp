#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "Platform/ZavloPlatform.hpp"
#include "Testing/ZavloTestConnection.hpp"
#include "Testing/ZavloTestDeviceInfo.hpp"
#include "Testing/ZavloTestHttp.hpp"
#include "Testing/ZavloTestKeyStore.hpp"
#include "Testing/ZavloTestOwnerAuthentication.hpp"
#include "Testing/ZavloTestPathMonitor.hpp"
#include "Testing/ZavloTestScheduler.hpp"

/// A deterministic platform for unit tests and for hosts testing their integration:
/// every queue runs on one virtual clock that only the test moves.
class ZavloTestPlatform final : public ZavloPlatform {
 public:
  ZavloTestPlatform();
  ~ZavloTestPlatform() override;

  ZavloQueue& mainQueue() override { return *mainQueue_; }
  std::shared_ptr<ZavloQueue> makeSerialQueue(const std::string& label) override {
    return scheduler_->makeQueue(label);
  }
  const ZavloDeviceInfo& deviceInfo() override { return deviceInfo_; }
  std::shared_ptr<ZavloPathMonitor> makePathMonitor() override { return pathMonitors_.makeMonitor(); }
  std::shared_ptr<ZavloHttpSession> makeHttpSession(const ZavloHttpSessionConfiguration& configuration) override {
    return http_.makeSession(configuration);
  }
  std::shared_ptr<ZavloConnection> makeConnection(const std::string& host, std::uint16_t port,
                                                  ZavloConnectionParameters parameters) override {
    return connections_.make(host, port, std::move(parameters));
  }
  ZavloKeyStore& keyStore() override { return keyStore_; }
  std::shared_ptr<ZavloOwnerAuthenticationContext> makeOwnerAuthenticationContext() override {
    return ownerAuthentication_.makeContext();
  }
  /// A deterministic stream (a counter through a mixer): tests may compare runs.
  void fillRandom(std::span<std::uint8_t> bytes) override;

  ZavloTestDeviceInfo& testDeviceInfo() { return deviceInfo_; }
  /// The scripted network path that every monitor of this platform reports.
  ZavloTestPathMonitorController& pathMonitors() { return pathMonitors_; }
  /// Every connection made so far, and the scripts later ones follow. A connection uses
  /// the interfaces of the current scripted path (pathMonitors()) when it starts, and one
  /// waiting for an allowed interface looks again whenever that path changes.
  ZavloTestConnections& connections() { return connections_; }
  ZavloTestScheduler& scheduler() { return *scheduler_; }
  /// Every request of every HTTP session made by this platform, answered by the test.
  ZavloTestHttp& http() { return http_; }
  /// The in-memory key store behind keyStore().
  ZavloTestKeyStore& testKeyStore() { return keyStore_; }
  /// Scripted owner authentication; replies arrive on the "owner-authentication" queue of
  /// this platform's clock.
  ZavloTestOwnerAuthentication& ownerAuthentication() { return ownerAuthentication_; }
  std::size_t runUntilIdle() { return scheduler_->runUntilIdle(); }
  std::size_t advanceBy(ZavloQueue::Duration delta) { return scheduler_->advanceBy(delta); }

 private:
  std::shared_ptr<ZavloTestScheduler> scheduler_;
  std::shared_ptr<ZavloQueue> mainQueue_;
  ZavloTestDeviceInfo deviceInfo_;
  ZavloTestPathMonitorController pathMonitors_;
  ZavloTestHttp http_{scheduler_};
  // Connections use the interfaces of the scripted path current when they start.
  ZavloTestConnections connections_{[paths = pathMonitors_] { return paths.currentPath().availableInterfaces; }};
  ZavloTestKeyStore keyStore_;
  std::mutex randomMutex_;
  std::uint64_t randomCounter_ = 0;
  ZavloTestOwnerAuthentication ownerAuthentication_{scheduler_->makeQueue("owner-authentication")};
};
