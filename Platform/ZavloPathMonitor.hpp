#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "Platform/ZavloNetworkInterface.hpp"
#include "Platform/ZavloQueue.hpp"

/// The device's network path at one moment.
struct ZavloNetworkPath {
  enum class Status { satisfied, unsatisfied, requiresConnection };

  Status status = Status::unsatisfied;
  /// Interfaces that are up with a usable address, in a stable order.
  std::vector<ZavloNetworkInterface> availableInterfaces;

  friend bool operator==(const ZavloNetworkPath&, const ZavloNetworkPath&) = default;
};

/// Watches the network path of all interface types.
///
/// Threading contract: set the handler before start(). After start(queue) the handler is
/// called on that queue, first with the current path and then with every change. After
/// cancel() returns (from any thread) the handler is never called again, and cancel()
/// releases the handler. A monitor is started at most once.
class ZavloPathMonitor {
 public:
  using UpdateHandler = std::function<void(const ZavloNetworkPath&)>;

  ZavloPathMonitor() = default;
  ZavloPathMonitor(const ZavloPathMonitor&) = delete;
  ZavloPathMonitor& operator=(const ZavloPathMonitor&) = delete;
  virtual ~ZavloPathMonitor() = default;

  virtual void setPathUpdateHandler(UpdateHandler handler) = 0;
  virtual void start(std::shared_ptr<ZavloQueue> queue) = 0;
  virtual void cancel() = 0;
};
