// zavlo-auth: the command-line host. Every completion prints one line of compact JSON on
// standard output; diagnostics go to standard error. Exit status: 0 when the last line is
// a success whose "status" is "SUCCESS", 1 for any other completion, 2 for a usage error.
#include "ZavloCli.hpp"

namespace {

constexpr int kExitUsage = 2;

void addGlobalOptions(CLI::App& app, ZavloCliOptions& options) {
  app.add_option("--environment", options.environment, "Tracking environment")
      ->check(CLI::IsMember({"development", "production"}));
  app.add_option("--telemetry-endpoint", options.telemetryEndpoint, "Send telemetry events to this URL");
  app.add_option("--cellular-interface", options.cellularInterfaces, "Treat this interface as cellular (repeatable)")
      ->allow_extra_args(false);
  app.add_option("--cellular-dns", options.cellularDnsServers,
                 "A name server of the cellular link (ADDR, ADDR:PORT or [IPV6]:PORT; repeatable): host names "
                 "of silent authentication are resolved over that link with these servers instead of those "
                 "systemd-resolved, NetworkManager or ModemManager report for it")
      ->allow_extra_args(false)
      ->check(CLI::Validator(
          [](const std::string& text) {
            return zavloParseNameServer(text) ? std::string() : "not a name server address: " + text;
          },
          "ADDR"));
  app.add_option("--keystore", options.keystore,
                 "Key store: a key file (default: zavlo-auth/keychain.db in the user's data directory; new keys "
                 "are made by the TPM where /dev/tpmrm0 answers, else sealed under the owner's secret), tpm or "
                 "tpm:TCTI (a TPM 2.0 makes the keys; TCTI as tpm2-tss spells it), or a PKCS#11 token URI "
                 "(pkcs11:token=...) that makes and keeps the keys");
  app.add_option("--keychain", options.keychain,
                 "Key file; with a key file store the same file, with a TPM or a token where it keeps the rest");
  app.add_option("--owner-auth", options.ownerAuth, "How the device owner is authenticated: pam, allow or deny")
      ->check(CLI::IsMember({"pam", "allow", "deny"}));
  app.add_option("--owner-secret-file", options.ownerSecretFile,
                 "What the owner would type at a prompt (a password, a token PIN), read from this file: PAM "
                 "checks it under pam, only the key store under allow")
      ->check(CLI::ExistingFile);
  app.add_flag("-v,--verbose", options.verbose, "Trace hops and telemetry events on standard error");
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"zavlo-auth: silent network authentication, device binding and the web bridge"};
  app.require_subcommand(1);
  ZavloCliContext context;
  addGlobalOptions(app, context.options);

  const ZavloCliCommand commands[] = {
      addCapabilitiesCommand, addInterfacesCommand, addSessionCommands,
      addBindingCommands,     addBridgeCommand,     addDemoCommand,
  };
  for (const auto& add : commands) add(app, context);
  // Runs before any command: conflicting key store options are a usage error.
  app.parse_complete_callback([&context] { (void)zavloCliKeychainPath(context.options); });

  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& success) {
    return app.exit(success);
  } catch (const CLI::ParseError& error) {
    app.exit(error);
    return kExitUsage;
  } catch (const std::exception& error) {
    // The platform itself could not start (no descriptor left for its event loop, say):
    // no operation ran, and the host answers for it in the form of a completion.
    context.printCompletion(
        {{"status", "FAILURE"}, {"errorMessage", std::string("zavlo-auth could not start: ") + error.what()}});
    return 1;
  }
  context.finishTelemetry();
  return context.exitStatus;
}
