#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "Testing/ZavloTestKeychain.hpp"
#include "Testing/ZavloTestSecureKeys.hpp"
#include "ZavloFixedOwnerContext.hpp"
#include "ZavloLinuxKeyStoreFactory.hpp"
#include "ZavloSoftHsmKeyStoreFactory.hpp"

/// The in-memory doubles the unit tests rely on; the contract suites hold them to the same
/// rules as the real store, so a unit test cannot pass on behaviour Linux lacks.
class ZavloInMemoryKeyStoreFactory {
 public:
  ZavloInMemoryKeyStoreFactory() : secureKeys_(keychain_) {}
  static std::optional<std::string> unavailable() { return std::nullopt; }

  ZavloKeychain& keychain() { return keychain_; }
  ZavloSecureKeys& secureKeys() { return secureKeys_; }
  std::shared_ptr<ZavloOwnerAuthenticationContext> ownerContext(bool authenticated) {
    return std::make_shared<ZavloFixedOwnerContext>(authenticated);
  }
  /// Its signatures are deterministic stand-ins, checked by the double itself.
  static bool verify(const ZavloBytes& point, const ZavloBytes& message, const ZavloBytes& signature) {
    return ZavloTestSecureKeys::verify(point, message, signature);
  }

 private:
  ZavloTestKeychain keychain_;
  ZavloTestSecureKeys secureKeys_;
};

/// Every key store the keychain and secure-keys contract suites run on (test support).
using ZavloKeyStoreFactories =
    ::testing::Types<ZavloLinuxKeyStoreFactory, ZavloSoftHsmKeyStoreFactory, ZavloInMemoryKeyStoreFactory>;
