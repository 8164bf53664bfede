// The example GTK host, run as a user would on a headless machine: every method through
// its page, a picture of the answers, and an exit status that says whether all answered.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Testing/Network/ZavloProcess.hpp"
#include "ZavloGtkDisplay.hpp"
#include "tools/peers/ZavloHttpTestServer.hpp"
#include "tools/peers/ZavloTemporaryDirectory.hpp"

#if defined(ZAVLO_GTK_HOST_BINARY)

namespace {

// The answer the host printed for one method ("METHOD {json}"); empty when there is none.
nlohmann::json answerOf(const std::string& output, const std::string& method) {
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind(method + " ", 0) != 0) continue;
    auto answer = nlohmann::json::parse(line.substr(method.size() + 1), nullptr, false);
    if (answer.is_object()) return answer;
  }
  return nlohmann::json::object();
}

}  // namespace

TEST(ZavloGtkHostExample, ASnapshotRunAnswersEveryMethodAndSavesAPng) {
  ZAVLO_REQUIRE_GTK();  // the host inherits the display
  ZavloTemporaryDirectory keys;
  const auto picture = std::filesystem::path(ZAVLO_WEBKIT_TEST_OUTPUT) / "zavlo-gtk-host-snapshot.png";
  std::filesystem::remove(picture);
  const auto secret = keys.path() / "owner-secret";
  std::ofstream(secret) << "gtk host owner's secret\n";

  const auto run = zavloRunProcess({ZAVLO_GTK_HOST_BINARY, "--snapshot", picture.string(), "--timeout", "60",
                                    "--owner-auth", "allow", "--owner-secret-file", secret.string(), "--keystore",
                                    (keys.path() / "keychain.db").string(), "--environment", "development"});
  EXPECT_EQ(run.exitStatus, 0) << run.standardOutput << run.standardError;
  EXPECT_NE(run.standardOutput.find("\nevery method answered\n"), std::string::npos) << run.standardOutput;
  EXPECT_EQ(answerOf(run.standardOutput, "startAuth"),
            (nlohmann::json{{"status", "SUCCESS"}, {"httpStatusCode", 200}, {"snaToken", "gtk-host-demo-token"}}));
  const auto enrolled = answerOf(run.standardOutput, "enrollDeviceBinding");
  EXPECT_EQ(enrolled.value("status", ""), "SUCCESS") << enrolled;
  const auto signature = answerOf(run.standardOutput, "signDeviceBindingChallenge");
  EXPECT_EQ(signature.value("status", ""), "SUCCESS") << signature;
  EXPECT_EQ(signature.value("keyId", ""), enrolled.value("keyId", "?"));

  std::ifstream file(picture, std::ios::binary);
  ASSERT_TRUE(file) << picture << " was not written";
  std::string magic(8, '\0');
  file.read(magic.data(), 8);
  EXPECT_EQ(magic, std::string("\x89PNG\r\n\x1a\n", 8));
  EXPECT_GT(std::filesystem::file_size(picture), 1000U);
}

// Any page, the rules given, and what the page got printed a line each.
TEST(ZavloGtkHostExample, PrintsWhatAPageGotAndWhatItWasRefused) {
  ZAVLO_REQUIRE_GTK();
  ZavloHttpTestServer site([](const ZavloHttpTestRequest&) -> std::optional<ZavloHttpTestReply> {
    ZavloHttpTestReply reply;
    reply.headers = {{"Content-Type", "text/html"}};
    reply.body =
        "<!DOCTYPE html><script>function cb() {}\n"
        "window.webkit.messageHandlers.zavlo_authentication_bridge.postMessage("
        "{method: 'getCapabilities', callback: 'cb'});</script>";
    return reply;
  });
  const auto origin = site.url("");
  struct Case {
    std::vector<std::string> rules;
    int exitStatus;
    const char* line;  // the one line expected, by its first key; nullptr: none
    std::string detail;
  };
  const std::vector<Case> cases{
      {{"--allowed-origin", origin}, 0, "answered", origin},
      {{}, 0, "answered", origin},  // the page loaded first is the host's own
      {{"--allowed-origin", "http://127.0.0.1:1"}, 0, "refused", "an origin the rules do not allow"},
      {{"--allowed-origin", "https://a.example/path"}, 2, nullptr, "https://a.example/path"},
  };
  for (const auto& [rules, exitStatus, line, detail] : cases) {
    std::vector<std::string> command{ZAVLO_GTK_HOST_BINARY, "--url", site.url("/"),  "--print-answers",
                                     "--exit-after",        "4",     "--owner-auth", "deny"};
    command.insert(command.end(), rules.begin(), rules.end());
    const auto run = zavloRunProcess(command);
    ASSERT_EQ(run.exitStatus, exitStatus) << run.standardOutput << run.standardError;
    if (line == nullptr) {
      EXPECT_NE(run.standardError.find(detail), std::string::npos) << run.standardError;
      EXPECT_EQ(run.standardOutput, "");
      continue;
    }
    const auto printed = nlohmann::json::parse(run.standardOutput, nullptr, false);
    ASSERT_TRUE(printed.is_object() && printed.contains(line)) << detail << ": " << run.standardOutput;
    const auto& entry = printed[line];
    if (std::string(line) == "answered") {
      EXPECT_EQ(entry["origin"], detail);
      EXPECT_EQ(entry["via"], nlohmann::json({"callback", "promise"}));
      EXPECT_EQ(entry["result"].value("bridgeVersion", 0), 2) << entry;
    } else {
      EXPECT_EQ(entry["origin"], origin);
      EXPECT_EQ(entry["frame"], "main");
      EXPECT_EQ(entry["why"], detail);
    }
  }
}

#endif
