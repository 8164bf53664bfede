#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

/// A local stand-in for an operator's redirect chain, for integration tests, benchmarks and
/// demos. It answers one request per connection by path, then closes the connection:
///
///   /chain/N/rest (N > 0)  "302 Found", Location /chain/N-1/rest (query kept), relative or absolute
///   /chain/0/rest          "200 OK", body {"snaToken":"<token>"} with Content-Length
///   anything else          "404 Not Found" with a JSON error body; a malformed request gets "400 Bad Request"
///
/// Every answer is written with a single send (a single TLS record), so a client that makes only one
/// read still sees it whole. One thread serves all connections through epoll. Public methods are
/// thread-safe. Construction throws std::runtime_error when the server cannot listen.
struct ZavloChainServerOptions {
  std::string bindAddress = "127.0.0.1";  ///< a numeric IPv4 or IPv6 address
  std::uint16_t port = 0;                 ///< 0 picks an ephemeral port
  bool absoluteLocation = false;          ///< "http(s)://host:port/chain/..." instead of "/chain/..."
  /// Absolute Locations from odd-numbered hops, relative ones from even-numbered hops
  /// (overrides absoluteLocation), so that one chain exercises both kinds.
  bool mixedLocations = false;
  /// Host written into absolute Locations and into chainUrl(). Empty: "localhost" for TLS on
  /// 127.0.0.1 (the certificate's name; ::1 is then served too, on the same port, where the
  /// machine has it), otherwise the bind address (IPv6 in brackets).
  std::string locationHost;
  /// TLS with a certificate for "localhost", 127.0.0.1, ::1 and bindAddress issued by a test CA
  /// made for this server; clients trust trustAnchorPem(). TLS 1.3 sends session tickets, so a
  /// client that keeps them resumes.
  bool tls = false;
  /// When above 0, the listening socket takes TCP Fast Open connections (data in the SYN), with
  /// this many not yet fully open at a time. The namespace must allow it too (net.ipv4.tcp_fastopen
  /// with bit 2 set).
  int fastOpenQueue = 0;
  std::string token = "zavlo-chain-token";
  /// When set, each final answer carries what this returns instead of token. Called on the
  /// server's thread.
  std::function<std::string()> freshToken;
  std::size_t maxConnections = 4096;  ///< connections beyond this are closed at once
  std::size_t recordedRequests = 64;  ///< how many of the latest request texts recentRequests() keeps
};

class ZavloChainServer {
 public:
  explicit ZavloChainServer(ZavloChainServerOptions options = {});
  ~ZavloChainServer();
  ZavloChainServer(const ZavloChainServer&) = delete;
  ZavloChainServer& operator=(const ZavloChainServer&) = delete;

  [[nodiscard]] std::uint16_t port() const noexcept;
  /// "http://127.0.0.1:PORT", "https://localhost:PORT", "http://[::1]:PORT", ...
  [[nodiscard]] std::string baseUrl() const;
  /// The URL of a chain of `hops` requests: hops - 1 redirects, then the token. Throws
  /// std::invalid_argument when hops is 0.
  [[nodiscard]] std::string chainUrl(unsigned hops, std::string_view rest = "sna") const;
  /// Answers written completely, of any status.
  [[nodiscard]] std::uint64_t requestsServed() const noexcept;
  /// TLS handshakes completed, and how many of them resumed an earlier session (a client
  /// that offers its last session should see almost every handshake after the first resume).
  [[nodiscard]] std::uint64_t tlsHandshakes() const noexcept;
  [[nodiscard]] std::uint64_t resumedTlsHandshakes() const noexcept;
  /// The latest request texts (request line and headers), oldest first.
  [[nodiscard]] std::vector<std::string> recentRequests() const;
  /// PEM of the CA that issued the server certificate; empty without TLS.
  [[nodiscard]] const std::string& trustAnchorPem() const noexcept;
  [[nodiscard]] const std::string& token() const noexcept;

 private:
  struct State;
  std::unique_ptr<State> state_;
};
