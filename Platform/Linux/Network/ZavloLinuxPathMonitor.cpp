#include "Platform/Linux/Network/ZavloLinuxPathMonitor.hpp"

#include <linux/if_addr.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <optional>
#include <string>
#include <system_error>

#include "Platform/Linux/Network/ZavloLinuxModems.hpp"

// What the reader thread and the posted deliveries share with the monitor.
struct ZavloLinuxPathMonitor::Delivery : std::enable_shared_from_this<Delivery> {
  mutable std::mutex mutex;
  std::condition_variable idle;
  UpdateHandler handler;
  std::shared_ptr<ZavloQueue> queue;
  bool cancelled = false;
  std::thread::id callingThread;  // the thread running the handler, while it runs
  std::vector<ZavloLinuxInterface> interfaces;

  void post(ZavloNetworkPath path) {
    std::shared_ptr<ZavloQueue> target;
    {
      std::lock_guard lock(mutex);
      if (cancelled) return;
      target = queue;
    }
    if (target) target->post([self = shared_from_this(), path = std::move(path)] { self->deliver(path); });
  }

  void deliver(const ZavloNetworkPath& path) {
    UpdateHandler current;
    {
      std::lock_guard lock(mutex);
      if (cancelled || !handler) return;
      current = handler;
      callingThread = std::this_thread::get_id();
    }
    // Ends the call even if the handler throws: the copy goes first, then a waiting
    // cancel() is let through.
    const auto ended = [&] {
      current = nullptr;
      {
        std::lock_guard lock(mutex);
        callingThread = {};
      }
      idle.notify_all();
    };
    try {
      current(path);
    } catch (...) {
      ended();
      throw;
    }
    ended();
  }

  // Stops delivery; waits for a call running on another thread, so that the handler is
  // neither running nor ever called once this returns. Returns what is to be released.
  std::pair<UpdateHandler, std::shared_ptr<ZavloQueue>> stop() {
    std::unique_lock lock(mutex);
    cancelled = true;
    idle.wait(lock,
              [this] { return callingThread == std::thread::id{} || callingThread == std::this_thread::get_id(); });
    return {std::move(handler), std::move(queue)};
  }
};

// Owns the rtnetlink socket; everything but wake() runs on the reader thread. ModemManager's
// changes of bearers come as a wake-up of their own and make the links be classified again.
class ZavloLinuxPathMonitor::Reader {
 public:
  Reader(ZavloLinuxInterfaceClassifier classifier, std::shared_ptr<Delivery> delivery)
      : modems_(classifier.modems()),
        state_(std::move(classifier)),
        delivery_(std::move(delivery)),
        buffer_(kBufferSize) {}

  ~Reader() {
    modemSubscription_.reset();  // before the descriptor it writes to goes
    if (socket_ >= 0) ::close(socket_);
    if (wake_ >= 0) ::close(wake_);
    if (modemWake_ >= 0) ::close(modemWake_);
  }

  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  // Opens the socket in the calling thread's network namespace, subscribed to every
  // change before the first dump so that nothing falls between the two.
  bool open() {
    wake_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    socket_ = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (wake_ < 0 || socket_ < 0) return false;
    if (modems_) {
      modemWake_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
      // Without it the bearers still count, but their changes wait for the kernel's next one.
      if (modemWake_ >= 0) modemSubscription_ = modems_->subscribe([fd = modemWake_] { notify(fd); });
      modems_->start();
    }
    const int receiveBuffer = 1 << 20;
    ::setsockopt(socket_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    local.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;
    if (::bind(socket_, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) return false;
    socklen_t length = sizeof local;
    if (::getsockname(socket_, reinterpret_cast<sockaddr*>(&local), &length) != 0) return false;
    portId_ = local.nl_pid;
    return true;
  }

  void wake() const { notify(wake_); }

  void run() {
    if (!awaitModems()) return;
    bool first = true;
    // Each pass reads the tables whole, then follows changes until the socket overruns
    // (changes were lost, so everything is read again).
    for (;;) {
      state_.clear();
      routesStale_ = false;
      Outcome outcome = dump(RTM_GETLINK);
      if (outcome == Outcome::ok) outcome = dump(RTM_GETADDR);
      if (outcome == Outcome::ok) outcome = dump(RTM_GETROUTE);
      if (outcome == Outcome::cancelled) return;
      if (outcome == Outcome::overrun) continue;
      if (outcome == Outcome::failed) {
        if (first) delivery_->post(ZavloNetworkPath{});
        return;
      }
      publish(first);
      first = false;

      while (outcome == Outcome::ok) {
        // A change of the modems seen during a dump is applied before waiting again.
        if (!modemsChanged_) {
          bool unused = false;
          outcome = receive(0, unused);
        }
        if (outcome == Outcome::ok && modemsChanged_) {
          modemsChanged_ = false;
          state_.reclassify();
        }
        if (outcome == Outcome::ok && routesStale_) {
          routesStale_ = false;
          state_.clearRoutes();
          outcome = dump(RTM_GETROUTE);
        }
        if (outcome == Outcome::ok) publish(false);
      }
      if (outcome != Outcome::overrun) return;
    }
  }

 private:
  enum class Outcome { ok, cancelled, overrun, failed };
  static constexpr std::size_t kBufferSize = std::size_t{64} * 1024;

  static void notify(int eventFd) {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(eventFd, &one, sizeof one);
  }

  static void drain(int eventFd) {
    std::uint64_t count = 0;
    [[maybe_unused]] const auto read = ::read(eventFd, &count, sizeof count);
  }

  // Waits (until ModemManager's first-reading deadline) for the modems, so that the first
  // path already counts a connected bearer's link as cellular. False when cancelled.
  bool awaitModems() {
    if (!modems_) return true;
    const auto deadline = modems_->firstReadingDeadline();
    while (!modems_->hasFirstReading()) {
      const auto left =
          std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
      if (left <= 0) break;
      std::array<pollfd, 2> fds{{{wake_, POLLIN, 0}, {modemWake_, POLLIN, 0}}};
      if (::poll(fds.data(), fds.size(), static_cast<int>(left)) < 0 && errno != EINTR) break;
      if (fds[0].revents != 0) return false;
      if (fds[1].revents != 0) drain(modemWake_);
    }
    return true;
  }

  void publish(bool always) {
    {
      std::lock_guard lock(delivery_->mutex);
      delivery_->interfaces = state_.interfaces();
    }
    auto path = state_.path();
    if (!always && path == lastPath_) return;
    lastPath_ = path;
    delivery_->post(std::move(path));
  }

  // Requests one table and applies everything read until its end (changes included).
  Outcome dump(std::uint16_t type) {
    struct {
      nlmsghdr header;
      union {
        ifinfomsg link;
        ifaddrmsg address;
        rtmsg route;
      } body;
    } request{};
    std::size_t bodySize = sizeof(rtmsg);
    if (type == RTM_GETLINK) bodySize = sizeof(ifinfomsg);
    if (type == RTM_GETADDR) bodySize = sizeof(ifaddrmsg);
    request.header.nlmsg_len = NLMSG_LENGTH(bodySize);
    request.header.nlmsg_type = type;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.header.nlmsg_seq = ++sequence_;
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    for (;;) {
      if (::sendto(socket_, &request, request.header.nlmsg_len, 0, reinterpret_cast<const sockaddr*>(&kernel),
                   sizeof kernel) >= 0) {
        break;
      }
      if (errno != EINTR) return Outcome::failed;
    }
    bool done = false;
    while (!done) {
      const auto outcome = receive(sequence_, done);
      if (outcome != Outcome::ok) return outcome;
    }
    return Outcome::ok;
  }

  // Waits for one datagram (or the wake-up) and applies its messages. done is set when
  // the end of the dump numbered sequence arrives.
  Outcome receive(std::uint32_t sequence, bool& done) {
    // Without modems the last entry is -1, which poll() skips.
    std::array<pollfd, 3> fds{{{socket_, POLLIN, 0}, {wake_, POLLIN, 0}, {modemWake_, POLLIN, 0}}};
    for (;;) {
      if (::poll(fds.data(), fds.size(), -1) < 0) {
        if (errno == EINTR) continue;
        return Outcome::failed;
      }
      if (fds[1].revents != 0) return Outcome::cancelled;
      if (fds[2].revents != 0) {
        drain(modemWake_);
        modemsChanged_ = true;
        if (fds[0].revents == 0) return Outcome::ok;
      }
      if ((fds[0].revents & (POLLIN | POLLERR)) != 0) break;
      if (fds[0].revents != 0) return Outcome::failed;
    }

    sockaddr_nl sender{};
    iovec vector{buffer_.data(), buffer_.size()};
    msghdr header{};
    header.msg_name = &sender;
    header.msg_namelen = sizeof sender;
    header.msg_iov = &vector;
    header.msg_iovlen = 1;
    const auto received = ::recvmsg(socket_, &header, MSG_DONTWAIT);
    if (received < 0) {
      if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return Outcome::ok;
      return errno == ENOBUFS ? Outcome::overrun : Outcome::failed;
    }
    if ((header.msg_flags & MSG_TRUNC) != 0) return Outcome::overrun;
    if (sender.nl_pid != 0) return Outcome::ok;  // only the kernel speaks here

    auto remaining = static_cast<std::size_t>(received);
    const std::uint8_t* data = buffer_.data();
    while (remaining >= sizeof(nlmsghdr)) {
      const auto& message = *reinterpret_cast<const nlmsghdr*>(data);
      if (message.nlmsg_len < sizeof(nlmsghdr) || message.nlmsg_len > remaining) break;
      const bool ours = sequence != 0 && message.nlmsg_seq == sequence && message.nlmsg_pid == portId_;
      if (message.nlmsg_type == NLMSG_DONE || message.nlmsg_type == NLMSG_ERROR) {
        if (ours) done = true;
      } else if (state_.apply(message).routesMayBeStale) {
        routesStale_ = true;
      }
      const std::size_t step = NLMSG_ALIGN(message.nlmsg_len);
      if (step >= remaining) break;
      data += step;
      remaining -= step;
    }
    return Outcome::ok;
  }

  std::shared_ptr<ZavloLinuxModems> modems_;
  ZavloLinuxModems::Subscription modemSubscription_;
  ZavloLinuxNetlinkState state_;
  std::shared_ptr<Delivery> delivery_;
  std::vector<std::uint8_t> buffer_;
  int socket_ = -1;
  int wake_ = -1;
  int modemWake_ = -1;
  bool modemsChanged_ = false;
  std::uint32_t portId_ = 0;
  std::uint32_t sequence_ = 0;
  bool routesStale_ = false;
  ZavloNetworkPath lastPath_;
};

ZavloLinuxPathMonitor::ZavloLinuxPathMonitor(ZavloLinuxInterfaceClassifier classifier)
    : classifier_(std::move(classifier)), delivery_(std::make_shared<Delivery>()) {}

ZavloLinuxPathMonitor::~ZavloLinuxPathMonitor() { cancel(); }

void ZavloLinuxPathMonitor::setPathUpdateHandler(UpdateHandler handler) {
  std::lock_guard lock(delivery_->mutex);
  if (!delivery_->cancelled) delivery_->handler = std::move(handler);
}

void ZavloLinuxPathMonitor::start(std::shared_ptr<ZavloQueue> queue) {
  std::lock_guard lifecycle(lifecycleMutex_);
  if (started_ || !queue) return;
  started_ = true;
  {
    std::lock_guard lock(delivery_->mutex);
    if (delivery_->cancelled) return;
    delivery_->queue = std::move(queue);
  }
  auto reader = std::make_unique<Reader>(classifier_, delivery_);
  if (!reader->open()) {
    delivery_->post(ZavloNetworkPath{});
    return;
  }
  try {
    thread_ = std::thread([reader = reader.get()] {
      pthread_setname_np(pthread_self(), "zavlo-netlink");
      reader->run();
    });
  } catch (const std::system_error&) {
    delivery_->post(ZavloNetworkPath{});
    return;
  }
  reader_ = std::move(reader);
}

void ZavloLinuxPathMonitor::cancel() {
  auto dropped = delivery_->stop();
  std::lock_guard lifecycle(lifecycleMutex_);
  if (reader_) reader_->wake();
  if (thread_.joinable()) thread_.join();
  reader_.reset();
  // The handler's captures are released here, outside every lock.
}

std::vector<ZavloLinuxInterface> ZavloLinuxPathMonitor::interfaces() const {
  std::lock_guard lock(delivery_->mutex);
  return delivery_->interfaces;
}
