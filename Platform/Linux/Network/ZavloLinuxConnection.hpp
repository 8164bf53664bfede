#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Platform/Linux/Loop/ZavloLinuxRunLoop.hpp"
#include "Platform/Linux/Network/ZavloLinuxInterfaces.hpp"
#include "Platform/Linux/Network/ZavloLinuxLinkDns.hpp"
#include "Platform/ZavloConnection.hpp"

/// Where a socket of one address family may go.
struct ZavloLinuxBinding {
  enum class Kind {
    unbound,  ///< nothing required or prohibited: the routing table decides
    bound,    ///< pinned to interfaceName with SO_BINDTODEVICE
    none,     ///< no interface qualifies: the family cannot be used
  };
  Kind kind = Kind::none;
  std::string interfaceName;
};

/// The interface a connection with these parameters may use for IPv4 or IPv6: the first
/// one (in the given order) that is up, has an address of that family, is of the
/// required type if one is required, and is never of a prohibited type.
ZavloLinuxBinding zavloChooseBinding(const std::vector<ZavloLinuxInterface>& interfaces,
                                     const ZavloConnectionParameters& parameters, bool ipv6);

/// Special-use names (RFC 6761) that connections answer themselves, never asking the
/// system resolver, so that they cost no query to a name server off the machine:
/// "localhost" and names under it are the loopback addresses; "invalid" and names under
/// it never exist. Compared without regard to ASCII case; a final dot is allowed.
enum class ZavloLinuxSpecialName { none, localhost, invalid };
ZavloLinuxSpecialName zavloSpecialUseName(std::string_view host);

/// The order in which a connection that may use either address family tries a host's
/// addresses: the family of the first address first, then the other, alternating, each
/// family in the order given (so that one broken family delays the other by one attempt
/// at most).
template <class Address, class IsIpv6>
std::vector<Address> zavloInterleaveFamilies(std::vector<Address> addresses, IsIpv6 isIpv6) {
  if (addresses.empty()) return addresses;
  const bool firstIsIpv6 = isIpv6(addresses.front());
  std::vector<Address> first;
  std::vector<Address> other;
  for (auto& address : addresses) (isIpv6(address) == firstIsIpv6 ? first : other).push_back(std::move(address));
  std::vector<Address> ordered;
  ordered.reserve(first.size() + other.size());
  for (std::size_t i = 0; i < first.size() || i < other.size(); ++i) {
    if (i < first.size()) ordered.push_back(std::move(first[i]));
    if (i < other.size()) ordered.push_back(std::move(other[i]));
  }
  return ordered;
}

struct ZavloLinuxNetworkCore;

/// Makes the Linux connections of one platform: TCP and TLS over standalone Asio and
/// OpenSSL, with sockets pinned to an interface of the required type.
///
/// A connection limited to one IP version tries its addresses one after another. One that
/// may use either races them (families interleaved): each attempt starts 250 ms after the
/// one before it, or as soon as that one fails, and the first to be ready (for TLS: with
/// its handshake done) is kept while the others are closed. Each attempt has the whole
/// connection time-out of its own.
///
/// Threading contract: makeConnection may be called from any thread. All socket work runs
/// on one I/O thread per service: the thread that runs the given run loop (then a
/// connection started on that loop has no thread to cross), or else a thread of the
/// service's own, started on first use, which inherits the network namespace of the
/// thread that starts the first connection. The destructor stops the I/O (and joins the
/// service's own thread; a run loop must then not be running on another thread);
/// connections still held elsewhere then report nothing more and stay safe to use and
/// destroy. While a connection waits, the I/O thread listens to the kernel's link,
/// address and route changes (rtnetlink) to know when to try it again.
///
/// Names: a connection that requires a cellular interface resolves its host over that link
/// only (ZavloLinuxLinkLookup: c-ares, the link's own servers, queries bound to the link),
/// and waits, as for a missing path, while no source names a server for the link. Other
/// connections use the system resolver. Answers are kept per link for their time to live
/// and forgotten when the network changes. D-Bus sources are asked on a thread of the
/// service's own, joined by the destructor.
class ZavloLinuxConnectionService {
 public:
  /// linkDns: where the cellular links' name servers come from.
  explicit ZavloLinuxConnectionService(ZavloLinuxInterfaceClassifier classifier, ZavloLinuxLinkDnsOptions linkDns = {});
  /// The I/O runs on runLoop, which must outlive the service.
  ZavloLinuxConnectionService(ZavloLinuxInterfaceClassifier classifier, ZavloLinuxLinkDnsOptions linkDns,
                              ZavloLinuxRunLoop& runLoop);
  ZavloLinuxConnectionService(const ZavloLinuxConnectionService&) = delete;
  ZavloLinuxConnectionService& operator=(const ZavloLinuxConnectionService&) = delete;
  ~ZavloLinuxConnectionService();

  /// host: a name, an IPv4 literal or an IPv6 literal (brackets allowed).
  std::shared_ptr<ZavloConnection> makeConnection(const std::string& host, std::uint16_t port,
                                                  ZavloConnectionParameters parameters);

  /// Forgets the answers kept for the cellular links' names (they are also forgotten
  /// whenever the network changes): the next connection to each name asks again.
  void forgetNames();

 private:
  std::shared_ptr<ZavloLinuxNetworkCore> core_;
};
