#pragma once

#include <chrono>

#include "Telemetry/ZavloAuthLogManager.hpp"

struct ZavloCliOptions;

/// How long the host waits at exit for telemetry posts still in flight.
inline constexpr std::chrono::milliseconds kZavloCliTelemetryDrainBound{3000};

/// Points a log manager at the command line's telemetry destination: --telemetry-endpoint
/// as given (no endpoint check: integrators' own collectors, tests), otherwise the
/// environment's tracking endpoint when it passes the check. With -v every event sent is
/// traced as one line on standard error.
void zavloConfigureCliTelemetry(ZavloAuthLogManager& logManager, const ZavloCliOptions& options);

/// Before exit: waits at most bound for posts in flight, then shuts telemetry down (what
/// is still in flight is abandoned). True when nothing had to be abandoned.
bool zavloFinishCliTelemetry(ZavloAuthLogManager& logManager, const ZavloCliOptions& options,
                             std::chrono::milliseconds bound = kZavloCliTelemetryDrainBound);
