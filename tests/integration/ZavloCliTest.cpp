#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>

#include "ZavloProcess.hpp"

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
  for (const auto& arguments : std::vector<std::vector<std::string>>{{},
                                                                     {"no-such-command"},
                                                                     {"--environment", "staging", "capabilities"},
                                                                     {"--owner-auth", "x", "capabilities"}}) {
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
