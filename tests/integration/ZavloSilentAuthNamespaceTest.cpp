// The whole redirect chain stays on the cellular link: inside namespaces of our own
// (ZavloDecoyNetwork), the operator's chain sits behind the link declared cellular and a
// decoy at the same address and port behind the preferred default route. Every hop must
// reach the operator; the decoy must never see the client.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include <nlohmann/json.hpp>

#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "Testing/Network/ZavloTestServer.hpp"
#include "ZavloDecoyNetwork.hpp"
#include "ZavloSnaChainRun.hpp"
#include "tools/peers/ZavloChainServer.hpp"

using nlohmann::json;

namespace {

constexpr auto kDecoyAnswer = "HTTP/1.1 200 OK\r\n\r\n{\"snaToken\":\"decoy-token\"}";

class ZavloSilentAuthNamespaceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string whyNot;
    network = ZavloDecoyNetwork::create(whyNot);
    if (!network) GTEST_SKIP() << "cannot test in network namespaces: " << whyNot;
    network->operatorSide().runInside([&] {
      ZavloChainServerOptions options;
      options.bindAddress = ZavloDecoyNetwork::kServerAddress;
      options.absoluteLocation = true;
      options.token = "operator-token";
      operatorChain = std::make_unique<ZavloChainServer>(options);
    });
    network->decoySide().runInside([&] {
      decoy = std::make_unique<ZavloTestServer>(
          ZavloTestServerReply::answer(kDecoyAnswer),
          ZavloTestServer::Options{ZavloDecoyNetwork::kServerAddress, operatorChain->port(), {}});
    });
    ASSERT_EQ(network->unpinnedExchange(operatorChain->port()), kDecoyAnswer)
        << "the default route must lead to the decoy for this test to mean anything";
  }

  // One chain from inside the client namespace, on a platform that knows cell0 as cellular.
  ZavloSnaChainOutcome chainFromClient(unsigned hops) {
    ZavloSnaChainOutcome outcome;
    network->client().runInside([&] {
      ZavloLinuxPlatform platform(ZavloLinuxPlatform::Options{.hostApplicationVersion = {},
                                                              .cellularInterfaces = {ZavloDecoyNetwork::kCellularLink},
                                                              .additionalTrustAnchorsPem = {}});
      outcome = zavloRunSnaChain(platform, operatorChain->chainUrl(hops), 5.0);
    });
    return outcome;
  }

  std::unique_ptr<ZavloDecoyNetwork> network;
  std::unique_ptr<ZavloChainServer> operatorChain;
  std::unique_ptr<ZavloTestServer> decoy;
};

TEST_F(ZavloSilentAuthNamespaceTest, EveryHopOfTheChainReachesTheOperatorNeverTheDecoy) {
  const auto outcome = chainFromClient(4);
  EXPECT_EQ(outcome.only(), (json{{"httpStatusCode", 200}, {"snaToken", "operator-token"}}));
  EXPECT_EQ(operatorChain->recentRequests().size(), 4U);  // recorded before each answer
  ASSERT_EQ(outcome.hops.size(), 4U);
  for (unsigned i = 0; i < 3; ++i) {
    EXPECT_EQ(outcome.hopMeta(i)["responseUrl"], operatorChain->chainUrl(3 - i)) << "hop " << i;
  }
  EXPECT_EQ(decoy->acceptedCount(), 1U) << "only the unpinned check reached the decoy";
}

// With the cellular link down the hop waits for it rather than take the default route.
TEST_F(ZavloSilentAuthNamespaceTest, AHopWaitingForTheCellularLinkGoesOnWhenItComesBack) {
  network->client().ip({"link", "set", ZavloDecoyNetwork::kCellularLink, "down"});
  std::size_t requestsWhileDown = 0;
  std::string restoreProblem;
  std::thread restore([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    requestsWhileDown = operatorChain->recentRequests().size();
    try {
      network->client().ip({"link", "set", ZavloDecoyNetwork::kCellularLink, "up"});
      // Taking the link down took its routes with it.
      network->client().ip({"route", "replace", "default", "via", ZavloDecoyNetwork::kCellularGateway, "dev",
                            ZavloDecoyNetwork::kCellularLink, "metric", "200"});
    } catch (const std::exception& error) {
      restoreProblem = error.what();
    }
  });
  const auto outcome = chainFromClient(2);
  restore.join();
  ASSERT_EQ(restoreProblem, "");
  EXPECT_EQ(requestsWhileDown, 0U) << "nothing reached the operator while the link was down";
  EXPECT_EQ(outcome.only(), (json{{"httpStatusCode", 200}, {"snaToken", "operator-token"}}));
  EXPECT_EQ(operatorChain->recentRequests().size(), 2U);
  EXPECT_EQ(decoy->acceptedCount(), 1U) << "only the unpinned check reached the decoy";
}

}  // namespace
