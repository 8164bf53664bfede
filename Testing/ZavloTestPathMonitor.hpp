#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

#include "Platform/ZavloPathMonitor.hpp"

/// Scripted network paths for the test platform. The test sets the current path; every
/// started monitor that is neither cancelled nor destroyed receives it through the queue
/// it was started on, when the test drains that queue on the virtual clock.
///
/// Threading contract: every method is callable from any thread; handlers run only on
/// the monitors' queues. The monitors keep the path monitor contract, including that a
/// cancel() from another thread waits for a handler call in progress.
class ZavloTestPathMonitorController {
 public:
  /// What a monitor does when it starts: report the current path (as a real monitor
  /// does) or stay silent until the next setCurrentPath (a path source that never
  /// answers).
  enum class StartMode { deliverCurrentPath, deliverNothing };

  /// The current path starts as a satisfied path with one cellular interface, "wwan0".
  ZavloTestPathMonitorController();

  /// Makes path the current one and posts it to every live monitor, even when it equals
  /// the previous one, so that a test can repeat an update.
  void setCurrentPath(const ZavloNetworkPath& path);
  [[nodiscard]] ZavloNetworkPath currentPath() const;
  /// Called by every setCurrentPath once the path is current, on the thread that set it
  /// and outside every lock of the controller (the test platform tells its connections).
  void setPathObserver(std::function<void()> observer);
  void setStartMode(StartMode mode);

  [[nodiscard]] std::size_t createdCount() const;
  [[nodiscard]] std::size_t startedCount() const;
  /// Started, and neither cancelled nor destroyed.
  [[nodiscard]] std::size_t liveCount() const;
  /// Monitors stopped by cancel() or by their destruction (which cancels them).
  [[nodiscard]] std::size_t cancelledCount() const;

  [[nodiscard]] std::shared_ptr<ZavloPathMonitor> makeMonitor();

  static ZavloNetworkPath satisfiedPath(std::vector<ZavloNetworkInterface> interfaces);
  static ZavloNetworkPath unsatisfiedPath() { return {}; }

 private:
  struct Core;
  struct MonitorState;
  class Monitor;

  std::shared_ptr<Core> core_;
};
