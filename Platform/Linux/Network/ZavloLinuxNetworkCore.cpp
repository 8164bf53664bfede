#include "Platform/Linux/Network/ZavloLinuxNetworkCore.hpp"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "Platform/Linux/Network/ZavloLinuxConnection.hpp"
#include "Platform/ZavloInterfaceRules.hpp"

using namespace std::chrono_literals;

namespace {

// Interfaces rarely change between the hops of one chain; listing them costs a netlink
// dump and several sysfs reads, so a list this young is reused.
constexpr auto kInterfaceListLifetime = 1s;
// One change of the network comes as several messages (link, addresses, routes); waiting
// connections try again once they have stopped coming for this long.
constexpr auto kPathSettleTime = 50ms;

}  // namespace

ZavloLinuxBinding zavloChooseBinding(const std::vector<ZavloLinuxInterface>& interfaces,
                                     const ZavloConnectionParameters& parameters, bool ipv6) {
  if (!zavloRestrictsInterfaces(parameters)) return {ZavloLinuxBinding::Kind::unbound, {}};
  for (const auto& interface : interfaces) {
    if (!interface.up || !(ipv6 ? interface.hasUsableIPv6 : interface.hasUsableIPv4)) continue;
    if (!zavloInterfaceAllowed(interface.type, parameters)) continue;
    return {ZavloLinuxBinding::Kind::bound, interface.name};
  }
  return {ZavloLinuxBinding::Kind::none, {}};
}

void ZavloLinuxNetworkCore::stop() {
  {
    std::lock_guard lock(mutex);
    stopped = true;
  }
  if (loop != nullptr) {
    // The loop is not running now (see the service's contract), so this thread may touch
    // what its handlers touch. Closing the sockets ends their pending operations; the
    // loop's own shut-down drops those handlers, and the connections they hold.
    for (const auto& connection : std::exchange(keptAlive, {})) closeTransport(*connection);
    pathWaiters.clear();
    pathWatch.reset();
    pathSettle.cancel();
    stopAskingForServers();
    modemWatch.reset();
    return;
  }
  guard.reset();
  io->stop();
  if (!thread.joinable()) return;
  if (thread.get_id() == std::this_thread::get_id()) {
    modemWatch.reset();
    thread.detach();  // cannot join itself; the context outlives it through the handlers
    return;
  }
  thread.join();
  stopAskingForServers();
  modemWatch.reset();  // before the context drops what it still holds
  ownIo->shutdown();
  keptAlive.clear();  // the thread is gone: nothing else touches it now
  pathWaiters.clear();
}

const std::vector<ZavloLinuxInterface>& ZavloLinuxNetworkCore::interfaces() {
  const auto now = std::chrono::steady_clock::now();
  if (!listedAt || now - *listedAt > kInterfaceListLifetime) {
    auto listed = classifier.listInterfaces();
    std::lock_guard lock(interfaceMutex);
    interfaceList = std::move(listed);
    listedAt = now;
  }
  return interfaceList;
}

std::optional<bool> ZavloLinuxNetworkCore::recentListHasBinding(const ZavloConnectionParameters& parameters, bool useV4,
                                                                bool useV6) {
  std::lock_guard lock(interfaceMutex);
  if (!listedAt || std::chrono::steady_clock::now() - *listedAt > kInterfaceListLifetime) return std::nullopt;
  const auto usable = [&](bool ipv6) {
    return zavloChooseBinding(interfaceList, parameters, ipv6).kind != ZavloLinuxBinding::Kind::none;
  };
  return (useV4 && usable(false)) || (useV6 && usable(true));
}

void ZavloLinuxNetworkCore::watchPaths() {
  if (pathWatch || pathWatchUnavailable) return;
  const int socket = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;
  if (socket < 0 || ::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    if (socket >= 0) ::close(socket);
    pathWatchUnavailable = true;
    return;
  }
  pathWatch.emplace(*io, socket);
  readPathChanges();
  if (const auto& modems = classifier.modems()) {
    modemWatch = modems->subscribe([io = io, weak = weak_from_this()] {
      asio::post(*io, [weak] {
        if (const auto self = weak.lock(); self && !self->stopped) self->settlePathChange();
      });
    });
  }
}

void ZavloLinuxNetworkCore::readPathChanges() {
  pathWatch->async_wait(asio::posix::descriptor_base::wait_read, [this](const std::error_code& error) {
    if (error) return;
    // The content does not matter, only that something changed (an overflow included).
    std::array<char, 8192> buffer{};
    for (;;) {
      const auto received = ::recv(pathWatch->native_handle(), buffer.data(), buffer.size(), MSG_DONTWAIT);
      if (received > 0 || (received < 0 && (errno == ENOBUFS || errno == EINTR))) continue;
      break;
    }
    settlePathChange();
    readPathChanges();
  });
}

void ZavloLinuxNetworkCore::settlePathChange() {
  if (pathSettling) return;
  pathSettling = true;
  pathSettle.expires_after(kPathSettleTime);
  pathSettle.async_wait([this](const std::error_code& waitError) {
    pathSettling = false;
    if (!waitError) pathChanged();
  });
}

void ZavloLinuxNetworkCore::pathChanged() {
  {
    std::lock_guard lock(interfaceMutex);
    listedAt.reset();
  }
  // Another network may have other servers, and other answers.
  names.clear();
  linkServers.clear();
  for (auto& [key, retry] : std::exchange(pathWaiters, {})) retry();
}

void ZavloLinuxNetworkCore::findLinkServers(const std::string& interfaceName, unsigned interfaceIndex,
                                            std::function<void(const ZavloLinuxLinkServers&)> found) {
  if (const auto known = linkServers.find(interfaceName); known != linkServers.end()) return found(known->second);
  auto first = dnsSources.begin();
  for (; first != dnsSources.end() && !first->mayBlock; ++first) {
    auto servers = zavloFindLinkServers({*first}, interfaceName, interfaceIndex);
    if (!servers.servers.empty()) return found(linkServers[interfaceName] = std::move(servers));
  }
  if (first == dnsSources.end()) return found({});
  if (!dnsAsker) dnsAsker.emplace(1);
  asio::post(*dnsAsker, [core = weak_from_this(), io = io, sources = std::vector(first, dnsSources.end()),
                         interfaceName, interfaceIndex, found = std::move(found)]() mutable {
    auto servers = zavloFindLinkServers(sources, interfaceName, interfaceIndex);
    asio::post(*io, [core, interfaceName, servers = std::move(servers), found = std::move(found)] {
      const auto self = core.lock();
      if (!self || self->stopped) return;
      if (!servers.servers.empty()) self->linkServers[interfaceName] = servers;
      found(servers);
    });
  });
}

void ZavloLinuxNetworkCore::stopAskingForServers() {
  if (!dnsAsker) return;
  dnsAsker->stop();
  dnsAsker->join();
}

ZavloLinuxConnectionService::ZavloLinuxConnectionService(ZavloLinuxInterfaceClassifier classifier,
                                                         ZavloLinuxLinkDnsOptions linkDns)
    : core_(std::make_shared<ZavloLinuxNetworkCore>(std::move(classifier), std::move(linkDns))) {}

ZavloLinuxConnectionService::ZavloLinuxConnectionService(ZavloLinuxInterfaceClassifier classifier,
                                                         ZavloLinuxLinkDnsOptions linkDns, ZavloLinuxRunLoop& runLoop)
    : core_(std::make_shared<ZavloLinuxNetworkCore>(std::move(classifier), std::move(linkDns), runLoop)) {}

void ZavloLinuxConnectionService::forgetNames() {
  core_->post([core = core_] { core->names.clear(); });
}

ZavloLinuxConnectionService::~ZavloLinuxConnectionService() { core_->stop(); }
