#include "Testing/Network/ZavloDelayRelay.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <deque>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Packet {
  Clock::time_point due;
  std::vector<unsigned char> bytes;
};

std::system_error osError(const std::string& what) { return {errno, std::generic_category(), "delayed link: " + what}; }

// The kernel's in6_ifreq, declared here because its header clashes with <netinet/in.h>.
struct Ipv6InterfaceRequest {
  in6_addr address;
  std::uint32_t prefixLength;
  int interfaceIndex;
};

void writeSysctl(const std::string& path, const char* value) {
  std::ofstream file(path);
  file << value;
  file.flush();
  if (!file) throw std::runtime_error("delayed link: cannot write " + path);
}

void ioctlOrThrow(int fd, unsigned long request, void* argument, const std::string& what) {
  if (ioctl(fd, request, argument) != 0) throw osError(what);
}

// A new IPv6 address stays tentative until the kernel's address work runs, even without duplicate
// detection, and cannot be bound until then. Bounded: about two seconds.
void waitUntilUsable(const in6_addr& address, const std::string& text) {
  sockaddr_in6 local{};
  local.sin6_family = AF_INET6;
  local.sin6_addr = address;
  for (int attempt = 0; attempt < 2000; ++attempt) {
    const int probe = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (probe < 0) throw osError("socket");
    const bool bound = bind(probe, reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0;
    const int error = errno;
    close(probe);
    if (bound) return;
    if (error != EADDRNOTAVAIL) {
      errno = error;
      throw osError("bind " + text);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  throw std::runtime_error("delayed link: " + text + " stayed tentative");
}

// Runs inside the namespace the device must live in. Returns the TUN descriptor.
int createTun(const std::string& name, const std::string& address, const std::string& address6) {
  if (name.empty() || name.size() >= IFNAMSIZ) throw std::runtime_error("delayed link: bad interface name " + name);
  if (!address6.empty()) {
    // Addresses must be usable at once, not tentative while duplicate detection runs.
    writeSysctl("/proc/sys/net/ipv6/conf/default/accept_dad", "0");
    writeSysctl("/proc/sys/net/ipv6/conf/all/accept_dad", "0");
  }
  const int tun = open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (tun < 0) throw osError("open /dev/net/tun");
  const int probe = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const int probe6 = address6.empty() ? -1 : socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  try {
    if (probe < 0 || (!address6.empty() && probe6 < 0)) throw osError("socket");
    ifreq request{};
    std::memcpy(request.ifr_name, name.c_str(), name.size() + 1);
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    ioctlOrThrow(tun, TUNSETIFF, &request, "create " + name);

    auto* ipv4 = reinterpret_cast<sockaddr_in*>(&request.ifr_addr);
    ipv4->sin_family = AF_INET;
    if (inet_pton(AF_INET, address.c_str(), &ipv4->sin_addr) != 1) {
      throw std::runtime_error("delayed link: bad address " + address);
    }
    ioctlOrThrow(probe, SIOCSIFADDR, &request, "address " + address);
    auto* mask = reinterpret_cast<sockaddr_in*>(&request.ifr_netmask);
    mask->sin_family = AF_INET;
    mask->sin_addr.s_addr = htonl(0xFFFFFF00U);
    ioctlOrThrow(probe, SIOCSIFNETMASK, &request, "netmask of " + name);

    ioctlOrThrow(probe, SIOCGIFFLAGS, &request, "flags of " + name);
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    ioctlOrThrow(probe, SIOCSIFFLAGS, &request, "up " + name);

    if (!address6.empty()) {
      Ipv6InterfaceRequest request6{};
      if (inet_pton(AF_INET6, address6.c_str(), &request6.address) != 1) {
        throw std::runtime_error("delayed link: bad address " + address6);
      }
      request6.prefixLength = 64;
      request6.interfaceIndex = static_cast<int>(if_nametoindex(name.c_str()));
      ioctlOrThrow(probe6, SIOCSIFADDR, &request6, "address " + address6);
      waitUntilUsable(request6.address, address6);
    }
  } catch (...) {
    close(tun);
    if (probe >= 0) close(probe);
    if (probe6 >= 0) close(probe6);
    throw;
  }
  close(probe);
  if (probe6 >= 0) close(probe6);
  return tun;
}

}  // namespace

ZavloDelayRelay::ZavloDelayRelay(int fdA, int fdB, std::chrono::microseconds oneWayDelay, std::size_t maxQueuedPackets)
    : fds_{fdA, fdB}, delay_(oneWayDelay), maxQueued_(maxQueuedPackets) {
  stopFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (stopFd_ < 0) throw osError("eventfd");
  thread_ = std::thread([this] { run(); });
}

ZavloDelayRelay::~ZavloDelayRelay() {
  // One increment cannot overflow the eventfd counter, so this write cannot fail.
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto woken = write(stopFd_, &one, sizeof one);
  thread_.join();
  close(stopFd_);
}

ZavloDelayRelayStatistics ZavloDelayRelay::statistics() const noexcept {
  return {forwarded_[0].load(), forwarded_[1].load(), dropped_.load()};
}

void ZavloDelayRelay::run() {
  // Wake-ups as close to the due time as the kernel allows; the default slack is 50 us.
  prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
  // A link is not held up by a busy machine: where the process may, the relay runs before
  // ordinary threads (it sleeps between packets, so it takes no time from them it does not
  // need). Refused without CAP_SYS_NICE, it keeps the ordinary policy.
  sched_param priority{};
  priority.sched_priority = 1;
  pthread_setschedparam(pthread_self(), SCHED_FIFO, &priority);
  std::array<std::deque<Packet>, 2> queues;  // queues[i]: read from fds_[i], bound for the other one
  std::vector<unsigned char> buffer(65536);
  std::array<pollfd, 3> polled{{{fds_[0], POLLIN, 0}, {fds_[1], POLLIN, 0}, {stopFd_, POLLIN, 0}}};

  for (;;) {
    auto now = Clock::now();
    std::optional<Clock::time_point> next;
    for (std::size_t from = 0; from < 2; ++from) {
      auto& queue = queues[from];
      // Never early: a packet leaves only once its whole delay has passed.
      while (!queue.empty() && queue.front().due <= now) {
        const auto& bytes = queue.front().bytes;
        if (write(fds_[1 - from], bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size())) {
          forwarded_[from].fetch_add(1);
        } else {
          dropped_.fetch_add(1);
        }
        queue.pop_front();
      }
      if (!queue.empty() && (!next || queue.front().due < *next)) next = queue.front().due;
    }

    timespec timeout{};
    if (next) {
      const auto wait = std::chrono::duration_cast<std::chrono::nanoseconds>(*next - now).count();
      timeout.tv_sec = static_cast<time_t>(wait / 1'000'000'000);
      timeout.tv_nsec = static_cast<long>(wait % 1'000'000'000);
    }
    const int ready = ppoll(polled.data(), polled.size(), next ? &timeout : nullptr, nullptr);
    if (ready < 0 && errno != EINTR) return;
    if (ready <= 0) continue;
    if (polled[2].revents != 0) return;

    now = Clock::now();
    for (std::size_t from = 0; from < 2; ++from) {
      if ((polled[from].revents & POLLNVAL) != 0) return;
      if ((polled[from].revents & POLLIN) == 0) continue;
      // Bounded so that a flood in one direction cannot starve the other or the timers.
      for (int packets = 0; packets < 64; ++packets) {
        const auto length = read(fds_[from], buffer.data(), buffer.size());
        if (length <= 0) break;
        if (queues[from].size() >= maxQueued_) {
          dropped_.fetch_add(1);
          continue;
        }
        queues[from].push_back({now + delay_, {buffer.begin(), buffer.begin() + length}});
      }
    }
  }
}

ZavloDelayedLink::Descriptor::~Descriptor() {
  if (fd >= 0) close(fd);
}

ZavloDelayedLink::ZavloDelayedLink(ZavloDelayedLinkOptions options) : options_(std::move(options)) {
  int subnet = options_.subnet;
  if (subnet < 0) subnet = 1 + static_cast<int>(getpid() % 250);
  if (subnet > 255) throw std::runtime_error("delayed link: subnet must be 0..255");
  const auto prefix = "10.200." + std::to_string(subnet) + ".";
  clientAddress_ = prefix + "1";
  serverAddress_ = prefix + "2";
  if (options_.ipv6) {
    const auto prefix6 = "fd00:200:0:" + std::to_string(subnet) + "::";
    clientAddress6_ = prefix6 + "1";
    serverAddress6_ = prefix6 + "2";
  }

  client_ = std::make_unique<ZavloNetworkNamespace>("client");
  server_ = std::make_unique<ZavloNetworkNamespace>("server");
  const auto& name = options_.interfaceName;
  clientTun_.fd = client_->run([&] { return createTun(name, clientAddress_, clientAddress6_); });
  serverTun_.fd = server_->run([&] { return createTun(name, serverAddress_, serverAddress6_); });
  relay_ =
      std::make_unique<ZavloDelayRelay>(clientTun_.fd, serverTun_.fd, options_.oneWayDelay, options_.maxQueuedPackets);
}
