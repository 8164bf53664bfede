// TLS hops at two round trips: once the client holds a Fast Open cookie for the server, a
// hop's first write (the ClientHello) must leave in the SYN. Proved from the kernels' own
// counters on a link of our own between two namespaces: the server's count of connections
// accepted with a valid cookie, and the client's count of SYNs whose data was acknowledged.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "Testing/Network/ZavloDelayRelay.hpp"
#include "Testing/Network/ZavloTcpFastOpen.hpp"
#include "ZavloSnaChainRun.hpp"
#include "tools/peers/ZavloChainServer.hpp"

using namespace std::chrono_literals;

namespace {

constexpr unsigned kHops = 4;

struct Case {
  const char* name;
  bool serverTakesFastOpen;
  // Connections of the chain whose SYN carried the ClientHello, as the server and the client count them.
  std::uint64_t passive;
  std::uint64_t active;
};

// In this order, on one link: the client's cookie for the server's address is cached by the
// second case's first hop and offered to the third case's server, which ignores it.
constexpr Case kCases[] = {
    {"a server without Fast Open, no cookie yet", false, 0, 0},
    {"a server with Fast Open: every hop after the first (which fetches the cookie)", true, kHops - 1, kHops - 1},
    {"a server without Fast Open, the cookie of another port cached", false, 0, 0},
};

TEST(ZavloTlsFastOpenNamespaceTest, HopsAfterTheFirstSendTheClientHelloInTheSynWhereTheServerTakesIt) {
  std::unique_ptr<ZavloDelayedLink> link;
  try {
    ZavloDelayedLinkOptions options;
    options.oneWayDelay = 1ms;
    options.ipv6 = false;
    link = std::make_unique<ZavloDelayedLink>(options);
    zavloEnableTcpFastOpen(link->clientSide());
    zavloEnableTcpFastOpen(link->serverSide());
  } catch (const std::exception& error) {
    GTEST_SKIP() << "needs root, network namespaces and TUN devices (iproute2): " << error.what();
  }

  for (const auto& row : kCases) {
    SCOPED_TRACE(row.name);
    const auto server = link->serverSide().run([&] {
      ZavloChainServerOptions options;
      options.bindAddress = link->serverAddress();
      options.tls = true;
      options.fastOpenQueue = row.serverTakesFastOpen ? 16 : 0;
      return std::make_unique<ZavloChainServer>(options);
    });
    const auto serverBefore = zavloTcpFastOpenCounters(link->serverSide());
    const auto clientBefore = zavloTcpFastOpenCounters(link->clientSide());
    ZavloSnaChainOutcome outcome;
    link->clientSide().runInside([&] {
      ZavloLinuxPlatform platform(ZavloLinuxPlatform::Options{.hostApplicationVersion = {},
                                                              .cellularInterfaces = {link->interfaceName()},
                                                              .additionalTrustAnchorsPem = {server->trustAnchorPem()}});
      outcome = zavloRunSnaChain(platform, server->chainUrl(kHops), 5.0);
    });
    const auto serverSide = zavloTcpFastOpenCounters(link->serverSide()) - serverBefore;
    const auto clientSide = zavloTcpFastOpenCounters(link->clientSide()) - clientBefore;

    const auto result = outcome.only();
    EXPECT_EQ(result.value("httpStatusCode", 0), 200) << result.dump();
    EXPECT_EQ(result.value("snaToken", ""), server->token()) << result.dump();
    EXPECT_EQ(server->tlsHandshakes(), kHops);
    // Every hop after the first resumes the session of the hop before (a new CA each case, so
    // the first hop has nothing to resume).
    EXPECT_EQ(server->resumedTlsHandshakes(), kHops - 1);
    EXPECT_EQ(serverSide.passive, row.passive);
    EXPECT_EQ(serverSide.passiveFail, 0U);
    EXPECT_EQ(clientSide.active, row.active);
  }
}

}  // namespace
