#include "Platform/Linux/Network/ZavloLinuxNetlinkState.hpp"

#include <linux/if_addr.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
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

void ZavloLinuxNetlinkState::reclassify() {
  for (auto& [index, link] : links_) link.type = classifier_.classify(link.facts);
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
    link.facts.driver.reset();
    ZavloLinuxInterfaceClassifier::addDeviceFacts(link.facts);
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
