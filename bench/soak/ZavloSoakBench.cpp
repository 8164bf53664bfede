// A thousand chains of three hops at once in one process, against the local operator: the
// library (each chain its own ZavloCellularSnaClient, all on the platform's run loop) next to
// libcurl's multi interface following the same chains with as many transfers at once.
//
// Counters: chains_per_s (a rate), peak_rss_MiB (the highest resident set sampled while the
// chains ran, whole process, operator included), cpu_per_hop_us (CPU time of the thread that
// drove the chains, divided by the hops). Names are WHO/concurrent:N; scripts/bench compares
// library/... with libcurl/....

#include <benchmark/benchmark.h>
#include <curl/curl.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "bench/support/ZavloConcurrentChains.hpp"
#include "tools/peers/ZavloChainServer.hpp"

namespace {

constexpr unsigned kHops = 3;
constexpr int kConcurrent = 1000;
constexpr double kMiB = 1024.0 * 1024.0;

ZavloChainServer& server() {
  static ZavloChainServer chainServer;  // one operator for every repetition
  return chainServer;
}

void report(benchmark::State& state, std::size_t chains, std::chrono::nanoseconds cpu, std::size_t peakResident) {
  const auto hops = static_cast<double>(chains) * kHops;
  state.counters["chains_per_s"] = benchmark::Counter(static_cast<double>(chains), benchmark::Counter::kIsRate);
  state.counters["cpu_per_hop_us"] = std::chrono::duration<double, std::micro>(cpu).count() / hops;
  state.counters["peak_rss_MiB"] = static_cast<double>(peakResident) / kMiB;
}

void libraryChains(benchmark::State& state) {
  ZavloLinuxPlatform::Options options;
  options.cellularInterfaces = {"lo"};
  ZavloLinuxPlatform platform(std::move(options));
  const auto runUntil = [&platform](const std::function<bool()>& done, std::chrono::nanoseconds bound) {
    return platform.runLoop().runUntil(done, bound);
  };
  ZavloConcurrentChainsRun run{.url = server().chainUrl(kHops),
                               .expectedToken = server().token(),
                               .chains = static_cast<std::size_t>(state.range(0)),
                               .linger = std::chrono::milliseconds(0)};
  std::size_t chains = 0;
  std::chrono::nanoseconds cpu{};
  std::size_t peak = 0;
  for (auto _ : state) {
    const auto outcome = zavloRunConcurrentChains(platform, runUntil, run);
    if (outcome.succeeded != run.chains || outcome.extraCompletions != 0) {
      state.SkipWithError(("library: " + std::to_string(outcome.succeeded) + " of " + std::to_string(run.chains) +
                           " chains succeeded" +
                           (outcome.unexpected.empty() ? "" : ", " + outcome.unexpected[0].dump()))
                              .c_str());
      return;
    }
    chains += run.chains;
    cpu += outcome.queueCpu;
    peak = std::max(peak, outcome.peakResidentBytes);
  }
  report(state, chains, cpu, peak);
}

std::size_t discard(char*, std::size_t size, std::size_t count, void*) { return size * count; }

// The same chains through libcurl's multi interface: every transfer added at once, each
// following its redirects, all driven by this thread.
void libcurlChains(benchmark::State& state) {
  static const bool initialised = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
  CURLM* multi = initialised ? curl_multi_init() : nullptr;
  if (multi == nullptr) {
    state.SkipWithError("libcurl: no multi handle");
    return;
  }
  curl_multi_setopt(multi, CURLMOPT_MAX_TOTAL_CONNECTIONS, 0L);
  curl_slist* headers =
      curl_slist_append(nullptr, "Accept: text/html,application/json,application/xhtml+xml,application/xml,*/*");
  headers = curl_slist_append(headers, "Connection: close");
  const auto url = server().chainUrl(kHops);
  const auto count = static_cast<std::size_t>(state.range(0));
  std::size_t chains = 0;
  std::chrono::nanoseconds cpu{};
  std::size_t peak = 0;
  for (auto _ : state) {
    const auto cpuBefore = zavloThreadCpuTime();
    std::vector<CURL*> transfers;
    for (std::size_t i = 0; i < count; ++i) {
      CURL* easy = curl_easy_init();
      curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
      curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
      curl_easy_setopt(easy, CURLOPT_USERAGENT, "ZavloAuthenticationSDK/1.0");
      curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
      curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
      curl_easy_setopt(easy, CURLOPT_TIMEOUT, 60L);
      curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, discard);
      curl_multi_add_handle(multi, easy);
      transfers.push_back(easy);
    }
    std::size_t succeeded = 0;
    int running = 1;
    auto sampledAt = std::chrono::steady_clock::now();
    while (running > 0) {
      curl_multi_perform(multi, &running);
      int left = 0;
      while (CURLMsg* message = curl_multi_info_read(multi, &left)) {
        long status = 0;
        curl_easy_getinfo(message->easy_handle, CURLINFO_RESPONSE_CODE, &status);
        if (message->msg == CURLMSG_DONE && message->data.result == CURLE_OK && status == 200) ++succeeded;
      }
      if (running > 0) curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
      if (const auto now = std::chrono::steady_clock::now(); now - sampledAt >= std::chrono::milliseconds(2)) {
        sampledAt = now;
        peak = std::max(peak, zavloResidentBytes());
      }
    }
    for (CURL* easy : transfers) {
      curl_multi_remove_handle(multi, easy);
      curl_easy_cleanup(easy);
    }
    cpu += zavloThreadCpuTime() - cpuBefore;
    if (succeeded != count) {
      state.SkipWithError(
          ("libcurl: " + std::to_string(succeeded) + " of " + std::to_string(count) + " chains succeeded").c_str());
      break;
    }
    chains += count;
  }
  curl_slist_free_all(headers);
  curl_multi_cleanup(multi);
  if (!state.error_occurred()) report(state, chains, cpu, peak);
}

}  // namespace

BENCHMARK(libraryChains)->Name("library/concurrent")->Arg(kConcurrent)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(libcurlChains)->Name("libcurl/concurrent")->Arg(kConcurrent)->UseRealTime()->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
