#pragma once

#include <optional>
#include <string>

/// Host and device facts reported with telemetry.
///
/// Threading contract: immutable after construction; callable from any thread.
class ZavloDeviceInfo {
 public:
  ZavloDeviceInfo() = default;
  ZavloDeviceInfo(const ZavloDeviceInfo&) = delete;
  ZavloDeviceInfo& operator=(const ZavloDeviceInfo&) = delete;
  virtual ~ZavloDeviceInfo() = default;

  /// The host application's own version, when the host declares one.
  [[nodiscard]] virtual std::optional<std::string> hostApplicationVersion() const = 0;
  /// The operating system's version text.
  [[nodiscard]] virtual std::string operatingSystemVersion() const = 0;
};
