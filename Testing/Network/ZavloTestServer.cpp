#include "Testing/Network/ZavloTestServer.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>

namespace {

constexpr int kIoTimeoutSeconds = 2;

[[noreturn]] void fail(const std::string& what) {
  throw std::runtime_error("test server: " + what + ": " + std::strerror(errno));
}

// A socket address for a literal and a port.
socklen_t makeAddress(const std::string& address, std::uint16_t port, sockaddr_storage& storage) {
  std::memset(&storage, 0, sizeof storage);
  auto* v4 = reinterpret_cast<sockaddr_in*>(&storage);
  if (inet_pton(AF_INET, address.c_str(), &v4->sin_addr) == 1) {
    v4->sin_family = AF_INET;
    v4->sin_port = htons(port);
    return sizeof(sockaddr_in);
  }
  auto* v6 = reinterpret_cast<sockaddr_in6*>(&storage);
  if (inet_pton(AF_INET6, address.c_str(), &v6->sin6_addr) == 1) {
    v6->sin6_family = AF_INET6;
    v6->sin6_port = htons(port);
    return sizeof(sockaddr_in6);
  }
  errno = EINVAL;
  fail("not an address literal: " + address);
}

// A listening socket on an address literal; port 0 picks one, reported in bound.
int listenOn(const std::string& address, std::uint16_t port, std::uint16_t& bound) {
  sockaddr_storage storage{};
  const auto length = makeAddress(address, port, storage);
  const int listener = ::socket(storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listener < 0) fail("socket");
  const int yes = 1;
  ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  if (storage.ss_family == AF_INET6) ::setsockopt(listener, IPPROTO_IPV6, IPV6_V6ONLY, &yes, sizeof yes);
  if (::bind(listener, reinterpret_cast<sockaddr*>(&storage), length) != 0 || ::listen(listener, 64) != 0) {
    const int saved = errno;
    ::close(listener);
    errno = saved;
    fail("bind/listen on " + address);
  }
  socklen_t boundLength = sizeof storage;
  ::getsockname(listener, reinterpret_cast<sockaddr*>(&storage), &boundLength);
  bound = ntohs(storage.ss_family == AF_INET ? reinterpret_cast<sockaddr_in*>(&storage)->sin_port
                                             : reinterpret_cast<sockaddr_in6*>(&storage)->sin6_port);
  return listener;
}

// Plain or TLS reads and writes on one accepted socket.
struct Channel {
  int socket;
  SSL* ssl = nullptr;
  long read(char* buffer, int size) const {
    return ssl != nullptr ? SSL_read(ssl, buffer, size) : ::recv(socket, buffer, static_cast<std::size_t>(size), 0);
  }
  bool writeAll(const std::string& bytes) const {
    std::size_t written = 0;
    while (written < bytes.size()) {
      const auto chunk = static_cast<int>(bytes.size() - written);
      const long count = ssl != nullptr ? SSL_write(ssl, bytes.data() + written, chunk)
                                        : ::send(socket, bytes.data() + written, bytes.size() - written, MSG_NOSIGNAL);
      if (count <= 0) return false;
      written += static_cast<std::size_t>(count);
    }
    return true;
  }
};

}  // namespace

struct ZavloTestServer::Tls {
  SSL_CTX* context = nullptr;
  ~Tls() { SSL_CTX_free(context); }
};

ZavloTestServerReply ZavloTestServerReply::answer(std::string bytes) {
  ZavloTestServerReply reply;
  reply.segments.push_back(std::move(bytes));
  return reply;
}

ZavloTestServerReply ZavloTestServerReply::split(std::vector<std::string> segments, std::chrono::milliseconds pause) {
  ZavloTestServerReply reply;
  reply.segments = std::move(segments);
  reply.pause = pause;
  return reply;
}

ZavloTestServerReply ZavloTestServerReply::together(std::vector<std::string> writes) {
  ZavloTestServerReply reply;
  reply.segments = std::move(writes);
  reply.inOneFlight = true;
  return reply;
}

ZavloTestServerReply ZavloTestServerReply::neverAnswer() {
  ZavloTestServerReply reply;
  reply.action = Action::neverAnswer;
  return reply;
}

ZavloTestServerReply ZavloTestServerReply::closeAtOnce() {
  ZavloTestServerReply reply;
  reply.action = Action::closeAtOnce;
  return reply;
}

ZavloTestServerReply ZavloTestServerReply::reset() {
  ZavloTestServerReply reply;
  reply.action = Action::reset;
  return reply;
}

ZavloTestServerReply ZavloTestServerReply::answerThen(std::vector<std::string> segments, Ending ending,
                                                      std::chrono::milliseconds pause) {
  ZavloTestServerReply reply;
  reply.segments = std::move(segments);
  reply.pause = pause;
  reply.ending = ending;
  reply.pauseBeforeEnding = pause;
  return reply;
}

bool ZavloTestServer::ipv6LoopbackAvailable() {
  const int probe = ::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (probe < 0) return false;
  sockaddr_storage storage{};
  const auto length = makeAddress("::1", 0, storage);
  const bool ok = ::bind(probe, reinterpret_cast<sockaddr*>(&storage), length) == 0;
  ::close(probe);
  return ok;
}

ZavloTestServer::ZavloTestServer(ZavloTestServerReply reply, Options options)
    : address_(std::move(options.address)), reply_(std::move(reply)) {
  if (options.tls) {
    tls_ = std::make_unique<Tls>();
    tls_->context = SSL_CTX_new(TLS_server_method());
    const bool ok = tls_->context != nullptr && zavloUseTlsIdentity(tls_->context, *options.tls);
    if (!ok) throw std::runtime_error("test server: unusable TLS identity");
  }

  ::signal(SIGPIPE, SIG_IGN);  // a client that went away must not end the test process
  const bool bothLoopbacks = address_ == "localhost";
  for (int tries = 0;; ++tries) {
    listener_ = listenOn(bothLoopbacks ? "127.0.0.1" : address_, options.port, port_);
    if (!bothLoopbacks || !ipv6LoopbackAvailable()) break;
    std::uint16_t samePort = 0;
    try {
      listener6_ = listenOn("::1", port_, samePort);
      break;
    } catch (const std::runtime_error&) {
      // That port is taken on ::1: start again on another, unless the port was asked for.
      ::close(listener_);
      if (options.port != 0 || tries == 15) throw;
    }
  }
  wake_ = ::eventfd(0, EFD_CLOEXEC);
  if (wake_ < 0) {
    ::close(listener_);
    if (listener6_ >= 0) ::close(listener6_);
    fail("eventfd");
  }
  thread_ = std::thread([this] { run(); });
}

ZavloTestServer::~ZavloTestServer() {
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = ::write(wake_, &one, sizeof one);
  thread_.join();
  for (void* ssl : heldOpenTls_) SSL_free(static_cast<SSL*>(ssl));
  for (int socket : heldOpen_) ::close(socket);
  ::close(listener_);
  if (listener6_ >= 0) ::close(listener6_);
  ::close(wake_);
}

void ZavloTestServer::setReply(ZavloTestServerReply reply) {
  std::lock_guard lock(mutex_);
  reply_ = std::move(reply);
}

std::size_t ZavloTestServer::acceptedCount() const {
  std::lock_guard lock(mutex_);
  return accepted_;
}

std::vector<std::string> ZavloTestServer::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

std::size_t ZavloTestServer::resumedHandshakes() const {
  std::lock_guard lock(mutex_);
  return resumed_;
}

std::size_t ZavloTestServer::failedHandshakes() const {
  std::lock_guard lock(mutex_);
  return failed_;
}

std::vector<std::string> ZavloTestServer::serverNames() const {
  std::lock_guard lock(mutex_);
  return serverNames_;
}

bool ZavloTestServer::waitForServed(std::size_t count, std::chrono::milliseconds timeout) const {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    {
      std::lock_guard lock(mutex_);
      if (served_ >= count) return true;
    }
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

void ZavloTestServer::run() {
  for (;;) {
    pollfd fds[3] = {{wake_, POLLIN, 0}, {listener_, POLLIN, 0}, {listener6_, POLLIN, 0}};
    if (::poll(fds, listener6_ >= 0 ? 3 : 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (fds[0].revents != 0) return;
    for (const auto& ready : {fds[1], fds[2]}) {
      if (ready.revents == 0 || ready.fd < 0) continue;
      const int socket = ::accept4(ready.fd, nullptr, nullptr, SOCK_CLOEXEC);
      if (socket >= 0) serve(socket);
    }
  }
}

void ZavloTestServer::serve(int socket) {
  ZavloTestServerReply reply;
  {
    std::lock_guard lock(mutex_);
    ++accepted_;
    reply = reply_;
  }
  const auto finish = [this](std::string request) {
    std::lock_guard lock(mutex_);
    requests_.push_back(std::move(request));
    ++served_;
  };
  if (reply.action == ZavloTestServerReply::Action::closeAtOnce) {
    ::close(socket);
    return finish({});
  }
  // Bounded blocking I/O: a client that stops talking cannot stall the server for long.
  const timeval timeout{kIoTimeoutSeconds, 0};
  ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
  const int yes = 1;
  ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);  // one write, one segment

  Channel channel{socket};
  if (tls_) {
    channel.ssl = SSL_new(tls_->context);
    SSL_set_fd(channel.ssl, socket);
    const bool accepted = SSL_accept(channel.ssl) == 1;
    {
      std::lock_guard lock(mutex_);
      if (!accepted) ++failed_;
      if (accepted && SSL_session_reused(channel.ssl) == 1) ++resumed_;
      const char* name = SSL_get_servername(channel.ssl, TLSEXT_NAMETYPE_host_name);
      if (accepted) serverNames_.emplace_back(name != nullptr ? name : "");
    }
    if (!accepted) {
      ERR_clear_error();
      SSL_free(channel.ssl);
      ::close(socket);
      return finish({});
    }
  }

  std::string request;
  char buffer[4096];
  while (request.find("\r\n\r\n") == std::string::npos && request.size() < (1U << 20)) {
    const long count = channel.read(buffer, sizeof buffer);
    if (count <= 0) break;
    request.append(buffer, static_cast<std::size_t>(count));
  }

  // The connection stays open, unanswered or unfinished, until the server stops.
  const auto holdOpen = [&] {
    std::lock_guard lock(mutex_);
    heldOpen_.push_back(socket);
    if (channel.ssl != nullptr) heldOpenTls_.push_back(channel.ssl);
    requests_.push_back(std::move(request));
    ++served_;
  };
  // The close that follows sends a reset at once.
  const auto closeAbortively = [socket] {
    const linger abortive{1, 0};
    ::setsockopt(socket, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
  };
  switch (reply.action) {
    case ZavloTestServerReply::Action::neverAnswer:
      return holdOpen();
    case ZavloTestServerReply::Action::reset:
      closeAbortively();
      break;
    case ZavloTestServerReply::Action::answer: {
      const int cork = 1;
      if (reply.inOneFlight) ::setsockopt(socket, IPPROTO_TCP, TCP_CORK, &cork, sizeof cork);
      for (std::size_t i = 0; i < reply.segments.size(); ++i) {
        if (i > 0 && reply.pause.count() > 0) std::this_thread::sleep_for(reply.pause);
        if (!channel.writeAll(reply.segments[i])) break;
      }
      if (reply.inOneFlight) {
        const int uncork = 0;  // releases everything written so far at once
        ::setsockopt(socket, IPPROTO_TCP, TCP_CORK, &uncork, sizeof uncork);
      }
      if (reply.ending != ZavloTestServerReply::Ending::close && reply.pauseBeforeEnding.count() > 0) {
        std::this_thread::sleep_for(reply.pauseBeforeEnding);
      }
      if (reply.ending == ZavloTestServerReply::Ending::holdOpen) return holdOpen();
      if (reply.ending == ZavloTestServerReply::Ending::reset) {
        closeAbortively();  // no close_notify and no FIN
        break;
      }
      if (channel.ssl != nullptr) SSL_shutdown(channel.ssl);
      ::shutdown(socket, SHUT_WR);
      break;
    }
    case ZavloTestServerReply::Action::closeAtOnce:
      break;
  }
  if (channel.ssl != nullptr) SSL_free(channel.ssl);
  ERR_clear_error();
  ::close(socket);
  finish(std::move(request));
}
