#pragma once

#include <functional>
#include <string>
#include <vector>

/// What a library chain run needs to know about where it runs.
struct ZavloLibraryChainContext {
  std::string trustAnchorPem;     ///< the CA to trust for https chains; empty for http
  std::string cellularInterface;  ///< the interface to treat as cellular: "lo", or the delayed link's TUN device
  std::string expectedToken;      ///< the snaToken the last hop must answer with
  /// The cellular link's name servers, for chains by name; each chain then starts with no
  /// answer kept, so that every name it uses costs its lookup.
  std::vector<std::string> cellularDnsServers = {};
};

/// Runs one whole chain with the library, starting at url; true when it ended with the token.
using ZavloLibraryChainRunner = std::function<bool(const std::string& url)>;

/// Called on the benchmark thread, inside the network namespace the chain runs in, once per
/// benchmark; sockets the runner creates later must come from that namespace too. An empty
/// runner means the library is not wired in: those benchmarks report "library: not wired".
///
/// The runner owns one Linux platform (its run loop, I/O thread and TLS context cache live as
/// long as the runner), and drives a fresh ZavloCellularSnaClient per chain on that platform's
/// run loop, on the calling thread. Hop events are handed to a sink that drops them.
ZavloLibraryChainRunner zavloMakeLibraryChainRunner(const ZavloLibraryChainContext& context);
