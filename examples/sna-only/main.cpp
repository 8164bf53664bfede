// A host that only runs silent authentication: it installs a Linux platform, then runs
// setup, initAuth and startAuth against the URL it is given, then tries to enrol a binding
// key, printing each completion.
//   zavlo-sna-only URL [--cellular INTERFACE]... [--telemetry-endpoint URL]
// Exits 0 when initAuth succeeded and the rest completed (either way), 1 otherwise, 2 on a
// usage error. It links no key store and no owner authentication, and says so.
#include <chrono>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Core/ZavloAuthEnvironment.hpp"
#include "Core/ZavloAuthResponseUtils.hpp"
#include "Native/ZavloAuthenticationNativeWrapper.hpp"
#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "Telemetry/ZavloAuthLogManager.hpp"

namespace {

using Outcome = std::optional<ZavloResult<nlohmann::json>>;

// Runs one operation of the wrapper on the platform's run loop until it completes.
template <class Operation>
Outcome await(ZavloLinuxPlatform& platform, Operation operation) {
  auto outcome = std::make_shared<Outcome>();  // the completion may come after the limit
  operation([outcome](ZavloResult<nlohmann::json> result) { *outcome = std::move(result); });
  platform.runLoop().runUntil([&outcome] { return outcome->has_value(); }, std::chrono::seconds(60));
  return *outcome;
}

bool print(const char* name, const Outcome& outcome) {
  if (!outcome) {
    std::cout << name << ": did not complete\n";
    return false;
  }
  const auto dictionary = *outcome
                              ? outcome->value()
                              : ZavloAuthResponseUtils::jsonObject(outcome->error()).value_or(nlohmann::json::object());
  std::cout << name << ": " << dictionary.dump() << '\n';
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> arguments(argv + 1, argv + argc);
  std::optional<std::string> url;
  std::optional<std::string> telemetryEndpoint;
  ZavloLinuxPlatform::Options options;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const bool hasValue = i + 1 < arguments.size();
    if (arguments[i] == "--cellular" && hasValue) {
      options.cellularInterfaces.push_back(arguments[++i]);
    } else if (arguments[i] == "--telemetry-endpoint" && hasValue) {
      telemetryEndpoint = arguments[++i];
    } else if (!url && !arguments[i].starts_with("--")) {
      url = arguments[i];
    } else {
      url.reset();
      break;
    }
  }
  if (!url) {
    std::cerr << "usage: zavlo-sna-only URL [--cellular INTERFACE]... [--telemetry-endpoint URL]\n";
    return 2;
  }

  auto platform = std::make_shared<ZavloLinuxPlatform>(std::move(options));
  ZavloPlatform::install(platform);
  // What this host goes without: it links neither a key store nor owner authentication.
  const auto probe = platform->keyStore().findKey({});
  const bool keyStore = probe || probe.error().failure != ZavloKeyStoreFailure::unavailable;
  const bool owner = platform->makeOwnerAuthenticationContext()->canEvaluatePolicy(
      ZavloOwnerAuthenticationPolicy::deviceOwnerAuthentication);
  std::cout << "key store: " << (keyStore ? "available" : "not available") << '\n'
            << "owner authentication: " << (owner ? "available" : "not available") << '\n';

  auto& wrapper = ZavloAuthenticationNativeWrapper::shared();
  static const auto screen = std::make_shared<int>(0);  // no screen: this stands for one
  wrapper.setup(screen, ZavloAuthEnvironment::production);
  if (telemetryEndpoint) ZavloAuthLogManager::shared()->configure(ZavloAuthEnvironment::production, *telemetryEndpoint);

  const auto init = await(*platform, [&](auto completion) { wrapper.initAuth(nlohmann::json::object(), completion); });
  if (!print("initAuth", init)) return 1;
  if (!*init) return 1;  // no session (no cellular path, say): nothing to authenticate
  const auto sna = await(*platform, [&](auto completion) { wrapper.startAuth(*url, completion); });
  if (!print("startAuth", sna)) return 1;
  // Without a key store or an owner to ask, binding must refuse rather than make a key.
  const auto enrol = await(*platform, [&](auto completion) {
    wrapper.enrollDeviceBinding({{"keyId", "sna-only"}, {"challenge", "nonce"}}, completion);
  });
  return print("enrollDeviceBinding", enrol) ? 0 : 1;
}
