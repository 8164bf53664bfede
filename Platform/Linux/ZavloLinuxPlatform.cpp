#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "Platform/Linux/Loop/ZavloLinuxSerialQueue.hpp"

#include "Platform/Linux/Network/ZavloLinuxHttpSession.hpp"
#include "Platform/Linux/Network/ZavloLinuxPathMonitor.hpp"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

// The key and owner targets define these when linked (each with --undefined, so that a
// static link keeps them); otherwise they stay null and the services are unavailable.
#pragma weak zavloLinuxKeyStoreFactory
#pragma weak zavloLinuxOwnerAuthenticationFactory

namespace {

ZavloLinuxOwnerAuthenticationService makeOwnerAuthentication(ZavloLinuxOwnerAuthentication::Options options) {
  if (&zavloLinuxOwnerAuthenticationFactory == nullptr) return {};
  return zavloLinuxOwnerAuthenticationFactory(std::move(options));
}

}  // namespace

ZavloLinuxPlatform::ZavloLinuxPlatform(Options options)
    : mainQueue_(std::move(options.mainQueue)),
      deviceInfo_(std::move(options.hostApplicationVersion)),
      classifier_(std::move(options.cellularInterfaces)),
      trustAnchors_(std::move(options.additionalTrustAnchorsPem)),
      keyStoreSettings_{.path = options.keychainPath.value_or(defaultKeychainPath()),
                        .defaultPath = !options.keychainPath,
                        .keychain = std::move(options.keychain),
                        .keyToken = std::move(options.keyToken)},
      ownerAuthentication_(makeOwnerAuthentication(std::move(options.ownerAuthentication))),
      connections_(mainQueue_ ? ZavloLinuxConnectionService(classifier_)
                              : ZavloLinuxConnectionService(classifier_, runLoop_)) {}

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

std::string ZavloLinuxPlatform::defaultKeychainPath() {
  const char* data = std::getenv("XDG_DATA_HOME");
  std::string folder;
  if (data != nullptr && *data == '/') {
    folder = data;
  } else {
    const char* home = std::getenv("HOME");
    if (home == nullptr || *home == '\0') {
      const passwd* entry = getpwuid(geteuid());
      home = entry != nullptr ? entry->pw_dir : "/";
    }
    folder = std::string(home) + "/.local/share";
  }
  return folder + "/zavlo-auth/keychain.db";
}

void ZavloLinuxPlatform::openKeyStore() {
  std::call_once(keyStoreOpened_, [this] {
    if (&zavloLinuxKeyStoreFactory != nullptr) {
      keyStore_ = zavloLinuxKeyStoreFactory(keyStoreSettings_);
      return;
    }
    keyStore_ = {std::make_shared<ZavloLinuxUnavailableKeychain>(),
                 std::make_shared<ZavloLinuxUnavailableSecureKeys>()};
  });
}

ZavloKeychain& ZavloLinuxPlatform::keychain() {
  openKeyStore();
  return *keyStore_.keychain;
}

ZavloSecureKeys& ZavloLinuxPlatform::secureKeys() {
  openKeyStore();
  return *keyStore_.secureKeys;
}

std::shared_ptr<ZavloOwnerAuthenticationContext> ZavloLinuxPlatform::makeOwnerAuthenticationContext() {
  if (!ownerAuthentication_.makeContext) return std::make_shared<ZavloLinuxUnavailableOwnerAuthenticationContext>();
  return ownerAuthentication_.makeContext();
}
