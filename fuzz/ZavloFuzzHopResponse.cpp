// zavlo-fuzz-hop-response: arbitrary bytes as what the operator answers, hop by hop,
// through the cellular client as a chain runs it: the answer decoded as text, its status,
// body and redirect judged, the hop event sent, the final dictionary built.
//
// Input: the answers of consecutive hops, separated by kHopSeparator (one answer is the
// common case). The chain starts at a fixed URL; a redirect is followed to wherever it
// points, and the hop after the last answer never gets one, so the chain ends by the
// client's time-out at the latest.
//
// Properties: the chain completes exactly once; its dictionary is an object that the
// strict serialiser takes (no exception, so no invalid UTF-8), with either an HTTP status
// or an error code and description and nothing else; every hop event encodes; every hop
// the client traces names UTF-8 URLs.
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Cellular/ZavloCellularSnaClient.hpp"
#include "Cellular/ZavloChainDictionary.hpp"
#include "ZavloFuzzPlatform.hpp"
#include "ZavloFuzzSupport.hpp"

namespace {

constexpr std::string_view kHopSeparator = "\r\n--zavlo-next-hop--\r\n";
constexpr std::size_t kMaxHops = 8;
// The request manager's per-hop time-out.
constexpr double kHopTimeOutSeconds = 10.0;

void requireSerialises(const nlohmann::json& value, const char* what) {
  try {
    const auto text = value.dump();
    ZAVLO_FUZZ_CHECK(ZavloFuzz::isUtf8(text), what);
  } catch (const nlohmann::json::exception& error) {
    std::fprintf(stderr, "zavlo-fuzz: %s does not serialise: %s\n", what, error.what());
    __builtin_trap();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto answers = zavloFuzzSplit(ZavloFuzz::asText(data, size), kHopSeparator, kMaxHops);

  ZavloFuzzPlatform platform;
  for (const auto answer : answers) platform.queueAnswer(answer);

  std::vector<std::shared_ptr<ZavloAuthEventLog>> events;
  std::vector<nlohmann::json> completions;
  std::vector<ZavloCellularSnaClient::HopTrace> traces;
  {
    auto client = ZavloCellularSnaClient::create(
        platform, [&events](const ZavloCellularSnaClient::HopEvent& event) { events.push_back(event.toEventLog()); });
    client->CONNECTION_TIME_OUT = kHopTimeOutSeconds;
    client->hopObserver = [&traces](const ZavloCellularSnaClient::HopTrace& trace) { traces.push_back(trace); };
    const auto start = ZavloUrl::parse("http://op.test/start?session=1");
    ZAVLO_FUZZ_CHECK(start.has_value(), "the start URL parses");
    client->open(*start, std::string("fuzz-request"), [&completions](const ZavloChainOutcome& outcome) {
      completions.push_back(ZavloChainDictionary::of(outcome));
    });
  }
  // Answers arrive at once; every hop without one ends by its timer. One more hop than
  // there are answers is the most a chain can make, so this much virtual time ends it.
  platform.test().runUntilIdle();
  const auto hopTimeOut =
      std::chrono::duration_cast<ZavloQueue::Duration>(std::chrono::duration<double>(kHopTimeOutSeconds + 1.0));
  for (std::size_t hop = 0; hop <= answers.size() + 1 && completions.empty(); ++hop) {
    platform.test().advanceBy(hopTimeOut);
  }
  // Late work (a cancelled connection's reports) must not complete the chain again.
  platform.test().advanceBy(hopTimeOut);

  ZAVLO_FUZZ_CHECK(completions.size() == 1, "the chain completes exactly once");
  ZAVLO_FUZZ_CHECK(platform.connectionCount() <= 2 * (answers.size() + 1),
                   "at most one connection and its fallback per hop");
  const auto& dictionary = completions[0];
  ZAVLO_FUZZ_CHECK(dictionary.is_object(), "the dictionary is an object");
  requireSerialises(dictionary, "the chain's dictionary");
  // A final answer's body may bring any keys, "error" included (the body wins a clash), but
  // the status key is always there; a failed chain has exactly its code and description.
  if (!dictionary.contains("httpStatusCode")) {
    ZAVLO_FUZZ_CHECK(dictionary.size() == 2 && dictionary.contains("error") && dictionary["error"].is_string() &&
                         dictionary.contains("error_description") && dictionary["error_description"].is_string(),
                     "a failure has a code and a description");
  }

  for (const auto& event : events) {
    ZAVLO_FUZZ_CHECK(event->eventName == "SNA_HOP", "the client sends only hop events");
    requireSerialises(event->toDictionary(), "a hop event");
    const auto coded = event->encode();
    if (!coded) std::fprintf(stderr, "zavlo-fuzz: %s\n", coded.error().description.c_str());
    ZAVLO_FUZZ_CHECK(coded.hasValue(), "a hop event encodes");
  }
  for (const auto& trace : traces) {
    ZAVLO_FUZZ_CHECK(ZavloFuzz::isUtf8(trace.url), "a traced hop URL is UTF-8");
    ZAVLO_FUZZ_CHECK(!trace.redirect || ZavloFuzz::isUtf8(*trace.redirect), "a traced redirect is UTF-8");
  }
  return 0;
}
