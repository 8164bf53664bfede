#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "Core/ZavloResult.hpp"
#include "Platform/Linux/ZavloLinuxPlatform.hpp"
class ZavloAuthLogManager;

/// Global options of zavlo-auth, parsed before any command runs.
struct ZavloCliOptions {
  std::string environment = "production";
  std::optional<std::string> telemetryEndpoint;
  std::vector<std::string> cellularInterfaces;
  /// Name servers for the cellular links (ZavloLinuxPlatform::Options::cellularDnsServers).
  std::vector<std::string> cellularDnsServers;
  std::optional<std::string> keystore;
  std::optional<std::string> keychain;
  std::string ownerAuth = "pam";
  /// What the owner would type at a prompt, read from this file (unattended hosts, tests).
  std::optional<std::string> ownerSecretFile;
  /// What standard error says before the first owner prompt; absent: what ownerAuth implies.
  /// Set by commands that choose the owner authentication themselves.
  std::optional<std::string> ownerNotice;
  bool verbose = false;
};

/// What a command shares with the host: the options and the exit status it sets.
struct ZavloCliContext {
  ZavloCliOptions options;
  int exitStatus = 0;

  /// Prints one completion as a line of compact JSON and records the exit status it
  /// implies: 0 for a dictionary whose "status" is "SUCCESS", 1 otherwise.
  void printCompletion(const nlohmann::json& dictionary);
  /// One diagnostic line on standard error, shown only with -v.
  void trace(const std::string& line) const;

  /// The log manager a command sends its events through: the process-wide one, configured
  /// from the global options on first use.
  std::shared_ptr<ZavloAuthLogManager> telemetry();
  /// Called once before exit: waits (at most 3 s) for telemetry still in flight.
  void finishTelemetry();

 private:
  std::shared_ptr<ZavloAuthLogManager> logManager_;
};

/// The key file the options name (--keystore or --keychain); absent for the default.
/// Throws CLI::ValidationError when the two name different files, or when --keystore
/// names a PKCS#11 token with a URI that cannot be used.
std::optional<std::string> zavloCliKeychainPath(const ZavloCliOptions& options);
/// The PKCS#11 URI of the token --keystore names (it starts with "pkcs11:"); absent for a file.
std::optional<std::string> zavloCliKeyToken(const ZavloCliOptions& options);
/// The TCTI of the TPM --keystore names ("tpm": "", "tpm:TCTI": TCTI); absent otherwise.
std::optional<std::string> zavloCliTpm(const ZavloCliOptions& options);
/// For commands that may unlock a binding key: --owner-auth allow asks nobody, so without
/// --owner-secret-file it has no secret for a store that needs one; a usage error then
/// (CLI::ValidationError), with the sentence that says why.
void zavloCliRequireOwnerSecret(const ZavloCliOptions& options);

/// The Linux platform built from the global options (cellular interfaces, key store, owner
/// authentication), installed, wrapped in the host's key store trace, as the process-wide
/// platform on the first call; later calls return it.
ZavloLinuxPlatform& zavloCliPlatform(const ZavloCliOptions& options);

/// The dictionary a completion prints: the success dictionary, or the exception's.
nlohmann::json zavloCliDictionary(const ZavloResult<nlohmann::json>& result);

/// Runs one operation of the native wrapper to its completion on the platform's run loop;
/// absent when limit passes first.
std::optional<ZavloResult<nlohmann::json>> zavloCliAwait(
    ZavloLinuxPlatform& platform, std::chrono::seconds limit,
    const std::function<void(std::function<void(ZavloResult<nlohmann::json>)>)>& operation);

/// --config must be a JSON object; anything else is a usage error (CLI::ValidationError).
nlohmann::json zavloCliParseConfig(const std::string& text);

/// Each command registers itself on the app; its callback runs after parsing.
using ZavloCliCommand = std::function<void(CLI::App& app, ZavloCliContext& context)>;

void addCapabilitiesCommand(CLI::App& app, ZavloCliContext& context);
void addInterfacesCommand(CLI::App& app, ZavloCliContext& context);
void addSessionCommands(CLI::App& app, ZavloCliContext& context);
void addBindingCommands(CLI::App& app, ZavloCliContext& context);
void addBridgeCommand(CLI::App& app, ZavloCliContext& context);
void addDemoCommand(CLI::App& app, ZavloCliContext& context);
