// zavlo-auth: the command-line host. Every completion prints one line of compact JSON on
// standard output; diagnostics go to standard error. Exit status: 0 when the last line is
// a success whose "status" is "SUCCESS", 1 for any other completion, 2 for a usage error.
#include <cstdio>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "Core/ZavloAuthEnvironment.hpp"
#include "Core/ZavloAuthResponseUtils.hpp"

namespace {

constexpr int kExitUsage = 2;

struct GlobalOptions {
  std::string environment = "production";
  std::optional<std::string> telemetryEndpoint;
  std::vector<std::string> cellularInterfaces;
  std::optional<std::string> keystore;
  std::string ownerAuth = "pam";
  bool verbose = false;
};

// Prints one completion and returns the exit status it implies.
int printCompletion(const nlohmann::json& dictionary) {
  std::cout << dictionary.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << '\n' << std::flush;
  const auto status = dictionary.find("status");
  return (status != dictionary.end() && *status == "SUCCESS") ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"zavlo-auth: silent network authentication, device binding and the web bridge"};
  app.require_subcommand(1);
  GlobalOptions options;
  app.add_option("--environment", options.environment, "Tracking environment")
      ->check(CLI::IsMember({"development", "production"}));
  app.add_option("--telemetry-endpoint", options.telemetryEndpoint, "Send telemetry events to this URL");
  app.add_option("--cellular-interface", options.cellularInterfaces, "Treat this interface as cellular (repeatable)")
      ->allow_extra_args(false);
  app.add_option("--keystore", options.keystore, "Key store file");
  app.add_option("--owner-auth", options.ownerAuth, "How the device owner is authenticated")
      ->check(CLI::IsMember({"pam", "allow", "deny"}));
  app.add_flag("-v,--verbose", options.verbose, "Trace hops and telemetry events on standard error");

  int status = 0;
  auto* capabilities = app.add_subcommand("capabilities", "Print the capabilities dictionary");
  capabilities->callback([&] { status = printCompletion(ZavloAuthResponseUtils::capabilitiesDictionary()); });

  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& success) {
    return app.exit(success);
  } catch (const CLI::ParseError& error) {
    app.exit(error);
    return kExitUsage;
  }
  return status;
}
