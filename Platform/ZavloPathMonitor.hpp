#pragma once

#include <functional>
#include <memory>
#include <string_view>
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

constexpr std::string_view toString(ZavloNetworkPath::Status status) noexcept {
  switch (status) {
    case ZavloNetworkPath::Status::satisfied:
      return "satisfied";
    case ZavloNetworkPath::Status::unsatisfied:
      return "unsatisfied";
    case ZavloNetworkPath::Status::requiresConnection:
      return "requiresConnection";
  }
  return "unsatisfied";
}

/// Watches the network path of all interface types.
///
/// Threading contract: set the handler before start(). After start(queue) the handler is
/// called on that queue, first with the current path, then whenever the path changes (a
/// monitor may leave out a path equal to the last one it delivered). cancel() may
/// be called from any thread, the handler included; once it returns the handler is not
/// running on another thread and is never called again, and the handler is released.
/// Destroying a monitor cancels it. A monitor is started at most once.
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
