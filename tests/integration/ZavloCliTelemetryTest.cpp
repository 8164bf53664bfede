// The command line's telemetry: the wiring every command shares, and the host as a black box.
#ifdef ZAVLO_AUTH_BINARY
#include <gtest/gtest.h>

#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "tools/peers/ZavloHttpTestServer.hpp"
#include "Telemetry/ZavloAuthEnvironmentSecurity.hpp"
#include "Testing/Network/ZavloProcess.hpp"
#include "ZavloCli.hpp"
#include "ZavloCliTelemetry.hpp"

using namespace std::chrono_literals;

namespace {

class ZavloCliTelemetry : public ::testing::Test {
 protected:
  ZavloLinuxPlatform platform;
  std::shared_ptr<ZavloAuthLogManager> logManager =
      std::make_shared<ZavloAuthLogManager>(ZavloAuthHTTPManager::create(platform));
  ZavloCliOptions options;
};

std::shared_ptr<ZavloAuthEventLog> namedEvent(const std::string& name) {
  auto event = std::make_shared<ZavloAuthEventLog>();
  event->eventName = name;
  return event;
}

TEST_F(ZavloCliTelemetry, SendsToTheGivenEndpointTracesEachEventAndDrainsBeforeExit) {
  ZavloHttpTestServer collector;
  options.environment = "development";
  options.telemetryEndpoint = collector.url("/x");
  options.verbose = true;
  zavloConfigureCliTelemetry(*logManager, options);

  testing::internal::CaptureStderr();
  for (const auto* name : {"ONE", "TWO", "THREE"}) logManager->sendEventLog(namedEvent(name));
  EXPECT_TRUE(zavloFinishCliTelemetry(*logManager, options));
  const auto trace = testing::internal::GetCapturedStderr();

  ASSERT_EQ(collector.requestCount(), 3U) << "every event arrived before the host would exit";
  for (const auto& request : collector.requests()) {
    EXPECT_EQ(request.target, "/x");
    EXPECT_EQ(request.header("X-Environment"), "DEVELOPMENT");
  }
  EXPECT_EQ(std::count(trace.begin(), trace.end(), '\n'), 3) << trace;
  EXPECT_NE(trace.find("telemetry: TWO "), std::string::npos) << trace;
  EXPECT_FALSE(logManager->getLoggingEndpoint()) << "telemetry is shut down after the drain";
}

TEST_F(ZavloCliTelemetry, WithoutAnEndpointUsesTheEnvironmentsTrackingEndpoint) {
  options.environment = "development";
  zavloConfigureCliTelemetry(*logManager, options);  // nothing is sent: no event is given
  EXPECT_EQ(logManager->getLoggingEndpoint(),
            ZavloAuthEnvironmentSecurity::trackingEndpoint(ZavloAuthEnvironment::development));
  EXPECT_EQ(logManager->currentEnvironment(), ZavloAuthEnvironment::development);
}

TEST(ZavloCliHost, RunsACommandWithATelemetryEndpointAndExitsPromptly) {
  ZavloHttpTestServer silent(ZavloHttpTestServer::neverAnswer());
  const auto started = std::chrono::steady_clock::now();
  const auto run = zavloRunProcess({ZAVLO_AUTH_BINARY, "--environment", "development", "--telemetry-endpoint",
                                    silent.url("/x"), "-v", "capabilities"});
  EXPECT_LT(std::chrono::steady_clock::now() - started, 3s) << "nothing was in flight, so nothing to wait for";
  EXPECT_EQ(run.exitStatus, 0) << run.standardError;
  EXPECT_EQ(nlohmann::json::parse(run.standardOutput).at("status"), "SUCCESS");
  EXPECT_EQ(silent.requestCount(), 0U) << "capabilities sends no event";
}

}  // namespace
#endif
