#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "Platform/Linux/ZavloLinuxSerialQueue.hpp"

#include "Platform/Linux/ZavloLinuxHttpSession.hpp"
#include "Platform/Linux/ZavloLinuxPathMonitor.hpp"

#include <stdexcept>

ZavloLinuxPlatform::ZavloLinuxPlatform(Options options)
    : deviceInfo_(std::move(options.hostApplicationVersion)),
      classifier_(std::move(options.cellularInterfaces)),
      trustAnchors_(std::move(options.additionalTrustAnchorsPem)),
      connections_(classifier_) {}

std::shared_ptr<ZavloConnection> ZavloLinuxPlatform::makeConnection(const std::string& host, std::uint16_t port,
                                                                    ZavloConnectionParameters parameters) {
  if (parameters.tls) {
    auto& anchors = parameters.tls->additionalTrustAnchorsPem;
    anchors.insert(anchors.end(), trustAnchors_.begin(), trustAnchors_.end());
  }
  return connections_.makeConnection(host, port, std::move(parameters));
}

std::shared_ptr<ZavloQueue> ZavloLinuxPlatform::makeSerialQueue(const std::string& label) {
  return std::make_shared<ZavloLinuxSerialQueue>(label);
}

std::shared_ptr<ZavloPathMonitor> ZavloLinuxPlatform::makePathMonitor() {
  return std::make_shared<ZavloLinuxPathMonitor>(classifier_);
}

std::shared_ptr<ZavloHttpSession> ZavloLinuxPlatform::makeHttpSession(
    const ZavloHttpSessionConfiguration& configuration) {
  return std::make_shared<ZavloLinuxHttpSession>(configuration);
}

// TEMPORARY: replaced when the Linux key store lands
ZavloKeychain& ZavloLinuxPlatform::keychain() { throw std::logic_error("The Linux platform has no keychain yet"); }

// TEMPORARY: replaced when the Linux key store lands
ZavloSecureKeys& ZavloLinuxPlatform::secureKeys() {
  throw std::logic_error("The Linux platform has no secure key store yet");
}

// TEMPORARY: replaced when the Linux key store lands
std::shared_ptr<ZavloOwnerAuthenticationContext> ZavloLinuxPlatform::makeOwnerAuthenticationContext() {
  throw std::logic_error("The Linux platform has no owner authentication yet");
}
