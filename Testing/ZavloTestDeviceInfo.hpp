#pragma once

#include <mutex>
#include <optional>
#include <string>

#include "Platform/ZavloDeviceInfo.hpp"

/// Device facts a test sets as it likes.
class ZavloTestDeviceInfo final : public ZavloDeviceInfo {
 public:
  [[nodiscard]] std::optional<std::string> hostApplicationVersion() const override {
    std::lock_guard lock(mutex_);
    return hostVersion_;
  }
  [[nodiscard]] std::string operatingSystemVersion() const override {
    std::lock_guard lock(mutex_);
    return osVersion_;
  }
  void setHostApplicationVersion(std::optional<std::string> version) {
    std::lock_guard lock(mutex_);
    hostVersion_ = std::move(version);
  }
  void setOperatingSystemVersion(std::string version) {
    std::lock_guard lock(mutex_);
    osVersion_ = std::move(version);
  }

 private:
  mutable std::mutex mutex_;
  std::optional<std::string> hostVersion_ = "1.0.0";
  std::string osVersion_ = "17.4.1";
};
