// One loopback hop (connect, send the request, one receive, close) through the Linux
// connection, against the floor: the same hop with a bare blocking socket. Both talk to
// the same scripted server, so its cost is in both.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>

#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "Testing/Network/ZavloTestCertificates.hpp"
#include "Testing/Network/ZavloTestServer.hpp"

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

void rawSocketHop(benchmark::State& state) {
  ZavloTestServer server(ZavloTestServerReply::answer(kAnswer));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(server.port());
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const std::string request = kRequest;
  char buffer[65536];
  for (auto _ : state) {
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int yes = 1;
    ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    ::setsockopt(socket, SOL_SOCKET, SO_BINDTODEVICE, "lo", 3);
    if (::connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::send(socket, request.data(), request.size(), MSG_NOSIGNAL) < 0 ||
        ::recv(socket, buffer, sizeof buffer, 0) <= 0) {
      state.SkipWithError("raw hop failed");
    }
    ::close(socket);
  }
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
        self->receive(1, 65536, [&, weak](std::vector<std::uint8_t> data, bool, const auto& error) {
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

}  // namespace

BENCHMARK(rawSocketHop)->UseRealTime();
BENCHMARK(plainConnectionHop)->UseRealTime();
BENCHMARK(plainConnectionHopByName)->UseRealTime();
BENCHMARK(tlsConnectionHop)->UseRealTime();
BENCHMARK(listInterfaces);

BENCHMARK_MAIN();
