#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "Platform/Linux/Network/ZavloLinuxInterfaces.hpp"
#include "Platform/Linux/Network/ZavloLinuxNetlinkState.hpp"
#include "Platform/ZavloPathMonitor.hpp"

/// The path monitor of the Linux platform, on an rtnetlink (NETLINK_ROUTE) socket: an
/// initial dump of links, addresses and routes, then every link, address and route
/// change. A path is delivered first once the dumps are read, then whenever it differs
/// from the last one delivered.
///
/// Threading: each started monitor has one reader thread of its own that blocks on the
/// socket and posts paths to the queue given to start(); the handler only ever runs on
/// that queue. The socket belongs to the network namespace of the thread that calls
/// start(). cancel() (from any thread, the handler included) stops delivery at once,
/// waits for a handler call running on another thread to return (so do not cancel while
/// holding a lock the handler takes), wakes and joins the reader and closes the socket;
/// destroying a monitor cancels it.
/// Link facts from sysfs are those of the namespace sysfs was mounted in.
///
/// With ModemManager's modems in the classifier, a bearer that connects or disconnects
/// makes the links be classified again, as a link change would; the first path waits for
/// ModemManager's first reading (ZavloLinuxModems::kFirstReadingLimit at most).
///
/// If rtnetlink cannot be opened, the monitor delivers one unsatisfied path and no more.
class ZavloLinuxPathMonitor final : public ZavloPathMonitor {
 public:
  explicit ZavloLinuxPathMonitor(ZavloLinuxInterfaceClassifier classifier);
  ~ZavloLinuxPathMonitor() override;

  void setPathUpdateHandler(UpdateHandler handler) override;
  void start(std::shared_ptr<ZavloQueue> queue) override;
  void cancel() override;

  /// Every link as of the latest message read (it may run ahead of the delivered path);
  /// empty before the first path.
  [[nodiscard]] std::vector<ZavloLinuxInterface> interfaces() const;

 private:
  struct Delivery;
  class Reader;

  ZavloLinuxInterfaceClassifier classifier_;
  std::shared_ptr<Delivery> delivery_;
  std::mutex lifecycleMutex_;  // start against cancel
  bool started_ = false;
  std::unique_ptr<Reader> reader_;
  std::thread thread_;
};
