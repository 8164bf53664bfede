// zavlo-fuzz-bridge: the web bridge's message dispatch with arbitrary message bodies, on a
// complete object graph of the test platform (recording web view, scripted owner
// authentication that succeeds, an in-memory key store, virtual time).
//
// Input: one line per page message, each JSON text (any value; text that is not JSON or
// nests deeper than the page limit is dropped, as the Linux web views drop it). A line
// that starts with "@" instead holds, as one JSON string, what the operator answers the
// next connection of a chain (connections after the last such answer never answer, so
// chains end by their time-out). Each message is delivered and the work it started runs
// as far as it can without time passing before the next is posted, as a page that awaits
// answers would; "$enrolled" in a message stands for the key id of the latest enrolment
// answered so far, so that signing can reach an enrolled key.
//
// Properties: every script the bridge evaluates is a callback text, NAME("LITERAL") and
// nothing else, whose literal holds the JSON text of an object; once virtual time has let
// every chain and prompt finish, each message the bridge owes an answer to (an object
// with a string "method" and a plain identifier as "callback", judged here) has had
// exactly one, under its callback's name, and no other message any;
// ZavloAuthenticationBridge::expectsAnswer says the same.
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Bridge/ZavloAuthenticationBridge.hpp"
#include "Graph/ZavloAuthenticationGraph.hpp"
#include "Testing/ZavloTestWebView.hpp"
#include "ZavloFuzzPlatform.hpp"
#include "ZavloFuzzSupport.hpp"

namespace {

constexpr std::size_t kMaxLines = 16;

bool owesAnswer(const nlohmann::json& body) {
  if (!body.is_object()) return false;
  const auto method = body.find("method");
  const auto callback = body.find("callback");
  return method != body.end() && method->is_string() && callback != body.end() && callback->is_string() &&
         ZavloFuzz::isPlainIdentifier(callback->get_ref<const std::string&>());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto lines = zavloFuzzSplit(ZavloFuzz::asText(data, size), "\n", kMaxLines);

  ZavloFuzzPlatform platform;
  std::size_t answers = 0;
  std::size_t messages = 0;
  std::map<std::string, int> owed;
  std::map<std::string, int> answered;
  std::string enrolledKeyId = "NONE";
  {
    ZavloAuthenticationGraph graph(platform);
    const auto screen = std::make_shared<int>(0);
    const auto page = std::make_shared<ZavloTestWebView>(platform.mainQueue());
    graph.webWrapper.setupWebView(page, screen, ZavloAuthEnvironment::development);
    const auto readAnswers = [&] {
      for (const auto& script : page->takeEvaluatedScripts()) {
        const auto call = ZavloFuzz::requireCallback(script);
        const auto argument = nlohmann::json::parse(call.argument, nullptr, /*allow_exceptions=*/false);
        ZAVLO_FUZZ_CHECK(argument.is_object(), "a callback receives the JSON text of an object");
        ++answered[call.name];
        if (const auto keyId = argument.find("keyId"); keyId != argument.end() && keyId->is_string()) {
          enrolledKeyId = keyId->get<std::string>();
        }
      }
    };

    for (const auto line : lines) {
      if (line.starts_with("@")) {
        const auto answer = nlohmann::json::parse(line.substr(1), nullptr, /*allow_exceptions=*/false);
        if (answer.is_string()) {
          platform.queueAnswer(answer.get_ref<const std::string&>());
          ++answers;
        }
        continue;
      }
      std::string text(line);
      for (auto at = text.find("$enrolled"); at != std::string::npos; at = text.find("$enrolled", at)) {
        text.replace(at, 9, enrolledKeyId);
        at += enrolledKeyId.size();
      }
      const auto body = ZavloFuzz::parseBounded(text);
      if (!body) continue;
      ++messages;
      const bool owes = owesAnswer(*body);
      ZAVLO_FUZZ_CHECK(ZavloAuthenticationBridge::expectsAnswer(*body) == owes, "the bridge knows what it owes");
      if (owes) ++owed[(*body)["callback"].get<std::string>()];
      page->post(std::string(ZavloAuthenticationBridge::kHandlerName), *body);
      platform.test().runUntilIdle();
      readAnswers();
    }

    // Each chain hop ends within its 10-second time-out, and the preflight and prompts
    // within less; a chain makes at most one more hop than there are answers.
    const auto step = std::chrono::duration_cast<ZavloQueue::Duration>(std::chrono::seconds(11));
    for (std::size_t round = 0; round < answers + messages + 4; ++round) platform.test().advanceBy(step);
    readAnswers();
    graph.webWrapper.cleanupAll();
    platform.test().runUntilIdle();
    ZAVLO_FUZZ_CHECK(page->takeEvaluatedScripts().empty(), "nothing reaches the page after clean-up");
  }
  platform.test().runUntilIdle();
  if (answered != owed) {
    for (const auto& [name, count] : owed) std::fprintf(stderr, "owed %s: %d\n", name.c_str(), count);
    for (const auto& [name, count] : answered) std::fprintf(stderr, "answered %s: %d\n", name.c_str(), count);
  }
  ZAVLO_FUZZ_CHECK(answered == owed, "every message owed an answer gets exactly one");
  return 0;
}
