// zavlo-auth demo end to end as a newcomer runs it, and its HTML page in a real browser.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "Testing/Network/ZavloProcess.hpp"
#include "tools/peers/ZavloTemporaryDirectory.hpp"

namespace {

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

std::string contentsOf(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::optional<std::string> chromium() {
  for (const char* name : {"chromium", "chromium-browser"}) {
    for (const char* folder : {"/usr/bin", "/usr/local/bin", "/snap/bin"}) {
      const auto path = std::filesystem::path(folder) / name;
      if (access(path.c_str(), X_OK) == 0) return path.string();
    }
  }
  return std::nullopt;
}

struct DemoRun {
  ZavloProcessResult process;
  std::filesystem::path html;
};

DemoRun runDemo(const ZavloTemporaryDirectory& folder) {
  const auto html = folder.path() / "report.html";
  return {zavloRunProcess({ZAVLO_AUTH_BINARY, "demo", "--html", html.string()}), html};
}

}  // namespace

TEST(ZavloCliDemo, EveryOperationSucceedsBothWaysAndNothingIsLeftBehind) {
  ZavloTemporaryDirectory folder;
  const auto run = runDemo(folder);
  ASSERT_EQ(run.process.exitStatus, 0) << run.process.standardOutput << run.process.standardError;
  const auto lines = linesOf(run.process.standardOutput);
  ASSERT_FALSE(lines.empty());
  EXPECT_TRUE(lines.back().starts_with("demo: every step succeeded")) << lines.back();

  for (const std::string via : {"native", "bridge"}) {
    for (const std::string step : {"initAuth", "startAuth", "enrollDeviceBinding", "signDeviceBindingChallenge",
                                   "signature verified (OpenSSL)", "getDeviceBindingState"}) {
      const std::regex line("  ok +" + via + " +" + std::regex_replace(step, std::regex(R"([()])"), R"(\$&)") + " +.*");
      EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [&](const auto& l) { return std::regex_match(l, line); }), 1)
          << via << ' ' << step << '\n'
          << run.process.standardOutput;
    }
  }
  EXPECT_EQ(run.process.standardOutput.find("FAILED"), std::string::npos) << run.process.standardOutput;

  // Each chain: three redirects then the token, and a fresh token each time.
  std::smatch match;
  std::vector<std::string> tokens;
  for (const auto& line : lines) {
    if (std::regex_search(line, match, std::regex(R"(startAuth .* snaToken (demo-[0-9a-f]+)\.\.\., 4 hops)"))) {
      tokens.push_back(match[1]);
    }
  }
  ASSERT_EQ(tokens.size(), 2U) << run.process.standardOutput;
  EXPECT_NE(tokens[0], tokens[1]);

  // Every event sent reached the collector, the hops among them.
  ASSERT_TRUE(std::regex_search(run.process.standardOutput, match,
                                std::regex(R"(the collector received (\d+) of (\d+) events sent)")));
  EXPECT_EQ(match[1], match[2]);
  EXPECT_NE(run.process.standardOutput.find("  8  SNA_HOP\n"), std::string::npos) << run.process.standardOutput;

  // The temporary key store is gone with its keys.
  ASSERT_TRUE(std::regex_search(run.process.standardOutput, match, std::regex(R"(key store: (\S+)/keychain\.db,)")));
  EXPECT_FALSE(std::filesystem::exists(match[1].str())) << match[1];

  // The page stands alone and names both keys by fingerprint.
  const auto page = contentsOf(run.html);
  for (const char* external : {"<link", "src=", "@import", "url(", "@font-face"}) {
    EXPECT_EQ(page.find(external), std::string::npos) << external;
  }
  const std::string& printed = run.process.standardOutput;
  const std::regex keyLine(R"(key ([0-9A-F-]{36}), ES256)");
  std::size_t keys = 0;
  for (std::sregex_iterator key(printed.begin(), printed.end(), keyLine), end; key != end; ++key, ++keys) {
    EXPECT_NE(page.find((*key)[1].str()), std::string::npos) << (*key)[1];
  }
  EXPECT_EQ(keys, 2U);
  EXPECT_TRUE(std::regex_search(page, std::regex(R"(<code>([0-9a-f]{4}:){15}[0-9a-f]{4}</code>)")))
      << "a SHA-256 fingerprint";
}

TEST(ZavloCliDemo, TheHtmlReportRendersInChromiumWithoutScriptErrorsAndWithAWaterfall) {
  const auto browser = chromium();
  if (!browser) GTEST_SKIP() << "Chromium is not installed (Debian package chromium): the page was not checked";
  ZavloTemporaryDirectory folder;
  const auto run = runDemo(folder);
  ASSERT_EQ(run.process.exitStatus, 0) << run.process.standardOutput << run.process.standardError;

  const auto screenshot = std::filesystem::path(ZAVLO_TEST_OUTPUT_DIR) / "zavlo-demo-report.png";
  std::filesystem::remove(screenshot);
  const auto shown =
      zavloRunProcess({*browser, "--headless", "--no-sandbox", "--disable-gpu", "--enable-logging=stderr", "--v=0",
                       "--user-data-dir=" + (folder.path() / "profile").string(), "--window-size=1100,1600",
                       "--screenshot=" + screenshot.string(), "--dump-dom", "file://" + run.html.string()});
  ASSERT_EQ(shown.exitStatus, 0) << shown.standardError;
  for (const auto& line : linesOf(shown.standardError)) {
    EXPECT_EQ(line.find(":CONSOLE"), std::string::npos) << "the page logged: " << line;
  }
  EXPECT_EQ(shown.standardOutput.find("data-script-error=\""), std::string::npos) << shown.standardOutput;
  std::smatch bars;
  ASSERT_TRUE(std::regex_search(shown.standardOutput, bars, std::regex(R"re(data-waterfall-bars="(\d+)")re")))
      << "the page's own script did not run";
  EXPECT_GE(std::stoi(bars[1]), 8) << "at least a connect bar for each of the eight hops";

  const auto png = contentsOf(screenshot);
  ASSERT_GT(png.size(), 10'000U) << screenshot;
  EXPECT_EQ(png.substr(0, 8), std::string("\x89PNG\r\n\x1a\n", 8));
}
