#include "ZavloChainFloor.hpp"
#include "tools/peers/ZavloTestCertificates.hpp"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string_view>

#include "Testing/Network/ZavloProcess.hpp"

namespace {

constexpr unsigned kMaxHops = 64;
constexpr std::size_t kReadLimit = 65536;

struct Target {
  bool tls = false;
  std::string host;  // without IPv6 brackets
  std::string hostHeader;
  std::uint16_t port = 0;
  std::string pathAndQuery;
};

std::runtime_error failure(const std::string& what) { return std::runtime_error("floor client: " + what); }

// Only absolute http(s) URLs with an optional port, as the chain server writes them.
Target parseUrl(std::string_view url) {
  Target target;
  if (url.starts_with("https://")) {
    target.tls = true;
    url.remove_prefix(8);
  } else if (url.starts_with("http://")) {
    url.remove_prefix(7);
  } else {
    throw failure("not an http(s) URL: " + std::string(url));
  }
  const auto pathStart = url.find_first_of("/?");
  auto authority = url.substr(0, pathStart);
  target.pathAndQuery = pathStart == std::string_view::npos ? "/" : std::string(url.substr(pathStart));
  if (target.pathAndQuery.starts_with('?')) target.pathAndQuery.insert(0, "/");
  std::string_view portText;
  if (authority.starts_with('[')) {
    const auto close = authority.find(']');
    if (close == std::string_view::npos) throw failure("bad host in " + std::string(url));
    target.host = authority.substr(1, close - 1);
    if (close + 1 < authority.size() && authority[close + 1] == ':') portText = authority.substr(close + 2);
    target.hostHeader = authority.substr(0, close + 1);
  } else {
    const auto colon = authority.find(':');
    target.host = authority.substr(0, colon);
    if (colon != std::string_view::npos) portText = authority.substr(colon + 1);
    target.hostHeader = target.host;
  }
  const std::uint16_t standard = target.tls ? 443 : 80;
  target.port = standard;
  if (!portText.empty()) {
    const auto parsed = std::from_chars(portText.data(), portText.data() + portText.size(), target.port);
    if (parsed.ec != std::errc() || parsed.ptr != portText.data() + portText.size()) {
      throw failure("bad port in " + std::string(url));
    }
  }
  if (target.host.empty()) throw failure("no host in " + std::string(url));
  if (target.port != standard) target.hostHeader += ":" + std::to_string(target.port);
  return target;
}

// The library's request text, byte for byte.
std::string requestText(const Target& target) {
  return "GET " + target.pathAndQuery + " HTTP/1.1\r\nHost: " + target.hostHeader +
         "\r\nAccept: text/html,application/json,application/xhtml+xml,application/xml,*/*"
         "\r\nUser-Agent: ZavloAuthenticationSDK/1.0\r\nConnection: close\r\n\r\n";
}

std::string headerValue(std::string_view response, std::string_view name) {
  const auto headerEnd = response.find("\r\n\r\n");
  const auto at = response.substr(0, headerEnd).find("\r\n" + std::string(name) + ": ");
  if (at == std::string_view::npos) return {};
  const auto start = at + name.size() + 4;
  return std::string(response.substr(start, response.find("\r\n", start) - start));
}

bool isIpLiteral(const std::string& host) {
  std::array<unsigned char, 16> bytes{};
  return inet_pton(AF_INET, host.c_str(), bytes.data()) == 1 || inet_pton(AF_INET6, host.c_str(), bytes.data()) == 1;
}

}  // namespace

ZavloChainFloorClient::ZavloChainFloorClient(Options options) : options_(std::move(options)) {
  if (options_.eventDriven && options_.tls) throw failure("the event-driven floor speaks plain HTTP only");
  if (options_.eventDriven) {
    epoll_ = epoll_create1(EPOLL_CLOEXEC);
    if (epoll_ < 0) throw failure("epoll: " + std::string(std::strerror(errno)));
  }
  if (!options_.tls) return;
  context_ = SSL_CTX_new(TLS_client_method());
  if (context_ == nullptr) throw failure("TLS context: " + zavloOpenSslErrors());
  SSL_CTX_set_min_proto_version(context_, TLS1_2_VERSION);
  SSL_CTX_set_verify(context_, SSL_VERIFY_PEER, nullptr);
  BIO* bio = BIO_new_mem_buf(options_.trustAnchorPem.data(), static_cast<int>(options_.trustAnchorPem.size()));
  X509* anchor = bio != nullptr ? PEM_read_bio_X509(bio, nullptr, nullptr, nullptr) : nullptr;
  BIO_free(bio);
  const bool trusted = anchor != nullptr && X509_STORE_add_cert(SSL_CTX_get_cert_store(context_), anchor) == 1;
  X509_free(anchor);
  if (!trusted) {
    SSL_CTX_free(context_);
    throw failure("trust anchor: " + zavloOpenSslErrors());
  }
}

ZavloChainFloorClient::~ZavloChainFloorClient() {
  SSL_SESSION_free(session_);
  SSL_CTX_free(context_);
  if (epoll_ >= 0) close(epoll_);
}

int ZavloChainFloorClient::socketFor(int family) {
  registered_ = -1;  // a new socket; its number may be the last one's
  const int fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC | (options_.eventDriven ? SOCK_NONBLOCK : 0), 0);
  if (fd < 0 || !options_.tls) return fd;
  const int one = 1;
  // The request follows the client's Finished at once: Nagle would hold it for the Finished's ACK.
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  if (options_.fastOpen) setsockopt(fd, IPPROTO_TCP, TCP_FASTOPEN_CONNECT, &one, sizeof one);
  return fd;
}

bool ZavloChainFloorClient::awaitReady(int fd, std::uint32_t events) {
  epoll_event wanted{};
  wanted.events = events | EPOLLONESHOT;
  wanted.data.fd = fd;
  if (epoll_ctl(epoll_, registered_ == fd ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, fd, &wanted) != 0) return false;
  registered_ = fd;
  epoll_event ready{};
  for (;;) {
    const int count = epoll_wait(epoll_, &ready, 1, -1);
    if (count == 1) return true;
    if (count < 0 && errno != EINTR) return false;
  }
}

// A blocking connect, or a non-blocking one and a wait for its outcome; errno tells why not.
bool ZavloChainFloorClient::connected(int fd, const sockaddr* address, socklen_t length) {
  if (connect(fd, address, length) == 0) return true;
  if (!options_.eventDriven || errno != EINPROGRESS) return false;
  if (!awaitReady(fd, EPOLLOUT)) return false;
  int error = 0;
  socklen_t size = sizeof error;
  if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0) return false;
  errno = error;
  return error == 0;
}

int ZavloChainFloorClient::connectTo(const std::string& host, std::uint16_t port) {
  const auto key = host + ":" + std::to_string(port);
  if (const auto known = addresses_.find(key); known != addresses_.end()) {
    const auto& address = known->second;
    const int fd = socketFor(address.storage.ss_family);
    if (fd < 0) throw failure("socket: " + std::string(std::strerror(errno)));
    if (connected(fd, reinterpret_cast<const sockaddr*>(&address.storage), address.length)) return fd;
    const int error = errno;
    close(fd);
    throw failure("connect " + key + ": " + std::strerror(error));
  }
  // First contact: try every address once (localhost may list ::1 before 127.0.0.1) and keep the one that answers.
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV;
  addrinfo* found = nullptr;
  if (const int error = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found); error != 0) {
    throw failure("resolve " + host + ": " + gai_strerror(error));
  }
  std::string lastError = "no address";
  for (const addrinfo* candidate = found; candidate != nullptr; candidate = candidate->ai_next) {
    const int fd = socketFor(candidate->ai_family);
    if (fd < 0) continue;
    if (connected(fd, candidate->ai_addr, candidate->ai_addrlen)) {
      Address address;
      std::memcpy(&address.storage, candidate->ai_addr, candidate->ai_addrlen);
      address.length = candidate->ai_addrlen;
      addresses_.emplace(key, address);
      freeaddrinfo(found);
      return fd;
    }
    lastError = std::strerror(errno);
    close(fd);
  }
  freeaddrinfo(found);
  throw failure("connect " + key + ": " + lastError);
}

std::string ZavloChainFloorClient::exchange(int fd, const std::string& host, const std::string& request) {
  std::string response(kReadLimit, '\0');
  if (context_ == nullptr) {
    std::size_t sent = 0;
    while (sent < request.size()) {
      const auto n = send(fd, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
      if (n < 0 && errno == EAGAIN && awaitReady(fd, EPOLLOUT)) continue;
      if (n <= 0) throw failure("send: " + std::string(std::strerror(errno)));
      sent += static_cast<std::size_t>(n);
    }
    auto received = recv(fd, response.data(), response.size(), 0);
    while (received < 0 && errno == EAGAIN && awaitReady(fd, EPOLLIN)) {
      received = recv(fd, response.data(), response.size(), 0);
    }
    if (received <= 0) throw failure("no answer: " + std::string(received < 0 ? std::strerror(errno) : "closed"));
    response.resize(static_cast<std::size_t>(received));
    return response;
  }

  SSL* ssl = SSL_new(context_);
  if (ssl == nullptr) throw failure("TLS session: " + zavloOpenSslErrors());
  std::string problem;
  SSL_set_fd(ssl, fd);
  if (isIpLiteral(host)) {
    X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), host.c_str());
  } else {
    SSL_set_tlsext_host_name(ssl, host.c_str());
    SSL_set1_host(ssl, host.c_str());
  }
  if (options_.resumeSessions && session_ != nullptr) SSL_set_session(ssl, session_);
  if (SSL_connect(ssl) != 1) {
    problem = "TLS handshake: " + zavloOpenSslErrors();
  } else if (SSL_write(ssl, request.data(), static_cast<int>(request.size())) != static_cast<int>(request.size())) {
    problem = "TLS write: " + zavloOpenSslErrors();
  } else {
    ++handshakes_;
    if (SSL_session_reused(ssl) == 1) ++resumed_;
    const int received = SSL_read(ssl, response.data(), static_cast<int>(response.size()));
    if (received <= 0) {
      problem = "no answer: " + zavloOpenSslErrors();
    } else {
      response.resize(static_cast<std::size_t>(received));
    }
    // Read after the answer: TLS 1.3 tickets arrive after the handshake, before the data.
    if (options_.resumeSessions) {
      SSL_SESSION* latest = SSL_get1_session(ssl);
      if (latest != nullptr && SSL_SESSION_is_resumable(latest) == 1) {
        SSL_SESSION_free(session_);
        session_ = latest;
      } else {
        SSL_SESSION_free(latest);
      }
    }
  }
  // The server has closed already; skip close_notify, which also keeps the session resumable.
  SSL_set_quiet_shutdown(ssl, 1);
  SSL_shutdown(ssl);
  SSL_free(ssl);
  ERR_clear_error();
  if (!problem.empty()) throw failure(problem);
  return response;
}

unsigned ZavloChainFloorClient::runChain(const std::string& url) {
  auto target = parseUrl(url);
  for (unsigned hop = 1; hop <= kMaxHops; ++hop) {
    if (target.tls != options_.tls) throw failure("the chain switched scheme at hop " + std::to_string(hop));
    const int fd = connectTo(target.host, target.port);
    std::string response;
    try {
      response = exchange(fd, target.host, requestText(target));
    } catch (...) {
      close(fd);
      throw;
    }
    close(fd);

    int status = 0;
    if (response.size() >= 12) std::from_chars(response.data() + 9, response.data() + 12, status);
    if (status == 200) return hop;
    if (status == 301 || status == 302 || status == 303 || status == 307 || status == 308) {
      const auto location = headerValue(response, "Location");
      if (location.starts_with('/')) {
        target.pathAndQuery = location;
      } else if (!location.empty()) {
        target = parseUrl(location);
      } else {
        throw failure("redirect without Location at hop " + std::to_string(hop));
      }
      continue;
    }
    throw failure("unexpected answer at hop " + std::to_string(hop) + ": " + response.substr(0, 64));
  }
  throw failure("more than " + std::to_string(kMaxHops) + " hops");
}

std::string zavloFindCurl() {
  const char* path = std::getenv("PATH");
  std::string_view directories = path != nullptr ? path : "/usr/bin:/bin";
  while (!directories.empty()) {
    const auto end = directories.find(':');
    auto candidate = std::string(directories.substr(0, end)) + "/curl";
    if (access(candidate.c_str(), X_OK) == 0) return candidate;
    directories.remove_prefix(end == std::string_view::npos ? directories.size() : end + 1);
  }
  return {};
}

std::string zavloRunCurlChain(const std::string& curl, const std::string& url, const std::string& caFile,
                              const std::string& expected) {
  std::vector<std::string> arguments{curl, "-q", "-s", "-L", "-H", "Connection: close", "--max-time", "30"};
  if (!caFile.empty()) {
    arguments.emplace_back("--cacert");
    arguments.push_back(caFile);
  }
  arguments.push_back(url);
  const auto run = zavloRunProcess(arguments);
  if (run.exitStatus != 0) return "curl exited with " + std::to_string(run.exitStatus) + " " + run.standardError;
  if (run.standardOutput.find(expected) == std::string::npos) return "curl printed " + run.standardOutput;
  return {};
}
