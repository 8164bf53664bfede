#include "ZavloCliTelemetry.hpp"

#include <iostream>
#include <mutex>

#include "ZavloCli.hpp"

namespace {

ZavloAuthEnvironment environmentNamed(const std::string& name) {
  return name == "development" ? ZavloAuthEnvironment::development : ZavloAuthEnvironment::production;
}

// Trace lines come from whichever thread sends; one lock keeps them whole.
std::mutex& traceMutex() {
  static std::mutex mutex;
  return mutex;
}

}  // namespace

void zavloConfigureCliTelemetry(ZavloAuthLogManager& logManager, const ZavloCliOptions& options) {
  const auto environment = environmentNamed(options.environment);
  if (options.verbose) {
    logManager.setObserver([](const ZavloAuthEventLog& event, const std::string& endpoint) {
      std::lock_guard lock(traceMutex());
      std::cerr << "telemetry: " << event.eventName.value_or("(unnamed)") << ' ' << event.txnid() << " -> " << endpoint
                << '\n'
                << std::flush;
    });
  }
  if (options.telemetryEndpoint) {
    logManager.configure(environment, *options.telemetryEndpoint);
  } else if (!logManager.configureWithTrackingEndpoint(environment) && options.verbose) {
    std::cerr << "telemetry: the tracking endpoint was refused; events are dropped\n" << std::flush;
  }
}

bool zavloFinishCliTelemetry(ZavloAuthLogManager& logManager, const ZavloCliOptions& options,
                             std::chrono::milliseconds bound) {
  const bool delivered = logManager.waitForPendingEvents(bound);
  if (!delivered && options.verbose) {
    std::lock_guard lock(traceMutex());
    std::cerr << "telemetry: posts still in flight after " << bound.count() << " ms are abandoned\n" << std::flush;
  }
  logManager.cleanup();
  return delivered;
}
