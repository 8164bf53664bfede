#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/ZavloNetworkInterface.hpp"

class ZavloLinuxModems;

/// What the kernel tells about one link, enough to classify it.
struct ZavloLinuxLinkFacts {
  std::string name;
  unsigned arpType = 0;                ///< ARPHRD_* of the link
  unsigned flags = 0;                  ///< IFF_* of the link
  std::optional<std::string> devType;  ///< DEVTYPE from the device's uevent, if any
  bool hasWirelessPhy = false;
  std::optional<std::string> driver;  ///< the driver's name as ethtool reports it, if any
};

/// One interface as the Linux platform sees it.
struct ZavloLinuxInterface {
  std::string name;
  unsigned index = 0;
  ZavloInterfaceType type = ZavloInterfaceType::other;
  bool up = false;  ///< administratively up and running
  bool hasUsableIPv4 = false;
  bool hasUsableIPv6 = false;    ///< a non-link-local IPv6 address
  bool hasDefaultRoute = false;  ///< known only to the path monitor, which reads routes
  [[nodiscard]] bool usable() const noexcept { return up && (hasUsableIPv4 || hasUsableIPv6); }
};

/// Classification of links, with the host's declared cellular interfaces taking priority,
/// then ModemManager's word, then the kernel's evidence.
/// Cellular only on evidence of a modem: declared, the link of a bearer ModemManager reports
/// connected (whatever the kernel shows), DEVTYPE=wwan, a modem driver, the raw-IP or PPP
/// link types modem drivers use, or the names modem drivers give (wwan*, rmnet*, ccmni*). A
/// TUN link (VPNs and other tunnels) is never cellular unless declared or a bearer's,
/// whatever its name. Wi-Fi: a wireless PHY. Loopback: the flag. Wired Ethernet: any other
/// Ethernet link.
class ZavloLinuxInterfaceClassifier {
 public:
  explicit ZavloLinuxInterfaceClassifier(std::vector<std::string> declaredCellular = {},
                                         std::shared_ptr<ZavloLinuxModems> modems = {})
      : declaredCellular_(std::move(declaredCellular)), modems_(std::move(modems)) {}

  [[nodiscard]] ZavloInterfaceType classify(const ZavloLinuxLinkFacts& facts) const;
  /// Adds what the device itself tells to facts read elsewhere: DEVTYPE and the wireless
  /// PHY from sysfs, the driver from ethtool (asked in the calling thread's namespace).
  static void addDeviceFacts(ZavloLinuxLinkFacts& facts);
  /// Every interface of the calling thread's network namespace, in index order. The first
  /// listings wait for ModemManager's first reading (ZavloLinuxModems::waitForFirstReading).
  [[nodiscard]] std::vector<ZavloLinuxInterface> listInterfaces() const;

  [[nodiscard]] const std::vector<std::string>& declaredCellular() const noexcept { return declaredCellular_; }
  /// ModemManager's modems, shared by every copy of this classifier; null without.
  [[nodiscard]] const std::shared_ptr<ZavloLinuxModems>& modems() const noexcept { return modems_; }

 private:
  std::vector<std::string> declaredCellular_;
  std::shared_ptr<ZavloLinuxModems> modems_;
};
