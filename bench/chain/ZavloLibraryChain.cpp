#include "ZavloLibraryChain.hpp"

// NOT WIRED YET: the library's cellular chain client does not exist at this point. Replace the
// body with a runner that drives the library's chain from `url` to its final answer (declaring
// context.cellularInterface as cellular and trusting context.trustAnchorPem) and returns
// whether the answer carried the token.
ZavloLibraryChainRunner zavloMakeLibraryChainRunner(const ZavloLibraryChainContext& /*context*/) { return {}; }
