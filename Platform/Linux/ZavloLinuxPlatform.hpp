#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Linux/ZavloLinuxConnection.hpp"
#include "Platform/Linux/ZavloLinuxDeviceInfo.hpp"
#include "Platform/Linux/ZavloLinuxInterfaces.hpp"
#include "Platform/Linux/ZavloLinuxRunLoop.hpp"
#include "Platform/ZavloPlatform.hpp"

/// The Linux platform, made of real parts. The host runs runLoop() on its main thread.
class ZavloLinuxPlatform final : public ZavloPlatform {
 public:
  struct Options {
    std::optional<std::string> hostApplicationVersion = {};
    /// Interfaces to treat as cellular whatever the kernel says (tests, demos, odd modems).
    std::vector<std::string> cellularInterfaces = {};
    /// Trust anchors (PEM) that every TLS connection accepts beside the system trust store:
    /// a private operator CA, or a test's own.
    std::vector<std::string> additionalTrustAnchorsPem = {};
  };

  ZavloLinuxPlatform() : ZavloLinuxPlatform(Options{}) {}
  explicit ZavloLinuxPlatform(Options options);

  ZavloQueue& mainQueue() override { return runLoop_; }
  std::shared_ptr<ZavloQueue> makeSerialQueue(const std::string& label) override;
  const ZavloDeviceInfo& deviceInfo() override { return deviceInfo_; }
  std::shared_ptr<ZavloPathMonitor> makePathMonitor() override;
  std::shared_ptr<ZavloHttpSession> makeHttpSession(const ZavloHttpSessionConfiguration& configuration) override;
  std::shared_ptr<ZavloConnection> makeConnection(const std::string& host, std::uint16_t port,
                                                  ZavloConnectionParameters parameters) override;
  // TEMPORARY: replaced when the Linux key store lands
  ZavloKeychain& keychain() override;
  // TEMPORARY: replaced when the Linux key store lands
  ZavloSecureKeys& secureKeys() override;
  // TEMPORARY: replaced when the Linux key store lands
  std::shared_ptr<ZavloOwnerAuthenticationContext> makeOwnerAuthenticationContext() override;

  /// The main run loop, for the host to run.
  ZavloLinuxRunLoop& runLoop() { return runLoop_; }
  const ZavloLinuxInterfaceClassifier& interfaceClassifier() const { return classifier_; }

 private:
  ZavloLinuxRunLoop runLoop_;
  ZavloLinuxDeviceInfo deviceInfo_;
  ZavloLinuxInterfaceClassifier classifier_;
  std::vector<std::string> trustAnchors_;
  ZavloLinuxConnectionService connections_;  // last: its I/O thread stops first
};
