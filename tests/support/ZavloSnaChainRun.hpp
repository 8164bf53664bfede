#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Cellular/ZavloCellularSnaClient.hpp"
#include "Cellular/ZavloChainDictionary.hpp"
#include "Platform/Linux/ZavloLinuxPlatform.hpp"

/// What one silent authentication chain did (test support).
struct ZavloSnaChainOutcome {
  bool urlParsed = false;
  std::vector<nlohmann::json> completions;
  std::vector<bool> onMainQueue;                         ///< per completion
  std::vector<std::shared_ptr<ZavloAuthEventLog>> hops;  ///< the SNA_HOP events, in order
  std::chrono::steady_clock::duration elapsed{};         ///< from open() to the first completion

  /// The chain's one dictionary; with any other number of completions, a dictionary that
  /// says so ({"completionCount": n, "completions": [...]}), which no expectation matches.
  [[nodiscard]] nlohmann::json only() const {
    if (completions.size() == 1) return completions.front();
    return {{"completionCount", completions.size()}, {"completions", completions}};
  }
  /// The metaData of hop i (null when there is no such hop).
  [[nodiscard]] nlohmann::json hopMeta(std::size_t i) const {
    return i < hops.size() && hops[i]->metaData ? *hops[i]->metaData : nlohmann::json();
  }
  [[nodiscard]] bool allOnMainQueue() const {
    for (const bool on : onMainQueue) {
      if (!on) return false;
    }
    return true;
  }
};

/// Runs one chain of a fresh ZavloCellularSnaClient (per-hop time-out timeOut seconds) on
/// the platform's run loop, from the calling thread, until it completes or bound passes,
/// then linger longer so that a late second completion would be counted too.
inline ZavloSnaChainOutcome zavloRunSnaChain(ZavloLinuxPlatform& platform, const std::string& url, double timeOut,
                                             std::chrono::milliseconds linger = std::chrono::milliseconds(100),
                                             std::chrono::seconds bound = std::chrono::seconds(10)) {
  using Clock = std::chrono::steady_clock;
  auto outcome = std::make_shared<ZavloSnaChainOutcome>();
  const auto parsed = ZavloUrl::parse(url);
  outcome->urlParsed = parsed.has_value();
  if (!parsed) return *outcome;
  auto client = ZavloCellularSnaClient::create(platform, [outcome](const ZavloCellularSnaClient::HopEvent& event) {
    outcome->hops.push_back(event.toEventLog());
  });
  client->CONNECTION_TIME_OUT = timeOut;
  const auto started = Clock::now();
  client->open(*parsed, "req-chain", [outcome, &platform, started](const ZavloChainOutcome& ending) {
    if (outcome->completions.empty()) outcome->elapsed = Clock::now() - started;
    outcome->completions.push_back(ZavloChainDictionary::of(ending));
    outcome->onMainQueue.push_back(platform.mainQueue().isCurrent());
  });
  client.reset();  // from here the chain keeps itself alive
  platform.runLoop().runUntil([&] { return !outcome->completions.empty(); }, bound);
  platform.runLoop().runUntil([] { return false; }, linger);
  return *outcome;
}
