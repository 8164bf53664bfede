#include <gtest/gtest.h>

#include <net/if.h>
#include <net/if_arp.h>

#include <algorithm>

#include "Platform/Linux/ZavloLinuxInterfaces.hpp"
#include "Testing/Network/ZavloNetworkNamespace.hpp"

TEST(ZavloLinuxInterfaceClassifier, ClassifiesModemWirelessLoopbackAndEthernetLinks) {
  const ZavloLinuxInterfaceClassifier classifier({"eth7"});
  const auto type = [&](ZavloLinuxLinkFacts facts) { return classifier.classify(facts); };
  EXPECT_EQ(type({"eth7", ARPHRD_ETHER, IFF_UP, {}, false}), ZavloInterfaceType::cellular);  // declared wins
  EXPECT_EQ(type({"eth0", ARPHRD_ETHER, IFF_UP, {}, false}), ZavloInterfaceType::wiredEthernet);
  EXPECT_EQ(type({"lo", ARPHRD_LOOPBACK, IFF_LOOPBACK, {}, false}), ZavloInterfaceType::loopback);
  EXPECT_EQ(type({"wlp2s0", ARPHRD_ETHER, 0, "wlan", true}), ZavloInterfaceType::wifi);
  EXPECT_EQ(type({"usb0", ARPHRD_ETHER, 0, "wwan", false}), ZavloInterfaceType::cellular);
  EXPECT_EQ(type({"tun0", ARPHRD_NONE, IFF_POINTOPOINT, {}, false}), ZavloInterfaceType::cellular);
  EXPECT_EQ(type({"x", ARPHRD_RAWIP, 0, {}, false}), ZavloInterfaceType::cellular);
  EXPECT_EQ(type({"rmnet_data0", ARPHRD_ETHER, 0, {}, false}), ZavloInterfaceType::cellular);
  EXPECT_EQ(type({"gre0", ARPHRD_IPGRE, 0, {}, false}), ZavloInterfaceType::other);
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

TEST(ZavloLinuxInterfaceClassifier, SeesATunLinkAsTheModemItStandsFor) {
  std::string whyNot;
  auto ns = ZavloNetworkNamespace::create(whyNot, "classify");
  if (!ns) GTEST_SKIP() << "no network namespace: " << whyNot;
  ZavloTunDevice modem(*ns, "zmodem0");
  ns->ip({"link", "set", "zmodem0", "up"});
  ns->ip({"address", "add", "10.204.0.1/32", "dev", "zmodem0"});
  std::vector<ZavloLinuxInterface> interfaces;
  ns->runInside([&] { interfaces = ZavloLinuxInterfaceClassifier().listInterfaces(); });
  const auto tun =
      std::find_if(interfaces.begin(), interfaces.end(), [](const auto& i) { return i.name == "zmodem0"; });
  ASSERT_NE(tun, interfaces.end());
  EXPECT_EQ(tun->type, ZavloInterfaceType::cellular);
  EXPECT_TRUE(tun->usable());
}
