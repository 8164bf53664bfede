#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

class ZavloPlatform;

/// Many silent authentication chains at once, each its own ZavloCellularSnaClient, on one
/// platform (load tests and benchmarks). Every chain is opened before the main queue runs;
/// the queue then runs until each has completed or the bound passes, and a little longer,
/// so that a late second completion of any chain is counted too.
struct ZavloConcurrentChainsRun {
  /// Runs the platform's main queue until done() holds or the time passes; returns done().
  using RunUntil = std::function<bool(const std::function<bool()>& done, std::chrono::nanoseconds bound)>;

  std::string url;
  std::string expectedToken;
  std::size_t chains = 1000;
  double hopTimeOut = 10.0;  ///< seconds, as the silent authentication flow gives its client
  std::chrono::nanoseconds bound = std::chrono::seconds(60);
  std::chrono::nanoseconds linger = std::chrono::milliseconds(50);
};

struct ZavloConcurrentChainsOutcome {
  std::size_t completedChains = 0;         ///< chains whose completion ran at least once
  std::size_t extraCompletions = 0;        ///< completions after a chain's first
  std::size_t succeeded = 0;               ///< first completions with status 200 and the expected token
  std::size_t hopEvents = 0;               ///< telemetry events the clients reported
  std::vector<nlohmann::json> unexpected;  ///< the first few other first completions
  std::chrono::nanoseconds elapsed{};      ///< from the first open() to the last first completion
  std::chrono::nanoseconds queueCpu{};     ///< CPU time of the thread that ran the queue, meanwhile
  std::size_t peakResidentBytes = 0;       ///< highest resident set sampled meanwhile
};

ZavloConcurrentChainsOutcome zavloRunConcurrentChains(ZavloPlatform& platform,
                                                      const ZavloConcurrentChainsRun::RunUntil& runUntil,
                                                      const ZavloConcurrentChainsRun& run);

/// This process's open file descriptors, and its resident set in bytes (Linux /proc).
std::size_t zavloOpenFileDescriptors();
std::size_t zavloResidentBytes();
/// CPU time (user and system) of the calling thread.
std::chrono::nanoseconds zavloThreadCpuTime();
