#include <gtest/gtest.h>

#include <net/if.h>
#include <net/if_arp.h>

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#include "Platform/Linux/Network/ZavloLinuxInterfaces.hpp"
#include "Testing/Network/ZavloNetworkNamespace.hpp"

namespace {

// What the kernel tells about a link; anything not set is not known.
struct Link {
  Link(std::string name, unsigned arpType, unsigned flags = 0) {
    facts.name = std::move(name);
    facts.arpType = arpType;
    facts.flags = flags;
  }
  Link& devType(std::string type) {
    facts.devType = std::move(type);
    return *this;
  }
  Link& driver(std::string name) {
    facts.driver = std::move(name);
    return *this;
  }
  Link& wireless() {
    facts.hasWirelessPhy = true;
    return *this;
  }
  ZavloLinuxLinkFacts facts;
};

}  // namespace

TEST(ZavloLinuxInterfaceClassifier, ClassifiesModemWirelessLoopbackAndEthernetLinks) {
  const ZavloLinuxInterfaceClassifier classifier({"eth7"});
  const auto type = [&](const Link& link) { return classifier.classify(link.facts); };
  EXPECT_EQ(type(Link("eth7", ARPHRD_ETHER)), ZavloInterfaceType::cellular);  // declared wins
  EXPECT_EQ(type(Link("eth0", ARPHRD_ETHER)), ZavloInterfaceType::wiredEthernet);
  EXPECT_EQ(type(Link("lo", ARPHRD_LOOPBACK, IFF_LOOPBACK)), ZavloInterfaceType::loopback);
  EXPECT_EQ(type(Link("wlp2s0", ARPHRD_ETHER).devType("wlan").wireless()), ZavloInterfaceType::wifi);
  EXPECT_EQ(type(Link("gre0", ARPHRD_IPGRE)), ZavloInterfaceType::other);
}

// Only a modem makes a link cellular: its device type, its driver, the raw-IP and PPP link
// types of modem drivers, or the names they give. Tunnels share the no-ARP link type of some
// modems but are none.
TEST(ZavloLinuxInterfaceClassifier, ClassesALinkCellularOnlyOnEvidenceOfAModem) {
  const ZavloLinuxInterfaceClassifier classifier({"tun7"});
  const auto type = [&](const Link& link) { return classifier.classify(link.facts); };
  EXPECT_EQ(type(Link("usb0", ARPHRD_ETHER).devType("wwan")), ZavloInterfaceType::cellular);
  EXPECT_EQ(type(Link("zqmi0", ARPHRD_NONE, IFF_POINTOPOINT).driver("qmi_wwan")), ZavloInterfaceType::cellular);
  EXPECT_EQ(type(Link("x", ARPHRD_RAWIP)), ZavloInterfaceType::cellular);
  EXPECT_EQ(type(Link("ppp0", ARPHRD_PPP, IFF_POINTOPOINT)), ZavloInterfaceType::cellular);
  EXPECT_EQ(type(Link("rmnet_data0", ARPHRD_ETHER)), ZavloInterfaceType::cellular);
  EXPECT_EQ(type(Link("wwan1", ARPHRD_NONE)), ZavloInterfaceType::cellular);

  // VPN links: OpenVPN's and most VPN clients' TUN, WireGuard, whatever their names.
  EXPECT_EQ(type(Link("tun0", ARPHRD_NONE, IFF_POINTOPOINT).driver("tun")), ZavloInterfaceType::other);
  EXPECT_EQ(type(Link("wg0", ARPHRD_NONE, IFF_POINTOPOINT)), ZavloInterfaceType::other);
  EXPECT_EQ(type(Link("wwan0", ARPHRD_NONE, IFF_POINTOPOINT).driver("tun")), ZavloInterfaceType::other)
      << "a tunnel named like a modem is still a tunnel";
  EXPECT_EQ(type(Link("tap0", ARPHRD_ETHER).driver("tun")), ZavloInterfaceType::wiredEthernet);
  // Unless the host says it stands for the modem.
  EXPECT_EQ(type(Link("tun7", ARPHRD_NONE, IFF_POINTOPOINT).driver("tun")), ZavloInterfaceType::cellular);
}

TEST(ZavloLinuxInterfaceClassifier, ListsTheLoopbackOfThisMachine) {
  const auto interfaces = ZavloLinuxInterfaceClassifier().listInterfaces();
  const auto loopback =
      std::find_if(interfaces.begin(), interfaces.end(), [](const auto& i) { return i.name == "lo"; });
  ASSERT_NE(loopback, interfaces.end());
  EXPECT_EQ(loopback->type, ZavloInterfaceType::loopback);
  EXPECT_TRUE(loopback->up);
  EXPECT_TRUE(loopback->hasUsableIPv4);
  EXPECT_GT(loopback->index, 0U);

  const auto declared = ZavloLinuxInterfaceClassifier({"lo"}).listInterfaces();
  const auto lo = std::find_if(declared.begin(), declared.end(), [](const auto& i) { return i.name == "lo"; });
  ASSERT_NE(lo, declared.end());
  EXPECT_EQ(lo->type, ZavloInterfaceType::cellular);
}

// The driver is asked in the link's own namespace, where sysfs (the host's) cannot tell.
TEST(ZavloLinuxInterfaceClassifier, SeesARealTunLinkAsCellularOnlyWhenDeclared) {
  std::string whyNot;
  auto ns = ZavloNetworkNamespace::create(whyNot, "classify");
  if (!ns) GTEST_SKIP() << "no network namespace: " << whyNot;
  ZavloTunDevice vpn(*ns, "zvpn0");
  ZavloTunDevice namedLikeAModem(*ns, "wwan9");
  for (const auto* name : {"zvpn0", "wwan9"}) {
    ns->ip({"link", "set", name, "up"});
  }
  ns->ip({"address", "add", "10.204.0.1/32", "dev", "zvpn0"});
  ns->ip({"address", "add", "10.204.0.2/32", "dev", "wwan9"});
  // The type of a usable link of that name, or nothing.
  const auto typeOf = [&](const std::vector<std::string>& declared,
                          const std::string& name) -> std::optional<ZavloInterfaceType> {
    std::vector<ZavloLinuxInterface> interfaces;
    ns->runInside([&] { interfaces = ZavloLinuxInterfaceClassifier(declared).listInterfaces(); });
    const auto found =
        std::find_if(interfaces.begin(), interfaces.end(), [&](const auto& i) { return i.name == name; });
    if (found == interfaces.end() || !found->usable()) return std::nullopt;
    return found->type;
  };
  EXPECT_EQ(typeOf({}, "zvpn0"), ZavloInterfaceType::other);
  EXPECT_EQ(typeOf({}, "wwan9"), ZavloInterfaceType::other);
  EXPECT_EQ(typeOf({"zvpn0"}, "zvpn0"), ZavloInterfaceType::cellular);
}
