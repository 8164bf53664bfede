#include "bench/support/ZavloConcurrentChains.hpp"

#include <dirent.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <memory>

#include "Cellular/ZavloCellularSnaClient.hpp"
#include "Cellular/ZavloChainDictionary.hpp"
#include "Core/ZavloUrl.hpp"

using Clock = std::chrono::steady_clock;

namespace {

constexpr std::size_t kUnexpectedKept = 5;
// Reading /proc costs a system call or three; a sample this often is enough to see the peak.
constexpr auto kResidentSampleEvery = std::chrono::milliseconds(2);

struct Tally {
  std::string expectedToken;
  std::vector<unsigned> completions;  // per chain
  std::size_t firstCompletions = 0;
  ZavloConcurrentChainsOutcome outcome;
  Clock::time_point lastFirstCompletion{};
};

}  // namespace

ZavloConcurrentChainsOutcome zavloRunConcurrentChains(ZavloPlatform& platform,
                                                      const ZavloConcurrentChainsRun::RunUntil& runUntil,
                                                      const ZavloConcurrentChainsRun& run) {
  const auto url = ZavloUrl::parse(run.url);
  auto tally = std::make_shared<Tally>();
  tally->expectedToken = run.expectedToken;
  tally->completions.assign(run.chains, 0);
  if (!url) {
    tally->outcome.unexpected.push_back({{"invalidUrl", run.url}});
    return tally->outcome;
  }
  // Each chain holds a socket and its peer may be in this process too: the default soft
  // limit of 1024 descriptors would refuse some.
  if (rlimit limit{}; getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
  const auto cpuBefore = zavloThreadCpuTime();
  const auto started = Clock::now();
  tally->outcome.peakResidentBytes = zavloResidentBytes();
  for (std::size_t chain = 0; chain < run.chains; ++chain) {
    auto client = ZavloCellularSnaClient::create(
        // Each hop's event is built, as the flow builds it; no one sends it.
        platform, [tally](const ZavloCellularSnaClient::HopEvent& event) {
          if (event.toEventLog()) ++tally->outcome.hopEvents;
        });
    client->CONNECTION_TIME_OUT = run.hopTimeOut;
    client->open(*url, "soak-" + std::to_string(chain), [tally, chain](const ZavloChainOutcome& ending) {
      auto& outcome = tally->outcome;
      if (tally->completions[chain]++ > 0) {
        ++outcome.extraCompletions;
        return;
      }
      ++tally->firstCompletions;
      tally->lastFirstCompletion = Clock::now();
      auto dictionary = ZavloChainDictionary::of(ending);
      const auto token = dictionary.find("snaToken");
      if (dictionary.value("httpStatusCode", 0) == 200 && token != dictionary.end() && *token == tally->expectedToken) {
        ++outcome.succeeded;
      } else if (outcome.unexpected.size() < kUnexpectedKept) {
        outcome.unexpected.push_back(std::move(dictionary));
      }
    });
  }  // each chain keeps itself alive from here, as in the flow
  auto sampledAt = Clock::now();
  const auto sample = [&tally, &sampledAt] {
    if (const auto now = Clock::now(); now - sampledAt >= kResidentSampleEvery) {
      sampledAt = now;
      tally->outcome.peakResidentBytes = std::max(tally->outcome.peakResidentBytes, zavloResidentBytes());
    }
  };
  runUntil(
      [&] {
        sample();
        return tally->firstCompletions == run.chains;
      },
      run.bound);
  tally->outcome.queueCpu = zavloThreadCpuTime() - cpuBefore;
  tally->outcome.elapsed = (tally->firstCompletions > 0 ? tally->lastFirstCompletion : Clock::now()) - started;
  runUntil(
      [&] {
        sample();
        return false;
      },
      run.linger);
  for (const unsigned count : tally->completions) tally->outcome.completedChains += count > 0 ? 1 : 0;
  return tally->outcome;
}

std::size_t zavloOpenFileDescriptors() {
  DIR* folder = opendir("/proc/self/fd");
  if (folder == nullptr) return 0;
  std::size_t count = 0;
  while (const dirent* entry = readdir(folder)) {
    if (entry->d_name[0] != '.') ++count;
  }
  closedir(folder);
  return count - 1;  // the descriptor of the listing itself
}

std::size_t zavloResidentBytes() {
  std::FILE* file = std::fopen("/proc/self/statm", "re");
  if (file == nullptr) return 0;
  unsigned long size = 0;
  unsigned long resident = 0;
  const int read = std::fscanf(file, "%lu %lu", &size, &resident);
  std::fclose(file);
  return read == 2 ? resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) : 0;
}

std::chrono::nanoseconds zavloThreadCpuTime() {
  timespec spent{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &spent);
  return std::chrono::seconds(spent.tv_sec) + std::chrono::nanoseconds(spent.tv_nsec);
}
