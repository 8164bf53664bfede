#include "Platform/Linux/ZavloLinuxPathMonitor.hpp"

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
#include <condition_variable>
#include <cstring>
#include <optional>
#include <string>
#include <system_error>

namespace {

// One attribute of a message: its type and value bytes.
struct Attribute {
  unsigned type;
  const std::uint8_t* data;
  std::size_t size;
};

// The fixed header of a message body, when the message is long enough to hold it.
template <class Header>
const Header* bodyOf(const nlmsghdr& message) {
  if (message.nlmsg_len < NLMSG_LENGTH(sizeof(Header))) return nullptr;
  return reinterpret_cast<const Header*>(reinterpret_cast<const std::uint8_t*>(&message) + NLMSG_HDRLEN);
}

// Walks attributes laid out back to back, stopping at the first malformed one.
template <class Visit>
void forEachAttribute(const std::uint8_t* data, std::size_t size, Visit&& visit) {
  while (size >= sizeof(rtattr)) {
    rtattr header{};
    std::memcpy(&header, data, sizeof header);
    if (header.rta_len < sizeof(rtattr) || header.rta_len > size) return;
    visit(Attribute{static_cast<unsigned>(header.rta_type & NLA_TYPE_MASK), data + RTA_LENGTH(0),
                    header.rta_len - RTA_LENGTH(0)});
    const std::size_t step = RTA_ALIGN(header.rta_len);
    if (step >= size) return;
    data += step;
    size -= step;
  }
}

// The attributes that follow the fixed header of a message body.
template <class Header, class Visit>
void forEachAttribute(const nlmsghdr& message, Visit&& visit) {
  const std::size_t offset = NLMSG_HDRLEN + NLMSG_ALIGN(sizeof(Header));
  if (message.nlmsg_len <= offset) return;
  forEachAttribute(reinterpret_cast<const std::uint8_t*>(&message) + offset, message.nlmsg_len - offset,
                   std::forward<Visit>(visit));
}

std::optional<std::uint32_t> u32(const Attribute& attribute) {
  if (attribute.size < sizeof(std::uint32_t)) return std::nullopt;
  std::uint32_t value = 0;
  std::memcpy(&value, attribute.data, sizeof value);
  return value;
}

std::array<std::uint8_t, 16> addressBytes(const Attribute& attribute) {
  std::array<std::uint8_t, 16> bytes{};
  std::memcpy(bytes.data(), attribute.data, std::min(attribute.size, bytes.size()));
  return bytes;
}

bool isIPv6LinkLocal(const std::array<std::uint8_t, 16>& bytes) {
  return bytes[0] == 0xfe && (bytes[1] & 0xc0) == 0x80;
}

}  // namespace

// ---------------------------------------------------------------------------------------
// ZavloLinuxNetlinkState

ZavloLinuxNetlinkState::Effect ZavloLinuxNetlinkState::apply(const nlmsghdr& message) {
  switch (message.nlmsg_type) {
    case RTM_NEWLINK:
    case RTM_DELLINK:
      return applyLink(message);
    case RTM_NEWADDR:
    case RTM_DELADDR:
      return applyAddress(message);
    case RTM_NEWROUTE:
    case RTM_DELROUTE:
      return applyRoute(message);
    default:
      return {};
  }
}

void ZavloLinuxNetlinkState::clear() {
  links_.clear();
  addresses_.clear();
  routes_.clear();
}

ZavloLinuxNetlinkState::Effect ZavloLinuxNetlinkState::applyLink(const nlmsghdr& message) {
  const auto* info = bodyOf<ifinfomsg>(message);
  // Bridge port messages (AF_BRIDGE) share the message types but say nothing about the
  // link's own life.
  if (info == nullptr || info->ifi_family != AF_UNSPEC || info->ifi_index <= 0) return {};
  const auto index = static_cast<unsigned>(info->ifi_index);

  if (message.nlmsg_type == RTM_DELLINK) {
    links_.erase(index);
    std::erase_if(addresses_, [index](const auto& entry) { return entry.first.index == index; });
    std::erase_if(routes_, [index](const DefaultRoute& route) { return route.index == index; });
    return {};
  }

  std::optional<std::string> name;
  forEachAttribute<ifinfomsg>(message, [&](const Attribute& attribute) {
    if (attribute.type == IFLA_IFNAME) {
      const auto* text = reinterpret_cast<const char*>(attribute.data);
      name.emplace(text, strnlen(text, attribute.size));
    }
  });

  const auto [position, added] = links_.try_emplace(index);
  auto& link = position->second;
  const bool wasUp = !added && (link.facts.flags & IFF_UP) != 0;
  link.facts.arpType = info->ifi_type;
  link.facts.flags = info->ifi_flags;
  if (added || (name && *name != link.facts.name)) {
    if (name) link.facts.name = *name;
    link.facts.devType.reset();
    link.facts.hasWirelessPhy = false;
    ZavloLinuxInterfaceClassifier::addSysfsFacts(link.facts);
  }
  link.type = classifier_.classify(link.facts);

  Effect effect;
  effect.routesMayBeStale = wasUp && (info->ifi_flags & IFF_UP) == 0;
  return effect;
}

ZavloLinuxNetlinkState::Effect ZavloLinuxNetlinkState::applyAddress(const nlmsghdr& message) {
  const auto* info = bodyOf<ifaddrmsg>(message);
  if (info == nullptr || (info->ifa_family != AF_INET && info->ifa_family != AF_INET6)) return {};

  std::optional<std::array<std::uint8_t, 16>> local;
  std::optional<std::array<std::uint8_t, 16>> address;
  std::uint32_t flags = info->ifa_flags;
  forEachAttribute<ifaddrmsg>(message, [&](const Attribute& attribute) {
    switch (attribute.type) {
      case IFA_LOCAL:
        local = addressBytes(attribute);
        break;
      case IFA_ADDRESS:
        address = addressBytes(attribute);
        break;
      case IFA_FLAGS:
        flags = u32(attribute).value_or(flags);
        break;
      default:
        break;
    }
  });
  // On point-to-point links IFA_ADDRESS is the peer; IFA_LOCAL is ours.
  const auto own = local ? local : address;
  if (!own) return {};

  const Address key{info->ifa_index, info->ifa_family, *own, info->ifa_prefixlen};
  if (message.nlmsg_type == RTM_DELADDR) {
    addresses_.erase(key);
    Effect effect;
    effect.routesMayBeStale = info->ifa_family == AF_INET;
    return effect;
  }
  bool usable = true;
  if (info->ifa_family == AF_INET6) {
    const bool tentative = (flags & IFA_F_TENTATIVE) != 0 && (flags & IFA_F_OPTIMISTIC) == 0;
    usable = !isIPv6LinkLocal(*own) && !tentative && (flags & IFA_F_DADFAILED) == 0;
  }
  addresses_[key] = usable;
  return {};
}

ZavloLinuxNetlinkState::Effect ZavloLinuxNetlinkState::applyRoute(const nlmsghdr& message) {
  const auto* info = bodyOf<rtmsg>(message);
  if (info == nullptr || (info->rtm_family != AF_INET && info->rtm_family != AF_INET6)) return {};
  if (info->rtm_dst_len != 0 || info->rtm_type != RTN_UNICAST || (info->rtm_flags & RTM_F_CLONED) != 0) return {};

  DefaultRoute base;
  base.family = info->rtm_family;
  base.table = info->rtm_table;
  std::vector<DefaultRoute> found;
  std::optional<unsigned> outputIndex;
  forEachAttribute<rtmsg>(message, [&](const Attribute& attribute) {
    switch (attribute.type) {
      case RTA_TABLE:
        base.table = u32(attribute).value_or(base.table);
        break;
      case RTA_PRIORITY:
        base.priority = u32(attribute).value_or(0);
        break;
      case RTA_GATEWAY:
        base.gateway = addressBytes(attribute);
        break;
      case RTA_OIF:
        if (const auto value = u32(attribute)) outputIndex = *value;
        break;
      case RTA_MULTIPATH: {
        // rtnexthop records, each followed by its own attributes.
        const std::uint8_t* data = attribute.data;
        std::size_t size = attribute.size;
        while (size >= sizeof(rtnexthop)) {
          rtnexthop hop{};
          std::memcpy(&hop, data, sizeof hop);
          if (hop.rtnh_len < sizeof(rtnexthop) || hop.rtnh_len > size) break;
          DefaultRoute route;
          route.index = static_cast<unsigned>(hop.rtnh_ifindex);
          const std::size_t header = RTNH_ALIGN(sizeof(rtnexthop));
          if (hop.rtnh_len > header) {
            forEachAttribute(data + header, hop.rtnh_len - header, [&](const Attribute& inner) {
              if (inner.type == RTA_GATEWAY) route.gateway = addressBytes(inner);
            });
          }
          found.push_back(route);
          const std::size_t step = RTNH_ALIGN(hop.rtnh_len);
          if (step >= size) break;
          data += step;
          size -= step;
        }
        break;
      }
      default:
        break;
    }
  });
  if (base.table == RT_TABLE_LOCAL) return {};
  if (outputIndex) {
    DefaultRoute route;
    route.index = *outputIndex;
    route.gateway = base.gateway;
    found.push_back(route);
  }
  for (auto& route : found) {
    route.family = base.family;
    route.table = base.table;
    route.priority = base.priority;
  }

  if (message.nlmsg_type == RTM_DELROUTE) {
    for (const auto& route : found) routes_.erase(route);
    return {};
  }
  if ((message.nlmsg_flags & NLM_F_REPLACE) != 0) {
    std::erase_if(routes_, [&](const DefaultRoute& route) {
      return route.family == base.family && route.table == base.table && route.priority == base.priority;
    });
  }
  routes_.insert(found.begin(), found.end());
  return {};
}

bool ZavloLinuxNetlinkState::hasUsableAddress(unsigned index, int family) const {
  for (auto it = addresses_.lower_bound(Address{index, 0, {}, 0}); it != addresses_.end() && it->first.index == index;
       ++it) {
    if (it->first.family == family && it->second) return true;
  }
  return false;
}

std::vector<ZavloLinuxInterface> ZavloLinuxNetlinkState::interfaces() const {
  std::vector<ZavloLinuxInterface> result;
  result.reserve(links_.size());
  for (const auto& [index, link] : links_) {
    ZavloLinuxInterface interface;
    interface.name = link.facts.name;
    interface.index = index;
    interface.type = link.type;
    interface.up = (link.facts.flags & IFF_UP) != 0 && (link.facts.flags & IFF_RUNNING) != 0;
    interface.hasUsableIPv4 = hasUsableAddress(index, AF_INET);
    interface.hasUsableIPv6 = hasUsableAddress(index, AF_INET6);
    interface.hasDefaultRoute = std::any_of(
        routes_.begin(), routes_.end(), [index = index](const DefaultRoute& route) { return route.index == index; });
    result.push_back(std::move(interface));
  }
  return result;
}

ZavloNetworkPath ZavloLinuxNetlinkState::path() const {
  ZavloNetworkPath path;
  for (const auto& interface : interfaces()) {
    if (interface.usable() && interface.type != ZavloInterfaceType::loopback) {
      path.availableInterfaces.push_back({interface.name, interface.type});
    }
  }
  path.status =
      path.availableInterfaces.empty() ? ZavloNetworkPath::Status::unsatisfied : ZavloNetworkPath::Status::satisfied;
  return path;
}

// ---------------------------------------------------------------------------------------
// ZavloLinuxPathMonitor

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

// Owns the rtnetlink socket; everything but wake() runs on the reader thread.
class ZavloLinuxPathMonitor::Reader {
 public:
  Reader(ZavloLinuxInterfaceClassifier classifier, std::shared_ptr<Delivery> delivery)
      : state_(std::move(classifier)), delivery_(std::move(delivery)), buffer_(kBufferSize) {}

  ~Reader() {
    if (socket_ >= 0) ::close(socket_);
    if (wake_ >= 0) ::close(wake_);
  }

  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  // Opens the socket in the calling thread's network namespace, subscribed to every
  // change before the first dump so that nothing falls between the two.
  bool open() {
    wake_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    socket_ = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (wake_ < 0 || socket_ < 0) return false;
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

  void wake() const {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(wake_, &one, sizeof one);
  }

  void run() {
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
        bool unused = false;
        outcome = receive(0, unused);
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
    std::array<pollfd, 2> fds{{{socket_, POLLIN, 0}, {wake_, POLLIN, 0}}};
    for (;;) {
      if (::poll(fds.data(), fds.size(), -1) < 0) {
        if (errno == EINTR) continue;
        return Outcome::failed;
      }
      if (fds[1].revents != 0) return Outcome::cancelled;
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

  ZavloLinuxNetlinkState state_;
  std::shared_ptr<Delivery> delivery_;
  std::vector<std::uint8_t> buffer_;
  int socket_ = -1;
  int wake_ = -1;
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
