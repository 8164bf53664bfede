// Built only with the command-line host (the thread-sanitizer build leaves it out).
#ifdef ZAVLO_AUTH_BINARY
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

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
#endif
