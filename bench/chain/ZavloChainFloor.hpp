#pragma once

#include <sys/socket.h>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

struct ssl_ctx_st;
struct ssl_session_st;

/// The least work a client can do per hop of a redirect chain: connect, write the library's
/// request text, make one read of at most 65536 bytes, close; then follow the Location. Blocking
/// sockets, no URL library: only what a chain from ZavloChainServer needs. Benchmark code.
///
/// With eventDriven (plain HTTP only) it does the same on non-blocking sockets and waits in
/// epoll, as any client on an event loop must: the least an asynchronous client pays.
class ZavloChainFloorClient {
 public:
  struct Options {
    bool tls = false;
    bool resumeSessions = false;  ///< offer the last hop's TLS session to the next hop
    std::string trustAnchorPem;   ///< the CA the TLS server certificate must chain to
    bool eventDriven = false;     ///< non-blocking sockets and epoll (plain HTTP)
    /// TCP_FASTOPEN_CONNECT: with a cookie for the server cached, the first write (the
    /// ClientHello) leaves in the SYN.
    bool fastOpen = false;
  };

  explicit ZavloChainFloorClient(Options options);
  ~ZavloChainFloorClient();
  ZavloChainFloorClient(const ZavloChainFloorClient&) = delete;
  ZavloChainFloorClient& operator=(const ZavloChainFloorClient&) = delete;

  /// Follows the chain from url until it answers 200 with a token; returns the number of requests
  /// made. Throws std::runtime_error naming the hop and what went wrong.
  unsigned runChain(const std::string& url);

  [[nodiscard]] std::uint64_t handshakes() const noexcept { return handshakes_; }
  [[nodiscard]] std::uint64_t resumedHandshakes() const noexcept { return resumed_; }

 private:
  struct Address {
    sockaddr_storage storage{};
    socklen_t length = 0;
  };
  int connectTo(const std::string& host, std::uint16_t port);
  std::string exchange(int fd, const std::string& host, const std::string& request);
  int socketFor(int family);
  bool connected(int fd, const sockaddr* address, socklen_t length);
  // Until the socket is ready for what events asks; false when the wait itself failed.
  bool awaitReady(int fd, std::uint32_t events);

  Options options_;
  ssl_ctx_st* context_ = nullptr;
  ssl_session_st* session_ = nullptr;
  std::map<std::string, Address> addresses_;  // "host:port" -> the address that connected
  std::uint64_t handshakes_ = 0;
  std::uint64_t resumed_ = 0;
  int epoll_ = -1;       // eventDriven only
  int registered_ = -1;  // the socket epoll_ knows, if it is the current one
};

/// The curl binary on PATH, or empty.
std::string zavloFindCurl();

/// Runs `curl -q -s -L -H 'Connection: close' --max-time 30 [--cacert caFile] url` in the calling
/// thread's network namespace. Returns an empty string when curl exited 0 and printed `expected`,
/// otherwise what went wrong.
std::string zavloRunCurlChain(const std::string& curl, const std::string& url, const std::string& caFile,
                              const std::string& expected);
