#pragma once

#include "Platform/ZavloDeviceInfo.hpp"

/// Device facts on Linux: the kernel release as the operating-system version, and the
/// host application's version as the host declares it (there is no bundle to read).
class ZavloLinuxDeviceInfo final : public ZavloDeviceInfo {
 public:
  explicit ZavloLinuxDeviceInfo(std::optional<std::string> hostApplicationVersion = std::nullopt);

  [[nodiscard]] std::optional<std::string> hostApplicationVersion() const override { return hostVersion_; }
  [[nodiscard]] std::string operatingSystemVersion() const override { return osVersion_; }

 private:
  std::optional<std::string> hostVersion_;
  std::string osVersion_;
};
