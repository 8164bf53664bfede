#include "ZavloLibraryChain.hpp"

#include <chrono>
#include <memory>
#include <optional>

#include "Cellular/ZavloCellularSnaClient.hpp"
#include "Cellular/ZavloChainDictionary.hpp"
#include "Core/ZavloUrl.hpp"
#include "Platform/Linux/ZavloLinuxPlatform.hpp"

namespace {

using namespace std::chrono_literals;

// The per-hop time-out the silent authentication flow gives its client.
constexpr double kHopTimeOut = 10.0;
// A chain that has not finished by then is reported as failed rather than waited for.
constexpr auto kChainBound = 60s;

ZavloLinuxPlatform::Options platformOptions(const ZavloLibraryChainContext& context) {
  ZavloLinuxPlatform::Options options;
  options.cellularInterfaces = {context.cellularInterface};
  if (!context.trustAnchorPem.empty()) options.additionalTrustAnchorsPem = {context.trustAnchorPem};
  options.cellularDnsServers = context.cellularDnsServers;
  return options;
}

}  // namespace

ZavloLibraryChainRunner zavloMakeLibraryChainRunner(const ZavloLibraryChainContext& context) {
  // The connections' I/O runs on the platform's run loop, which the benchmark thread runs,
  // so their sockets are made in the namespace this thread is in.
  auto platform = std::make_shared<ZavloLinuxPlatform>(platformOptions(context));
  return [platform, expected = context.expectedToken,
          byName = !context.cellularDnsServers.empty()](const std::string& text) {
    const auto url = ZavloUrl::parse(text);
    if (!url) return false;
    if (byName) platform->forgetCellularNames();
    // Every hop's event is built, as the flow builds it on this queue; no one sends it.
    auto client = ZavloCellularSnaClient::create(
        *platform, [](const ZavloCellularSnaClient::HopEvent& event) { static_cast<void>(event.toEventLog()); });
    client->CONNECTION_TIME_OUT = kHopTimeOut;
    // Shared: a chain given up on at the bound may still answer during a later run.
    auto answer = std::make_shared<std::optional<nlohmann::json>>();
    client->open(*url, std::string("bench-chain"),
                 [answer](const ZavloChainOutcome& outcome) { *answer = ZavloChainDictionary::of(outcome); });
    client.reset();  // the chain keeps itself alive, as in the library's flow
    if (!platform->runLoop().runUntil([&answer] { return answer->has_value(); }, kChainBound)) return false;
    const auto& dictionary = **answer;
    const auto status = dictionary.find("httpStatusCode");
    const auto token = dictionary.find("snaToken");
    return status != dictionary.end() && *status == 200 && token != dictionary.end() && token->is_string() &&
           token->get<std::string>() == expected;
  };
}
