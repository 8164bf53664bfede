// zavlo-auth bridge --stdio as a black box: the test is the page, writing messages as
// lines and reading the callback texts the bridge evaluates.
#ifdef ZAVLO_AUTH_BINARY
#include <gtest/gtest.h>

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

class ZavloCliBridge : public ::testing::Test {
 protected:
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
