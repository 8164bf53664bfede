#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Platform/Linux/Keys/ZavloLinuxKeychain.hpp"
#include "Platform/Linux/Keys/ZavloLinuxSecureKeys.hpp"
#include "ZavloEs256.hpp"
#include "ZavloFixedOwnerContext.hpp"
#include "tools/peers/ZavloTemporaryDirectory.hpp"

/// A fresh Linux key store for one contract test: an SQLite keychain in a private
/// temporary directory and the OpenSSL keys over it (test support). Every key-store
/// factory offers keychain(), secureKeys() and ownerContext(authenticated) over one store,
/// and verify(point, message, signature) for the signatures its keys make.
class ZavloLinuxKeyStoreFactory {
 public:
  ZavloLinuxKeyStoreFactory()
      : keychain_(std::make_shared<ZavloLinuxKeychain>((directory_.path() / "keychain.db").string())),
        secureKeys_(keychain_) {}
  /// Why this store cannot run here, or nothing.
  static std::optional<std::string> unavailable() { return std::nullopt; }

  ZavloKeychain& keychain() { return *keychain_; }
  ZavloSecureKeys& secureKeys() { return secureKeys_; }
  std::shared_ptr<ZavloOwnerAuthenticationContext> ownerContext(bool authenticated) {
    return std::make_shared<ZavloFixedOwnerContext>(authenticated);
  }
  static bool verify(const ZavloBytes& point, const ZavloBytes& message, const ZavloBytes& signature) {
    return zavloVerifyEs256(point, message, signature);
  }

 private:
  ZavloTemporaryDirectory directory_;
  std::shared_ptr<ZavloLinuxKeychain> keychain_;
  ZavloLinuxSecureKeys secureKeys_;
};
