#pragma once

#include <functional>
#include <string>

/// What a library chain run needs to know about where it runs.
struct ZavloLibraryChainContext {
  std::string trustAnchorPem;     ///< the CA to trust for https chains; empty for http
  std::string cellularInterface;  ///< the interface to treat as cellular: "lo", or the delayed link's TUN device
};

/// Runs one whole chain with the library, starting at url; true when it ended with the token.
using ZavloLibraryChainRunner = std::function<bool(const std::string& url)>;

/// Called on the benchmark thread, inside the network namespace the chain runs in, once per
/// benchmark; sockets the runner creates later must come from that namespace too. An empty
/// runner means the library is not wired in: those benchmarks report "library: not wired".
ZavloLibraryChainRunner zavloMakeLibraryChainRunner(const ZavloLibraryChainContext& context);
