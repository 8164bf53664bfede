#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Platform/Linux/Keys/ZavloLinuxKeychain.hpp"
#include "Platform/Linux/Keys/ZavloLinuxPkcs11Token.hpp"
#include "Platform/Linux/Keys/ZavloLinuxTokenKeyStore.hpp"
#include "ZavloEs256.hpp"
#include "ZavloFixedOwnerContext.hpp"
#include "Testing/Network/ZavloSoftHsm.hpp"

/// A fresh token-backed key store for one contract test: keys in a SoftHSM2 token of its
/// own, the other items in an SQLite keychain beside it (test support; see
/// ZavloLinuxKeyStoreFactory for what every factory offers).
class ZavloSoftHsmKeyStoreFactory {
 public:
  ZavloSoftHsmKeyStoreFactory()
      : token_(std::make_shared<ZavloLinuxPkcs11Token>(hsm_.uri())),
        keychain_(token_, std::make_shared<ZavloLinuxKeychain>((hsm_.tokens().parent_path() / "keychain.db").string())),
        secureKeys_(token_) {}

  static std::optional<std::string> unavailable() { return ZavloSoftHsm::unavailable(); }

  ZavloKeychain& keychain() { return keychain_; }
  ZavloSecureKeys& secureKeys() { return secureKeys_; }
  ZavloLinuxPkcs11Token& token() { return *token_; }
  const ZavloSoftHsm& hsm() const { return hsm_; }
  std::shared_ptr<ZavloOwnerAuthenticationContext> ownerContext(bool authenticated) {
    return std::make_shared<ZavloFixedOwnerContext>(authenticated);
  }
  static bool verify(const ZavloBytes& point, const ZavloBytes& message, const ZavloBytes& signature) {
    return zavloVerifyEs256(point, message, signature);
  }

 private:
  ZavloSoftHsm hsm_;
  std::shared_ptr<ZavloLinuxPkcs11Token> token_;
  ZavloLinuxTokenKeychain keychain_;
  ZavloLinuxTokenSecureKeys secureKeys_;
};
