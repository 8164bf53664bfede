// The rtnetlink state of the Linux path monitor, driven by crafted messages laid out as
// the kernel lays them out.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <linux/if_addr.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "Platform/Linux/Network/ZavloLinuxNetlinkState.hpp"

namespace {

// One netlink message: header, fixed body, then attributes, each 4-byte aligned.
class Message {
 public:
  template <class Body>
  Message(std::uint16_t type, const Body& body, std::uint16_t flags = 0) {
    bytes_.resize(NLMSG_HDRLEN + NLMSG_ALIGN(sizeof(Body)));
    std::memcpy(bytes_.data() + NLMSG_HDRLEN, &body, sizeof body);
    header().nlmsg_type = type;
    header().nlmsg_flags = flags;
    sync();
  }
  Message& attribute(std::uint16_t type, const void* data, std::size_t size) {
    const std::size_t at = bytes_.size();
    bytes_.resize(at + RTA_SPACE(size));
    rtattr head{static_cast<unsigned short>(RTA_LENGTH(size)), type};
    std::memcpy(bytes_.data() + at, &head, sizeof head);
    std::memcpy(bytes_.data() + at + RTA_LENGTH(0), data, size);
    sync();
    return *this;
  }
  Message& name(const std::string& text) { return attribute(IFLA_IFNAME, text.c_str(), text.size() + 1); }
  Message& u32(std::uint16_t type, std::uint32_t value) { return attribute(type, &value, sizeof value); }
  Message& ipv4(std::uint16_t type, const char* text) {
    in_addr address{};
    inet_pton(AF_INET, text, &address);
    return attribute(type, &address, sizeof address);
  }
  Message& ipv6(std::uint16_t type, const char* text) {
    in6_addr address{};
    inet_pton(AF_INET6, text, &address);
    return attribute(type, &address, sizeof address);
  }
  // Cuts the message short, as a malformed sender would.
  Message& truncate(std::size_t length) {
    header().nlmsg_len = static_cast<std::uint32_t>(length);
    return *this;
  }
  const nlmsghdr& get() const { return *reinterpret_cast<const nlmsghdr*>(bytes_.data()); }

 private:
  nlmsghdr& header() { return *reinterpret_cast<nlmsghdr*>(bytes_.data()); }
  void sync() { header().nlmsg_len = static_cast<std::uint32_t>(bytes_.size()); }
  std::vector<std::uint8_t> bytes_;  // vector storage is aligned for nlmsghdr
};

Message link(std::uint16_t type, int index, const std::string& name, unsigned arpType, unsigned flags,
             unsigned char family = AF_UNSPEC) {
  ifinfomsg body{};
  body.ifi_family = family;
  body.ifi_index = index;
  body.ifi_type = static_cast<unsigned short>(arpType);
  body.ifi_flags = flags;
  return std::move(Message(type, body).name(name));
}

Message address(std::uint16_t type, unsigned index, unsigned char family, unsigned char flags = 0) {
  ifaddrmsg body{};
  body.ifa_family = family;
  body.ifa_prefixlen = family == AF_INET ? 24 : 64;
  body.ifa_flags = flags;
  body.ifa_index = index;
  return Message(type, body);
}

Message defaultRoute(std::uint16_t type, unsigned char family, unsigned char table = RT_TABLE_MAIN) {
  rtmsg body{};
  body.rtm_family = family;
  body.rtm_table = table;
  body.rtm_type = RTN_UNICAST;
  return Message(type, body);
}

constexpr unsigned kUp = IFF_UP | IFF_RUNNING;

const ZavloLinuxInterface* find(const std::vector<ZavloLinuxInterface>& interfaces, const std::string& name) {
  const auto it = std::find_if(interfaces.begin(), interfaces.end(), [&](const auto& i) { return i.name == name; });
  return it == interfaces.end() ? nullptr : &*it;
}

TEST(ZavloLinuxNetlinkState, LinksWithUsableAddressesMakeThePathInIndexOrder) {
  ZavloLinuxNetlinkState state{ZavloLinuxInterfaceClassifier()};
  state.apply(link(RTM_NEWLINK, 7, "zmodem7", ARPHRD_RAWIP, kUp).get());
  state.apply(link(RTM_NEWLINK, 3, "zeth3", ARPHRD_ETHER, kUp).get());
  EXPECT_EQ(state.path(), ZavloNetworkPath{}) << "up, but no address yet";

  state.apply(address(RTM_NEWADDR, 7, AF_INET).ipv4(IFA_LOCAL, "10.0.0.2").ipv4(IFA_ADDRESS, "10.0.0.1").get());
  // Link-local and tentative IPv6 addresses are not usable yet.
  state.apply(address(RTM_NEWADDR, 3, AF_INET6).ipv6(IFA_ADDRESS, "fe80::1").get());
  state.apply(address(RTM_NEWADDR, 3, AF_INET6, IFA_F_TENTATIVE).ipv6(IFA_ADDRESS, "2001:db8::3").get());
  auto path = state.path();
  EXPECT_EQ(path.status, ZavloNetworkPath::Status::satisfied);
  EXPECT_EQ(path.availableInterfaces, (std::vector<ZavloNetworkInterface>{{"zmodem7", ZavloInterfaceType::cellular}}));

  // Duplicate address detection finished: the same address, now without the flag.
  state.apply(address(RTM_NEWADDR, 3, AF_INET6).ipv6(IFA_ADDRESS, "2001:db8::3").get());
  path = state.path();
  EXPECT_EQ(path.availableInterfaces, (std::vector<ZavloNetworkInterface>{{"zeth3", ZavloInterfaceType::wiredEthernet},
                                                                          {"zmodem7", ZavloInterfaceType::cellular}}));

  // Losing the carrier takes the modem out; deleting the other's address empties the path.
  state.apply(link(RTM_NEWLINK, 7, "zmodem7", ARPHRD_RAWIP, IFF_UP).get());
  state.apply(address(RTM_DELADDR, 3, AF_INET6).ipv6(IFA_ADDRESS, "2001:db8::3").get());
  EXPECT_EQ(state.path(), ZavloNetworkPath{});
  const auto interfaces = state.interfaces();
  ASSERT_EQ(interfaces.size(), 2U);
  EXPECT_EQ(interfaces[1].name, "zmodem7");
  EXPECT_FALSE(interfaces[1].up);
  EXPECT_TRUE(interfaces[1].hasUsableIPv4);
}

TEST(ZavloLinuxNetlinkState, LoopbackCountsOnlyWhenDeclaredCellularAndLinkRemovalForgetsAll) {
  for (const bool declared : {false, true}) {
    ZavloLinuxNetlinkState state{declared ? ZavloLinuxInterfaceClassifier({"lo"}) : ZavloLinuxInterfaceClassifier()};
    state.apply(link(RTM_NEWLINK, 1, "lo", ARPHRD_LOOPBACK, kUp | IFF_LOOPBACK).get());
    state.apply(address(RTM_NEWADDR, 1, AF_INET).ipv4(IFA_LOCAL, "127.0.0.1").get());
    EXPECT_EQ(state.path().status,
              declared ? ZavloNetworkPath::Status::satisfied : ZavloNetworkPath::Status::unsatisfied);
  }

  ZavloLinuxNetlinkState state{ZavloLinuxInterfaceClassifier()};
  state.apply(link(RTM_NEWLINK, 4, "zwwan4", ARPHRD_ETHER, kUp).get());
  state.apply(address(RTM_NEWADDR, 4, AF_INET).ipv4(IFA_LOCAL, "10.1.0.2").get());
  // A bridge port leaving its bridge is not the link going away.
  state.apply(link(RTM_DELLINK, 4, "zwwan4", ARPHRD_ETHER, kUp, AF_BRIDGE).get());
  EXPECT_EQ(state.path().availableInterfaces.size(), 1U);

  state.apply(link(RTM_DELLINK, 4, "zwwan4", ARPHRD_ETHER, 0).get());
  EXPECT_TRUE(state.interfaces().empty());
  // Back under the same index: the old address went with the old link.
  state.apply(link(RTM_NEWLINK, 4, "zwwan4", ARPHRD_ETHER, kUp).get());
  EXPECT_EQ(state.path(), ZavloNetworkPath{});
}

TEST(ZavloLinuxNetlinkState, TracksDefaultRoutesAndSaysWhenTheKernelMayHaveFlushedThem) {
  ZavloLinuxNetlinkState state{ZavloLinuxInterfaceClassifier()};
  state.apply(link(RTM_NEWLINK, 2, "zeth2", ARPHRD_ETHER, kUp).get());
  state.apply(link(RTM_NEWLINK, 5, "zwwan5", ARPHRD_RAWIP, kUp).get());
  state.apply(defaultRoute(RTM_NEWROUTE, AF_INET).u32(RTA_OIF, 2).ipv4(RTA_GATEWAY, "192.0.2.1").get());
  state.apply(defaultRoute(RTM_NEWROUTE, AF_INET, RT_TABLE_LOCAL).u32(RTA_OIF, 5).get());
  EXPECT_TRUE(find(state.interfaces(), "zeth2")->hasDefaultRoute);
  EXPECT_FALSE(find(state.interfaces(), "zwwan5")->hasDefaultRoute) << "local table routes are not defaults";

  // An IPv6 multipath default over both links.
  std::vector<std::uint8_t> hops;
  for (const int index : {2, 5}) {
    rtnexthop hop{};
    hop.rtnh_len = sizeof hop;
    hop.rtnh_ifindex = index;
    const auto* raw = reinterpret_cast<const std::uint8_t*>(&hop);
    hops.insert(hops.end(), raw, raw + RTNH_ALIGN(sizeof hop));
  }
  state.apply(defaultRoute(RTM_NEWROUTE, AF_INET6)
                  .u32(RTA_PRIORITY, 1024)
                  .attribute(RTA_MULTIPATH, hops.data(), hops.size())
                  .get());
  EXPECT_TRUE(find(state.interfaces(), "zwwan5")->hasDefaultRoute);
  state.apply(defaultRoute(RTM_DELROUTE, AF_INET).u32(RTA_OIF, 2).ipv4(RTA_GATEWAY, "192.0.2.1").get());
  state.apply(defaultRoute(RTM_DELROUTE, AF_INET6)
                  .u32(RTA_PRIORITY, 1024)
                  .attribute(RTA_MULTIPATH, hops.data(), hops.size())
                  .get());
  EXPECT_FALSE(find(state.interfaces(), "zeth2")->hasDefaultRoute);
  EXPECT_FALSE(find(state.interfaces(), "zwwan5")->hasDefaultRoute);

  EXPECT_FALSE(state.apply(link(RTM_NEWLINK, 2, "zeth2", ARPHRD_ETHER, kUp).get()).routesMayBeStale);
  EXPECT_TRUE(state.apply(link(RTM_NEWLINK, 2, "zeth2", ARPHRD_ETHER, 0).get()).routesMayBeStale);
  EXPECT_TRUE(state.apply(address(RTM_DELADDR, 5, AF_INET).ipv4(IFA_LOCAL, "10.0.0.5").get()).routesMayBeStale);
}

TEST(ZavloLinuxNetlinkState, IgnoresMalformedMessages) {
  ZavloLinuxNetlinkState state{ZavloLinuxInterfaceClassifier()};
  ifinfomsg body{};
  body.ifi_index = 9;
  body.ifi_flags = kUp;
  // Too short for its body.
  state.apply(Message(RTM_NEWLINK, body).truncate(NLMSG_HDRLEN + 4).get());
  EXPECT_TRUE(state.interfaces().empty());

  // An attribute claiming more bytes than the message holds is not read.
  Message overlong(RTM_NEWLINK, body);
  overlong.name("zbad0").truncate(NLMSG_HDRLEN + NLMSG_ALIGN(sizeof body) + 6);
  state.apply(overlong.get());
  ASSERT_EQ(state.interfaces().size(), 1U);
  EXPECT_EQ(state.interfaces()[0].name, "");

  // An address without any address attribute, and one of an unknown family.
  state.apply(address(RTM_NEWADDR, 9, AF_INET).get());
  state.apply(address(RTM_NEWADDR, 9, AF_PACKET).ipv4(IFA_LOCAL, "10.0.0.9").get());
  EXPECT_EQ(state.path(), ZavloNetworkPath{});
}

}  // namespace
