// A local operator for the tests of the GObject layer, which run in Python: serves
// ZavloChainServer on loopback, writes "URL" of a chain of HOPS requests (and, with TLS,
// the trust anchor to PEM_FILE), then serves until its standard input closes.
//
//   zavlo-test-operator HOPS [PEM_FILE]
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

#include "tools/peers/ZavloChainServer.hpp"

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3) {
    std::cerr << "usage: zavlo-test-operator HOPS [PEM_FILE]\n";
    return 2;
  }
  ZavloChainServerOptions options;
  options.tls = argc == 3;
  options.mixedLocations = true;
  ZavloChainServer server(options);
  if (options.tls) std::ofstream(argv[2]) << server.trustAnchorPem();
  std::cout << server.chainUrl(static_cast<unsigned>(std::strtoul(argv[1], nullptr, 10)), "glib") << '\n' << std::flush;
  std::string line;
  while (std::getline(std::cin, line)) {
  }
  return 0;
}
