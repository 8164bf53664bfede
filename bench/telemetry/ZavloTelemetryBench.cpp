// Telemetry as the rest of the library sees it: the time sendEventLog keeps the calling
// thread (against a collector that answers, one that never answers, and a port nobody
// listens on), and how fast 10,000 events reach a loopback collector. The references do the
// same with libcurl: the least an asynchronous sender on libcurl's multi interface costs the
// caller, and how fast it delivers; and the curl tool posting the same body.
//
// Names are WHAT/WHO[/COLLECTOR]; scripts/bench compares WHAT/library with every other WHO.
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>
#include <unordered_set>

#include "Telemetry/ZavloAuthLogManager.hpp"
#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "Testing/Network/ZavloClosedPort.hpp"
#include "tools/peers/ZavloHttpTestServer.hpp"

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

const std::string kPath = "/redirection/api/auth-tracking";

// The least an asynchronous sender on libcurl does, the library's transport without its
// abstractions: the caller serialises the event and queues the body; one thread drives a multi
// handle with as many connections per host as the library's session opens, and sends the same
// headers. Transfers still in flight when it is destroyed are abandoned.
class LibcurlSender {
 public:
  explicit LibcurlSender(std::string url) : url_(std::move(url)) {
    static const bool initialised = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
    multi_ = initialised ? curl_multi_init() : nullptr;
    if (multi_ == nullptr) throw std::runtime_error("libcurl: no multi handle");
    curl_multi_setopt(multi_, CURLMOPT_MAX_HOST_CONNECTIONS, static_cast<long>(kConnections));
    for (const char* header :
         {"Content-Type: application/json", "Accept: application/json", "X-Environment: PRODUCTION", "Expect:"}) {
      headers_ = curl_slist_append(headers_, header);
    }
    thread_ = std::thread([this] { run(); });
  }
  ~LibcurlSender() {
    {
      const std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    curl_multi_wakeup(multi_);
    thread_.join();
    for (CURL* easy : transfers_) {
      curl_multi_remove_handle(multi_, easy);
      curl_easy_cleanup(easy);
    }
    curl_multi_cleanup(multi_);
    curl_slist_free_all(headers_);
  }
  LibcurlSender(const LibcurlSender&) = delete;
  LibcurlSender& operator=(const LibcurlSender&) = delete;

  void send(const ZavloAuthEventLog& event) {
    auto body = event.toDictionary().dump();
    {
      const std::lock_guard lock(mutex_);
      queue_.push_back(std::move(body));
    }
    curl_multi_wakeup(multi_);
  }

 private:
  static constexpr std::size_t kConnections = 6;

  static std::size_t discard(char*, std::size_t size, std::size_t count, void*) { return size * count; }

  void run() {
    std::deque<std::string> waiting;
    for (;;) {
      {
        const std::lock_guard lock(mutex_);
        if (stopping_) return;
        for (auto& body : queue_) waiting.push_back(std::move(body));
        queue_.clear();
      }
      // No more transfers than connections: libcurl visits every handle it holds on each
      // perform, so the rest wait here rather than in the multi handle.
      while (transfers_.size() < kConnections && !waiting.empty()) {
        start(waiting.front());
        waiting.pop_front();
      }
      int running = 0;
      curl_multi_perform(multi_, &running);
      bool finished = false;
      int left = 0;
      while (CURLMsg* message = curl_multi_info_read(multi_, &left)) {
        if (message->msg != CURLMSG_DONE) continue;
        curl_multi_remove_handle(multi_, message->easy_handle);
        curl_easy_cleanup(message->easy_handle);
        transfers_.erase(message->easy_handle);
        finished = true;
      }
      if (finished && !waiting.empty()) continue;  // a connection is free: start the next one now
      curl_multi_poll(multi_, nullptr, 0, 1000, nullptr);
    }
  }

  void start(const std::string& body) {
    CURL* easy = curl_easy_init();
    if (easy == nullptr) return;
    curl_easy_setopt(easy, CURLOPT_URL, url_.c_str());
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers_);
    curl_easy_setopt(easy, CURLOPT_USERAGENT, "ZavloAuthSDK/1.1.1 iOS");
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    curl_easy_setopt(easy, CURLOPT_COPYPOSTFIELDS, body.c_str());
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, discard);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_multi_add_handle(multi_, easy);
    transfers_.insert(easy);
  }

  std::string url_;
  CURLM* multi_ = nullptr;
  curl_slist* headers_ = nullptr;
  std::mutex mutex_;
  std::vector<std::string> queue_;
  bool stopping_ = false;
  std::unordered_set<CURL*> transfers_;  // the sender thread's only
  std::thread thread_;
};

// A collector of the given kind, for as long as the benchmark runs.
struct Endpoint {
  std::unique_ptr<ZavloHttpTestServer> server;
  std::unique_ptr<ZavloClosedPort> closed;
  std::string url;

  explicit Endpoint(Collector kind) {
    switch (kind) {
      case Collector::answering:
        server = std::make_unique<ZavloHttpTestServer>();
        url = server->url(kPath);
        break;
      case Collector::silent:
        server = std::make_unique<ZavloHttpTestServer>(ZavloHttpTestServer::neverAnswer());
        url = server->url(kPath);
        break;
      case Collector::unroutable:
        closed = std::make_unique<ZavloClosedPort>();
        url = closed->url(kPath);
        break;
    }
  }
};

// Times send() on the calling thread, one call per iteration.
template <class Send>
void measureCallerTime(benchmark::State& state, Send&& send) {
  std::vector<double> microseconds;
  microseconds.reserve(static_cast<std::size_t>(state.max_iterations));
  for (auto _ : state) {
    const auto started = Clock::now();
    send();
    const std::chrono::duration<double> elapsed = Clock::now() - started;
    state.SetIterationTime(elapsed.count());
    microseconds.push_back(elapsed.count() * 1e6);
  }
  state.counters["median_us"] = percentile(microseconds, 0.5);
  state.counters["p99_us"] = percentile(microseconds, 0.99);
  state.counters["max_us"] = *std::max_element(microseconds.begin(), microseconds.end());
}

void BM_SendEventLogCallerTime(benchmark::State& state, Collector kind) {
  ZavloLinuxPlatform platform;
  auto logManager = std::make_shared<ZavloAuthLogManager>(ZavloAuthHTTPManager::create(platform));
  const Endpoint endpoint(kind);
  logManager->configure(ZavloAuthEnvironment::production, endpoint.url);
  const auto event = typicalEvent(platform);
  measureCallerTime(state, [&] { logManager->sendEventLog(event); });
  logManager->waitForPendingEvents(std::chrono::seconds(2));
  logManager->cleanup();  // what is left in flight is cancelled, outside the measurement
}

void BM_LibcurlCallerTime(benchmark::State& state, Collector kind) {
  ZavloLinuxPlatform platform;  // for the device metadata only
  const Endpoint endpoint(kind);
  const auto event = typicalEvent(platform);
  LibcurlSender sender(endpoint.url);
  measureCallerTime(state, [&] { sender.send(*event); });
}

void callerTime(benchmark::internal::Benchmark* b) {
  b->UseManualTime()->Iterations(5000)->Unit(benchmark::kMicrosecond);
}

BENCHMARK_CAPTURE(BM_SendEventLogCallerTime, answering, Collector::answering)
    ->Name("send-event/library/answering")
    ->Apply(callerTime);
BENCHMARK_CAPTURE(BM_LibcurlCallerTime, answering, Collector::answering)
    ->Name("send-event/libcurl/answering")
    ->Apply(callerTime);
BENCHMARK_CAPTURE(BM_SendEventLogCallerTime, silent, Collector::silent)
    ->Name("send-event/library/silent")
    ->Apply(callerTime);
BENCHMARK_CAPTURE(BM_LibcurlCallerTime, silent, Collector::silent)
    ->Name("send-event/libcurl/silent")
    ->Apply(callerTime);
BENCHMARK_CAPTURE(BM_SendEventLogCallerTime, unroutable, Collector::unroutable)
    ->Name("send-event/library/unroutable")
    ->Apply(callerTime);
BENCHMARK_CAPTURE(BM_LibcurlCallerTime, unroutable, Collector::unroutable)
    ->Name("send-event/libcurl/unroutable")
    ->Apply(callerTime);

// Delivery: how long until kDeliveryEvents events sent at once have all reached the collector.
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

// Sends kDeliveryEvents events per iteration with sendAll (false: it could not) and times
// until the collector has them all.
template <class SendAll>
void measureDelivery(benchmark::State& state, const ZavloHttpTestServer& collector, SendAll&& sendAll) {
  double seconds = 0;
  for (auto _ : state) {
    const auto before = collector.requestCount();
    const auto started = Clock::now();
    if (!sendAll()) {
      state.SkipWithError("the events could not be sent");
      return;
    }
    const auto elapsed = deliveredAfter(collector, before + kDeliveryEvents, started);
    if (!elapsed) {
      state.SkipWithError("not every event reached the collector in time");
      return;
    }
    state.SetIterationTime(elapsed->count());
    seconds += elapsed->count();
  }
  state.counters["events_per_s"] = static_cast<double>(kDeliveryEvents * state.iterations()) / seconds;
}

void BM_DeliveryLibrary(benchmark::State& state) {
  ZavloLinuxPlatform platform;
  ZavloHttpTestServer collector;
  auto logManager = std::make_shared<ZavloAuthLogManager>(ZavloAuthHTTPManager::create(platform));
  logManager->configure(ZavloAuthEnvironment::production, collector.url(kPath));
  const auto event = typicalEvent(platform);
  measureDelivery(state, collector, [&] {
    for (std::size_t i = 0; i < kDeliveryEvents; ++i) logManager->sendEventLog(event);
    return true;
  });
  logManager->cleanup();
}

void BM_DeliveryLibcurl(benchmark::State& state) {
  ZavloLinuxPlatform platform;  // for the device metadata only
  ZavloHttpTestServer collector;
  const auto event = typicalEvent(platform);
  LibcurlSender sender(collector.url(kPath));
  measureDelivery(state, collector, [&] {
    for (std::size_t i = 0; i < kDeliveryEvents; ++i) sender.send(*event);
    return true;
  });
}

// The curl tool posting the same body the same number of times, with as many parallel
// connections as the library's session opens per host; process start included.
void BM_DeliveryCurlTool(benchmark::State& state) {
  ZavloLinuxPlatform platform;  // for the device metadata only
  ZavloHttpTestServer collector;
  const auto directory = std::filesystem::temp_directory_path() / ("zavlo-bench-" + std::to_string(getpid()));
  std::filesystem::create_directories(directory);
  {
    std::ofstream(directory / "body.json") << typicalEvent(platform)->toDictionary().dump();
    std::ofstream config(directory / "urls");
    for (std::size_t i = 0; i < kDeliveryEvents; ++i) {
      config << "url = \"" << collector.url(kPath) << "\"\noutput = \"/dev/null\"\n";
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
                                     "--header",
                                     "Expect:",
                                     "--user-agent",
                                     "ZavloAuthSDK/1.1.1 iOS",
                                     "--data-binary",
                                     bodyArgument,
                                     "--config",
                                     configPath};
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (auto& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  // curl's parallel progress meter goes to standard error; keep it out of the report.
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);

  measureDelivery(state, collector, [&] {
    pid_t pid = 0;
    if (posix_spawnp(&pid, "curl", &actions, nullptr, argv.data(), environ) != 0) return false;
    int status = 0;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
  });
  posix_spawn_file_actions_destroy(&actions);
  std::filesystem::remove_all(directory);
}

void delivery(benchmark::internal::Benchmark* b) { b->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond); }

BENCHMARK(BM_DeliveryLibrary)->Name("delivery/library")->Apply(delivery);
BENCHMARK(BM_DeliveryLibcurl)->Name("delivery/libcurl")->Apply(delivery);
BENCHMARK(BM_DeliveryCurlTool)->Name("delivery/curl")->Apply(delivery);

}  // namespace

BENCHMARK_MAIN();
