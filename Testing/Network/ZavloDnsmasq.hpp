#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Testing/Network/ZavloNetworkNamespace.hpp"
#include "Testing/Network/ZavloProcess.hpp"

/// A name server for tests: dnsmasq (Debian package dnsmasq-base) inside a network
/// namespace, answering fixed names from its command line only (no upstream, no hosts
/// file) and logging every query it receives to a file of its own. Stopped by the
/// destructor.
class ZavloDnsmasq {
 public:
  struct Options {
    std::string listenAddress;  ///< numeric, an address of the namespace
    /// (domain, address): the domain and every name under it answer with address; domain
    /// "#" answers every name. Other names are refused.
    std::vector<std::pair<std::string, std::string>> answers;
    int ttl = 300;  ///< the answers' time to live, in seconds
  };

  /// The server, once it answers queries; null with the reason when it cannot run (no
  /// dnsmasq, or it did not start).
  static std::unique_ptr<ZavloDnsmasq> start(const ZavloNetworkNamespace& space, const Options& options,
                                             std::string& whyNot);
  ~ZavloDnsmasq();
  ZavloDnsmasq(const ZavloDnsmasq&) = delete;
  ZavloDnsmasq& operator=(const ZavloDnsmasq&) = delete;

  /// The queries received so far, as dnsmasq logs them: "query[A] name from 198.18.1.2".
  [[nodiscard]] std::vector<std::string> queries() const;

 private:
  ZavloDnsmasq() = default;
  std::string folder_;
  std::string logPath_;
  std::unique_ptr<ZavloInteractiveProcess> process_;
};
