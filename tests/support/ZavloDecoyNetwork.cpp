#include "ZavloDecoyNetwork.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <exception>
#include <utility>
#include <vector>

std::unique_ptr<ZavloDecoyNetwork> ZavloDecoyNetwork::create(std::string& whyNot) {
  std::unique_ptr<ZavloDecoyNetwork> network(new ZavloDecoyNetwork);
  network->client_ = ZavloNetworkNamespace::create(whyNot, "client");
  if (!network->client_) return nullptr;
  network->operator_ = ZavloNetworkNamespace::create(whyNot, "operator");
  if (!network->operator_) return nullptr;
  network->decoy_ = ZavloNetworkNamespace::create(whyNot, "decoy");
  if (!network->decoy_) return nullptr;

  const auto& client = *network->client_;
  const auto& operatorSide = *network->operator_;
  const auto& decoy = *network->decoy_;
  const std::vector<std::pair<const ZavloNetworkNamespace*, std::vector<std::string>>> steps = {
      {&client, {"link", "add", kCellularLink, "type", "veth", "peer", "name", "op0", "netns", operatorSide.name()}},
      {&client, {"link", "add", kEthernetLink, "type", "veth", "peer", "name", "dec0", "netns", decoy.name()}},
      {&client, {"addr", "add", "198.18.1.2/24", "dev", kCellularLink}},
      {&client, {"addr", "add", "198.18.2.2/24", "dev", kEthernetLink}},
      {&operatorSide, {"addr", "add", "198.18.1.1/24", "dev", "op0"}},
      {&operatorSide, {"addr", "add", "198.18.0.1/32", "dev", "lo"}},
      {&decoy, {"addr", "add", "198.18.2.1/24", "dev", "dec0"}},
      {&decoy, {"addr", "add", "198.18.0.1/32", "dev", "lo"}},
      {&operatorSide, {"link", "set", "op0", "up"}},
      {&decoy, {"link", "set", "dec0", "up"}},
      {&client, {"link", "set", kCellularLink, "up"}},
      {&client, {"link", "set", kEthernetLink, "up"}},
      {&client, {"route", "add", "default", "via", "198.18.2.1", "dev", kEthernetLink, "metric", "100"}},
      {&client, {"route", "add", "default", "via", kCellularGateway, "dev", kCellularLink, "metric", "200"}},
  };
  try {
    for (const auto& [space, arguments] : steps) space->ip(arguments);
  } catch (const std::exception& error) {
    whyNot = std::string("cannot build the test links: ") + error.what();
    return nullptr;
  }
  return network;
}

std::string ZavloDecoyNetwork::unpinnedExchange(std::uint16_t port) const {
  std::string answer;
  client_->runInside([&] {
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (socket < 0) return;
    const timeval timeout{5, 0};
    ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, kServerAddress, &address.sin_addr);
    if (::connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
      const std::string request = "GET / HTTP/1.1\r\nConnection: close\r\n\r\n";
      if (::send(socket, request.data(), request.size(), MSG_NOSIGNAL) > 0) {
        char buffer[512];
        for (long count = 0; (count = ::recv(socket, buffer, sizeof buffer, 0)) > 0;) {
          answer.append(buffer, static_cast<std::size_t>(count));
        }
      }
    }
    ::close(socket);
  });
  return answer;
}
