#pragma once

#include <memory>
#include <string>

#include "Platform/ZavloPlatform.hpp"

/// A platform that forwards every service to another one, so that a platform which
/// changes one service (injects a fault, traces calls, declares another path) overrides
/// just that method. The wrapped platform must outlive the wrapper.
///
/// Threading contract: that of the wrapped platform.
class ZavloPlatformWrapper : public ZavloPlatform {
 public:
  explicit ZavloPlatformWrapper(ZavloPlatform& wrapped) : wrapped_(wrapped) {}

  ZavloQueue& mainQueue() override { return wrapped_.mainQueue(); }
  std::shared_ptr<ZavloQueue> makeSerialQueue(const std::string& label) override {
    return wrapped_.makeSerialQueue(label);
  }
  const ZavloDeviceInfo& deviceInfo() override { return wrapped_.deviceInfo(); }
  std::shared_ptr<ZavloPathMonitor> makePathMonitor() override { return wrapped_.makePathMonitor(); }
  std::shared_ptr<ZavloHttpSession> makeHttpSession(const ZavloHttpSessionConfiguration& configuration) override {
    return wrapped_.makeHttpSession(configuration);
  }
  std::shared_ptr<ZavloConnection> makeConnection(const std::string& host, std::uint16_t port,
                                                  ZavloConnectionParameters parameters) override {
    return wrapped_.makeConnection(host, port, std::move(parameters));
  }
  ZavloKeyStore& keyStore() override { return wrapped_.keyStore(); }
  std::shared_ptr<ZavloOwnerAuthenticationContext> makeOwnerAuthenticationContext() override {
    return wrapped_.makeOwnerAuthenticationContext();
  }
  void fillRandom(std::span<std::uint8_t> bytes) override { wrapped_.fillRandom(bytes); }

  [[nodiscard]] ZavloPlatform& wrapped() const noexcept { return wrapped_; }

 private:
  ZavloPlatform& wrapped_;
};
