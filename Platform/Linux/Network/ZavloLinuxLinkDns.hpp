#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

// Names over the cellular link: where a link's name servers come from, and the answers
// kept for their time to live. Plain C++ (no I/O): the lookups themselves are in
// ZavloLinuxLinkLookup, the D-Bus sources in ZavloLinuxSystemDns.

/// A name server address with its port; an IPv6 scope ("%wwan0") is dropped, since the
/// queries are bound to the link anyway.
struct ZavloLinuxNameServer {
  bool ipv6 = false;
  std::array<std::uint8_t, 16> address{};  ///< the first 4 bytes for IPv4
  std::uint16_t port = 53;

  friend bool operator==(const ZavloLinuxNameServer&, const ZavloLinuxNameServer&) = default;
};

/// "192.0.2.53", "192.0.2.53:5353", "2001:db8::53", "[2001:db8::53]:5353", "fe80::1%wwan0";
/// nothing for anything else.
std::optional<ZavloLinuxNameServer> zavloParseNameServer(std::string_view text);

/// One place a link's name servers may be learnt from.
struct ZavloLinuxLinkDnsSource {
  using Servers = std::function<std::vector<std::string>(const std::string& interfaceName, unsigned interfaceIndex)>;
  std::string name;  ///< who tells, in words ("the host", "systemd-resolved", ...)
  /// The servers for the link of this name and kernel index, in zavloParseNameServer's
  /// forms; empty when it knows none. Must not throw.
  Servers servers;
  /// Whether asking may take a while (D-Bus): then it is asked off the I/O thread.
  bool mayBlock = false;
};

/// The servers of the first source (in the given order) that names at least one usable
/// server; entries that do not parse are passed over. Empty servers when no source knows any.
struct ZavloLinuxLinkServers {
  std::vector<ZavloLinuxNameServer> servers;
  std::string source;
};
ZavloLinuxLinkServers zavloFindLinkServers(const std::vector<ZavloLinuxLinkDnsSource>& sources,
                                           const std::string& interfaceName, unsigned interfaceIndex);

/// What the host tells the platform about the cellular links' name servers.
struct ZavloLinuxLinkDnsOptions {
  /// Servers for every cellular link, asked before anything the system says.
  std::vector<std::string> hostServers;
  /// The servers a modem's bearer reports for an interface (ModemManager), asked last.
  std::function<std::vector<std::string>(const std::string& interfaceName)> modemServers;
  /// Whether systemd-resolved and NetworkManager are asked over the system bus.
  bool askSystem = true;
};

/// The sources in the order they are asked: the host's servers, systemd-resolved's link
/// servers, NetworkManager's device configuration, then the modem's bearer.
std::vector<ZavloLinuxLinkDnsSource> zavloLinkDnsSources(ZavloLinuxLinkDnsOptions options);

/// Answers of the link's name servers, kept so that the hops of a chain ask for a name once.
/// Keyed by link, name (ASCII case and a final dot ignored) and record family. An answer is
/// kept for its time to live (at most kLongest); "no address of this family" for
/// kNoAddressLifetime, since c-ares does not tell the negative time to live. Answers with a
/// time to live of 0 are not kept. At most `capacity` entries: a full cache first drops what
/// has expired, then what expires soonest.
class ZavloLinuxNameCache {
 public:
  using Clock = std::chrono::steady_clock;
  using Addresses = std::vector<std::array<std::uint8_t, 16>>;
  static constexpr std::chrono::seconds kLongest{3600};
  static constexpr std::chrono::seconds kNoAddressLifetime{30};

  explicit ZavloLinuxNameCache(std::size_t capacity = 256) : capacity_(capacity) {}

  /// The kept addresses (empty: the name has none of this family), or nothing when unknown.
  [[nodiscard]] std::optional<Addresses> find(const std::string& interfaceName, std::string_view name, bool ipv6,
                                              Clock::time_point now) const;
  /// Keeps addresses for ttl (an empty list for kNoAddressLifetime; ttl is then ignored).
  void store(const std::string& interfaceName, std::string_view name, bool ipv6, Addresses addresses,
             std::chrono::seconds ttl, Clock::time_point now);
  void clear() { entries_.clear(); }
  [[nodiscard]] std::size_t size() const noexcept { return entries_.size(); }

 private:
  using Key = std::tuple<std::string, std::string, bool>;
  struct Entry {
    Addresses addresses;
    Clock::time_point expires;
  };
  static Key key(const std::string& interfaceName, std::string_view name, bool ipv6);

  std::size_t capacity_;
  std::map<Key, Entry> entries_;
};
