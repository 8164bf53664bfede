// One loopback hop (connect, send the request, one receive, close) through the Linux
// connection, against the floor: the same hop with a bare blocking socket, or with bare
// OpenSSL for TLS. Both talk to the same scripted server, so its cost is in both. Likewise
// the interface list against the getifaddrs() call underneath it.
//
// Names are WHAT/WHO[/HOW]; scripts/bench compares WHAT/library/HOW with every other WHO.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>

#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "Testing/Network/ZavloTestServer.hpp"
#include "tools/peers/ZavloTestCertificates.hpp"

using namespace std::chrono_literals;

namespace {

constexpr auto kRequest = "GET /auth HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n";
constexpr auto kAnswer = "HTTP/1.1 200 OK\r\nContent-Length: 18\r\n\r\n{\"snaToken\":\"abc\"}";

ZavloConnectionParameters cellular(bool tls) {
  ZavloConnectionParameters parameters;
  if (tls) parameters.tls = ZavloConnectionParameters::Tls{};
  parameters.tcp.connectionTimeout = 5s;
  parameters.tcp.enableFastOpen = tls;
  parameters.requiredInterfaceType = ZavloInterfaceType::cellular;
  parameters.prohibitedInterfaceTypes = {ZavloInterfaceType::wifi, ZavloInterfaceType::loopback,
                                         ZavloInterfaceType::wiredEthernet};
  parameters.ipVersion = ZavloConnectionParameters::IpVersion::v4;
  return parameters;
}

ZavloLinuxPlatform::Options loopbackIsCellular() {
  ZavloLinuxPlatform::Options options;
  options.cellularInterfaces = {"lo"};
  return options;
}

// localhost's IPv4 address, asked for as the library asks (IPv4 only).
bool resolveLocalhost(std::uint16_t port, sockaddr_in& address) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (::getaddrinfo("localhost", std::to_string(port).c_str(), &hints, &found) != 0) return false;
  std::memcpy(&address, found->ai_addr, sizeof address);
  ::freeaddrinfo(found);
  return true;
}

// A blocking socket set up as the library sets up its own, connected; -1 on failure.
int connectedSocket(const sockaddr_in& address) {
  const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int yes = 1;
  ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
  ::setsockopt(socket, SOL_SOCKET, SO_BINDTODEVICE, "lo", 3);
  if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    ::close(socket);
    return -1;
  }
  return socket;
}

// byName: localhost is resolved on every hop, as the library does when given a name.
void rawSocketHop(benchmark::State& state, bool byName) {
  ZavloTestServer server(ZavloTestServerReply::answer(kAnswer));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(server.port());
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const std::string request = kRequest;
  char buffer[65536];
  for (auto _ : state) {
    if (byName && !resolveLocalhost(server.port(), address)) {
      state.SkipWithError("localhost does not resolve");
      break;
    }
    const int socket = connectedSocket(address);
    if (socket < 0 || ::send(socket, request.data(), request.size(), MSG_NOSIGNAL) < 0 ||
        ::recv(socket, buffer, sizeof buffer, 0) <= 0) {
      state.SkipWithError("raw hop failed");
    }
    if (socket >= 0) ::close(socket);
  }
}

// The share of the server's TLS handshakes that resumed a session: both clients should resume.
void reportResumed(benchmark::State& state, const ZavloTestServer& server) {
  if (const auto accepted = server.acceptedCount(); accepted > 0) {
    state.counters["resumed"] = static_cast<double>(server.resumedHandshakes()) / static_cast<double>(accepted);
  }
}

// The TLS hop with bare OpenSSL on a blocking socket: resolve, connect, handshake (resuming
// the previous hop's session), write, one read, close.
void opensslHop(benchmark::State& state) {
  ZavloTestCertificateAuthority authority;
  ZavloTestServer::Options serverOptions;
  serverOptions.tls = authority.issueServerIdentity({"localhost"});
  ZavloTestServer server(ZavloTestServerReply::answer(kAnswer), serverOptions);
  const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context(SSL_CTX_new(TLS_client_method()), SSL_CTX_free);
  SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
  {
    const auto& pem = authority.certificatePem();
    BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
    X509* anchor = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
    BIO_free(bio);
    X509_STORE_add_cert(SSL_CTX_get_cert_store(context.get()), anchor);
    X509_free(anchor);
  }
  const std::string request = kRequest;
  char buffer[65536];
  SSL_SESSION* session = nullptr;
  sockaddr_in address{};
  for (auto _ : state) {
    const int socket = resolveLocalhost(server.port(), address) ? connectedSocket(address) : -1;
    SSL* ssl = socket >= 0 ? SSL_new(context.get()) : nullptr;
    bool done = false;
    if (ssl != nullptr) {
      SSL_set_fd(ssl, socket);
      SSL_set_tlsext_host_name(ssl, "localhost");
      SSL_set1_host(ssl, "localhost");
      if (session != nullptr) SSL_set_session(ssl, session);
      done = SSL_connect(ssl) == 1 && SSL_write(ssl, request.data(), static_cast<int>(request.size())) > 0 &&
             SSL_read(ssl, buffer, sizeof buffer) > 0;
      // After the read: TLS 1.3 tickets come after the handshake.
      if (SSL_SESSION* latest = SSL_get1_session(ssl); latest != nullptr && SSL_SESSION_is_resumable(latest) == 1) {
        SSL_SESSION_free(session);
        session = latest;
      } else {
        SSL_SESSION_free(latest);
      }
      SSL_set_quiet_shutdown(ssl, 1);
      SSL_shutdown(ssl);
      SSL_free(ssl);
    }
    if (socket >= 0) ::close(socket);
    if (!done) {
      state.SkipWithError(("OpenSSL hop failed: " + zavloOpenSslErrors()).c_str());
      break;
    }
  }
  SSL_SESSION_free(session);
  reportResumed(state, server);
}

// One hop through the platform, ended by cancel as the client does.
void connectionHop(benchmark::State& state, const std::string& host, bool tls) {
  ZavloTestCertificateAuthority authority;
  ZavloTestServer::Options serverOptions;
  if (tls) serverOptions.tls = authority.issueServerIdentity({"localhost"});
  ZavloTestServer server(ZavloTestServerReply::answer(kAnswer), serverOptions);
  ZavloLinuxPlatform platform(loopbackIsCellular());
  auto parameters = cellular(tls);
  if (tls) parameters.tls->additionalTrustAnchorsPem = {authority.certificatePem()};
  const std::string request = kRequest;
  auto& loop = platform.runLoop();

  for (auto _ : state) {
    auto connection = platform.makeConnection(host, server.port(), parameters);
    bool done = false;
    bool failed = false;
    std::weak_ptr<ZavloConnection> weak = connection;
    connection->setStateUpdateHandler([&](ZavloConnection::State s, const std::optional<ZavloConnectionError>&) {
      if (s == ZavloConnection::State::ready) {
        auto self = weak.lock();
        self->send({request.begin(), request.end()}, [](const auto&) {});
        self->receive(1, 65536, [&, weak](const std::vector<std::uint8_t>& data, bool, const auto& error) {
          if (error || data.empty()) failed = true;
          if (auto alive = weak.lock()) alive->cancel();
        });
      } else if (s == ZavloConnection::State::failed) {
        failed = true;
        weak.lock()->cancel();
      } else if (s == ZavloConnection::State::cancelled) {
        done = true;
      }
    });
    connection->start(loop);
    if (!loop.runUntil([&] { return done; }, 10s) || failed) state.SkipWithError("hop failed");
  }
  if (tls) reportResumed(state, server);
}

void plainConnectionHop(benchmark::State& state) { connectionHop(state, "127.0.0.1", false); }
// With a name, resolution (getaddrinfo on Asio's resolver thread) is part of the hop.
void plainConnectionHopByName(benchmark::State& state) { connectionHop(state, "localhost", false); }
// TLS 1.3 with the session resumed from the previous hop.
void tlsConnectionHop(benchmark::State& state) { connectionHop(state, "localhost", true); }

void listInterfaces(benchmark::State& state) {
  const ZavloLinuxInterfaceClassifier classifier({"lo"});
  for (auto _ : state) benchmark::DoNotOptimize(classifier.listInterfaces());
}

void getInterfaceAddresses(benchmark::State& state) {
  for (auto _ : state) {
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) {
      state.SkipWithError("getifaddrs failed");
      break;
    }
    benchmark::DoNotOptimize(list);
    ::freeifaddrs(list);
  }
}

}  // namespace

BENCHMARK_CAPTURE(rawSocketHop, ip, false)->Name("hop/sockets/ip")->UseRealTime();
BENCHMARK(plainConnectionHop)->Name("hop/library/ip")->UseRealTime();
BENCHMARK_CAPTURE(rawSocketHop, name, true)->Name("hop/sockets/name")->UseRealTime();
BENCHMARK(plainConnectionHopByName)->Name("hop/library/name")->UseRealTime();
BENCHMARK(opensslHop)->Name("hop/openssl/tls")->UseRealTime();
BENCHMARK(tlsConnectionHop)->Name("hop/library/tls")->UseRealTime();
BENCHMARK(getInterfaceAddresses)->Name("interfaces/getifaddrs");
BENCHMARK(listInterfaces)->Name("interfaces/library");

BENCHMARK_MAIN();
