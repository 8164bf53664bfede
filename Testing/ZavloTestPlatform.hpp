#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "Platform/ZavloPlatform.hpp"
#include "Testing/ZavloTestConnection.hpp"
#include "Testing/ZavloTestDeviceInfo.hpp"
#include "Testing/ZavloTestHttp.hpp"
#include "Testing/ZavloTestPathMonitor.hpp"
#include "Testing/ZavloTestScheduler.hpp"

/// A deterministic platform for unit tests and for hosts testing their integration:
/// every queue runs on one virtual clock that only the test moves.
class ZavloTestPlatform final : public ZavloPlatform {
 public:
  ZavloTestPlatform();

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

  ZavloTestDeviceInfo& testDeviceInfo() { return deviceInfo_; }
  /// The scripted network path that every monitor of this platform reports.
  ZavloTestPathMonitorController& pathMonitors() { return pathMonitors_; }
  /// Every connection made so far, and the scripts later ones follow. A connection uses
  /// the interfaces of the current scripted path (pathMonitors()) when it starts.
  ZavloTestConnections& connections() { return connections_; }
  ZavloTestScheduler& scheduler() { return *scheduler_; }
  /// Every request of every HTTP session made by this platform, answered by the test.
  ZavloTestHttp& http() { return http_; }
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
};
