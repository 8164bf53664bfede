#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>

#include <sstream>

#include "Testing/Network/ZavloProcess.hpp"
#include "tools/peers/ZavloChainServer.hpp"
#include "tools/peers/ZavloHttpTestServer.hpp"

namespace {
ZavloProcessResult zavloAuth(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), ZAVLO_AUTH_BINARY);
  return zavloRunProcess(arguments);
}
}  // namespace

TEST(ZavloCli, CapabilitiesPrintsOneLineOfCompactJsonAndSucceeds) {
  const auto run = zavloAuth({"capabilities"});
  EXPECT_EQ(run.exitStatus, 0) << run.standardError;
  ASSERT_FALSE(run.standardOutput.empty());
  EXPECT_EQ(run.standardOutput.find('\n'), run.standardOutput.size() - 1) << "exactly one line";
  const auto dictionary = nlohmann::json::parse(run.standardOutput);
  EXPECT_EQ(dictionary.size(), 6U);
  EXPECT_EQ(dictionary.at("sdkVersion"), "1.1.1");
}

TEST(ZavloCli, UsageErrorsExitWithTwoAndPrintNothingOnStandardOutput) {
  for (const auto& arguments :
       std::vector<std::vector<std::string>>{{},
                                             {"no-such-command"},
                                             {"--environment", "staging", "capabilities"},
                                             {"--owner-auth", "x", "capabilities"},
                                             {"--cellular-dns", "dns.example", "capabilities"}}) {
    const auto run = zavloAuth(arguments);
    EXPECT_EQ(run.exitStatus, 2) << testing::PrintToString(arguments);
    EXPECT_TRUE(run.standardOutput.empty()) << run.standardOutput;
    EXPECT_FALSE(run.standardError.empty());
  }
}

TEST(ZavloCli, InterfacesListsADeclaredCellularInterfaceAndPassesThePreflight) {
  const auto run = zavloAuth({"--cellular-interface", "lo", "interfaces"});
  EXPECT_EQ(run.exitStatus, 0) << run.standardOutput << run.standardError;
  ASSERT_EQ(std::count(run.standardOutput.begin(), run.standardOutput.end(), '\n'), 1) << run.standardOutput;
  const auto dictionary = nlohmann::json::parse(run.standardOutput);
  EXPECT_EQ(dictionary.at("status"), "SUCCESS");
  const auto& interfaces = dictionary.at("interfaces");
  const auto lo =
      std::find_if(interfaces.begin(), interfaces.end(), [](const auto& i) { return i.at("name") == "lo"; });
  ASSERT_NE(lo, interfaces.end()) << run.standardOutput;
  EXPECT_EQ(lo->at("type"), "cellular");
  EXPECT_EQ(lo->at("up"), true);
  const auto& available = dictionary.at("path").at("availableInterfaces");
  EXPECT_NE(std::find(available.begin(), available.end(), nlohmann::json{{"name", "lo"}, {"type", "cellular"}}),
            available.end());
}

TEST(ZavloCli, InterfacesWithoutACellularInterfaceFailsWithTheMappedError) {
  const auto run = zavloAuth({"interfaces"});
  const auto dictionary = nlohmann::json::parse(run.standardOutput);
  const auto& available = dictionary.at("path").at("availableInterfaces");
  if (std::any_of(available.begin(), available.end(), [](const auto& i) { return i.at("type") == "cellular"; })) {
    GTEST_SKIP() << "this machine has a cellular interface: " << run.standardOutput;
  }
  EXPECT_EQ(run.exitStatus, 1) << run.standardError;
  EXPECT_EQ(dictionary.at("status"), "FAILURE");
  EXPECT_EQ(dictionary.at("errorCode"), "SNA_CELLULAR_UNAVAILABLE");
  EXPECT_EQ(dictionary.at("errorMessage"), "No cellular network available. Please ensure cellular data is enabled.");
  EXPECT_TRUE(dictionary.at("interfaces").is_array());
}

namespace {

std::vector<nlohmann::json> jsonLines(const std::string& text) {
  std::vector<nlohmann::json> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(nlohmann::json::parse(line));
  return lines;
}

}  // namespace

TEST(ZavloCli, SnaRunsTheChainOverTheDeclaredInterfaceAndTheCollectorGetsEveryEvent) {
  ZavloChainServer operatorServer;
  ZavloHttpTestServer collector;
  const auto run =
      zavloAuth({"--cellular-interface", "lo", "--telemetry-endpoint", collector.url("/events"), "-v", "--environment",
                 "development", "sna", operatorServer.chainUrl(3), "--config", R"({"requestId":"cli-1"})"});
  ASSERT_EQ(run.exitStatus, 0) << run.standardOutput << run.standardError;
  const auto lines = jsonLines(run.standardOutput);
  ASSERT_EQ(lines.size(), 2U) << run.standardOutput;
  EXPECT_EQ(lines[0], (nlohmann::json{{"status", "SUCCESS"}, {"statusCode", "200"}, {"mcc", ""}, {"mnc", ""}}));
  EXPECT_EQ(lines[1],
            (nlohmann::json{{"status", "SUCCESS"}, {"httpStatusCode", 200}, {"snaToken", operatorServer.token()}}));
  EXPECT_EQ(operatorServer.requestsServed(), 3U);

  // The host waits for telemetry in flight before it exits: every event has arrived.
  std::vector<std::string> names;
  for (const auto& request : collector.requests()) {
    const auto event = nlohmann::json::parse(request.body);
    names.push_back(event.at("eventName"));
    EXPECT_EQ(event.at("requestId"), "cli-1");
  }
  EXPECT_EQ(names, (std::vector<std::string>{"INIT_AUTH", "INIT_AUTH_RESPONSE", "START_AUTH", "SNA_HOP", "SNA_HOP",
                                             "SNA_HOP", "START_AUTH_RESPONSE"}));
  EXPECT_EQ(std::count(run.standardError.begin(), run.standardError.end(), '\n'), 10)
      << run.standardError << "one trace line per hop and per event";
}

TEST(ZavloCli, SnaStopsAtTheFirstFailureAndRejectsConfigurationsThatAreNoObject) {
  const auto badUrl = zavloAuth({"--cellular-interface", "lo", "sna", "ftp://op.test/"});
  EXPECT_EQ(badUrl.exitStatus, 1);
  const auto lines = jsonLines(badUrl.standardOutput);
  ASSERT_EQ(lines.size(), 2U) << badUrl.standardOutput;
  EXPECT_EQ(lines[1], (nlohmann::json{{"status", "FAILURE"},
                                      {"errorCode", "INVALID_SNA_URI"},
                                      {"errorMessage", "Invalid SNA URI provided"}}));

  const auto noModem = zavloAuth({"sna", "http://127.0.0.1:9/"});
  if (noModem.standardOutput.find("SNA_CELLULAR_UNAVAILABLE") != std::string::npos) {
    EXPECT_EQ(noModem.exitStatus, 1);
    EXPECT_EQ(jsonLines(noModem.standardOutput).size(), 1U) << "sna stops after a failed initAuth";
  }

  for (const auto* config : {"[1]", "\"text\"", "{bad"}) {
    const auto run = zavloAuth({"--cellular-interface", "lo", "init", "--config", config});
    EXPECT_EQ(run.exitStatus, 2) << config;
    EXPECT_TRUE(run.standardOutput.empty()) << run.standardOutput;
  }
}
