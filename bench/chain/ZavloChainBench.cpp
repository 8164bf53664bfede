// Per-hop cost of a redirect chain of fresh connections ("Connection: close", one read per hop):
// the floor (raw sockets, raw OpenSSL), libcurl's easy API, the curl tool, and the library's
// chain once it is wired in; on loopback, and over a link with 25 ms of delay each way between
// two network namespaces.
//
// A chain of N hops is N requests: N - 1 redirects, then the 200 with the token. per_hop is the
// wall time of a chain divided by N.
//
// delayed/library-by-name/http runs the library's chain by host name over a second delayed link
// (IPv4 only, so that the flow's IPv6 try needs no question), with a dnsmasq behind that link as
// the cellular link's name server: two names per chain, each asked once per chain (the chain
// forgets kept answers first), so its floor adds one round trip per name and chain.
//
// delayed/WHO/tls runs chains of TLS hops over the first delayed link, where both namespaces
// allow TCP Fast Open and the server takes it. With a cookie cached and the last hop's session
// offered, a hop is two round trips (SYN with the ClientHello / SYN-ACK with the server's
// flight, then Finished with the request / the answer); without Fast Open, three.
// delayed/WHO/tls-server-without-fastopen: the same to a server that does not take it.
// fastopen_per_hop is the server namespace's count of connections accepted with a valid
// cookie (from a client holding one: the ClientHello came in the SYN), per hop; rtt_per_hop is
// per_hop_ms over the link's round trip.
//
// Names are WHO/WHAT/hops:N, WHO being library, sockets or openssl(-resumed) (the floor),
// sockets-epoll (the floor on non-blocking sockets waiting in epoll, as on an event loop),
// libcurl or curl; scripts/bench compares library/WHAT/hops:N with every other WHO of the same
// WHAT and hops.

#include <benchmark/benchmark.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "Testing/Network/ZavloDelayRelay.hpp"
#include "Testing/Network/ZavloDnsmasq.hpp"
#include "Testing/Network/ZavloTcpFastOpen.hpp"
#include "ZavloChainFloor.hpp"
#include "ZavloLibcurlChain.hpp"
#include "ZavloLibraryChain.hpp"
#include "tools/peers/ZavloChainServer.hpp"

namespace {

constexpr std::array<int, 3> kHops{1, 5, 20};
constexpr unsigned kDelayedHops = 5;
// The chain by name: the first URL's host, and the host of every Location after it.
constexpr const char* kEntryName = "entry.chain.test";
constexpr const char* kHopName = "hop.chain.test";
constexpr unsigned kNamesPerChain = 2;

// Everything the benchmarks share; built once in main, before any benchmark runs.
struct Setup {
  std::unique_ptr<ZavloChainServer> relative;
  std::unique_ptr<ZavloChainServer> absolute;
  std::unique_ptr<ZavloChainServer> tls;
  std::string curl;
  std::string caFile;  // the TLS server's CA, for curl
  std::unique_ptr<ZavloDelayedLink> link;
  std::unique_ptr<ZavloChainServer> delayed;                    // listens inside the link's server namespace
  std::unique_ptr<ZavloChainServer> delayedTls;                 // the same place, TLS, taking Fast Open
  std::unique_ptr<ZavloChainServer> delayedTlsWithoutFastOpen;  // the same, not taking it
  std::string delayedCaFile;                                    // its CA, for curl
  // The chain by name: its own IPv4-only link, chain server and name server.
  std::unique_ptr<ZavloDelayedLink> namedLink;
  std::unique_ptr<ZavloChainServer> named;
  std::unique_ptr<ZavloDnsmasq> names;
};
Setup* gSetup = nullptr;

// Connections the delayed TLS server may hold half-open with data from the SYN.
constexpr int kFastOpenQueue = 64;

// A CA's PEM in a file of its own, for curl; empty when none can be made.
std::string writeTemporaryFile(const std::string& text) {
  char path[] = "/tmp/zavlo-chain-ca-XXXXXX";
  const int fd = mkstemp(path);
  if (fd < 0) return {};
  close(fd);
  std::ofstream(path) << text;
  return path;
}

void reportPerHop(benchmark::State& state, unsigned hops) {
  state.counters["per_hop"] = benchmark::Counter(static_cast<double>(state.iterations()) * hops,
                                                 benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// Runs chains for the benchmark's iterations. For TLS, "resumed" is the share of handshakes
// the server saw resume a session: proof, from the other end, that a client resumes.
template <class Chain>
void runChains(benchmark::State& state, const ZavloChainServer& server, unsigned hops, Chain&& chain) {
  const auto handshakesBefore = server.tlsHandshakes();
  const auto resumedBefore = server.resumedTlsHandshakes();
  try {
    for (auto _ : state) {
      const std::string problem = chain();
      if (!problem.empty()) {
        state.SkipWithError(problem.c_str());
        return;
      }
    }
  } catch (const std::exception& error) {
    state.SkipWithError(error.what());
    return;
  }
  reportPerHop(state, hops);
  if (const auto handshakes = server.tlsHandshakes() - handshakesBefore; handshakes > 0) {
    state.counters["resumed"] =
        static_cast<double>(server.resumedTlsHandshakes() - resumedBefore) / static_cast<double>(handshakes);
  }
}

void floorChain(benchmark::State& state, ZavloChainServer& server, ZavloChainFloorClient::Options options) {
  const auto hops = static_cast<unsigned>(state.range(0));
  const auto url = server.chainUrl(hops);
  ZavloChainFloorClient client(std::move(options));
  runChains(state, server, hops, [&] {
    const auto made = client.runChain(url);
    return made == hops ? std::string() : "the chain took " + std::to_string(made) + " hops";
  });
}

void curlChain(benchmark::State& state, ZavloChainServer& server, const std::string& caFile) {
  if (gSetup->curl.empty()) {
    state.SkipWithError("curl: not found on PATH");
    return;
  }
  const auto hops = static_cast<unsigned>(state.range(0));
  const auto url = server.chainUrl(hops);
  runChains(state, server, hops, [&] { return zavloRunCurlChain(gSetup->curl, url, caFile, server.token()); });
}

void libcurlChain(benchmark::State& state, ZavloChainServer& server, const std::string& caFile, bool fastOpen = false) {
  const auto hops = static_cast<unsigned>(state.range(0));
  const auto url = server.chainUrl(hops);
  std::optional<ZavloLibcurlChainClient> client;
  try {
    client.emplace(caFile, fastOpen);
  } catch (const std::exception& error) {
    state.SkipWithError(error.what());
    return;
  }
  runChains(state, server, hops, [&] { return client->runChain(url, hops, server.token()); });
}

void libraryChain(benchmark::State& state, ZavloChainServer& server, ZavloLibraryChainContext context) {
  context.expectedToken = server.token();
  const auto runner = zavloMakeLibraryChainRunner(context);
  if (!runner) {
    state.SkipWithError("library: not wired");
    return;
  }
  const auto hops = static_cast<unsigned>(state.range(0));
  const auto url = server.chainUrl(hops);
  runChains(state, server, hops, [&] { return runner(url) ? std::string() : "the library's chain failed"; });
}

// Over the delayed link every hop pays two round trips (SYN/SYN-ACK, request/answer): its
// physical floor is four one-way delays.
// nameLookups: round trips to the link's name server per chain.
template <class Chain>
void delayedChain(benchmark::State& state, Chain&& chain, ZavloDelayedLink* over = nullptr, unsigned nameLookups = 0) {
  auto& link = over != nullptr ? *over : *gSetup->link;
  std::optional<ZavloNetworkNamespace::Entered> inside;
  ZavloTcpFastOpenCounters before;
  try {
    inside.emplace(link.clientSide().enter());
    before = zavloTcpFastOpenCounters(link.serverSide());
  } catch (const std::exception& error) {
    state.SkipWithError(error.what());
    return;
  }
  const auto started = std::chrono::steady_clock::now();
  chain(state);
  const std::chrono::duration<double, std::milli> elapsed = std::chrono::steady_clock::now() - started;
  if (state.error_occurred() || state.iterations() == 0) return;
  const double hops = static_cast<double>(state.iterations()) * static_cast<double>(state.range(0));
  const double perHop = elapsed.count() / hops;
  const double oneWay = std::chrono::duration<double, std::milli>(link.oneWayDelay()).count();
  const double floor = 4.0 * oneWay + 2.0 * oneWay * nameLookups / static_cast<double>(state.range(0));
  state.counters["per_hop_ms"] = perHop;
  state.counters["floor_ms"] = floor;
  state.counters["over_floor_ms"] = perHop - floor;
  state.counters["rtt_per_hop"] = perHop / (2.0 * oneWay);
  try {
    const auto fastOpen = zavloTcpFastOpenCounters(link.serverSide()) - before;
    state.counters["fastopen_per_hop"] = static_cast<double>(fastOpen.passive) / hops;
  } catch (const std::exception& error) {
    state.SkipWithError(error.what());
  }
}

void registerLoopback(Setup& setup) {
  const auto hops = [](benchmark::internal::Benchmark* b) {
    b->ArgName("hops")->UseRealTime()->Unit(benchmark::kMicrosecond);
    for (const int n : kHops) b->Arg(n);
  };
  // http: relative Locations; http-absolute: "http://127.0.0.1:PORT/..." Locations.
  benchmark::RegisterBenchmark("sockets/http", [&](benchmark::State& s) {
    floorChain(s, *setup.relative, {});
  })->Apply(hops);
  benchmark::RegisterBenchmark("sockets-epoll/http", [&](benchmark::State& s) {
    floorChain(s, *setup.relative, {false, false, "", true});
  })->Apply(hops);
  benchmark::RegisterBenchmark("libcurl/http", [&](benchmark::State& s) {
    libcurlChain(s, *setup.relative, "");
  })->Apply(hops);
  benchmark::RegisterBenchmark("curl/http", [&](benchmark::State& s) {
    curlChain(s, *setup.relative, "");
  })->Apply(hops);
  benchmark::RegisterBenchmark("library/http", [&](benchmark::State& s) {
    libraryChain(s, *setup.relative, {"", "lo", ""});
  })->Apply(hops);
  benchmark::RegisterBenchmark("sockets/http-absolute", [&](benchmark::State& s) {
    floorChain(s, *setup.absolute, {});
  })->Apply(hops);
  benchmark::RegisterBenchmark("library/http-absolute", [&](benchmark::State& s) {
    libraryChain(s, *setup.absolute, {"", "lo", ""});
  })->Apply(hops);

  const auto pem = setup.tls->trustAnchorPem();
  // openssl: a full handshake every hop; openssl-resumed: each hop resumes the previous hop's session.
  benchmark::RegisterBenchmark("openssl/tls", [&setup, pem](benchmark::State& s) {
    floorChain(s, *setup.tls, {true, false, pem});
  })->Apply(hops);
  benchmark::RegisterBenchmark("openssl-resumed/tls", [&setup, pem](benchmark::State& s) {
    floorChain(s, *setup.tls, {true, true, pem});
  })->Apply(hops);
  benchmark::RegisterBenchmark("libcurl/tls", [&](benchmark::State& s) {
    libcurlChain(s, *setup.tls, setup.caFile);
  })->Apply(hops);
  benchmark::RegisterBenchmark("curl/tls", [&](benchmark::State& s) {
    curlChain(s, *setup.tls, setup.caFile);
  })->Apply(hops);
  benchmark::RegisterBenchmark("library/tls", [&setup, pem](benchmark::State& s) {
    libraryChain(s, *setup.tls, {pem, "lo", ""});
  })->Apply(hops);
}

void delayedArguments(benchmark::internal::Benchmark* b) {
  b->ArgName("hops")->Arg(kDelayedHops)->UseRealTime()->Unit(benchmark::kMillisecond);
}

void registerDelayedTls(Setup& setup) {
  const auto delayed = delayedArguments;
  const auto pem = setup.delayedTls->trustAnchorPem();
  // The floors: raw OpenSSL resuming the last hop's session, without and with Fast Open.
  for (const bool fastOpen : {false, true}) {
    benchmark::RegisterBenchmark(fastOpen ? "delayed/openssl-resumed-fastopen/tls" : "delayed/openssl-resumed/tls",
                                 [&setup, pem, fastOpen](benchmark::State& s) {
                                   delayedChain(s, [&](benchmark::State& state) {
                                     ZavloChainFloorClient::Options options{true, true, pem};
                                     options.fastOpen = fastOpen;
                                     floorChain(state, *setup.delayedTls, options);
                                   });
                                 })
        ->Apply(delayed)
        ->Iterations(4);
    benchmark::RegisterBenchmark(fastOpen ? "delayed/libcurl-fastopen/tls" : "delayed/libcurl/tls",
                                 [&setup, fastOpen](benchmark::State& s) {
                                   delayedChain(s, [&](benchmark::State& state) {
                                     libcurlChain(state, *setup.delayedTls, setup.delayedCaFile, fastOpen);
                                   });
                                 })
        ->Apply(delayed)
        ->Iterations(4);
  }
  benchmark::RegisterBenchmark(
      "delayed/curl/tls",
      [&setup](benchmark::State& s) {
        delayedChain(s, [&](benchmark::State& state) { curlChain(state, *setup.delayedTls, setup.delayedCaFile); });
      })
      ->Apply(delayed)
      ->Iterations(4);
  benchmark::RegisterBenchmark("delayed/library/tls",
                               [&setup, pem](benchmark::State& s) {
                                 delayedChain(s, [&](benchmark::State& state) {
                                   libraryChain(state, *setup.delayedTls, {pem, setup.link->interfaceName(), ""});
                                 });
                               })
      ->Apply(delayed)
      ->Iterations(4);
  // A server that does not take Fast Open, at the address whose cookie the clients hold:
  // the SYN's data, not acknowledged, goes again as soon as the SYN-ACK is in.
  const auto withoutPem = setup.delayedTlsWithoutFastOpen->trustAnchorPem();
  benchmark::RegisterBenchmark("delayed/openssl-resumed/tls-server-without-fastopen",
                               [&setup, withoutPem](benchmark::State& s) {
                                 delayedChain(s, [&](benchmark::State& state) {
                                   floorChain(state, *setup.delayedTlsWithoutFastOpen, {true, true, withoutPem});
                                 });
                               })
      ->Apply(delayed)
      ->Iterations(4);
  benchmark::RegisterBenchmark(
      "delayed/library/tls-server-without-fastopen",
      [&setup, withoutPem](benchmark::State& s) {
        delayedChain(s, [&](benchmark::State& state) {
          libraryChain(state, *setup.delayedTlsWithoutFastOpen, {withoutPem, setup.link->interfaceName(), ""});
        });
      })
      ->Apply(delayed)
      ->Iterations(4);
}

void registerDelayed(Setup& setup) {
  const auto delayed = delayedArguments;
  benchmark::RegisterBenchmark("delayed/sockets/http",
                               [&](benchmark::State& s) {
                                 delayedChain(s,
                                              [&](benchmark::State& state) { floorChain(state, *setup.delayed, {}); });
                               })
      ->Apply(delayed)
      ->Iterations(6);
  benchmark::RegisterBenchmark("delayed/libcurl/http",
                               [&](benchmark::State& s) {
                                 delayedChain(
                                     s, [&](benchmark::State& state) { libcurlChain(state, *setup.delayed, ""); });
                               })
      ->Apply(delayed)
      ->Iterations(4);
  benchmark::RegisterBenchmark("delayed/curl/http",
                               [&](benchmark::State& s) {
                                 delayedChain(s,
                                              [&](benchmark::State& state) { curlChain(state, *setup.delayed, ""); });
                               })
      ->Apply(delayed)
      ->Iterations(4);
  benchmark::RegisterBenchmark("delayed/library/http",
                               [&](benchmark::State& s) {
                                 delayedChain(s, [&](benchmark::State& state) {
                                   libraryChain(state, *setup.delayed, {"", setup.link->interfaceName(), ""});
                                 });
                               })
      ->Apply(delayed)
      ->Iterations(4);
  if (setup.delayedTls) registerDelayedTls(setup);
  if (!setup.named) return;
  benchmark::RegisterBenchmark(
      "delayed/library-by-name/http",
      [&](benchmark::State& s) {
        delayedChain(
            s,
            [&](benchmark::State& state) {
              ZavloLibraryChainContext context{"", setup.namedLink->interfaceName(), ""};
              context.cellularDnsServers = {setup.namedLink->serverAddress()};
              context.expectedToken = setup.named->token();
              const auto runner = zavloMakeLibraryChainRunner(context);
              if (!runner) return state.SkipWithError("library: not wired");
              const auto hops = static_cast<unsigned>(state.range(0));
              auto url = setup.named->chainUrl(hops);
              url.replace(url.find(kHopName), std::string(kHopName).size(), kEntryName);
              const auto asked = setup.names->queries().size();
              runChains(state, *setup.named, hops,
                        [&] { return runner(url) ? std::string() : "the library's chain by name failed"; });
              state.counters["name_queries_per_chain"] =
                  static_cast<double>(setup.names->queries().size() - asked) / static_cast<double>(state.iterations());
            },
            setup.namedLink.get(), kNamesPerChain);
      })
      ->Apply(delayed)
      ->Iterations(4);
}

// The chain by name: an IPv4-only delayed link of its own (another subnet), a chain server
// whose Locations name kHopName, and dnsmasq answering both names with the server's address.
void setUpNamedLink(Setup& setup) {
  try {
    ZavloDelayedLinkOptions options;
    options.ipv6 = false;
    options.subnet = 1 + static_cast<int>((getpid() + 125) % 250);  // never the first link's
    setup.namedLink = std::make_unique<ZavloDelayedLink>(options);
    const auto address = setup.namedLink->serverAddress();
    std::string whyNot;
    setup.names = ZavloDnsmasq::start(setup.namedLink->serverSide(), {address, {{"chain.test", address}}}, whyNot);
    if (!setup.names) throw std::runtime_error(whyNot);
    setup.named = setup.namedLink->serverSide().run([&] {
      ZavloChainServerOptions server;
      server.bindAddress = address;
      server.absoluteLocation = true;
      server.locationHost = kHopName;
      return std::make_unique<ZavloChainServer>(server);
    });
    std::cout << "delayed link by name: " << setup.namedLink->clientSide().name() << " -> "
              << setup.namedLink->serverSide().name() << " (" << address << "), dnsmasq there answers " << kEntryName
              << " and " << kHopName << "; floor per hop adds 2 x one-way delay x " << kNamesPerChain << " / hops\n";
  } catch (const std::exception& error) {
    setup.named.reset();
    setup.names.reset();
    setup.namedLink.reset();
    std::cout << "delayed link by name: skipped (" << error.what() << ")\n";
  }
}

// A TLS chain server on the delayed link's server side that takes Fast Open, both namespaces
// allowing it; without it the delayed TLS benchmarks are left out and the rest still runs.
void setUpDelayedTls(Setup& setup) {
  try {
    zavloEnableTcpFastOpen(setup.link->clientSide());
    zavloEnableTcpFastOpen(setup.link->serverSide());
    const auto serve = [&](int fastOpenQueue) {
      return setup.link->serverSide().run([&] {
        ZavloChainServerOptions options;
        options.bindAddress = setup.link->serverAddress();
        options.tls = true;
        options.fastOpenQueue = fastOpenQueue;
        return std::make_unique<ZavloChainServer>(options);
      });
    };
    setup.delayedTls = serve(kFastOpenQueue);
    setup.delayedTlsWithoutFastOpen = serve(0);
    setup.delayedCaFile = writeTemporaryFile(setup.delayedTls->trustAnchorPem());
    std::cout << "delayed link, TLS: " << setup.delayedTls->baseUrl()
              << ", TCP Fast Open allowed in both namespaces (net.ipv4.tcp_fastopen = 3), "
                 "the server's listening socket takes it\n";
  } catch (const std::exception& error) {
    setup.delayedTls.reset();
    setup.delayedTlsWithoutFastOpen.reset();
    std::cout << "delayed link, TLS: skipped (" << error.what() << ")\n";
  }
}

// The delayed link needs namespaces and TUN devices, hence root; without them the rest still runs.
void setUpDelayedLink(Setup& setup) {
  if (geteuid() != 0) {
    std::cout << "delayed link: skipped (needs root to create network namespaces)\n";
    return;
  }
  try {
    setup.link = std::make_unique<ZavloDelayedLink>();
    const auto address = setup.link->serverAddress();
    setup.delayed = setup.link->serverSide().run([&] {
      ZavloChainServerOptions options;
      options.bindAddress = address;
      return std::make_unique<ZavloChainServer>(options);
    });
    setUpDelayedTls(setup);
    std::cout << "delayed link: " << setup.link->oneWayDelay().count() / 1000 << " ms each way, "
              << setup.link->clientSide().name() << " (" << setup.link->clientAddress() << ") -> "
              << setup.link->serverSide().name() << " (" << setup.link->serverAddress() << "), device "
              << setup.link->interfaceName() << "; physical floor per hop = 4 x one-way delay\n";
  } catch (const std::exception& error) {
    setup.delayed.reset();
    setup.link.reset();
    std::cout << "delayed link: skipped (" << error.what() << ")\n";
  }
}

}  // namespace

int main(int argc, char** argv) {
  // A server that closes first must fail a write with EPIPE, not end the benchmark.
  signal(SIGPIPE, SIG_IGN);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;

  Setup setup;
  gSetup = &setup;
  setup.relative = std::make_unique<ZavloChainServer>();
  ZavloChainServerOptions absolute;
  absolute.absoluteLocation = true;
  setup.absolute = std::make_unique<ZavloChainServer>(absolute);
  ZavloChainServerOptions tls;
  tls.tls = true;
  // By address, as the plain chains: a name would have the library ask for its IPv6 address
  // first, and with no "::1 localhost" in the hosts file that question leaves the machine.
  tls.locationHost = "127.0.0.1";
  setup.tls = std::make_unique<ZavloChainServer>(tls);

  setup.caFile = writeTemporaryFile(setup.tls->trustAnchorPem());
  setup.curl = zavloFindCurl();

  std::cout << "chain: a chain of N hops is N requests (N - 1 redirects, then the token); "
               "per_hop = wall time per chain / N\n"
            << "curl: " << (setup.curl.empty() ? "not found" : setup.curl)
            << " (curl/*/hops:1 is curl's single-request time, process start included)\n";
  if (!zavloMakeLibraryChainRunner({"", "lo", ""})) {
    std::cout << "library: not wired (bench/chain/ZavloLibraryChain.cpp)\n";
  }
  setUpDelayedLink(setup);
  if (setup.delayed) setUpNamedLink(setup);
  std::cout << std::flush;

  registerLoopback(setup);
  if (setup.delayed) registerDelayed(setup);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();

  if (setup.link) {
    const auto statistics = setup.link->statistics();
    std::cout << "delayed link relay: " << statistics.forwardedAToB << " packets client->server, "
              << statistics.forwardedBToA << " server->client, " << statistics.dropped << " dropped\n";
  }
  for (const auto& file : {setup.caFile, setup.delayedCaFile}) {
    if (!file.empty()) std::remove(file.c_str());
  }
  return 0;
}
