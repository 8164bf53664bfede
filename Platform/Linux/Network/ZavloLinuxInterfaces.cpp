#include "Platform/Linux/Network/ZavloLinuxInterfaces.hpp"

#include <ifaddrs.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <netpacket/packet.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <string_view>

#include "Platform/Linux/Network/ZavloLinuxModems.hpp"

namespace {

bool startsWith(const std::string& text, std::string_view prefix) { return text.rfind(prefix, 0) == 0; }

bool exists(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0;
}

std::optional<unsigned> linkTypeOf(const std::string& name) {
  if (name.size() >= IFNAMSIZ) return std::nullopt;
  const int probe = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (probe < 0) return std::nullopt;
  ifreq request{};
  std::memcpy(request.ifr_name, name.c_str(), name.size() + 1);
  const bool known = ::ioctl(probe, SIOCGIFHWADDR, &request) == 0;
  ::close(probe);
  if (!known) return std::nullopt;
  return static_cast<unsigned>(request.ifr_hwaddr.sa_family);
}

// Asked through a socket rather than read from sysfs, so that the answer comes from the
// calling thread's network namespace.
std::optional<std::string> driverOf(const std::string& name) {
  if (name.empty() || name.size() >= IFNAMSIZ) return std::nullopt;
  const int probe = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (probe < 0) return std::nullopt;
  ethtool_drvinfo info{};
  info.cmd = ETHTOOL_GDRVINFO;
  ifreq request{};
  std::memcpy(request.ifr_name, name.c_str(), name.size() + 1);
  request.ifr_data = reinterpret_cast<char*>(&info);
  const bool known = ::ioctl(probe, SIOCETHTOOL, &request) == 0;
  ::close(probe);
  const auto length = strnlen(info.driver, sizeof info.driver);
  if (!known || length == 0) return std::nullopt;
  return std::string(info.driver, length);
}

// Network drivers of cellular modems (USB, PCIe and SoC), as ethtool names them.
bool isModemDriver(const std::optional<std::string>& driver) {
  static constexpr std::array<std::string_view, 11> kModemDrivers = {
      "qmi_wwan", "cdc_mbim", "huawei_cdc_ncm", "sierra_net", "hso",  "kalmia",
      "mhi_net",  "ipa",      "rmnet",          "GobiNet",    "iosm",
  };
  return driver && std::find(kModemDrivers.begin(), kModemDrivers.end(), *driver) != kModemDrivers.end();
}

constexpr std::array<std::string_view, 3> kModemNamePrefixes = {"wwan", "rmnet", "ccmni"};

bool isModemEvidence(const ZavloLinuxLinkFacts& facts) {
  if (facts.devType == "wwan" || isModemDriver(facts.driver)) return true;
  // Only modem drivers make raw-IP links; PPP is how dial-up and pppd-driven modems appear.
  if (facts.arpType == ARPHRD_RAWIP || facts.arpType == ARPHRD_PPP) return true;
  // Names the WWAN framework and the Qualcomm and MediaTek drivers give their links.
  return std::any_of(kModemNamePrefixes.begin(), kModemNamePrefixes.end(),
                     [&](std::string_view prefix) { return startsWith(facts.name, prefix); });
}

}  // namespace

ZavloInterfaceType ZavloLinuxInterfaceClassifier::classify(const ZavloLinuxLinkFacts& facts) const {
  if (std::find(declaredCellular_.begin(), declaredCellular_.end(), facts.name) != declaredCellular_.end()) {
    return ZavloInterfaceType::cellular;
  }
  // ModemManager knows the modem's link even where the kernel shows a plain Ethernet device.
  if (modems_ && modems_->isConnectedBearerInterface(facts.name)) return ZavloInterfaceType::cellular;
  if ((facts.flags & IFF_LOOPBACK) != 0 || facts.arpType == ARPHRD_LOOPBACK) return ZavloInterfaceType::loopback;
  if (facts.hasWirelessPhy || facts.devType == "wlan") return ZavloInterfaceType::wifi;
  // A VPN's TUN link has the no-ARP link type of some modems and may carry any name; pinning
  // a cellular-only socket to it would send the request through the tunnel.
  const bool tunnel = facts.driver == "tun";
  if (!tunnel && isModemEvidence(facts)) return ZavloInterfaceType::cellular;
  if (facts.arpType == ARPHRD_ETHER) return ZavloInterfaceType::wiredEthernet;
  return ZavloInterfaceType::other;
}

void ZavloLinuxInterfaceClassifier::addDeviceFacts(ZavloLinuxLinkFacts& facts) {
  if (facts.name.empty() || facts.name.find('/') != std::string::npos) return;
  const std::string base = "/sys/class/net/" + facts.name;
  std::ifstream uevent(base + "/uevent");
  for (std::string line; std::getline(uevent, line);) {
    if (startsWith(line, "DEVTYPE=")) facts.devType = line.substr(8);
  }
  facts.hasWirelessPhy = exists(base + "/wireless") || exists(base + "/phy80211");
  facts.driver = driverOf(facts.name);
}

std::vector<ZavloLinuxInterface> ZavloLinuxInterfaceClassifier::listInterfaces() const {
  if (modems_) modems_->waitForFirstReading();
  ifaddrs* list = nullptr;
  if (::getifaddrs(&list) != 0) return {};
  std::map<std::string, ZavloLinuxLinkFacts> facts;
  std::map<std::string, ZavloLinuxInterface> interfaces;
  std::set<std::string> withLinkType;
  for (auto* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_name == nullptr) continue;
    const std::string name = entry->ifa_name;
    auto& interface = interfaces[name];
    auto& fact = facts[name];
    interface.name = fact.name = name;
    fact.flags = entry->ifa_flags;
    interface.up = (entry->ifa_flags & IFF_UP) != 0 && (entry->ifa_flags & IFF_RUNNING) != 0;
    if (entry->ifa_addr == nullptr) continue;
    switch (entry->ifa_addr->sa_family) {
      case AF_PACKET: {
        const auto* link = reinterpret_cast<const sockaddr_ll*>(entry->ifa_addr);
        fact.arpType = link->sll_hatype;
        withLinkType.insert(name);
        interface.index = static_cast<unsigned>(link->sll_ifindex);
        break;
      }
      case AF_INET:
        interface.hasUsableIPv4 = true;
        break;
      case AF_INET6: {
        const auto* address = reinterpret_cast<const sockaddr_in6*>(entry->ifa_addr);
        if (!IN6_IS_ADDR_LINKLOCAL(&address->sin6_addr)) interface.hasUsableIPv6 = true;
        break;
      }
      default:
        break;
    }
  }
  ::freeifaddrs(list);

  std::vector<ZavloLinuxInterface> result;
  for (auto& [name, interface] : interfaces) {
    auto& fact = facts[name];
    // Links without a hardware address (TUN, raw-IP modems) get no packet entry from
    // getifaddrs; the device's hardware address family still names its link type.
    if (withLinkType.count(name) == 0) fact.arpType = linkTypeOf(name).value_or(fact.arpType);
    addDeviceFacts(fact);
    if (interface.index == 0) interface.index = ::if_nametoindex(name.c_str());
    interface.type = classify(fact);
    result.push_back(interface);
  }
  std::sort(result.begin(), result.end(), [](const auto& a, const auto& b) { return a.index < b.index; });
  return result;
}
