#include "ZavloCli.hpp"

#include <iostream>
#include <memory>

#include "Core/ZavloAuthResponseUtils.hpp"
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

ZavloLinuxPlatform& zavloCliPlatform(const ZavloCliOptions& options) {
  // Never destroyed: queues and shared objects may still refer to it while the process exits.
  static auto* const platform = [&options] {
    ZavloLinuxPlatform::Options platformOptions;
    platformOptions.cellularInterfaces = options.cellularInterfaces;
    auto made = std::make_shared<ZavloLinuxPlatform>(std::move(platformOptions));
    if (!ZavloPlatform::install(made)) {
      std::cerr << "zavlo-auth: the process-wide platform was in use before the options were applied\n";
    }
    return new std::shared_ptr<ZavloLinuxPlatform>(std::move(made));
  }();
  return **platform;
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
