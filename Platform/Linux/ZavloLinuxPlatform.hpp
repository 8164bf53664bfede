#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Platform/Linux/ZavloLinuxDeviceInfo.hpp"
#include "Platform/Linux/ZavloLinuxRunLoop.hpp"
#include "Platform/ZavloPlatform.hpp"

/// The Linux platform, made of real parts. The host runs runLoop() on its main thread.
class ZavloLinuxPlatform final : public ZavloPlatform {
 public:
  struct Options {
    std::optional<std::string> hostApplicationVersion;
  };

  ZavloLinuxPlatform() : ZavloLinuxPlatform(Options{}) {}
  explicit ZavloLinuxPlatform(Options options);

  ZavloQueue& mainQueue() override { return runLoop_; }
  std::shared_ptr<ZavloQueue> makeSerialQueue(const std::string& label) override;
  const ZavloDeviceInfo& deviceInfo() override { return deviceInfo_; }

  /// The main run loop, for the host to run.
  ZavloLinuxRunLoop& runLoop() { return runLoop_; }

 private:
  ZavloLinuxRunLoop runLoop_;
  ZavloLinuxDeviceInfo deviceInfo_;
};
