#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

#include "Platform/Linux/Network/ZavloLinuxInterfaces.hpp"
#include "Testing/Network/ZavloDelayRelay.hpp"
#include "tools/peers/ZavloChainServer.hpp"
#include "ZavloTcpClient.hpp"

namespace {

using Clock = std::chrono::steady_clock;

struct Timings {
  Clock::duration connect{};
  Clock::duration exchange{};
  std::string answer;
};

// One request over a fresh connection, timed; runs in the calling thread's namespace.
Timings timedHop(const std::string& address, std::uint16_t port) {
  Timings timings;
  const auto started = Clock::now();
  const int fd = zavloConnectTcp(address, port);
  if (fd < 0) return timings;
  const auto connected = Clock::now();
  const std::string request = "GET /chain/0/sna HTTP/1.1\r\nHost: h\r\nConnection: close\r\n\r\n";
  std::string buffer(65536, '\0');
  if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(request.size())) {
    const auto received = recv(fd, buffer.data(), buffer.size(), 0);
    if (received > 0) timings.answer.assign(buffer.data(), static_cast<std::size_t>(received));
  }
  timings.connect = connected - started;
  timings.exchange = Clock::now() - connected;
  close(fd);
  return timings;
}

// What the kernel of the calling thread's namespace says about a link.
ZavloLinuxLinkFacts linkFacts(const std::string& name) {
  ZavloLinuxLinkFacts facts;
  facts.name = name;
  const int probe = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request{};
  std::memcpy(request.ifr_name, name.c_str(), std::min(name.size(), sizeof request.ifr_name - 1));
  if (ioctl(probe, SIOCGIFHWADDR, &request) == 0) facts.arpType = request.ifr_hwaddr.sa_family;
  if (ioctl(probe, SIOCGIFFLAGS, &request) == 0) facts.flags = static_cast<unsigned short>(request.ifr_flags);
  close(probe);
  return facts;
}

}  // namespace

// The relay holds every packet for at least the delay, so a connect (SYN there, SYN-ACK back)
// cannot finish in under two one-way delays, nor can a request and its answer.
TEST(ZavloDelayedLink, DelaysBothWaysOfATcpExchangeOverACellularLikeLinkAndCleansUp) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to create network namespaces and TUN devices";
  std::unique_ptr<ZavloDelayedLink> link;
  try {
    link = std::make_unique<ZavloDelayedLink>();
  } catch (const std::exception& error) {
    GTEST_SKIP() << "cannot create the namespaces of a delayed link: " << error.what();
  }
  const auto roundTrip = 2 * link->oneWayDelay();

  // The kernel describes the device as raw-IP modem links are described: no ARP, point to
  // point. It is still a tunnel, so a host declares it cellular to use it as the modem.
  const auto facts = link->clientSide().run([&] { return linkFacts(link->interfaceName()); });
  EXPECT_EQ(facts.arpType, ARPHRD_NONE);
  EXPECT_EQ(facts.flags & (IFF_POINTOPOINT | IFF_NOARP | IFF_UP), IFF_POINTOPOINT | IFF_NOARP | IFF_UP);
  const auto interfaces = link->clientSide().run([] { return ZavloLinuxInterfaceClassifier().listInterfaces(); });
  const auto device = std::find_if(interfaces.begin(), interfaces.end(),
                                   [&](const auto& i) { return i.name == link->interfaceName(); });
  ASSERT_NE(device, interfaces.end());
  EXPECT_TRUE(device->usable());
  EXPECT_TRUE(device->hasUsableIPv4);
  EXPECT_TRUE(device->hasUsableIPv6);

  const auto serve = [&](const std::string& address) {
    return link->serverSide().run([&] {
      ZavloChainServerOptions options;
      options.bindAddress = address;
      return std::make_unique<ZavloChainServer>(options);
    });
  };
  auto server = serve(link->serverAddress());
  auto server6 = serve(link->serverAddress6());

  for (const auto& [address, port] :
       {std::pair{link->serverAddress(), server->port()}, std::pair{link->serverAddress6(), server6->port()}}) {
    const auto timings = link->clientSide().run([&, to = address, at = port] { return timedHop(to, at); });
    EXPECT_TRUE(timings.answer.starts_with("HTTP/1.1 200 OK")) << address << ": " << timings.answer;
    EXPECT_GE(timings.connect, roundTrip) << address;
    EXPECT_GE(timings.exchange, roundTrip) << address;
  }
  const auto statistics = link->statistics();
  EXPECT_GE(statistics.forwardedAToB, 6U);  // per exchange at least SYN, ACK, request
  EXPECT_GE(statistics.forwardedBToA, 4U);  // per exchange at least SYN-ACK, answer
  EXPECT_EQ(statistics.dropped, 0U);

  const auto clientPath = "/run/netns/" + link->clientSide().name();
  const auto serverPath = "/run/netns/" + link->serverSide().name();
  EXPECT_TRUE(std::filesystem::exists(clientPath));
  server.reset();
  server6.reset();
  link.reset();
  EXPECT_FALSE(std::filesystem::exists(clientPath));
  EXPECT_FALSE(std::filesystem::exists(serverPath));
}
