#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "Platform/Linux/Loop/ZavloLinuxSerialQueue.hpp"

#include "Platform/Linux/Network/ZavloLinuxHttpSession.hpp"
#include "Platform/Linux/Network/ZavloLinuxPathMonitor.hpp"
#include "Platform/Linux/Keys/ZavloLinuxSecureKeys.hpp"
#include "Platform/Linux/Keys/ZavloLinuxTokenKeyStore.hpp"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

ZavloLinuxPlatform::ZavloLinuxPlatform(Options options)
    : mainQueue_(std::move(options.mainQueue)),
      deviceInfo_(std::move(options.hostApplicationVersion)),
      classifier_(std::move(options.cellularInterfaces)),
      trustAnchors_(std::move(options.additionalTrustAnchorsPem)),
      keychainPath_(options.keychainPath.value_or(defaultKeychainPath())),
      keychainOptions_(std::move(options.keychain)),
      defaultKeychain_(!options.keychainPath),
      keyToken_(std::move(options.keyToken)),
      ownerAuthentication_(std::move(options.ownerAuthentication)),
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

ZavloLinuxKeychain& ZavloLinuxPlatform::linuxKeychain() {
  std::call_once(keyStoreOpened_, [this] {
    auto options = keychainOptions_;
    if (defaultKeychain_) {
      // The user's data directory may not exist yet on a fresh account: its missing
      // levels are made private (0700), as XDG asks; the keychain makes its own folder.
      std::filesystem::path level;
      for (const auto& part : std::filesystem::path(keychainPath_).parent_path().parent_path()) {
        level /= part;
        (void)mkdir(level.c_str(), 0700);  // an existing level stays as it is
      }
      options.createDirectory = true;
    }
    auto trace = options.trace;
    keychain_ = std::make_shared<ZavloLinuxKeychain>(keychainPath_, std::move(options));
    if (!keyToken_) {
      secureKeys_ = std::make_unique<ZavloLinuxSecureKeys>(keychain_);
      return;
    }
    auto token = std::make_shared<ZavloLinuxPkcs11Token>(*keyToken_, ZavloLinuxPkcs11Token::Options{std::move(trace)});
    tokenKeychain_ = std::make_unique<ZavloLinuxTokenKeychain>(token, keychain_);
    secureKeys_ = std::make_unique<ZavloLinuxTokenSecureKeys>(std::move(token));
  });
  return *keychain_;
}

ZavloKeychain& ZavloLinuxPlatform::keychain() {
  auto& file = linuxKeychain();
  return tokenKeychain_ ? *tokenKeychain_ : static_cast<ZavloKeychain&>(file);
}

ZavloSecureKeys& ZavloLinuxPlatform::secureKeys() {
  linuxKeychain();
  return *secureKeys_;
}

std::shared_ptr<ZavloOwnerAuthenticationContext> ZavloLinuxPlatform::makeOwnerAuthenticationContext() {
  return ownerAuthentication_.makeContext();
}
