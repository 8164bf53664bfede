// zavlo-auth interfaces: what the path monitor sees, what the cellular preflight decides
// and what ModemManager says of each modem, so that an integrator sees at once whether the
// modem is recognised.
#include <memory>
#include <optional>
#include <string>

#include "Cellular/ZavloCellularPathChecker.hpp"
#include "Platform/Linux/Network/ZavloLinuxPathMonitor.hpp"
#include "ZavloCli.hpp"

using namespace std::chrono_literals;

namespace {

// Far beyond the check's own time-out, which always ends it first.
constexpr auto kWaitLimit = 10s;

nlohmann::json interfaceDictionary(const ZavloLinuxInterface& interface) {
  return {{"name", interface.name},
          {"index", interface.index},
          {"type", toString(interface.type)},
          {"up", interface.up},
          {"usableIPv4", interface.hasUsableIPv4},
          {"usableIPv6", interface.hasUsableIPv6},
          {"defaultRoute", interface.hasDefaultRoute}};
}

nlohmann::json modemDictionary(const ZavloLinuxModem& modem) {
  auto bearers = nlohmann::json::array();
  for (const auto& bearer : modem.bearers) {
    bearers.push_back({{"path", bearer.path},
                       {"interface", bearer.interfaceName},
                       {"connected", bearer.connected},
                       {"dnsServers", bearer.dnsServers}});
  }
  return {{"path", modem.path},
          {"operatorCode", modem.operatorCode},
          {"operatorName", modem.operatorName},
          {"registrationState", modem.registrationState},
          {"signalQuality", modem.signalQuality},
          {"signalRecent", modem.signalRecent},
          {"accessTechnologies", modem.accessTechnologies},
          {"sim", modem.simPath},
          {"simSlot", modem.simSlot ? nlohmann::json(*modem.simSlot) : nlohmann::json()},
          {"bearers", std::move(bearers)}};
}

nlohmann::json pathDictionary(const ZavloNetworkPath& path) {
  auto available = nlohmann::json::array();
  for (const auto& interface : path.availableInterfaces) {
    available.push_back({{"name", interface.name}, {"type", toString(interface.type)}});
  }
  return {{"status", toString(path.status)}, {"availableInterfaces", std::move(available)}};
}

// Written on the main queue only; shared so that a late callback never outlives it.
struct Outcome {
  std::optional<ZavloNetworkPath> firstPath;
  std::optional<ZavloCellularPathChecker::Verdict> verdict;
};

void runInterfaces(ZavloCliContext& context) {
  auto& platform = zavloCliPlatform(context.options);
  auto outcome = std::make_shared<Outcome>();

  ZavloLinuxPathMonitor monitor(platform.interfaceClassifier());
  monitor.setPathUpdateHandler([outcome, &context](const ZavloNetworkPath& path) {
    context.trace("path: " + pathDictionary(path).dump());
    if (!outcome->firstPath) outcome->firstPath = path;
  });
  // The main queue belongs to the platform; the monitor only needs to reach it.
  monitor.start(std::shared_ptr<ZavloQueue>(std::shared_ptr<void>(), &platform.mainQueue()));

  ZavloCellularPathChecker checker(platform);
  checker.requireDefaultPathIsCellular(
      [outcome](ZavloCellularPathChecker::Verdict verdict) { outcome->verdict = std::move(verdict); });
  platform.runLoop().runUntil([&outcome] { return outcome->verdict && outcome->firstPath; }, kWaitLimit);
  monitor.cancel();

  nlohmann::json dictionary;
  if (outcome->verdict && outcome->verdict->hasValue()) {
    dictionary = {{"status", "SUCCESS"}};
  } else {
    const auto error =
        outcome->verdict ? outcome->verdict->error() : ZavloCellularPathChecker::PreflightError::noCellularNetwork;
    dictionary = ZavloCellularPathChecker::authException(error);
  }
  auto interfaces = nlohmann::json::array();
  for (const auto& interface : monitor.interfaces()) interfaces.push_back(interfaceDictionary(interface));
  dictionary["interfaces"] = std::move(interfaces);
  dictionary["path"] = pathDictionary(outcome->firstPath.value_or(ZavloNetworkPath{}));
  // The path monitor has waited for ModemManager's first reading.
  auto modems = nlohmann::json::array();
  if (const auto& source = platform.modems()) {
    const auto reading = source->reading();
    if (!reading.reached) context.trace("modems: ModemManager not reached: " + reading.detail);
    for (const auto& modem : reading.modems) modems.push_back(modemDictionary(modem));
  }
  dictionary["modems"] = std::move(modems);
  context.printCompletion(dictionary);
}

}  // namespace

void addInterfacesCommand(CLI::App& app, ZavloCliContext& context) {
  app.add_subcommand(
         "interfaces",
         "List the interfaces the path monitor sees, their types, the cellular preflight and ModemManager's modems")
      ->callback([&context] { runInterfaces(context); });
}
