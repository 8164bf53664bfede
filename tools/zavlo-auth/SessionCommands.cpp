// zavlo-auth init and sna: the native entry points against the real platform, so that an
// integrator can start a session and run a silent authentication from a shell.
#include <chrono>
#include <memory>
#include <optional>
#include <sstream>

#include "Core/ZavloAuthEnvironment.hpp"
#include "Core/ZavloAuthResponseUtils.hpp"
#include "Graph/ZavloAuthenticationGraph.hpp"
#include "Native/ZavloAuthenticationNativeWrapper.hpp"
#include "ZavloCli.hpp"

using namespace std::chrono_literals;

namespace {

// The preflight ends a session start within seconds; a chain has a time-out per hop but
// no limit on hops, so the host bounds the whole command itself.
constexpr auto kInitLimit = 30s;
constexpr auto kChainLimit = 300s;

struct SessionOptions {
  std::string config = "{}";
  std::string url;
};

std::string hopLine(const ZavloCellularSnaClient::HopTrace& hop) {
  std::ostringstream line;
  line << "hop: " << hop.url << " connect ";
  if (hop.connectTime) {
    line << static_cast<double>(hop.connectTime->count()) / 1000.0 << " ms";
  } else {
    line << "-";
  }
  line << " status " << hop.status;
  if (hop.redirect) line << " -> " << *hop.redirect;
  if (hop.failure) line << " failed: " << *hop.failure;
  return line.str();
}

// Starts a session; prints its completion and answers whether it succeeded.
bool runInit(ZavloCliContext& context, const nlohmann::json& config) {
  auto& platform = zavloCliPlatform(context.options);
  auto& wrapper = ZavloAuthenticationNativeWrapper::shared();
  // The command line has no screen; this stands for one for as long as the process runs.
  static const auto screen = std::make_shared<int>(0);
  const auto environment = context.options.environment == "development" ? ZavloAuthEnvironment::development
                                                                        : ZavloAuthEnvironment::production;
  wrapper.setup(screen, environment);
  context.telemetry();  // after setup, so that --telemetry-endpoint has the last word

  const auto result =
      zavloCliAwait(platform, kInitLimit, [&](auto completion) { wrapper.initAuth(config, std::move(completion)); });
  if (!result) {
    context.printCompletion({{"status", "FAILURE"}, {"errorMessage", "initAuth did not complete in time"}});
    return false;
  }
  context.printCompletion(zavloCliDictionary(*result));
  return result->hasValue();
}

void runSna(ZavloCliContext& context, const nlohmann::json& config, const std::string& url) {
  if (!runInit(context, config)) return;
  auto& platform = zavloCliPlatform(context.options);
  if (context.options.verbose) {
    ZavloAuthenticationGraph::shared().operations->setHopObserver(
        [&context](const auto& hop) { context.trace(hopLine(hop)); });
  }
  const auto result = zavloCliAwait(platform, kChainLimit, [&](auto completion) {
    ZavloAuthenticationNativeWrapper::shared().startAuth(url, std::move(completion));
  });
  if (!result) {
    context.printCompletion({{"status", "FAILURE"}, {"errorMessage", "startAuth did not complete in time"}});
    return;
  }
  context.printCompletion(zavloCliDictionary(*result));
}

}  // namespace

void addSessionCommands(CLI::App& app, ZavloCliContext& context) {
  auto options = std::make_shared<SessionOptions>();

  auto* init = app.add_subcommand("init", "Start a session: setup, then initAuth with the configuration");
  init->add_option("--config", options->config, "The initAuth configuration, a JSON object");
  init->callback([options, &context] { runInit(context, zavloCliParseConfig(options->config)); });

  auto* sna = app.add_subcommand("sna", "Start a session, then run a silent authentication against URL");
  sna->add_option("URL", options->url, "The operator's silent authentication URL")->required();
  sna->add_option("--config", options->config, "The initAuth configuration, a JSON object");
  sna->callback([options, &context] { runSna(context, zavloCliParseConfig(options->config), options->url); });
}
