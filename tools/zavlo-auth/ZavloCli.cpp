#include "ZavloCli.hpp"

#include <iostream>

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

std::shared_ptr<ZavloAuthLogManager> ZavloCliContext::telemetry() {
  if (!logManager_) {
    logManager_ = ZavloAuthLogManager::shared();
    zavloConfigureCliTelemetry(*logManager_, options);
  }
  return logManager_;
}

void ZavloCliContext::finishTelemetry() {
  if (logManager_) zavloFinishCliTelemetry(*logManager_, options);
}
