#include "tools/peers/ZavloChainServer.hpp"

#include "tools/peers/ZavloTestCertificates.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <deque>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <thread>
#include <unordered_map>

namespace {

constexpr std::size_t kMaxRequestBytes = 65536;
constexpr auto kIdleLimit = std::chrono::seconds(30);

std::runtime_error osError(const std::string& what) {
  return std::runtime_error("chain server: " + what + ": " + std::strerror(errno));
}

struct ContextFree {
  void operator()(SSL_CTX* context) const noexcept { SSL_CTX_free(context); }
};
using Context = std::unique_ptr<SSL_CTX, ContextFree>;

void check(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string("chain server: ") + what + ": " + zavloOpenSslErrors());
}

// A server context with a fresh CA and a "localhost" certificate, all in memory.
Context makeTlsContext(const std::string& bindAddress, std::string& trustAnchorPem) {
  const ZavloTestCertificateAuthority authority("Zavlo chain test CA");
  std::vector<std::string> names{"localhost", "127.0.0.1", "::1"};
  if (std::find(names.begin(), names.end(), bindAddress) == names.end()) names.push_back(bindAddress);
  const auto identity = authority.issueServerIdentity(names);
  trustAnchorPem = authority.certificatePem();

  Context context(SSL_CTX_new(TLS_server_method()));
  check(context != nullptr, "TLS context");
  SSL_CTX* c = context.get();
  check(SSL_CTX_set_min_proto_version(c, TLS1_2_VERSION) == 1, "TLS version");
  check(zavloUseTlsIdentity(c, identity), "server identity");
  // Stateful TLS 1.2 resumption needs an id context; TLS 1.3 tickets work without one.
  static constexpr unsigned char kSessionContext[] = "zavlo-chain";
  check(SSL_CTX_set_session_id_context(c, kSessionContext, sizeof kSessionContext - 1) == 1, "session context");
  SSL_CTX_set_mode(c, SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  return context;
}

std::string response(std::string_view status, std::string_view extraHeaders, std::string_view contentType,
                     std::string_view body) {
  std::string text = "HTTP/1.1 ";
  text += status;
  text += "\r\n";
  text += extraHeaders;
  if (!contentType.empty()) {
    text += "Content-Type: ";
    text += contentType;
    text += "\r\n";
  }
  text += "Content-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n";
  text += body;
  return text;
}

std::string errorResponse(std::string_view status, std::string_view error, std::string_view description) {
  const auto body = nlohmann::json{{"error", error}, {"error_description", description}}.dump();
  return response(status, "", "application/json", body);
}

struct Connection {
  int fd = -1;
  SSL* ssl = nullptr;
  bool handshaking = false;
  std::string input;
  std::string output;  // non-empty once the answer is decided
  std::size_t written = 0;
  std::chrono::steady_clock::time_point lastActivity;
};

// A non-blocking listening socket on a numeric address; port 0 picks one, reported in bound.
int listenOn(const std::string& bindAddress, std::uint16_t port, int fastOpenQueue, std::uint16_t& bound) {
  sockaddr_storage address{};
  socklen_t length = 0;
  auto* v4 = reinterpret_cast<sockaddr_in*>(&address);
  auto* v6 = reinterpret_cast<sockaddr_in6*>(&address);
  const bool ipv6 = bindAddress.find(':') != std::string::npos;
  if (!ipv6 && inet_pton(AF_INET, bindAddress.c_str(), &v4->sin_addr) == 1) {
    v4->sin_family = AF_INET;
    v4->sin_port = htons(port);
    length = sizeof *v4;
  } else if (ipv6 && inet_pton(AF_INET6, bindAddress.c_str(), &v6->sin6_addr) == 1) {
    v6->sin6_family = AF_INET6;
    v6->sin6_port = htons(port);
    length = sizeof *v6;
  } else {
    throw std::runtime_error("chain server: not a numeric address: " + bindAddress);
  }
  const int fd = socket(address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) throw osError("socket");
  const int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  if (ipv6) setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof one);
  if (fastOpenQueue > 0 && setsockopt(fd, IPPROTO_TCP, TCP_FASTOPEN, &fastOpenQueue, sizeof fastOpenQueue) != 0) {
    const auto error = osError("TCP_FASTOPEN");
    close(fd);
    throw error;
  }
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(fd, SOMAXCONN) != 0) {
    const auto error = osError("bind/listen " + bindAddress);
    close(fd);
    throw error;
  }
  length = sizeof address;
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    const auto error = osError("getsockname");
    close(fd);
    throw error;
  }
  bound = ntohs(ipv6 ? v6->sin6_port : v4->sin_port);
  return fd;
}

bool ipv6LoopbackAvailable() {
  const int probe = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (probe < 0) return false;
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_addr = in6addr_loopback;
  const bool ok = bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  close(probe);
  return ok;
}

}  // namespace

struct ZavloChainServer::State {
  ZavloChainServerOptions options;
  std::string scheme;
  std::string host;  // as written into URLs
  std::uint16_t port = 0;
  std::string trustAnchorPem;
  Context tls;
  int listenFd = -1;
  int listenFd6 = -1;  // ::1 beside 127.0.0.1 when the URLs say "localhost"
  int epollFd = -1;
  int stopFd = -1;
  std::atomic<std::uint64_t> served{0};
  std::atomic<std::uint64_t> handshakes{0};
  std::atomic<std::uint64_t> resumed{0};
  mutable std::mutex recentMutex;
  std::deque<std::string> recent;
  std::unordered_map<int, Connection> connections;  // owned by the serving thread
  std::thread thread;

  ~State() {
    for (auto& [fd, connection] : connections) {
      SSL_free(connection.ssl);
      close(fd);
    }
    for (const int fd : {listenFd, listenFd6, epollFd, stopFd}) {
      if (fd >= 0) close(fd);
    }
  }

  [[nodiscard]] std::string answer(std::string_view request) const {
    // Request line: METHOD SP TARGET SP VERSION.
    const auto lineEnd = request.find("\r\n");
    const auto line = request.substr(0, lineEnd);
    const auto firstSpace = line.find(' ');
    const auto secondSpace = firstSpace == std::string_view::npos ? firstSpace : line.find(' ', firstSpace + 1);
    if (secondSpace == std::string_view::npos || !line.substr(secondSpace + 1).starts_with("HTTP/1.")) {
      return errorResponse("400 Bad Request", "bad_request", "Malformed request line");
    }
    if (line.substr(0, firstSpace) != "GET") {
      return errorResponse("405 Method Not Allowed", "method_not_allowed", "Only GET is served");
    }
    const auto target = line.substr(firstSpace + 1, secondSpace - firstSpace - 1);
    const auto queryStart = target.find('?');
    const auto path = target.substr(0, queryStart);
    const auto query = queryStart == std::string_view::npos ? std::string_view() : target.substr(queryStart);

    constexpr std::string_view kPrefix = "/chain/";
    if (!path.starts_with(kPrefix)) return errorResponse("404 Not Found", "not_found", "No chain at this path");
    const auto number = path.substr(kPrefix.size());
    const auto digitsEnd = std::min(number.find('/'), number.size());
    std::uint32_t remaining = 0;
    const auto* first = number.data();
    const auto* last = number.data() + digitsEnd;
    const auto parsed = std::from_chars(first, last, remaining);
    if (digitsEnd == 0 || digitsEnd > 9 || parsed.ec != std::errc() || parsed.ptr != last) {
      return errorResponse("404 Not Found", "not_found", "No chain at this path");
    }
    const auto rest = number.substr(digitsEnd);

    if (remaining == 0) {
      const auto token = options.freshToken ? options.freshToken() : options.token;
      return response("200 OK", "", "application/json", nlohmann::json{{"snaToken", token}}.dump());
    }
    std::string location;
    const bool absolute = options.mixedLocations ? remaining % 2 == 1 : options.absoluteLocation;
    if (absolute) location = scheme + "://" + host + ":" + std::to_string(port);
    location += std::string(kPrefix) + std::to_string(remaining - 1);
    location += rest;
    location += query;
    return response("302 Found", "Location: " + location + "\r\n", "", "");
  }

  void record(std::string_view request) {
    if (options.recordedRequests == 0) return;
    const std::lock_guard lock(recentMutex);
    recent.emplace_back(request);
    while (recent.size() > options.recordedRequests) recent.pop_front();
  }

  void closeConnection(int fd) {
    const auto found = connections.find(fd);
    if (found == connections.end()) return;
    if (found->second.ssl != nullptr) {
      // Best effort close_notify; the peer may already be gone.
      SSL_shutdown(found->second.ssl);
      ERR_clear_error();
      SSL_free(found->second.ssl);
    }
    epoll_ctl(epollFd, EPOLL_CTL_DEL, fd, nullptr);
    close(fd);
    connections.erase(found);
  }

  void watch(const Connection& connection, bool forWriting) {
    epoll_event event{};
    event.events = forWriting ? EPOLLOUT : EPOLLIN;
    event.data.fd = connection.fd;
    epoll_ctl(epollFd, EPOLL_CTL_MOD, connection.fd, &event);
  }

  void acceptAll(int listener) {
    // Bounded per wake-up so one burst cannot starve the connections already open.
    for (int accepted = 0; accepted < 256; ++accepted) {
      const int fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (fd < 0) return;
      if (connections.size() >= options.maxConnections) {
        close(fd);
        continue;
      }
      const int one = 1;
      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
      Connection connection;
      connection.fd = fd;
      connection.lastActivity = std::chrono::steady_clock::now();
      if (tls) {
        connection.ssl = SSL_new(tls.get());
        if (connection.ssl == nullptr || SSL_set_fd(connection.ssl, fd) != 1) {
          SSL_free(connection.ssl);
          close(fd);
          continue;
        }
        SSL_set_accept_state(connection.ssl);
        connection.handshaking = true;
      }
      epoll_event event{};
      event.events = EPOLLIN;
      event.data.fd = fd;
      if (epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &event) != 0) {
        SSL_free(connection.ssl);
        close(fd);
        continue;
      }
      connections.emplace(fd, std::move(connection));
    }
  }

  // Returns false when the connection is finished (answered or broken) and must be closed.
  bool progress(Connection& connection) {
    connection.lastActivity = std::chrono::steady_clock::now();
    if (connection.handshaking) {
      const int result = SSL_do_handshake(connection.ssl);
      if (result != 1) return waitForTls(connection, result);
      connection.handshaking = false;
      handshakes.fetch_add(1, std::memory_order_relaxed);
      if (SSL_session_reused(connection.ssl) == 1) resumed.fetch_add(1, std::memory_order_relaxed);
    }
    if (connection.output.empty() && !readRequest(connection)) return false;
    if (connection.output.empty()) return true;  // the header block is still incomplete
    return writeAnswer(connection);
  }

  bool waitForTls(Connection& connection, int result) {
    const int error = SSL_get_error(connection.ssl, result);
    ERR_clear_error();
    if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
      watch(connection, error == SSL_ERROR_WANT_WRITE);
      return true;
    }
    return false;
  }

  bool readRequest(Connection& connection) {
    std::array<char, 16384> buffer{};
    for (;;) {
      long received = 0;
      if (connection.ssl != nullptr) {
        const int result = SSL_read(connection.ssl, buffer.data(), static_cast<int>(buffer.size()));
        if (result <= 0) return waitForTls(connection, result);
        received = result;
      } else {
        received = recv(connection.fd, buffer.data(), buffer.size(), 0);
        if (received < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
        if (received == 0) return false;
      }
      connection.input.append(buffer.data(), static_cast<std::size_t>(received));
      const auto headerEnd = connection.input.find("\r\n\r\n");
      if (headerEnd != std::string::npos) {
        const std::string_view request(connection.input.data(), headerEnd + 4);
        record(request);
        connection.output = answer(request);
        return true;
      }
      if (connection.input.size() > kMaxRequestBytes) {
        connection.output = errorResponse("431 Request Header Fields Too Large", "too_large", "Request too large");
        return true;
      }
    }
  }

  bool writeAnswer(Connection& connection) {
    while (connection.written < connection.output.size()) {
      const char* data = connection.output.data() + connection.written;
      const std::size_t left = connection.output.size() - connection.written;
      if (connection.ssl != nullptr) {
        const int result = SSL_write(connection.ssl, data, static_cast<int>(left));
        if (result <= 0) return waitForTls(connection, result);
        connection.written += static_cast<std::size_t>(result);
      } else {
        const auto sent = send(connection.fd, data, left, MSG_NOSIGNAL);
        if (sent < 0) {
          if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) return false;
          watch(connection, true);
          return true;
        }
        connection.written += static_cast<std::size_t>(sent);
      }
    }
    served.fetch_add(1, std::memory_order_relaxed);
    return false;
  }

  void closeIdle() {
    const auto limit = std::chrono::steady_clock::now() - kIdleLimit;
    std::vector<int> idle;
    for (const auto& [fd, connection] : connections) {
      if (connection.lastActivity < limit) idle.push_back(fd);
    }
    for (const int fd : idle) closeConnection(fd);
  }

  void serve() {
    // A peer that vanished must fail a TLS write with EPIPE, not end the process.
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);

    std::array<epoll_event, 64> events{};
    auto lastSweep = std::chrono::steady_clock::now();
    for (;;) {
      const int count = epoll_wait(epollFd, events.data(), static_cast<int>(events.size()), 1000);
      if (count < 0 && errno != EINTR) return;
      for (int i = 0; i < count; ++i) {
        const int fd = events[static_cast<std::size_t>(i)].data.fd;
        if (fd == stopFd) return;
        if (fd == listenFd || fd == listenFd6) {
          acceptAll(fd);
          continue;
        }
        const auto found = connections.find(fd);
        if (found != connections.end() && !progress(found->second)) closeConnection(fd);
      }
      const auto now = std::chrono::steady_clock::now();
      if (now - lastSweep > std::chrono::seconds(1)) {
        lastSweep = now;
        closeIdle();
      }
    }
  }
};

ZavloChainServer::ZavloChainServer(ZavloChainServerOptions options) : state_(std::make_unique<State>()) {
  State& s = *state_;
  s.options = std::move(options);
  s.scheme = s.options.tls ? "https" : "http";
  if (s.options.tls) s.tls = makeTlsContext(s.options.bindAddress, s.trustAnchorPem);

  const bool ipv6 = s.options.bindAddress.find(':') != std::string::npos;
  if (!s.options.locationHost.empty()) {
    s.host = s.options.locationHost;
  } else if (s.options.tls && s.options.bindAddress == "127.0.0.1") {
    s.host = "localhost";
  } else {
    s.host = ipv6 ? "[" + s.options.bindAddress + "]" : s.options.bindAddress;
  }
  // A client tries "localhost" over IPv6 first and waits where it is refused, so ::1 is
  // served too, on the same port, when this machine has it.
  const bool bothLoopbacks = s.host == "localhost" && s.options.bindAddress == "127.0.0.1";
  for (int tries = 0;; ++tries) {
    s.listenFd = listenOn(s.options.bindAddress, s.options.port, s.options.fastOpenQueue, s.port);
    if (!bothLoopbacks || !ipv6LoopbackAvailable()) break;
    std::uint16_t samePort = 0;
    try {
      s.listenFd6 = listenOn("::1", s.port, s.options.fastOpenQueue, samePort);
      break;
    } catch (const std::runtime_error&) {
      // That port is taken on ::1: start again on another, unless the port was asked for.
      close(s.listenFd);
      s.listenFd = -1;
      if (s.options.port != 0 || tries == 15) throw;
    }
  }

  s.epollFd = epoll_create1(EPOLL_CLOEXEC);
  s.stopFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (s.epollFd < 0 || s.stopFd < 0) throw osError("epoll");
  for (const int fd : {s.listenFd, s.listenFd6, s.stopFd}) {
    if (fd < 0) continue;
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    if (epoll_ctl(s.epollFd, EPOLL_CTL_ADD, fd, &event) != 0) throw osError("epoll_ctl");
  }
  s.thread = std::thread([&s] { s.serve(); });
}

ZavloChainServer::~ZavloChainServer() {
  // One increment cannot overflow the eventfd counter, so this write cannot fail.
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto woken = write(state_->stopFd, &one, sizeof one);
  if (state_->thread.joinable()) state_->thread.join();
}

std::uint16_t ZavloChainServer::port() const noexcept { return state_->port; }

std::string ZavloChainServer::baseUrl() const {
  return state_->scheme + "://" + state_->host + ":" + std::to_string(state_->port);
}

std::string ZavloChainServer::chainUrl(unsigned hops, std::string_view rest) const {
  if (hops == 0) throw std::invalid_argument("a chain has at least one hop");
  std::string url = baseUrl() + "/chain/" + std::to_string(hops - 1);
  if (!rest.empty()) {
    url += '/';
    url += rest;
  }
  return url;
}

std::uint64_t ZavloChainServer::requestsServed() const noexcept {
  return state_->served.load(std::memory_order_relaxed);
}

std::uint64_t ZavloChainServer::tlsHandshakes() const noexcept {
  return state_->handshakes.load(std::memory_order_relaxed);
}

std::uint64_t ZavloChainServer::resumedTlsHandshakes() const noexcept {
  return state_->resumed.load(std::memory_order_relaxed);
}

std::vector<std::string> ZavloChainServer::recentRequests() const {
  const std::lock_guard lock(state_->recentMutex);
  return {state_->recent.begin(), state_->recent.end()};
}

const std::string& ZavloChainServer::trustAnchorPem() const noexcept { return state_->trustAnchorPem; }

const std::string& ZavloChainServer::token() const noexcept { return state_->options.token; }
