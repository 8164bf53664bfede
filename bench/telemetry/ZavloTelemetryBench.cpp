// Telemetry as the rest of the library sees it: the time sendEventLog keeps the calling
// thread (against a collector that answers, one that never answers, and a port nobody
// listens on), and how fast 10,000 events reach a loopback collector compared with the
// curl tool posting the same body to the same collector.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "Core/ZavloAuthLogManager.hpp"
#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "Testing/Network/ZavloClosedPort.hpp"
#include "Testing/Network/ZavloHttpTestServer.hpp"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

enum class Collector { answering, silent, unroutable };

// A typical event: the fields a flow fills and the device metadata.
std::shared_ptr<ZavloAuthEventLog> typicalEvent(ZavloPlatform& platform) {
  auto event = std::make_shared<ZavloAuthEventLog>();
  event->entityId = "entity-7f3a";
  event->requestId = "6C1B9E0A-3D5F-4E21-9A7B-2F4C8D1E6B30";
  event->authProvider = "SNA";
  event->authType = "SILENT_NETWORK_AUTH";
  event->eventName = "START_AUTH";
  event->status = "SUCCESS";
  event->metaData = ZavloAuthEventLog::createDeviceMetadata(platform.deviceInfo());
  (*event->metaData)["hop"] = 1;
  return event;
}

double percentile(std::vector<double> samples, double fraction) {
  if (samples.empty()) return 0;
  const auto index = static_cast<std::size_t>(fraction * static_cast<double>(samples.size() - 1));
  std::nth_element(samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>(index), samples.end());
  return samples[index];
}

void BM_SendEventLogCallerTime(benchmark::State& state, Collector kind) {
  ZavloLinuxPlatform platform;
  auto logManager = std::make_shared<ZavloAuthLogManager>(ZavloAuthHTTPManager::create(platform));
  std::unique_ptr<ZavloHttpTestServer> server;
  std::unique_ptr<ZavloClosedPort> closed;
  std::string endpoint;
  switch (kind) {
    case Collector::answering:
      server = std::make_unique<ZavloHttpTestServer>();
      endpoint = server->url("/redirection/api/auth-tracking");
      break;
    case Collector::silent:
      server = std::make_unique<ZavloHttpTestServer>(ZavloHttpTestServer::neverAnswer());
      endpoint = server->url("/redirection/api/auth-tracking");
      break;
    case Collector::unroutable:
      closed = std::make_unique<ZavloClosedPort>();
      endpoint = closed->url("/redirection/api/auth-tracking");
      break;
  }
  logManager->configure(ZavloAuthEnvironment::production, endpoint);
  const auto event = typicalEvent(platform);

  std::vector<double> microseconds;
  microseconds.reserve(static_cast<std::size_t>(state.max_iterations));
  for (auto _ : state) {
    const auto started = Clock::now();
    logManager->sendEventLog(event);
    const std::chrono::duration<double> elapsed = Clock::now() - started;
    state.SetIterationTime(elapsed.count());
    microseconds.push_back(elapsed.count() * 1e6);
  }
  state.counters["median_us"] = percentile(microseconds, 0.5);
  state.counters["p99_us"] = percentile(microseconds, 0.99);
  state.counters["max_us"] = *std::max_element(microseconds.begin(), microseconds.end());
  logManager->waitForPendingEvents(std::chrono::seconds(2));
  logManager->cleanup();  // what is left in flight is cancelled, outside the measurement
}

BENCHMARK_CAPTURE(BM_SendEventLogCallerTime, answering, Collector::answering)
    ->UseManualTime()
    ->Iterations(5000)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_SendEventLogCallerTime, silent, Collector::silent)
    ->UseManualTime()
    ->Iterations(5000)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_SendEventLogCallerTime, unroutable, Collector::unroutable)
    ->UseManualTime()
    ->Iterations(5000)
    ->Unit(benchmark::kMicrosecond);

constexpr std::size_t kDeliveryEvents = 10000;
constexpr auto kDeliveryLimit = std::chrono::seconds(120);

// Waits until the collector has count requests; the elapsed time since started, or absent
// when the limit passed first.
std::optional<std::chrono::duration<double>> deliveredAfter(const ZavloHttpTestServer& collector, std::size_t count,
                                                            Clock::time_point started) {
  if (!collector.waitForRequests(count, std::chrono::duration_cast<std::chrono::milliseconds>(kDeliveryLimit))) {
    return std::nullopt;
  }
  return Clock::now() - started;
}

// The curl tool posting the same body the same number of times, with as many parallel
// connections as the library's session opens per host; its rate in events per second.
double curlRate(ZavloHttpTestServer& collector, const std::string& body, std::size_t& delivered) {
  const auto directory = std::filesystem::temp_directory_path() / ("zavlo-bench-" + std::to_string(getpid()));
  std::filesystem::create_directories(directory);
  {
    std::ofstream(directory / "body.json") << body;
    std::ofstream config(directory / "urls");
    for (std::size_t i = 0; i < kDeliveryEvents; ++i) {
      config << "url = \"" << collector.url("/redirection/api/auth-tracking") << "\"\noutput = \"/dev/null\"\n";
    }
  }
  const std::string bodyArgument = "@" + (directory / "body.json").string();
  const std::string configPath = (directory / "urls").string();
  std::vector<std::string> arguments{"curl",
                                     "--silent",
                                     "--parallel",
                                     "--parallel-max",
                                     "6",
                                     "--header",
                                     "Content-Type: application/json",
                                     "--header",
                                     "Accept: application/json",
                                     "--header",
                                     "X-Environment: PRODUCTION",
                                     "--user-agent",
                                     "ZavloAuthSDK/1.1.1 iOS",
                                     "--data-binary",
                                     bodyArgument,
                                     "--config",
                                     configPath};
  std::vector<char*> argv;
  for (auto& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);

  const auto before = collector.requestCount();
  const auto started = Clock::now();
  // curl's parallel progress meter goes to standard error; keep it out of the report.
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  pid_t pid = 0;
  double rate = 0;
  const int spawned = posix_spawnp(&pid, "curl", &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned == 0) {
    int status = 0;
    waitpid(pid, &status, 0);
    const std::chrono::duration<double> elapsed = Clock::now() - started;
    delivered = collector.requestCount() - before;
    rate = static_cast<double>(delivered) / elapsed.count();
  }
  std::filesystem::remove_all(directory);
  return rate;
}

void BM_DeliveryToLoopbackCollector(benchmark::State& state) {
  ZavloLinuxPlatform platform;
  ZavloHttpTestServer collector;
  auto logManager = std::make_shared<ZavloAuthLogManager>(ZavloAuthHTTPManager::create(platform));
  logManager->configure(ZavloAuthEnvironment::production, collector.url("/redirection/api/auth-tracking"));
  const auto event = typicalEvent(platform);

  double rate = 0;
  double delivered = 0;
  for (auto _ : state) {
    const auto before = collector.requestCount();
    const auto started = Clock::now();
    for (std::size_t i = 0; i < kDeliveryEvents; ++i) logManager->sendEventLog(event);
    const auto elapsed = deliveredAfter(collector, before + kDeliveryEvents, started);
    delivered = static_cast<double>(collector.requestCount() - before);
    if (!elapsed) {
      state.SkipWithError("not every event reached the collector in time");
      break;
    }
    state.SetIterationTime(elapsed->count());
    rate = static_cast<double>(kDeliveryEvents) / elapsed->count();
  }
  logManager->cleanup();

  std::size_t curlDelivered = 0;
  const double curl = curlRate(collector, event->toDictionary().dump(), curlDelivered);
  state.counters["events"] = static_cast<double>(kDeliveryEvents);
  state.counters["delivered"] = delivered;
  state.counters["events_per_s"] = rate;
  state.counters["curl_delivered"] = static_cast<double>(curlDelivered);
  state.counters["curl_events_per_s"] = curl;
}

BENCHMARK(BM_DeliveryToLoopbackCollector)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
