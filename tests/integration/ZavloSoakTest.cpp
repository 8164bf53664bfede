// Load on one process and the real Linux platform: many silent authentication chains at
// once, then thousands of telemetry events, then many enrol-and-sign pairs. Each
// completion must come exactly once, and the process must give back the descriptors and
// memory the load took. The counts are the full ones unless ZAVLO_SOAK_SCALE (a fraction)
// scales them down.
#include <gtest/gtest.h>
#include <malloc.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Graph/ZavloAuthenticationGraph.hpp"
#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "Telemetry/ZavloAuthEventLog.hpp"
#include "Telemetry/ZavloAuthLogManager.hpp"
#include "ZavloEs256.hpp"
#include "bench/support/ZavloConcurrentChains.hpp"
#include "tools/peers/ZavloChainServer.hpp"
#include "tools/peers/ZavloHttpTestServer.hpp"
#include "tools/peers/ZavloTemporaryDirectory.hpp"

using nlohmann::json;
using namespace std::chrono_literals;

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// Shadow memory and quarantines make resident sizes meaningless under the sanitizers.
constexpr bool kMeasuresMemory = false;
#else
constexpr bool kMeasuresMemory = true;
#endif
constexpr std::size_t kMiB = std::size_t{1024} * 1024;
constexpr std::size_t kChainMemoryBound = 64 * kMiB;
// A process that runs only this test starts the load at about 16 MiB; the bound is checked
// on what the load adds to that, so that tests run before it in the same process (a run of
// the whole binary) do not count.
constexpr std::size_t kStandaloneStart = 16 * kMiB;
// What the allocator keeps after the load, beyond where the process started: freed pages
// that a few live objects (Asio's pooled socket states, say) still pin.
constexpr std::size_t kMemoryKept = 12 * kMiB;
// What a second load the same size may add to that: a leak of a few hundred bytes per
// chain would show here.
constexpr std::size_t kMemoryGrowth = 2 * kMiB;

std::size_t scaled(std::size_t count) {
  const char* scale = std::getenv("ZAVLO_SOAK_SCALE");
  const double factor = scale != nullptr ? std::atof(scale) : 1.0;
  return factor > 0 && factor < 1
             ? std::max<std::size_t>(1, static_cast<std::size_t>(static_cast<double>(count) * factor))
             : count;
}

// Prompts are allowed, with a secret file for the sealed keys.
ZavloLinuxPlatform::Options loopbackCellular(const std::filesystem::path& folder) {
  ZavloLinuxPlatform::Options options;
  options.cellularInterfaces = {"lo"};
  options.keyFilePath = (folder / "keychain.db").string();
  options.ownerAuthentication.mode = ZavloLinuxOwnerAuthentication::Mode::allow;
  std::ofstream(folder / "owner-secret") << "soak secret\n";
  options.ownerAuthentication.secretFile = (folder / "owner-secret").string();
  options.sealingCost = {10, 8, 1};  // a thousand signatures measure the flow, not scrypt
  return options;
}

// Memory freed by the load counts as given back once the allocator returns it.
std::size_t residentAfterTrim() {
  malloc_trim(0);
  return zavloResidentBytes();
}

class ZavloSoakTest : public ::testing::Test {
 protected:
  ZavloSoakTest() : platform(loopbackCellular(folder.path())) {}

  bool runUntil(const std::function<bool()>& done, std::chrono::nanoseconds bound) {
    return platform.runLoop().runUntil(done, std::chrono::duration_cast<ZavloQueue::Duration>(bound));
  }
  ZavloConcurrentChainsRun::RunUntil runner() {
    return [this](const std::function<bool()>& done, std::chrono::nanoseconds bound) { return runUntil(done, bound); };
  }
  // Descriptors close when the peers notice; a moment for that before the count is final.
  std::size_t descriptorsSettledAt(std::size_t expected) {
    runUntil([&] { return zavloOpenFileDescriptors() <= expected; }, 2s);
    return zavloOpenFileDescriptors();
  }

  ZavloTemporaryDirectory folder;
  ZavloLinuxPlatform platform;
};

TEST_F(ZavloSoakTest, AThousandConcurrentChainsCompleteOnceWithinTheirMemoryAndGiveBackWhatTheyTook) {
  ZavloChainServer server;
  const ZavloConcurrentChainsRun warmUp{.url = server.chainUrl(3), .expectedToken = server.token(), .chains = 1};
  // The first chain makes what lives as long as the platform (the interface list, the
  // context's descriptors); those are not the load's.
  ASSERT_EQ(zavloRunConcurrentChains(platform, runner(), warmUp).succeeded, 1U);
  const auto descriptorsBefore = zavloOpenFileDescriptors();  // the warm-up lingered: its peer has closed
  const auto residentBefore = residentAfterTrim();

  ZavloConcurrentChainsRun run = warmUp;
  run.chains = scaled(1000);
  run.bound = 120s;
  const auto outcome = zavloRunConcurrentChains(platform, runner(), run);
  EXPECT_EQ(outcome.completedChains, run.chains);
  EXPECT_EQ(outcome.extraCompletions, 0U);
  EXPECT_EQ(outcome.succeeded, run.chains) << (outcome.unexpected.empty() ? "" : outcome.unexpected.front().dump());
  EXPECT_EQ(outcome.hopEvents, 3 * run.chains);
  EXPECT_EQ(server.requestsServed(), 3 * (run.chains + 1));
  EXPECT_EQ(descriptorsSettledAt(descriptorsBefore), descriptorsBefore);
  const auto residentAfter = residentAfterTrim();
  // A second load the same size must find the memory the first one left: nothing grows.
  const auto again = zavloRunConcurrentChains(platform, runner(), run);
  EXPECT_EQ(again.succeeded, run.chains);
  EXPECT_EQ(again.extraCompletions, 0U);
  const auto residentAgain = residentAfterTrim();
  std::printf("resident set: %zu KiB before, %zu KiB at the peak, %zu KiB after, %zu KiB after the second load\n",
              residentBefore / 1024, outcome.peakResidentBytes / 1024, residentAfter / 1024, residentAgain / 1024);
  if (kMeasuresMemory) {
    EXPECT_LT(outcome.peakResidentBytes - std::min(outcome.peakResidentBytes, residentBefore),
              kChainMemoryBound - kStandaloneStart);
    EXPECT_LT(residentAfter, residentBefore + kMemoryKept);
    EXPECT_LT(residentAgain, residentAfter + kMemoryGrowth);
  }
}

TEST_F(ZavloSoakTest, TenThousandTelemetryEventsEachArriveAndCompleteOnce) {
  ZavloHttpTestServer collector;
  ZavloAuthenticationGraph graph(platform);
  const auto descriptorsBefore = zavloOpenFileDescriptors();
  graph.logManager->configure(ZavloAuthEnvironment::development, collector.url("/events"));

  const auto count = scaled(10000);
  std::mutex mutex;
  std::vector<unsigned> completions(count, 0);
  std::size_t failures = 0;
  for (std::size_t i = 0; i < count; ++i) {
    auto event = std::make_shared<ZavloAuthEventLog>();
    event->eventName = "SOAK";
    event->requestId = "soak-" + std::to_string(i);
    event->status = "SUCCESS";
    graph.logManager->sendEventLog(event, [&, i](const ZavloResult<ZavloVoid, ZavloAuthHttpError>& result) {
      std::lock_guard lock(mutex);
      ++completions[i];
      if (!result) ++failures;
    });
  }
  ASSERT_TRUE(graph.logManager->waitForPendingEvents(120s));
  {
    std::lock_guard lock(mutex);
    EXPECT_EQ(std::count(completions.begin(), completions.end(), 1U), static_cast<std::ptrdiff_t>(count));
    EXPECT_EQ(failures, 0U);
  }
  std::set<std::string> received;
  for (const auto& request : collector.requests()) {
    received.insert(json::parse(request.body, nullptr, false).value("requestId", "?"));
  }
  EXPECT_EQ(received.size(), count) << "every event arrived, none twice";
  EXPECT_EQ(collector.requests().size(), count);

  // Shutting telemetry down closes the transport's connections.
  graph.logManager->cleanup();
  EXPECT_LE(descriptorsSettledAt(descriptorsBefore), descriptorsBefore);
}

TEST_F(ZavloSoakTest, AThousandEnrolAndSignPairsEachCompleteOnceWithAVerifiableSignature) {
  ZavloAuthenticationGraph graph(platform);
  auto& wrapper = graph.nativeWrapper;
  wrapper.setup(std::make_shared<int>(0), ZavloAuthEnvironment::development);
  const auto count = scaled(1000);
  struct Pair {
    unsigned enrolments = 0;
    unsigned signatures = 0;
    json enrolled;
    json signedChallenge;
  };
  std::vector<Pair> pairs(count);
  std::size_t finished = 0;
  // Every enrolment at once; each pair signs as soon as its key exists.
  for (std::size_t i = 0; i < count; ++i) {
    wrapper.enrollDeviceBinding(json::object(), [&, i](ZavloResult<json> enrolled) {
      auto& pair = pairs[i];
      if (pair.enrolments++ > 0) return;
      pair.enrolled = enrolled ? enrolled.value() : json(enrolled.error());
      if (!enrolled) {
        ++finished;
        return;
      }
      const json config{{"allowedKeyIds", {pair.enrolled.value("keyId", "")}},
                        {"challenge", "soak-" + std::to_string(i)}};
      wrapper.signDeviceBindingChallenge(config, [&, i](ZavloResult<json> signature) {
        auto& signing = pairs[i];
        if (signing.signatures++ == 0) ++finished;
        signing.signedChallenge = signature ? signature.value() : json(signature.error());
      });
    });
  }
  EXPECT_TRUE(runUntil([&] { return finished == count; }, 300s));
  runUntil([] { return false; }, 50ms);  // a late second completion would show now
  platform.ownerAuthentication()->waitForEvaluations();

  std::set<std::string> keyIds;
  std::size_t verified = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const auto& pair = pairs[i];
    ASSERT_EQ(pair.enrolments, 1U) << i;
    ASSERT_EQ(pair.signatures, 1U) << i << ' ' << pair.enrolled.dump();
    keyIds.insert(pair.enrolled.value("keyId", ""));
    verified += zavloVerifyPublishedEs256(pair.enrolled.value("publicKey", ""), "soak-" + std::to_string(i),
                                          pair.signedChallenge.value("signature", ""))
                    ? 1
                    : 0;
  }
  EXPECT_EQ(keyIds.size(), count) << "one key per enrolment";
  EXPECT_EQ(verified, count) << pairs.front().signedChallenge.dump();
}

}  // namespace
