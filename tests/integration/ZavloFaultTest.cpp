// Faults of the operator (the chain's HTTP server) and of the telemetry collector, met by a
// whole silent authentication (setup, initAuth, startAuth) on the real Linux platform with
// loopback declared cellular. Each fault must end in the one result the library gives for
// it, delivered once, within a stated bound; a telemetry fault must change neither the
// result nor when it arrives, and must not hold up clean-up.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "Session/ZavloAuthRequestManager.hpp"
#include "Graph/ZavloAuthenticationGraph.hpp"
#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "tools/peers/ZavloChainServer.hpp"
#include "Telemetry/ZavloAuthLogManager.hpp"
#include "Testing/Network/ZavloClosedPort.hpp"
#include "tools/peers/ZavloHttpTestServer.hpp"
#include "Testing/Network/ZavloProcess.hpp"
#include "tools/peers/ZavloTestCertificates.hpp"
#include "Testing/Network/ZavloTestServer.hpp"

using nlohmann::json;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

// After a result the loop keeps running this long, so that a late report (a reset that
// follows the answer, a cancelled connection) would show up as a second completion.
constexpr auto kLinger = 500ms;
// The flow's per-hop time-out; initAuth's configuration has no key that changes it.
constexpr auto kHopTimeOut =
    std::chrono::milliseconds(static_cast<std::int64_t>(ZavloAuthRequestManager::kSnaHopTimeOut * 1000));
// A result that waits for no time-out arrives well within this, even under sanitizers.
constexpr auto kPrompt = 5s;
// Clean-up cancels telemetry in flight instead of waiting for it.
constexpr auto kCleanupBound = 3s;

const json kInitSuccess = {{"status", "SUCCESS"}, {"statusCode", "200"}, {"mcc", ""}, {"mnc", ""}};

json failure(const std::string& code, const std::string& message) {
  return {{"status", "FAILURE"}, {"errorCode", code}, {"errorMessage", message}};
}

std::string url(const ZavloTestServer& server, const std::string& path = "/sna") {
  return "http://127.0.0.1:" + std::to_string(server.port()) + path;
}

// Ends the process when a teardown hangs: the test then fails for certain instead of
// waiting forever on a join.
class HangWatchdog {
 public:
  HangWatchdog(std::string what, Clock::duration limit)
      : thread_([what = std::move(what), limit](const std::stop_token& finished) {
          std::mutex mutex;
          std::condition_variable_any wake;
          std::unique_lock lock(mutex);
          if (!wake.wait_for(lock, finished, limit, [&finished] { return finished.stop_requested(); })) {
            std::fprintf(stderr, "ZavloFaultTest: %s did not finish within %lld ms\n", what.c_str(),
                         static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(limit).count()));
            std::abort();
          }
        }) {}

 private:
  std::jthread thread_;  ///< its destruction (the scope's end) asks it to stop and joins it
};

// The completions of one call of the native wrapper.
struct Outcome {
  std::vector<json> results;      ///< each completion's dictionary, an exception in its coded form
  std::vector<bool> onMainQueue;  ///< per completion
  Clock::duration elapsed{};      ///< from the call to the first completion

  /// The one dictionary; with any other number of completions a dictionary saying so,
  /// which no expectation matches.
  [[nodiscard]] json only() const {
    if (results.size() == 1) return results.front();
    return {{"completionCount", results.size()}, {"completions", results}};
  }
};

// The whole native graph on a Linux platform with lo declared cellular, its telemetry
// going to telemetryEndpoint.
class FaultGraph {
 public:
  explicit FaultGraph(const std::string& telemetryEndpoint, std::vector<std::string> trustAnchors = {})
      : platform({.hostApplicationVersion = {},
                  .cellularInterfaces = {"lo"},
                  .additionalTrustAnchorsPem = std::move(trustAnchors)}) {
    wrapper.setup(screen, ZavloAuthEnvironment::development);
    // setup names the environment's own endpoint; nothing may leave this machine.
    log->configure(ZavloAuthEnvironment::development, telemetryEndpoint);
  }
  ~FaultGraph() { wrapper.cleanupAll(); }
  FaultGraph(const FaultGraph&) = delete;
  FaultGraph& operator=(const FaultGraph&) = delete;

  // Runs one call until its first completion (at most bound), then kLinger longer.
  Outcome call(const std::function<void(ZavloAuthenticationNativeWrapper::Completion)>& start,
               Clock::duration bound = kPrompt) {
    auto outcome = std::make_shared<Outcome>();
    const auto started = Clock::now();
    start([outcome, started, this](ZavloResult<json> result) {
      ++completions;
      if (outcome->results.empty()) outcome->elapsed = Clock::now() - started;
      outcome->results.push_back(result ? result.value() : json(result.error()));
      outcome->onMainQueue.push_back(platform.mainQueue().isCurrent());
    });
    platform.runLoop().runUntil([&] { return !outcome->results.empty(); }, bound);
    platform.runLoop().runUntil([] { return false; }, kLinger);
    EXPECT_TRUE(std::all_of(outcome->onMainQueue.begin(), outcome->onMainQueue.end(), [](bool on) { return on; }));
    return *outcome;
  }

  // initAuth, which must succeed once, then startAuth(target).
  Outcome silentAuth(const std::string& target, Clock::duration bound = kPrompt) {
    const auto init = call([&](auto done) { wrapper.initAuth({{"requestId", "req-fault"}}, done); });
    EXPECT_EQ(init.only(), kInitSuccess);
    return call([&](auto done) { wrapper.startAuth(target, done); }, bound);
  }

  ZavloLinuxPlatform platform;
  ZavloAuthenticationGraph graph{platform};
  const std::shared_ptr<ZavloAuthLogManager>& log = graph.logManager;
  ZavloAuthenticationNativeWrapper& wrapper = graph.nativeWrapper;
  std::shared_ptr<int> screen = std::make_shared<int>(0);
  std::size_t completions = 0;  ///< of every call so far, late ones included; main queue only
  std::size_t eventsSeen = 0;   ///< collector requests already handed out by latestEvents
};

// The events the collector received since the last call, once every post has been answered.
std::vector<json> latestEvents(FaultGraph& graph, const ZavloHttpTestServer& collector) {
  EXPECT_TRUE(graph.log->waitForPendingEvents(5s));
  const auto requests = collector.requests();
  std::vector<json> events;
  for (auto i = graph.eventsSeen; i < requests.size(); ++i)
    events.push_back(json::parse(requests[i].body, nullptr, false));
  graph.eventsSeen = requests.size();
  return events;
}

std::vector<json> eventsNamed(const std::vector<json>& events, const std::string& name) {
  std::vector<json> named;
  std::copy_if(events.begin(), events.end(), std::back_inserter(named),
               [&](const json& event) { return event.value("eventName", "") == name; });
  return named;
}

// ---------------------------------------------------------------------------------------
// Operator faults: a healthy collector, an operator that misbehaves.

class ZavloOperatorFaultTest : public ::testing::Test {
 protected:
  ZavloHttpTestServer collector;
  FaultGraph graph{collector.url("/auth-tracking")};
};

TEST_F(ZavloOperatorFaultTest, AnAnswerCutShortResetOrStalledEndsOnWhatTheOneReceiveReturned) {
  using Reply = ZavloTestServerReply;
  using Ending = ZavloTestServerReply::Ending;
  ZavloChainServer chain;  // where the redirects point; never asked
  const auto noStatus = failure("SNA_CELLULAR_REQUEST_FAILED", "Unexpected HTTP Status 0");
  const auto badRedirect = failure("SNA_INVALID_REDIRECT", "Invalid URL - unable to parse redirect");
  const json noToken = {{"status", "SUCCESS"}, {"httpStatusCode", 200}};
  const struct {
    const char* what;
    ZavloTestServerReply reply;
    json expected;
    Clock::duration watch{};       ///< after the result: no second completion meanwhile
    std::optional<int> hopCode{};  ///< the one hop event's code, where it is checked
  } cases[] = {
      {"three bytes, then an orderly close", Reply::answer("HTT"), noStatus, {}, 0},
      {"three bytes, then silence", Reply::answerThen({"HTT"}, Ending::holdOpen), noStatus, {}, 0},
      // A reset after a pause: the receive has returned what came before it, and the reset
      // then meets a connection the chain has already let go of.
      {"a reset inside the status line", Reply::answerThen({"HTTP/1.1 3"}, Ending::reset, 200ms), noStatus, 200ms},
      {"a reset inside the Location header",
       Reply::answerThen({"HTTP/1.1 302 Found\r\nLocation: " + chain.baseUrl() + "/chain/0/ne"}, Ending::reset, 200ms),
       badRedirect, 200ms},
      {"a reset inside the body",
       Reply::answerThen({"HTTP/1.1 200 OK\r\nContent-Length: 40\r\n\r\n{\"snaToken\":\"cut"}, Ending::reset, 200ms),
       noToken, 200ms},
      // Back to back: the error met after the bytes is left for a next receive, never made.
      {"a reset right behind part of a redirect",
       Reply::answerThen({"HTTP/1.1 302 Found\r\nLocation: /nowh"}, Ending::reset), badRedirect},
      // The header line does not end within the first receive, so there is no Location value.
      {"a Location of 100 KiB",
       Reply::answer("HTTP/1.1 302 Found\r\nLocation: " + chain.baseUrl() + "/chain/0/" +
                     std::string(std::size_t{100} * 1024, 'l') + "\r\n\r\n"),
       badRedirect},
      // Neither the connection left open nor the hop's timer completes the chain again.
      {"headers, then a stall",
       Reply::answerThen({"HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 27\r\n\r\n"},
                         Ending::holdOpen),
       noToken, kHopTimeOut + 1s},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ZavloTestServer server(c.reply);
    const auto outcome = graph.silentAuth(url(server));
    EXPECT_EQ(outcome.only(), c.expected);
    EXPECT_LT(outcome.elapsed, kPrompt) << "what arrived is the answer; no time-out is awaited";
    const auto completions = graph.completions;
    graph.platform.runLoop().runUntil([] { return false; }, c.watch);
    EXPECT_EQ(graph.completions, completions);
    const auto hops = eventsNamed(latestEvents(graph, collector), "SNA_HOP");
    if (!c.hopCode) continue;
    ASSERT_EQ(hops.size(), 1U);
    EXPECT_EQ(hops[0]["metaData"]["httpCode"], *c.hopCode);
  }
  EXPECT_TRUE(chain.recentRequests().empty());
}

TEST_F(ZavloOperatorFaultTest, ALocationBackToTheFirstHopIsFollowedEveryTime) {
  // /start redirects to /next, which sends the chain back to /start five times and then
  // answers with the token. No redirect limit: twelve hops in all.
  int returns = 0;  // the server's thread only
  ZavloHttpTestServer operatorServer([&](const ZavloHttpTestRequest& request) -> std::optional<ZavloHttpTestReply> {
    ZavloHttpTestReply reply;
    reply.close = true;
    if (request.target == "/start") {
      reply.status = 302;
      reply.reason = "Found";
      reply.headers = {{"Location", "/next"}};
    } else if (returns < 5) {
      ++returns;
      reply.status = 302;
      reply.reason = "Found";
      reply.headers = {{"Location", "http://" + request.header("Host").value_or("?") + "/start"}};
    } else {
      reply.headers = {{"Content-Type", "application/json"}};
      reply.body = R"({"snaToken":"after-five-returns"})";
    }
    return reply;
  });
  const auto outcome = graph.silentAuth(operatorServer.url("/start"));
  EXPECT_EQ(outcome.only(), (json{{"status", "SUCCESS"}, {"httpStatusCode", 200}, {"snaToken", "after-five-returns"}}));
  EXPECT_LT(outcome.elapsed, kPrompt);

  std::vector<std::string> targets;
  for (const auto& request : operatorServer.requests()) targets.push_back(request.target);
  std::vector<std::string> expected;
  for (int i = 0; i < 6; ++i) expected.insert(expected.end(), {"/start", "/next"});
  EXPECT_EQ(targets, expected);
  EXPECT_EQ(operatorServer.connectionCount(), 12U) << "a fresh connection per hop";

  // The events are posted in parallel, so they are counted, not taken in order.
  std::map<std::string, int> steps;
  for (const auto& hop : eventsNamed(latestEvents(graph, collector), "SNA_HOP")) {
    const auto& meta = hop["metaData"];
    steps[meta.value("requestUrl", "") + " -> " + meta.value("responseUrl", "") + " " +
          std::to_string(meta.value("httpCode", 0))] += 1;
  }
  const auto start = operatorServer.url("/start");
  const auto next = operatorServer.url("/next");
  EXPECT_EQ(steps, (std::map<std::string, int>{{start + " -> " + next + " 302", 6},
                                               {next + " -> " + start + " 302", 5},
                                               {next + " -> " + next + " 200", 1}}));
}

TEST(ZavloOperatorTlsFaultTest, ACertificateForAnotherNameOrOutOfDateFailsTheHop) {
  ZavloTestCertificateAuthority authority;
  ZavloHttpTestServer collector;
  FaultGraph graph(collector.url("/auth-tracking"), {authority.certificatePem()});
  const auto day = std::chrono::hours(24);
  const struct {
    const char* what;
    ZavloTestTlsIdentity identity;
    std::string reason;
  } cases[] = {
      {"a certificate for another name", authority.issueServerIdentity({"operator.example"}), "hostname mismatch"},
      {"a certificate that expired yesterday",
       authority.issueServerIdentity({"localhost"}, {.notBefore = -2 * day, .notAfter = -day}),
       "certificate has expired"},
      {"a certificate valid from tomorrow",
       authority.issueServerIdentity({"localhost"}, {.notBefore = day, .notAfter = 2 * day}),
       "certificate is not yet valid"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ZavloTestServer server(ZavloTestServerReply::answer("HTTP/1.1 200 OK\r\n\r\n{\"snaToken\":\"never\"}"),
                           ZavloTestServer::Options{.address = "localhost", .port = 0, .tls = c.identity});
    const auto message = "Connection failed: The server's certificate could not be verified: " + c.reason;
    const auto outcome = graph.silentAuth("https://localhost:" + std::to_string(server.port()) + "/sna");
    EXPECT_EQ(outcome.only(), failure("SNA_CELLULAR_REQUEST_FAILED", message));
    EXPECT_LT(outcome.elapsed, kPrompt);

    // Refused over IPv6 and again in the fallback; no request was ever sent.
    const auto handshakes = ZavloTestServer::ipv6LoopbackAvailable() ? 2U : 1U;
    ASSERT_TRUE(server.waitForServed(handshakes));
    EXPECT_EQ(server.failedHandshakes(), handshakes);
    for (const auto& request : server.requests()) EXPECT_EQ(request, "");

    const auto latest = latestEvents(graph, collector);
    EXPECT_TRUE(eventsNamed(latest, "SNA_HOP").empty());
    const auto response = eventsNamed(latest, "START_AUTH_RESPONSE");
    ASSERT_EQ(response.size(), 1U);
    EXPECT_EQ(response[0]["status"], "FAILURE");
    EXPECT_EQ(response[0]["failureReason"], message);
  }
}

// ---------------------------------------------------------------------------------------
// Telemetry faults: a healthy operator, a collector that misbehaves. The result must be the
// one a healthy collector sees, as promptly, and clean-up must not wait for the collector.

enum class CollectorFault { down, slow, failing };

std::string faultName(CollectorFault fault) {
  switch (fault) {
    case CollectorFault::down:
      return "Down";
    case CollectorFault::slow:
      return "Slow";
    case CollectorFault::failing:
      return "AnswersWith500";
  }
  return "?";
}

void PrintTo(CollectorFault fault, std::ostream* out) { *out << faultName(fault); }

struct TimedRun {
  Outcome init;
  Outcome start;
  bool telemetryInFlightAtResult = false;
};

// One initAuth and startAuth on a fresh graph, then at most drain for telemetry in flight,
// then a bounded clean-up and teardown.
TimedRun runAgainst(const std::string& telemetryEndpoint, const std::string& chainUrl,
                    std::chrono::milliseconds drain) {
  TimedRun run;
  auto graph = std::make_unique<FaultGraph>(telemetryEndpoint);
  run.init = graph->call([&](auto done) { graph->wrapper.initAuth({{"requestId", "req-collector"}}, done); });
  run.start = graph->call([&](auto done) { graph->wrapper.startAuth(chainUrl, done); });
  run.telemetryInFlightAtResult = !graph->log->waitForPendingEvents(0ms);
  graph->log->waitForPendingEvents(drain);

  const auto cleanupStarted = Clock::now();
  {
    const HangWatchdog watchdog("clean-up and teardown", 30s);
    graph->wrapper.cleanupAll();
    EXPECT_LT(Clock::now() - cleanupStarted, kCleanupBound) << "cleanupAll";
    graph.reset();  // the graph and its platform: the transport's worker, the connections
  }
  EXPECT_LT(Clock::now() - cleanupStarted, kCleanupBound + 2s) << "cleanupAll and destruction";
  return run;
}

class ZavloCollectorFaultTest : public ::testing::TestWithParam<CollectorFault> {};

TEST_P(ZavloCollectorFaultTest, TheResultIsTheHealthyOneAndNothingWaitsForTheCollector) {
  ZavloChainServerOptions options;
  options.token = "collector-fault-token";
  ZavloChainServer chain(options);
  const json expected = {{"status", "SUCCESS"}, {"httpStatusCode", 200}, {"snaToken", "collector-fault-token"}};

  ZavloHttpTestServer healthy;
  const auto baseline = runAgainst(healthy.url("/auth-tracking"), chain.chainUrl(3), 5s);
  ASSERT_EQ(baseline.init.only(), kInitSuccess);
  ASSERT_EQ(baseline.start.only(), expected);
  EXPECT_EQ(healthy.requestCount(), 7U) << "every event of the healthy run arrived";

  // The collector of this fault. The slow one holds every post: it would answer after
  // 30 s, long after the test has ended.
  std::optional<ZavloClosedPort> closed;
  std::optional<ZavloHttpTestServer> collector;
  std::string endpoint;
  switch (GetParam()) {
    case CollectorFault::down:
      closed.emplace();
      endpoint = closed->url("/auth-tracking");
      break;
    case CollectorFault::slow:
      collector.emplace(ZavloHttpTestServer::neverAnswer());
      endpoint = collector->url("/auth-tracking");
      break;
    case CollectorFault::failing:
      collector.emplace([](const ZavloHttpTestRequest&) -> std::optional<ZavloHttpTestReply> {
        return ZavloHttpTestReply::text(500, "collector broken", "Internal Server Error");
      });
      endpoint = collector->url("/auth-tracking");
      break;
  }
  // Posts to a collector that is down or answers 500 end by themselves; held ones never do,
  // and clean-up must cancel them.
  const auto faulty = runAgainst(endpoint, chain.chainUrl(3), GetParam() == CollectorFault::slow ? 0ms : 5s);
  EXPECT_EQ(faulty.init.only(), baseline.init.only());
  EXPECT_EQ(faulty.start.only(), baseline.start.only());
  EXPECT_LT(faulty.init.elapsed, kPrompt);
  EXPECT_LT(faulty.start.elapsed, kPrompt) << "telemetry never delays the chain";

  switch (GetParam()) {
    case CollectorFault::down:
      break;
    case CollectorFault::slow:
      EXPECT_TRUE(faulty.telemetryInFlightAtResult) << "the result came while posts were still held";
      EXPECT_GE(collector->requestCount(), 1U);
      break;
    case CollectorFault::failing:
      EXPECT_EQ(collector->requestCount(), 7U) << "each event was posted once, none again after its 500";
      break;
  }
}

INSTANTIATE_TEST_SUITE_P(Collectors, ZavloCollectorFaultTest,
                         ::testing::Values(CollectorFault::down, CollectorFault::slow, CollectorFault::failing),
                         [](const auto& info) { return faultName(info.param); });

// ---------------------------------------------------------------------------------------
// The command-line host as a black box: before exiting it waits at most 3 s for telemetry
// in flight, whatever the collector does.

#ifdef ZAVLO_AUTH_BINARY
TEST(ZavloCliFaultTest, ASlowCollectorDelaysTheExitByNoMoreThanTheDrainBound) {
  ZavloChainServerOptions options;
  options.token = "cli-fault-token";
  ZavloChainServer chain(options);
  const auto sna = [&](const std::string& endpoint) {
    // timeout(1) turns a host that hangs into a failed run instead of a hung test.
    return zavloRunProcess({"/usr/bin/timeout", "-s", "KILL", "60", ZAVLO_AUTH_BINARY, "--cellular-interface", "lo",
                            "--environment", "development", "--telemetry-endpoint", endpoint, "-v", "sna",
                            chain.chainUrl(2), "--config", R"({"requestId":"cli-fault"})"});
  };
  const std::string expectedOutput =
      json{{"status", "SUCCESS"}, {"statusCode", "200"}, {"mcc", ""}, {"mnc", ""}}.dump() + "\n" +
      json{{"status", "SUCCESS"}, {"httpStatusCode", 200}, {"snaToken", "cli-fault-token"}}.dump() + "\n";
  const std::string abandoned = "telemetry: posts still in flight after 3000 ms are abandoned";

  ZavloHttpTestServer healthy;
  const auto baseline = sna(healthy.url("/events"));
  ASSERT_EQ(baseline.exitStatus, 0) << baseline.standardError;
  EXPECT_EQ(baseline.standardOutput, expectedOutput);
  EXPECT_EQ(baseline.standardError.find(abandoned), std::string::npos) << baseline.standardError;

  ZavloHttpTestServer slow(ZavloHttpTestServer::neverAnswer());
  const auto started = Clock::now();
  const auto run = sna(slow.url("/events"));
  const auto elapsed = Clock::now() - started;
  EXPECT_EQ(run.exitStatus, 0) << run.standardError;
  EXPECT_EQ(run.standardOutput, baseline.standardOutput);
  EXPECT_NE(run.standardError.find(abandoned), std::string::npos) << run.standardError;
  EXPECT_GE(slow.requestCount(), 1U);
  // The drain's 3 s plus start-up and the chain; the collector's own pace (30 s and more) is
  // far beyond it.
  EXPECT_LT(elapsed, 10s);
}
#endif

}  // namespace
