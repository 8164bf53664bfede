#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <map>
#include <set>
#include <vector>

#include "Platform/Linux/Network/ZavloLinuxInterfaces.hpp"
#include "Platform/ZavloPathMonitor.hpp"

struct nlmsghdr;

/// The links, addresses and default routes of one network namespace as rtnetlink reports
/// them, and the path they make. It does no I/O except reading sysfs for a link it sees
/// for the first time (or under a new name), so crafted messages can drive it.
class ZavloLinuxNetlinkState {
 public:
  /// What one message may have changed.
  struct Effect {
    /// The kernel flushes IPv4 routes without telling when a link goes down or loses an
    /// address; the route table then has to be read again.
    bool routesMayBeStale = false;
  };

  explicit ZavloLinuxNetlinkState(ZavloLinuxInterfaceClassifier classifier) : classifier_(std::move(classifier)) {}

  /// Applies one RTM_NEWLINK/DELLINK/NEWADDR/DELADDR/NEWROUTE/DELROUTE message whose
  /// nlmsg_len bytes are readable. Other and malformed messages change nothing.
  Effect apply(const nlmsghdr& message);
  /// Classifies every known link again, for when what the classifier knows besides the
  /// kernel (ModemManager's bearers) has changed.
  void reclassify();
  void clear();
  void clearRoutes() { routes_.clear(); }

  /// Every link known, in index order.
  [[nodiscard]] std::vector<ZavloLinuxInterface> interfaces() const;
  /// Satisfied when a link other than loopback is up with a usable address; the available
  /// interfaces are those links, in index order. Loopback alone is no network (a loopback
  /// declared cellular is classified cellular and so counts).
  [[nodiscard]] ZavloNetworkPath path() const;

 private:
  struct Link {
    ZavloLinuxLinkFacts facts;
    ZavloInterfaceType type = ZavloInterfaceType::other;
  };
  struct Address {
    unsigned index = 0;
    int family = 0;
    std::array<std::uint8_t, 16> bytes{};
    unsigned prefixLength = 0;
    auto operator<=>(const Address&) const = default;  // NOLINT(modernize-use-nullptr): a tool false positive
  };
  struct DefaultRoute {
    int family = 0;
    unsigned table = 0;
    unsigned priority = 0;
    unsigned index = 0;
    std::array<std::uint8_t, 16> gateway{};
    auto operator<=>(const DefaultRoute&) const = default;  // NOLINT(modernize-use-nullptr)
  };

  Effect applyLink(const nlmsghdr& message);
  Effect applyAddress(const nlmsghdr& message);
  Effect applyRoute(const nlmsghdr& message);
  [[nodiscard]] bool hasUsableAddress(unsigned index, int family) const;

  ZavloLinuxInterfaceClassifier classifier_;
  std::map<unsigned, Link> links_;
  std::map<Address, bool> addresses_;  ///< address -> usable (not link-local, tentative or failed)
  std::set<DefaultRoute> routes_;
};
