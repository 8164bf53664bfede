#include "Platform/Linux/Network/ZavloLinuxLinkLookup.hpp"

#include <ares.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <mutex>

namespace {

// A cellular round trip is usually well under a second; three tries of 1.5 s (c-ares moves
// to the next server on each) give up in a few seconds, within a hop's own time-out.
constexpr int kTryTimeoutMs = 1500;
constexpr int kTries = 3;

struct AddrinfoDeleter {
  void operator()(ares_addrinfo* info) const { ares_freeaddrinfo(info); }
};

void initialiseLibrary() {
  static std::once_flag once;
  std::call_once(once, [] { ares_library_init(ARES_LIB_INIT_ALL); });
}

}  // namespace

struct ZavloLinuxLinkLookup::Watch {
  explicit Watch(asio::io_context& io) : descriptor(io) {}
  asio::posix::stream_descriptor descriptor;
  bool readWanted = false;
  bool writeWanted = false;
  bool readArmed = false;
  bool writeArmed = false;
};

ZavloLinuxLinkLookup::ZavloLinuxLinkLookup(asio::io_context& io, std::string interfaceName, Completion completion)
    : io_(io), interfaceName_(std::move(interfaceName)), completion_(std::move(completion)), timer_(io) {}

std::shared_ptr<ZavloLinuxLinkLookup> ZavloLinuxLinkLookup::start(asio::io_context& io,
                                                                  const std::string& interfaceName,
                                                                  const std::vector<ZavloLinuxNameServer>& servers,
                                                                  const std::string& host, Family family,
                                                                  Completion completion) {
  std::shared_ptr<ZavloLinuxLinkLookup> lookup(new ZavloLinuxLinkLookup(io, interfaceName, std::move(completion)));
  lookup->begin(servers, host, family);
  return lookup;
}

ZavloLinuxLinkLookup::~ZavloLinuxLinkLookup() {
  completion_ = nullptr;
  // Ends the queries (their callbacks see ARES_EDESTRUCTION and do nothing) and closes the
  // sockets, each announced through socketState first.
  if (channel_ != nullptr) ares_destroy(channel_);
  // c-ares owns the descriptors: the watches let go of them without closing.
  for (auto& [fd, watch] : watches_) watch->descriptor.release();
}

void ZavloLinuxLinkLookup::begin(const std::vector<ZavloLinuxNameServer>& servers, const std::string& host,
                                 Family family) {
  initialiseLibrary();
  ares_options options{};
  options.flags = ARES_FLAG_NOSEARCH | ARES_FLAG_NOALIASES;
  options.timeout = kTryTimeoutMs;
  options.tries = kTries;
  char dnsOnly[] = "b";  // no hosts file
  options.lookups = dnsOnly;
  options.domains = nullptr;
  options.ndomains = 0;
  // Nothing of the system resolver's configuration (servers, search list, sort list).
  char noConfiguration[] = "/dev/null";
  options.resolvconf_path = noConfiguration;
  options.sock_state_cb = [](void* data, ares_socket_t fd, int readable, int writable) {
    socketState(data, fd, readable, writable);
  };
  options.sock_state_cb_data = this;
  const int mask = ARES_OPT_FLAGS | ARES_OPT_TIMEOUTMS | ARES_OPT_TRIES | ARES_OPT_LOOKUPS | ARES_OPT_DOMAINS |
                   ARES_OPT_RESOLVCONF | ARES_OPT_SOCK_STATE_CB;
  ares_channel channel = nullptr;
  if (const int status = ares_init_options(&channel, &options, mask); status != ARES_SUCCESS) {
    return finishLater(status);
  }
  channel_ = channel;
  ares_set_socket_configure_callback(channel_, &ZavloLinuxLinkLookup::configureSocket, this);

  std::vector<ares_addr_port_node> nodes(servers.size());
  for (std::size_t i = 0; i < servers.size(); ++i) {
    auto& node = nodes[i];
    node.next = i + 1 < nodes.size() ? &nodes[i + 1] : nullptr;
    node.family = servers[i].ipv6 ? AF_INET6 : AF_INET;
    if (servers[i].ipv6) {
      std::memcpy(&node.addr.addr6, servers[i].address.data(), 16);
    } else {
      std::memcpy(&node.addr.addr4, servers[i].address.data(), 4);
    }
    node.udp_port = servers[i].port;
    node.tcp_port = servers[i].port;
  }
  if (nodes.empty()) return finishLater(ARES_ECONNREFUSED);  // the caller gives servers
  if (const int status = ares_set_servers_ports(channel_, nodes.data()); status != ARES_SUCCESS) {
    return finishLater(status);
  }

  ares_addrinfo_hints hints{};
  hints.ai_family = family == Family::v4 ? AF_INET : family == Family::v6 ? AF_INET6 : AF_UNSPEC;
  // Unsorted: c-ares would sort by connecting unbound probe sockets; the connection orders
  // the addresses itself.
  hints.ai_flags = ARES_AI_NOSORT;
  ares_getaddrinfo(channel_, host.c_str(), nullptr, &hints, &ZavloLinuxLinkLookup::answered, this);
  armTimer();
}

int ZavloLinuxLinkLookup::configureSocket(int fd, int /*type*/, void* data) {
  const auto& self = *static_cast<ZavloLinuxLinkLookup*>(data);
  const auto& name = self.interfaceName_;
  // A socket that cannot be bound to the link must not send: c-ares then counts the server
  // as failed.
  return ::setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, name.c_str(), static_cast<socklen_t>(name.size() + 1)) == 0 ? 0
                                                                                                                   : -1;
}

void ZavloLinuxLinkLookup::answered(void* arg, int status, int /*timeouts*/, ares_addrinfo* info) {
  const std::unique_ptr<ares_addrinfo, AddrinfoDeleter> owned(info);
  // From ares_destroy, inside the destructor: nothing may be touched.
  if (status == ARES_EDESTRUCTION || status == ARES_ECANCELLED) return;
  auto& self = *static_cast<ZavloLinuxLinkLookup*>(arg);
  auto& result = self.result_;
  result.status = status;
  if (info != nullptr) {
    constexpr int kUnset = std::numeric_limits<int>::max();
    int aliasTtl = kUnset;
    for (const auto* alias = info->cnames; alias != nullptr; alias = alias->next)
      aliasTtl = std::min(aliasTtl, alias->ttl);
    int v4Ttl = aliasTtl;
    int v6Ttl = aliasTtl;
    for (const auto* node = info->nodes; node != nullptr; node = node->ai_next) {
      if (node->ai_family == AF_INET && node->ai_addrlen >= static_cast<ares_socklen_t>(sizeof(sockaddr_in))) {
        const auto* in = reinterpret_cast<const sockaddr_in*>(node->ai_addr);
        asio::ip::address_v4::bytes_type bytes{};
        std::memcpy(bytes.data(), &in->sin_addr, bytes.size());
        const asio::ip::address address = asio::ip::address_v4(bytes);
        if (std::find(result.v4.begin(), result.v4.end(), address) == result.v4.end()) result.v4.push_back(address);
        v4Ttl = std::min(v4Ttl, node->ai_ttl);
      } else if (node->ai_family == AF_INET6 && node->ai_addrlen >= static_cast<ares_socklen_t>(sizeof(sockaddr_in6))) {
        const auto* in6 = reinterpret_cast<const sockaddr_in6*>(node->ai_addr);
        asio::ip::address_v6::bytes_type bytes{};
        std::memcpy(bytes.data(), &in6->sin6_addr, bytes.size());
        const asio::ip::address address = asio::ip::address_v6(bytes, in6->sin6_scope_id);
        if (std::find(result.v6.begin(), result.v6.end(), address) == result.v6.end()) result.v6.push_back(address);
        v6Ttl = std::min(v6Ttl, node->ai_ttl);
      }
    }
    result.v4Ttl = std::chrono::seconds(result.v4.empty() ? 0 : std::max(v4Ttl, 0));
    result.v6Ttl = std::chrono::seconds(result.v6.empty() ? 0 : std::max(v6Ttl, 0));
  }
  // Never from inside c-ares: the completion may destroy this lookup.
  asio::post(self.io_, [weak = self.weak_from_this()] {
    if (const auto lookup = weak.lock()) lookup->finish();
  });
}

void ZavloLinuxLinkLookup::finishLater(int status) {
  result_.status = status;
  asio::post(io_, [weak = weak_from_this()] {
    if (const auto lookup = weak.lock()) lookup->finish();
  });
}

void ZavloLinuxLinkLookup::finish() {
  timer_.cancel();
  if (auto completion = std::exchange(completion_, nullptr)) completion(std::move(result_));
}

void ZavloLinuxLinkLookup::socketState(void* data, int fd, int readable, int writable) {
  static_cast<ZavloLinuxLinkLookup*>(data)->watchSocket(fd, readable != 0, writable != 0);
}

void ZavloLinuxLinkLookup::watchSocket(int fd, bool read, bool write) {
  auto found = watches_.find(fd);
  if (!read && !write) {
    // c-ares closes the socket next: let go of it (pending waits end as aborted).
    if (found != watches_.end()) {
      found->second->descriptor.release();
      watches_.erase(found);
    }
    return;
  }
  if (found == watches_.end()) {
    auto watch = std::make_shared<Watch>(io_);
    std::error_code error;
    watch->descriptor.assign(fd, error);
    if (error) return;  // never watched: c-ares's own time-out ends its query
    found = watches_.emplace(fd, std::move(watch)).first;
  }
  found->second->readWanted = read;
  found->second->writeWanted = write;
  arm(fd, found->second);
}

void ZavloLinuxLinkLookup::arm(int fd, const std::shared_ptr<Watch>& watch) {
  const auto wait = [&](bool read) {
    bool& armed = read ? watch->readArmed : watch->writeArmed;
    if (armed || !(read ? watch->readWanted : watch->writeWanted)) return;
    armed = true;
    watch->descriptor.async_wait(
        read ? asio::posix::descriptor_base::wait_read : asio::posix::descriptor_base::wait_write,
        [weak = weak_from_this(), weakWatch = std::weak_ptr<Watch>(watch), fd, read](const std::error_code& error) {
          const auto self = weak.lock();
          const auto current = weakWatch.lock();
          if (!self || !current) return;
          (read ? current->readArmed : current->writeArmed) = false;
          if (!error) self->socketReady(fd, current, read);
        });
  };
  wait(true);
  wait(false);
}

void ZavloLinuxLinkLookup::socketReady(int fd, const std::shared_ptr<Watch>& watch, bool read) {
  if (channel_ == nullptr) return;
  if (read ? watch->readWanted : watch->writeWanted) {
    ares_process_fd(channel_, read ? fd : ARES_SOCKET_BAD, read ? ARES_SOCKET_BAD : fd);
  }
  // c-ares may have closed this socket, or opened another one under the same number.
  if (const auto found = watches_.find(fd); found != watches_.end() && found->second == watch) arm(fd, watch);
  armTimer();
}

void ZavloLinuxLinkLookup::armTimer() {
  if (channel_ == nullptr) return;
  timeval room{};
  const timeval* next = ares_timeout(channel_, nullptr, &room);
  if (next == nullptr) {
    timer_.cancel();
    return;
  }
  timer_.expires_after(std::chrono::seconds(next->tv_sec) + std::chrono::microseconds(next->tv_usec));
  timer_.async_wait([weak = weak_from_this()](const std::error_code& error) {
    const auto self = weak.lock();
    if (error || !self || self->channel_ == nullptr) return;
    ares_process_fd(self->channel_, ARES_SOCKET_BAD, ARES_SOCKET_BAD);
    self->armTimer();
  });
}

bool ZavloLinuxLinkLookup::serversUnreachable(int status) {
  return status == ARES_ETIMEOUT || status == ARES_ECONNREFUSED || status == ARES_ESERVFAIL || status == ARES_EREFUSED;
}

bool ZavloLinuxLinkLookup::answered(int status) { return status == ARES_SUCCESS || status == ARES_ENODATA; }

std::string ZavloLinuxLinkLookup::describe(int status) { return ares_strerror(status); }
