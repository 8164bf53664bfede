#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Testing/Network/ZavloNetworkNamespace.hpp"

/// Three network namespaces that make interface pinning visible (test support): a client
/// with a link declared cellular (cell0) that leads to the operator, and an Ethernet-like
/// link (eth0) that carries the preferred default route to a decoy. Operator and decoy
/// both own kServerAddress, so only the link a socket leaves by decides who answers.
///
///   operator ns  op0 198.18.1.1 --- cell0 198.18.1.2  client ns  eth0 198.18.2.2 --- dec0 198.18.2.1  decoy ns
///   198.18.0.1 on lo                 default metric 200          default metric 100         198.18.0.1 on lo
///
/// Servers for either side are made inside operatorSide().runInside() or decoySide().runInside().
class ZavloDecoyNetwork {
 public:
  static constexpr const char* kServerAddress = "198.18.0.1";
  static constexpr const char* kCellularLink = "cell0";
  static constexpr const char* kEthernetLink = "eth0";
  static constexpr const char* kCellularGateway = "198.18.1.1";

  /// The three namespaces with their links and routes, or null with the reason when this
  /// process cannot make them (no root, no iproute2, no veth support).
  static std::unique_ptr<ZavloDecoyNetwork> create(std::string& whyNot);

  [[nodiscard]] const ZavloNetworkNamespace& client() const { return *client_; }
  [[nodiscard]] const ZavloNetworkNamespace& operatorSide() const { return *operator_; }
  [[nodiscard]] const ZavloNetworkNamespace& decoySide() const { return *decoy_; }

  /// What a socket in the client namespace that is pinned to nothing gets back for a bare
  /// GET to kServerAddress:port (the decoy's answer, when the topology means anything).
  [[nodiscard]] std::string unpinnedExchange(std::uint16_t port) const;

 private:
  ZavloDecoyNetwork() = default;

  std::unique_ptr<ZavloNetworkNamespace> client_;
  std::unique_ptr<ZavloNetworkNamespace> operator_;
  std::unique_ptr<ZavloNetworkNamespace> decoy_;
};
