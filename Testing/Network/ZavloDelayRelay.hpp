#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "Testing/Network/ZavloNetworkNamespace.hpp"

struct ZavloDelayRelayStatistics {
  std::uint64_t forwardedAToB = 0;
  std::uint64_t forwardedBToA = 0;
  std::uint64_t dropped = 0;  ///< packets that found their direction's queue full
};

/// Moves IP packets between two TUN descriptors, each one a fixed delay later than it was read,
/// in order, like a link with that one-way latency. Each direction queues at most
/// maxQueuedPackets packets; further packets are dropped, as a full link queue would.
/// One thread; the descriptors are not owned and must outlive the relay. Throws
/// std::system_error when the thread's wake-up descriptor cannot be made.
class ZavloDelayRelay {
 public:
  ZavloDelayRelay(int fdA, int fdB, std::chrono::microseconds oneWayDelay, std::size_t maxQueuedPackets = 4096);
  ~ZavloDelayRelay();
  ZavloDelayRelay(const ZavloDelayRelay&) = delete;
  ZavloDelayRelay& operator=(const ZavloDelayRelay&) = delete;

  [[nodiscard]] ZavloDelayRelayStatistics statistics() const noexcept;

 private:
  void run();

  int fds_[2];
  std::chrono::microseconds delay_;
  std::size_t maxQueued_;
  int stopFd_ = -1;
  std::atomic<std::uint64_t> forwarded_[2] = {0, 0};
  std::atomic<std::uint64_t> dropped_{0};
  std::thread thread_;
};

struct ZavloDelayedLinkOptions {
  std::chrono::microseconds oneWayDelay{25'000};
  std::size_t maxQueuedPackets = 4096;
  std::string interfaceName = "ztun0";  ///< the TUN device's name on both sides
  int subnet = -1;                      ///< X in 10.200.X.0/24 and fd00:200:0:X::/64; -1 derives it from the pid
  bool ipv6 = true;                     ///< also give both ends an IPv6 address (duplicate detection off)
};

/// Two network namespaces joined by a delayed point-to-point link: a TUN device in each (TUN
/// links have the no-ARP link type of raw-IP modems; declared cellular, one stands for a modem), the
/// client side at 10.200.X.1/24 (and fd00:200:0:X::1/64), the server side at .2 (::2), and a
/// ZavloDelayRelay in the calling namespace between the two devices. Everything is removed by
/// the destructor (and the namespaces on the signals ZavloNetworkNamespace names). Throws
/// std::system_error (or std::runtime_error) with what failed when it cannot be built.
class ZavloDelayedLink {
 public:
  explicit ZavloDelayedLink(ZavloDelayedLinkOptions options = {});
  ZavloDelayedLink(const ZavloDelayedLink&) = delete;
  ZavloDelayedLink& operator=(const ZavloDelayedLink&) = delete;

  [[nodiscard]] ZavloNetworkNamespace& clientSide() noexcept { return *client_; }
  [[nodiscard]] ZavloNetworkNamespace& serverSide() noexcept { return *server_; }
  [[nodiscard]] const std::string& clientAddress() const noexcept { return clientAddress_; }
  [[nodiscard]] const std::string& serverAddress() const noexcept { return serverAddress_; }
  /// Empty unless options.ipv6.
  [[nodiscard]] const std::string& clientAddress6() const noexcept { return clientAddress6_; }
  [[nodiscard]] const std::string& serverAddress6() const noexcept { return serverAddress6_; }
  [[nodiscard]] const std::string& interfaceName() const noexcept { return options_.interfaceName; }
  [[nodiscard]] std::chrono::microseconds oneWayDelay() const noexcept { return options_.oneWayDelay; }
  [[nodiscard]] ZavloDelayRelayStatistics statistics() const noexcept { return relay_->statistics(); }

 private:
  ZavloDelayedLinkOptions options_;
  std::string clientAddress_, serverAddress_, clientAddress6_, serverAddress6_;
  struct Descriptor {
    int fd = -1;
    Descriptor() = default;
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor();
  };
  // Destroyed in reverse: the relay stops before the devices close, the devices before the namespaces go.
  std::unique_ptr<ZavloNetworkNamespace> client_, server_;
  Descriptor clientTun_, serverTun_;
  std::unique_ptr<ZavloDelayRelay> relay_;
};
