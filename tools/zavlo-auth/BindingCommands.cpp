// zavlo-auth binding state|enroll|sign: device binding against the real key store and the
// owner authentication the global options choose.
#include <chrono>
#include <memory>
#include <string>

#include "Core/ZavloAuthValidationUtils.hpp"
#include "DeviceBinding/ZavloDeviceBindingManager.hpp"
#include "Native/ZavloAuthenticationNativeWrapper.hpp"
#include "ZavloCli.hpp"

using namespace std::chrono_literals;

namespace {

// A prompt waits for a person; the host bounds the whole command itself.
constexpr auto kBindingLimit = 300s;

using Operation = void (ZavloAuthenticationNativeWrapper::*)(const nlohmann::json&,
                                                             ZavloAuthenticationNativeWrapper::Completion);

void runBinding(ZavloCliContext& context, const char* name, Operation operation, const nlohmann::json& config) {
  auto& platform = zavloCliPlatform(context.options);
  context.telemetry();
  auto& wrapper = ZavloAuthenticationNativeWrapper::shared();
  const auto result = zavloCliAwait(platform, kBindingLimit,
                                    [&](auto completion) { (wrapper.*operation)(config, std::move(completion)); });
  if (!result) {
    context.printCompletion({{"status", "FAILURE"}, {"errorMessage", std::string(name) + " did not complete in time"}});
    return;
  }
  context.printCompletion(zavloCliDictionary(*result));
}

// With -v: where new keys go, and where this key lives (a TPM or a token is hardware).
void traceKeyLocation(ZavloCliContext& context, const std::string& keyId) {
  if (!context.options.verbose) return;
  auto& platform = zavloCliPlatform(context.options);
  context.trace("key store: " + platform.keyStoreDescription());
  const auto tag = std::string(ZavloDeviceBindingManager::kKeyTagPrefix) +
                   std::string(ZavloAuthValidationUtils::trimWhitespaceAndNewlines(keyId));
  const auto found = platform.keyStore().findKey(zavloBytes(tag));
  if (!found) {
    context.trace("key: the key store cannot say (" + found.error().description + ")");
  } else if (!found.value()) {
    context.trace("key: none under this id");
  } else {
    context.trace("key: " + found.value()->store + ", " +
                  (found.value()->hardwareBacked ? "in hardware" : "in software, not hardware-backed"));
  }
}

struct BindingOptions {
  std::string keyId;
  std::string enrollConfig = "{}";
  std::string signConfig;
};

}  // namespace

void addBindingCommands(CLI::App& app, ZavloCliContext& context) {
  auto options = std::make_shared<BindingOptions>();
  auto* binding = app.add_subcommand("binding", "Device binding: enrol a key, sign a challenge, query a key's state");
  binding->require_subcommand(1);

  auto* state = binding->add_subcommand("state", "The binding state of a key id");
  state->add_option("KEYID", options->keyId, "The key id")->required();
  state->callback([options, &context] {
    runBinding(context, "getDeviceBindingState", &ZavloAuthenticationNativeWrapper::getDeviceBindingState,
               {{"keyId", options->keyId}});
    traceKeyLocation(context, options->keyId);
  });

  auto* enroll = binding->add_subcommand("enroll", "Create a key after the device owner authenticates");
  enroll->add_option("--config", options->enrollConfig, "The enrolment configuration, a JSON object");
  enroll->callback([options, &context] {
    zavloCliRequireOwnerSecret(context.options);
    runBinding(context, "enrollDeviceBinding", &ZavloAuthenticationNativeWrapper::enrollDeviceBinding,
               zavloCliParseConfig(options->enrollConfig));
  });

  auto* sign = binding->add_subcommand("sign", "Sign a challenge with an enrolled key after the owner authenticates");
  sign->add_option("--config", options->signConfig, "The signing configuration, a JSON object")->required();
  sign->callback([options, &context] {
    zavloCliRequireOwnerSecret(context.options);
    runBinding(context, "signDeviceBindingChallenge", &ZavloAuthenticationNativeWrapper::signDeviceBindingChallenge,
               zavloCliParseConfig(options->signConfig));
  });
}
