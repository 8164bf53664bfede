#include "ZavloCli.hpp"

#include <iostream>
#include <memory>
#include <mutex>
#include <utility>

#include "Core/ZavloAuthResponseUtils.hpp"
#include "Platform/Linux/Keys/ZavloLinuxPkcs11Token.hpp"
#include "ZavloCliKeyStoreTrace.hpp"
#include "ZavloCliTelemetry.hpp"

void ZavloCliContext::printCompletion(const nlohmann::json& dictionary) {
  // Replacement keeps a line printable even if a server sent bytes that are not UTF-8.
  std::cout << dictionary.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << '\n' << std::flush;
  const auto status = dictionary.find("status");
  exitStatus = (status != dictionary.end() && *status == "SUCCESS") ? 0 : 1;
}

void ZavloCliContext::trace(const std::string& line) const {
  if (options.verbose) std::cerr << line << '\n' << std::flush;
}

namespace {

// The key store says why a file cannot be used; one line per distinct reason is enough.
void keyStoreFailure(const std::string& description) {
  static std::mutex mutex;
  static std::string last;
  const std::lock_guard lock(mutex);
  if (description == last) return;
  last = description;
  std::cerr << "zavlo-auth: key store: " << description << '\n' << std::flush;
}

ZavloLinuxOwnerAuthentication::Mode ownerMode(const std::string& name) {
  if (name == "allow") return ZavloLinuxOwnerAuthentication::Mode::allow;
  if (name == "deny") return ZavloLinuxOwnerAuthentication::Mode::deny;
  return ZavloLinuxOwnerAuthentication::Mode::pam;
}

std::string ownerNotice(const ZavloCliOptions& options) {
  if (options.ownerAuth == "allow") {
    return std::string("zavlo-auth: --owner-auth allow: every owner prompt succeeds without asking anyone") +
           (options.ownerSecretFile ? "; the key store checks the secret in " + *options.ownerSecretFile : "");
  }
  if (options.ownerAuth == "deny")
    return "zavlo-auth: --owner-auth deny: every owner prompt fails without asking anyone";
  return {};
}

}  // namespace

std::optional<std::string> zavloCliKeyToken(const ZavloCliOptions& options) {
  if (options.keystore && options.keystore->starts_with("pkcs11:")) return options.keystore;
  return std::nullopt;
}

std::optional<std::string> zavloCliTpm(const ZavloCliOptions& options) {
  if (!options.keystore) return std::nullopt;
  if (*options.keystore == "tpm") return std::string();
  if (options.keystore->starts_with("tpm:")) return options.keystore->substr(4);
  return std::nullopt;
}

void zavloCliRequireOwnerSecret(const ZavloCliOptions& options) {
  if (options.ownerAuth != "allow" || options.ownerSecretFile) return;
  // The platform knows which secret its key store needs: none for a token whose URI
  // carries its PIN.
  const auto* owner = zavloCliPlatform(options).ownerAuthentication();
  if (owner != nullptr && owner->secret() == ZavloLinuxOwnerAuthentication::Secret::none) return;
  throw CLI::ValidationError("--owner-auth",
                             "allow answers every prompt without asking anyone, so it has no secret to unlock a "
                             "binding key with, and every key store here derives a key's protection from the "
                             "owner's secret: give --owner-secret-file PATH (what the owner would type), or use "
                             "--owner-auth pam");
}

std::optional<std::string> zavloCliKeychainPath(const ZavloCliOptions& options) {
  if (const auto token = zavloCliKeyToken(options)) {
    // Keys stay in the token; the domain-state records go to the key file.
    if (const auto problem = ZavloLinuxPkcs11Token::uriProblem(*token)) {
      throw CLI::ValidationError("--keystore", "the PKCS#11 URI cannot be used: " + *problem);
    }
    return options.keychain;
  }
  // The TPM makes the keys; the key file keeps what it wraps.
  if (zavloCliTpm(options)) return options.keychain;
  if (options.keystore && options.keychain && *options.keystore != *options.keychain) {
    throw CLI::ValidationError("--keychain",
                               "keys are kept in the key file, so --keystore and --keychain must name the same "
                               "file when both are given");
  }
  if (options.keystore) return options.keystore;
  return options.keychain;
}

ZavloLinuxPlatform& zavloCliPlatform(const ZavloCliOptions& options) {
  // Never destroyed: queues and shared objects may still refer to it while the process exits.
  static auto* const platform = [&options] {
    ZavloLinuxPlatform::Options platformOptions;
    platformOptions.cellularInterfaces = options.cellularInterfaces;
    platformOptions.cellularDnsServers = options.cellularDnsServers;
    platformOptions.keyFilePath = zavloCliKeychainPath(options);
    platformOptions.keyToken = zavloCliKeyToken(options);
    platformOptions.tpm = zavloCliTpm(options);
    platformOptions.keyFile.trace = keyStoreFailure;
    platformOptions.ownerAuthentication.mode = ownerMode(options.ownerAuth);
    platformOptions.ownerAuthentication.secretFile = options.ownerSecretFile;
    auto made = std::make_shared<ZavloLinuxPlatform>(std::move(platformOptions));
    ZavloCliTracingPlatform::Trace trace;
    if (options.verbose) trace = [](const std::string& line) { std::cerr << line << '\n' << std::flush; };
    auto traced = std::make_shared<ZavloCliTracingPlatform>(*made, std::move(trace),
                                                            options.ownerNotice.value_or(ownerNotice(options)));
    if (!ZavloPlatform::install(traced)) {
      std::cerr << "zavlo-auth: the process-wide platform was in use before the options were applied\n";
    }
    return new std::pair(std::move(made), std::move(traced));
  }();
  return *platform->first;
}

std::shared_ptr<ZavloAuthLogManager> ZavloCliContext::telemetry() {
  if (!logManager_) {
    zavloCliPlatform(options);  // the shared managers are built on the platform the options ask for
    logManager_ = ZavloAuthLogManager::shared();
    zavloConfigureCliTelemetry(*logManager_, options);
  }
  return logManager_;
}

void ZavloCliContext::finishTelemetry() {
  if (logManager_) zavloFinishCliTelemetry(*logManager_, options);
}

nlohmann::json zavloCliDictionary(const ZavloResult<nlohmann::json>& result) {
  if (result) return result.value();
  return ZavloAuthResponseUtils::jsonObject(result.error()).value_or(nlohmann::json::object());
}

std::optional<ZavloResult<nlohmann::json>> zavloCliAwait(
    ZavloLinuxPlatform& platform, std::chrono::seconds limit,
    const std::function<void(std::function<void(ZavloResult<nlohmann::json>)>)>& operation) {
  // Shared with the completion, which may still arrive after the limit.
  auto outcome = std::make_shared<std::optional<ZavloResult<nlohmann::json>>>();
  operation([outcome](ZavloResult<nlohmann::json> result) { *outcome = std::move(result); });
  platform.runLoop().runUntil([&outcome] { return outcome->has_value(); }, limit);
  return *outcome;
}

nlohmann::json zavloCliParseConfig(const std::string& text) {
  auto parsed = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (!parsed.is_object()) throw CLI::ValidationError("--config", "must be a JSON object: " + text);
  return parsed;
}
