// The pinning, proved on links of our own: a client namespace with a link declared
// cellular that leads to the operator, and an Ethernet-like link that carries the default
// route to a decoy answering at the same address and port.
//
//   operator ns  op0 198.18.1.1 --- cell0 198.18.1.2  client ns  eth0 198.18.2.2 --- dec0 198.18.2.1  decoy ns
//   198.18.0.1 on lo                 default metric 200          default metric 100         198.18.0.1 on lo
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <arpa/inet.h>
#include <cerrno>
#include <memory>

#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "ZavloConnectionRecorder.hpp"
#include "ZavloTestNetworkNamespace.hpp"
#include "ZavloTestServer.hpp"

using namespace std::chrono_literals;

namespace {

constexpr auto kServerAddress = "198.18.0.1";
constexpr auto kOperatorAnswer = "HTTP/1.1 200 OK\r\n\r\n{\"from\":\"operator\"}";
constexpr auto kDecoyAnswer = "HTTP/1.1 200 OK\r\n\r\n{\"from\":\"decoy\"}";

// What an unpinned socket in the current namespace gets from the server address.
std::string rawExchange(std::uint16_t port) {
  const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const timeval timeout{5, 0};
  ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  inet_pton(AF_INET, kServerAddress, &address.sin_addr);
  std::string answer;
  if (::connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
    const std::string request = "GET / HTTP/1.1\r\n\r\n";
    if (::send(socket, request.data(), request.size(), MSG_NOSIGNAL) > 0) {
      char buffer[512];
      for (long count = 0; (count = ::recv(socket, buffer, sizeof buffer, 0)) > 0;) {
        answer.append(buffer, static_cast<std::size_t>(count));
      }
    }
  }
  ::close(socket);
  return answer;
}

struct HopResult {
  std::vector<std::string> events;
  std::optional<ZavloConnectionError> stateError;
  std::string received;
};

class ZavloConnectionNamespaceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "creating network namespaces needs root; skipped";
    client = std::make_unique<ZavloTestNetworkNamespace>("client");
    operatorSide = std::make_unique<ZavloTestNetworkNamespace>("operator");
    decoySide = std::make_unique<ZavloTestNetworkNamespace>("decoy");
    for (const auto* space : {client.get(), operatorSide.get(), decoySide.get()}) {
      if (!space->ok()) GTEST_SKIP() << "cannot create network namespaces here: " << space->problem();
    }
    const auto& o = operatorSide->name();
    const auto& d = decoySide->name();
    const std::vector<std::pair<const ZavloTestNetworkNamespace*, std::vector<std::string>>> steps = {
        {client.get(), {"link", "add", "cell0", "type", "veth", "peer", "name", "op0", "netns", o}},
        {client.get(), {"link", "add", "eth0", "type", "veth", "peer", "name", "dec0", "netns", d}},
        {client.get(), {"addr", "add", "198.18.1.2/24", "dev", "cell0"}},
        {client.get(), {"addr", "add", "198.18.2.2/24", "dev", "eth0"}},
        {operatorSide.get(), {"addr", "add", "198.18.1.1/24", "dev", "op0"}},
        {operatorSide.get(), {"addr", "add", "198.18.0.1/32", "dev", "lo"}},
        {decoySide.get(), {"addr", "add", "198.18.2.1/24", "dev", "dec0"}},
        {decoySide.get(), {"addr", "add", "198.18.0.1/32", "dev", "lo"}},
        {operatorSide.get(), {"link", "set", "op0", "up"}},
        {decoySide.get(), {"link", "set", "dec0", "up"}},
        {client.get(), {"link", "set", "cell0", "up"}},
        {client.get(), {"link", "set", "eth0", "up"}},
        {client.get(), {"route", "add", "default", "via", "198.18.2.1", "dev", "eth0", "metric", "100"}},
        {client.get(), {"route", "add", "default", "via", "198.18.1.1", "dev", "cell0", "metric", "200"}},
    };
    for (const auto& [space, arguments] : steps) {
      if (auto problem = space->ip(arguments); !problem.empty()) {
        GTEST_SKIP() << "cannot build the test links: " << problem;
      }
    }
    operatorSide->runInside([&] {
      operatorServer = std::make_unique<ZavloTestServer>(ZavloTestServerReply::answer(kOperatorAnswer),
                                                         ZavloTestServer::Options{kServerAddress, 0, {}});
    });
    ASSERT_TRUE(operatorServer);
    decoySide->runInside([&] {
      decoyServer =
          std::make_unique<ZavloTestServer>(ZavloTestServerReply::answer(kDecoyAnswer),
                                            ZavloTestServer::Options{kServerAddress, operatorServer->port(), {}});
    });
    ASSERT_TRUE(decoyServer);
  }

  // One hop from inside the client namespace on a fresh platform that knows cell0 as
  // cellular.
  HopResult hopFromClient(ZavloConnectionParameters parameters = zavloCellularParameters()) {
    HopResult result;
    const bool entered = client->runInside([&] {
      ZavloLinuxPlatform::Options options;
      options.cellularInterfaces = {"cell0"};
      ZavloLinuxPlatform platform(options);
      ZavloConnectionRecorder recorder(platform.makeConnection(kServerAddress, operatorServer->port(), parameters),
                                       platform.runLoop());
      auto& loop = platform.runLoop();
      recorder.start();
      loop.runUntil([&] { return recorder.has("ready") || recorder.has("failed"); }, 10s);
      if (recorder.has("ready")) {
        recorder.send("GET / HTTP/1.1\r\nHost: 198.18.0.1\r\nConnection: close\r\n\r\n");
        recorder.receive(1, 65536);
        loop.runUntil([&] { return recorder.receiveCalls() > 0; }, 10s);
      }
      recorder.connection().cancel();
      loop.runUntil([&] { return recorder.has("cancelled"); }, 10s);
      recorder.read([&](const ZavloConnectionRecorder::Log& log) {
        result.events = log.events;
        result.stateError = log.stateError;
        result.received = log.received;
        return 0;
      });
    });
    EXPECT_TRUE(entered);
    return result;
  }

  std::unique_ptr<ZavloTestNetworkNamespace> client;
  std::unique_ptr<ZavloTestNetworkNamespace> operatorSide;
  std::unique_ptr<ZavloTestNetworkNamespace> decoySide;
  std::unique_ptr<ZavloTestServer> operatorServer;
  std::unique_ptr<ZavloTestServer> decoyServer;
};

TEST_F(ZavloConnectionNamespaceTest, PinnedConnectionReachesTheOperatorNeverTheDecoy) {
  std::string unpinned;
  client->runInside([&] { unpinned = rawExchange(operatorServer->port()); });
  ASSERT_EQ(unpinned, kDecoyAnswer) << "the default route must lead to the decoy for this test to mean anything";

  const auto hop = hopFromClient();
  EXPECT_EQ(hop.received, kOperatorAnswer);
  EXPECT_EQ(hop.events, (std::vector<std::string>{"preparing", "ready", "sent", "received", "cancelled"}));
  EXPECT_EQ(operatorServer->acceptedCount(), 1U);
  EXPECT_EQ(decoyServer->acceptedCount(), 1U);  // the unpinned check only
}

TEST_F(ZavloConnectionNamespaceTest, WithoutAUsableCellularLinkNothingFallsBackToTheDefaultRoute) {
  ASSERT_EQ(client->ip({"link", "set", "cell0", "down"}), "");
  const auto hop = hopFromClient();
  ASSERT_TRUE(hop.stateError);
  EXPECT_EQ(hop.stateError->localizedDescription, "No usable cellular interface");
  EXPECT_EQ(hop.events, (std::vector<std::string>{"preparing", "failed", "cancelled"}));
  EXPECT_EQ(decoyServer->acceptedCount(), 0U);
  EXPECT_EQ(operatorServer->acceptedCount(), 0U);
}

TEST_F(ZavloConnectionNamespaceTest, UnansweredConnectTimesOutOnTheCellularLink) {
  // Frames for the cellular gateway go to an address nobody has, so the SYN is lost.
  ASSERT_EQ(
      client->ip({"neigh", "replace", "198.18.1.1", "lladdr", "02:00:00:00:00:99", "dev", "cell0", "nud", "permanent"}),
      "");
  auto parameters = zavloCellularParameters();
  parameters.tcp.connectionTimeout = 1s;
  const auto hop = hopFromClient(parameters);
  ASSERT_TRUE(hop.stateError);
  EXPECT_EQ(hop.stateError->code, ETIMEDOUT);
  EXPECT_EQ(hop.stateError->localizedDescription, "Connection timed out");
  EXPECT_EQ(decoyServer->acceptedCount(), 0U);
}

}  // namespace
