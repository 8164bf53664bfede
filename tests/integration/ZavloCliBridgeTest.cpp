// zavlo-auth bridge --stdio as a black box: the test is the page, writing messages as
// lines and reading the callback texts the bridge evaluates.
#ifdef ZAVLO_AUTH_BINARY
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include <sstream>

#include "Core/ZavloAuthResponseUtils.hpp"
#include "Testing/Network/ZavloProcess.hpp"
#include "tools/peers/ZavloChainServer.hpp"
#include "tools/peers/ZavloHttpTestServer.hpp"
#include "tools/peers/ZavloTemporaryDirectory.hpp"

using nlohmann::json;

namespace {

struct Call {
  std::string callback;
  json argument;
};

// Reads one output line as the page's engine would: NAME("..."), the argument a string
// literal holding JSON text.
Call parseCall(const std::string& line) {
  const auto open = line.find('(');
  if (open == std::string::npos || line.back() != ')') {
    ADD_FAILURE() << "not a call: " << line;
    return {};
  }
  const auto literal = json::parse(line.substr(open + 1, line.size() - open - 2), nullptr, false);
  if (!literal.is_string()) {
    ADD_FAILURE() << "the argument is not one string literal: " << line;
    return {};
  }
  return {line.substr(0, open), json::parse(literal.get<std::string>())};
}

std::vector<Call> calls(const std::string& output) {
  std::vector<Call> parsed;
  std::istringstream stream(output);
  for (std::string line; std::getline(stream, line);) parsed.push_back(parseCall(line));
  return parsed;
}

json message(const std::string& method, const std::string& callback, json arguments = json::object()) {
  arguments["method"] = method;
  arguments["callback"] = callback;
  return arguments;
}

// A line the host writes for a document it vouches for.
json envelope(const std::string& origin, const std::string& frame, json body) {
  return {{"origin", origin}, {"frame", frame}, {"message", std::move(body)}};
}

class ZavloCliBridge : public ::testing::Test {
 protected:
  /// With -v and an --allowed-origin for each rule.
  std::vector<std::string> command(const std::vector<std::string>& rules) const {
    auto arguments = command();
    arguments.insert(arguments.begin() + 1, "-v");
    for (const auto& rule : rules) {
      arguments.emplace_back("--allowed-origin");
      arguments.push_back(rule);
    }
    return arguments;
  }

  std::vector<std::string> command() const {
    std::ofstream(folder.path() / "owner-secret") << "page owner's secret\n";
    return {ZAVLO_AUTH_BINARY,
            "--cellular-interface",
            "lo",
            "--telemetry-endpoint",
            collector.url("/events"),
            "--owner-auth",
            "allow",
            "--owner-secret-file",
            (folder.path() / "owner-secret").string(),
            "--keystore",
            (folder.path() / "keys.db").string(),
            "bridge",
            "--stdio"};
  }

  ZavloTemporaryDirectory folder;
  ZavloHttpTestServer collector;
};

}  // namespace

TEST_F(ZavloCliBridge, EachMessageIsAnsweredOnceAndWhatThePageCouldNotHavePostedIsIgnored) {
  const std::vector<std::string> lines = {
      message("getCapabilities", "cb").dump(),
      "not json at all",
      R"("getCapabilities")",
      "42",
      R"(["getCapabilities","cb"])",
      "null",
      R"({"method":"getCapabilities"})",
      R"({"method":"getCapabilities","callback":7})",
      message("getCapabilities", "a.b").dump(),
      message("getCapabilities", "alert(1);x").dump(),
      message("getCapabilities", "1cb").dump(),
      message("getCapabilities", "").dump(),
      message("getCapabilities", std::string(10000, 'k')).dump(),
      message("initAuth", "noConfig").dump(),
      message("initAuth", "numberConfig", {{"initConfig", 12}}).dump(),
      message("initAuth", "brokenConfig", {{"initConfig", "{\"requestId\":"}}).dump(),
      message("enrollDeviceBinding", "arrayConfig", {{"config", json::array()}}).dump(),
      message("getDeviceBindingState", "textConfig", {{"config", "[\"k\"]"}}).dump(),
      message("startAuth", "noUrl", {{"snaUri", 5}}).dump(),
      message("InitAuth", "unknown").dump(),
      std::string(300, '[') + std::string(300, ']'),
      R"({"method":"getCapabilities","callback":"lone","pad":"\ud800"})",
  };
  std::string input;
  for (const auto& line : lines) input += line + "\n";
  const auto run = zavloRunProcess(command(), input);
  ASSERT_EQ(run.exitStatus, 0) << run.standardError;

  const auto answers = calls(run.standardOutput);
  std::vector<std::string> names;
  for (const auto& answer : answers) names.push_back(answer.callback);
  EXPECT_EQ(names, (std::vector<std::string>{"cb", std::string(10000, 'k'), "noConfig", "numberConfig", "brokenConfig",
                                             "arrayConfig", "textConfig", "noUrl", "unknown", "lone"}));
  if (answers.size() != 10) return;
  EXPECT_EQ(answers[0].argument, ZavloAuthResponseUtils::capabilitiesDictionary());
  const json invalidConfiguration{{"status", "FAILURE"},
                                  {"errorCode", "INVALID_JSON_CONFIGURATION"},
                                  {"errorMessage", "Invalid JSON configuration for Zavlo Authentication SDK."}};
  for (int i = 2; i <= 6; ++i) EXPECT_EQ(answers[i].argument, invalidConfiguration) << names[i];
  EXPECT_EQ(answers[7].argument.at("errorCode"), "INVALID_SNA_URI");
  EXPECT_EQ(answers[8].argument.at("errorMessage"), "Unsupported method: InitAuth");
  EXPECT_EQ(answers[9].argument.at("status"), "SUCCESS") << "a lone surrogate does not cost the message";
}

TEST_F(ZavloCliBridge, APageDrivesEveryOperationAndTheProcessEndsWhenTheLastAnswerIsWritten) {
  ZavloChainServer operatorServer;
  ZavloInteractiveProcess page(command());
  auto ask = [&page](const json& body) {
    page.writeLine(body.dump());
    const auto line = page.readLine();
    EXPECT_TRUE(line) << "no answer to " << body.dump();
    return line ? parseCall(*line) : Call{};
  };

  EXPECT_EQ(ask(message("initAuth", "onInit", {{"initConfig", R"({"requestId":"page-1"})"}})).argument.at("status"),
            "SUCCESS");
  const auto started = ask(message("startSNA", "onStart", {{"snaLink", operatorServer.chainUrl(3)}}));
  EXPECT_EQ(started.callback, "onStart");
  EXPECT_EQ(started.argument,
            (json{{"status", "SUCCESS"}, {"httpStatusCode", 200}, {"snaToken", operatorServer.token()}}));

  const auto enrolled = ask(message("enrollDeviceBinding", "onEnroll", {{"config", R"({"requestId":"page-1"})"}}));
  ASSERT_EQ(enrolled.argument.at("status"), "SUCCESS") << enrolled.argument.dump();
  const std::string keyId = enrolled.argument.at("keyId");
  const auto signedChallenge = ask(message("signDeviceBindingChallenge", "onSign",
                                           {{"config", {{"allowedKeyIds", keyId}, {"challenge", "nonce-1"}}}}));
  EXPECT_EQ(signedChallenge.argument.at("keyId"), keyId);

  // The last message starts a chain; the input ends before its answer, which still comes.
  page.writeLine(message("getDeviceBindingState", "onState", {{"config", {{"keyId", keyId}}}}).dump());
  page.writeLine(message("startAuth", "onLast", {{"snaUri", operatorServer.chainUrl(5)}}).dump());
  const auto rest = page.finish();
  EXPECT_EQ(rest.exitStatus, 0) << rest.standardError;
  const auto last = calls(rest.standardOutput);
  ASSERT_EQ(last.size(), 2U) << rest.standardOutput;
  EXPECT_EQ(last[0].argument.at("state"), "ENROLLED");
  EXPECT_EQ(last[1].callback, "onLast");
  EXPECT_EQ(last[1].argument.at("snaToken"), operatorServer.token());

  std::size_t events = 0;
  for (const auto& request : collector.requests()) events += json::parse(request.body).contains("eventName") ? 1 : 0;
  EXPECT_GE(events, 13U) << "init 2, two chains 5 + 7, enrolment and signing at least 1 each";
}

TEST_F(ZavloCliBridge, OnlyLinesTheRulesAllowAreAnsweredAndEachRefusalIsTraced) {
  const auto capabilities = message("getCapabilities", "cb");
  const auto plain = capabilities.dump();
  const auto line = [&](const std::string& origin, const std::string& frame) {
    return envelope(origin, frame, capabilities).dump();
  };
  // What -v says about a line that is not answered.
  const auto refused = [](const std::string& origin, const std::string& frame, const std::string& why) {
    return "bridge: refused a message from " + origin + " (" + frame + " frame): " + why;
  };
  const std::string a = "https://a.example", ownPage = "the host's own page";
  const std::string noRules = "no rules were given", notTop = "not the top frame",
                    notAllowed = "an origin the rules do not allow", noEnvelope = "a line without an envelope";
  const std::string badOrigin = "bridge: input line ignored: an envelope's origin is written as browsers";
  const std::string badValues = "bridge: input line ignored: an envelope's origin is a string and its frame";
  auto withEnvelopeKeys = envelope(a, "main", {});
  withEnvelopeKeys.update(capabilities);
  struct Case {
    std::vector<std::string> rules;
    std::string line;
    bool answered;
    std::string trace;  // in standard error when not answered
  };
  const std::vector<Case> cases = {
      // No rules: the host's own page, which writes plain lines.
      {{}, plain, true, ""},
      {{}, line(a, "main"), false, refused(a, "main", noRules)},
      // Rules: the top frame of an allowed origin, named in an envelope.
      {{a}, line(a, "main"), true, ""},
      {{a}, line(a, "sub"), false, refused(a, "sub", notTop)},
      {{a}, line("https://b.example", "main"), false, refused("https://b.example", "main", notAllowed)},
      {{a}, line(a + ":8443", "main"), false, refused(a + ":8443", "main", notAllowed)},
      {{a}, plain, false, refused(ownPage, "main", noEnvelope)},
      {{"https://b.example", a + ":443"}, line(a, "main"), true, ""},
      {{"https://*.example.com:8443"}, line("https://x.y.example.com:8443", "main"), true, ""},
      {{"https://*.example.com:8443"},
       line("https://example.com:8443", "main"),
       false,
       refused("https://example.com:8443", "main", notAllowed)},
      {{"*"}, plain, true, ""},
      {{"*"}, line("null", "main"), true, ""},
      {{"*"}, line(a, "sub"), false, refused(a, "sub", notTop)},
      // An envelope with other values than an envelope holds is no message at all.
      {{"*"}, line(a + ":443", "main"), false, badOrigin},
      {{"*"}, line("", "main"), false, badOrigin},
      {{"*"}, line(a, "top"), false, badValues},
      {{"*"}, json{{"origin", 1}, {"frame", "main"}, {"message", capabilities}}.dump(), false, badValues},
      // Only exactly these three keys make an envelope, so no message is read as one; an
      // envelope's message is the message, even when it looks like an envelope.
      {{}, withEnvelopeKeys.dump(), true, ""},
      {{"*"}, envelope(a, "main", json::parse(line(a, "main"))).dump(), false, ""},
  };
  for (const auto& [rules, text, answered, trace] : cases) {
    const auto run = zavloRunProcess(command(rules), text + "\n");
    EXPECT_EQ(run.exitStatus, 0) << text << "\n" << run.standardError;
    EXPECT_EQ(calls(run.standardOutput).size(), answered ? 1U : 0U) << text << "\n" << run.standardError;
    if (!trace.empty()) {
      EXPECT_NE(run.standardError.find(trace), std::string::npos) << trace << "\n" << run.standardError;
    }
  }
}

TEST_F(ZavloCliBridge, ARefusedMessageRunsNothingAndIsOwedNoAnswer) {
  const auto enrol = message("enrollDeviceBinding", "onEnroll", {{"config", R"({"requestId":"page-1"})"}});
  const auto sign = message("signDeviceBindingChallenge", "onSign",
                            {{"config", {{"allowedKeyIds", "any"}, {"challenge", "nonce-1"}}}});
  const auto keyFile = folder.path() / "keys.db";
  const std::vector<std::string> refused = {
      enrol.dump(),
      envelope("https://evil.example", "main", enrol).dump(),
      envelope("https://a.example", "sub", enrol).dump(),
      envelope("https://evil.example", "main", sign).dump(),
      envelope("https://a.example", "sub", sign).dump(),
  };
  std::string input;
  for (const auto& line : refused) input += line + "\n";
  const auto run = zavloRunProcess(command({"https://a.example"}), input);
  EXPECT_EQ(run.exitStatus, 0) << run.standardError;
  EXPECT_EQ(run.standardOutput, "");
  EXPECT_FALSE(std::filesystem::exists(keyFile)) << "the key store was opened";
  EXPECT_EQ(run.standardError.find("--owner-auth allow:"), std::string::npos) << "the owner was asked";
  EXPECT_EQ(collector.requestCount(), 0U) << "telemetry was sent";
  std::size_t traced = 0;
  for (auto at = run.standardError.find("bridge: refused a message from "); at != std::string::npos;
       at = run.standardError.find("bridge: refused a message from ", at + 1)) {
    ++traced;
  }
  EXPECT_EQ(traced, refused.size()) << run.standardError;

  // The same messages from the allowed page do all of that.
  const auto allowed =
      zavloRunProcess(command({"https://a.example"}), envelope("https://a.example", "main", enrol).dump() + "\n" +
                                                          envelope("https://a.example", "main", sign).dump() + "\n");
  EXPECT_EQ(allowed.exitStatus, 0) << allowed.standardError;
  const auto answers = calls(allowed.standardOutput);
  ASSERT_EQ(answers.size(), 2U) << allowed.standardOutput;
  const auto& enrolled = answers[0].callback == "onEnroll" ? answers[0] : answers[1];
  EXPECT_EQ(enrolled.argument.at("status"), "SUCCESS") << enrolled.argument.dump();
  EXPECT_TRUE(std::filesystem::exists(keyFile));
  EXPECT_NE(allowed.standardError.find("--owner-auth allow:"), std::string::npos);
  EXPECT_GT(collector.requestCount(), 0U);
}

TEST_F(ZavloCliBridge, ABadOriginRuleIsAUsageError) {
  for (const std::string rule : {"https://a.example/", "a.example", "https://a*.example", ""}) {
    const auto run = zavloRunProcess(command({"https://good.example", rule}), message("getCapabilities", "cb").dump());
    EXPECT_EQ(run.exitStatus, 2) << rule;
    EXPECT_EQ(run.standardOutput, "") << rule;
    EXPECT_NE(run.standardError.find("--allowed-origin: not an origin rule: \"" + rule + "\""), std::string::npos)
        << run.standardError;
  }
}

TEST_F(ZavloCliBridge, AFloodOfMessagesIsAnsweredInOrderWithBoundedMemory) {
  constexpr int kMessages = 10000;
  const std::string padding(4000, 'p');
  std::string input;
  for (int i = 0; i < kMessages; ++i) {
    const bool valid = i % 4 != 3;
    input += (valid ? message("getCapabilities", "cb" + std::to_string(i), {{"pad", padding}}).dump()
                    : "{\"method\":\"getCapabilities\",\"pad\":\"" + padding + "\"}") +
             "\n";
  }
  const auto run = zavloRunProcess(command(), input);
  ASSERT_EQ(run.exitStatus, 0) << run.standardError;
  const auto answers = calls(run.standardOutput);
  ASSERT_EQ(answers.size(), static_cast<std::size_t>(kMessages - kMessages / 4));
  int expected = 0;
  for (const auto& answer : answers) {
    if (expected % 4 == 3) ++expected;
    ASSERT_EQ(answer.callback, "cb" + std::to_string(expected++));
  }
  // About 40 MB went through; the reader keeps only a few messages ahead of the bridge.
  // AddressSanitizer keeps freed memory in quarantine, so the bound holds only without it.
#ifndef __SANITIZE_ADDRESS__
  EXPECT_LT(run.maxResidentKilobytes * 1024, static_cast<long>(input.size() / 2))
      << run.maxResidentKilobytes << " KiB resident";
#endif
}
#endif
