#pragma once

// The key stores the key store contract runs on (test support): the in-memory double the
// unit tests rely on, held to the rules of the real stores, and each Linux store.
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>

#include "Platform/Linux/Keys/ZavloLinuxFileKeyStore.hpp"
#include "Platform/Linux/Keys/ZavloLinuxSealedProtection.hpp"
#include "Platform/Linux/Keys/ZavloLinuxTokenKeyStore.hpp"
#include "Testing/Network/ZavloSoftHsm.hpp"
#include "Platform/Linux/Keys/ZavloLinuxTpmProtection.hpp"
#include "Testing/Network/ZavloSwtpm.hpp"
#include "Testing/ZavloTestKeyStore.hpp"
#include "ZavloEs256.hpp"
#include "tools/peers/ZavloTemporaryDirectory.hpp"

class ZavloInMemoryKeyStoreFactory {
 public:
  static std::optional<std::string> unavailable() { return std::nullopt; }
  ZavloKeyStore& keyStore() { return store_; }
  std::string ownerSecret() { return "owner secret"; }
  /// Its signatures are deterministic stand-ins, checked by the double itself.
  static bool verify(const ZavloBytes& point, std::span<const std::uint8_t> message, const ZavloBytes& signature) {
    return ZavloTestKeyStore::verify(point, message, signature);
  }

 private:
  ZavloTestKeyStore store_;
};

/// Keys sealed under the owner's secret in a key file of a private temporary folder, at a
/// low scrypt cost (the cost is the store's to choose; the contract is the same).
class ZavloSealedKeyStoreFactory {
 public:
  ZavloSealedKeyStoreFactory() {
    auto sealed = std::make_shared<ZavloLinuxSealedProtection>(ZavloLinuxSealedProtection::Cost{10, 8, 1});
    store_ = std::make_unique<ZavloLinuxFileKeyStore>(
        std::make_shared<ZavloLinuxKeyFile>((directory_.path() / "keychain.db").string()), sealed, sealed);
  }
  static std::optional<std::string> unavailable() { return std::nullopt; }
  ZavloKeyStore& keyStore() { return *store_; }
  std::string ownerSecret() { return "correct horse battery staple"; }
  static bool verify(const ZavloBytes& point, std::span<const std::uint8_t> message, const ZavloBytes& signature) {
    return zavloVerifyEs256(point, message, signature);
  }
  [[nodiscard]] const ZavloTemporaryDirectory& directory() const { return directory_; }

 private:
  ZavloTemporaryDirectory directory_;
  std::unique_ptr<ZavloLinuxFileKeyStore> store_;
};

/// The token's URI without a PIN: the owner's PIN, from the proof, is what logs in.
inline std::string zavloOwnerPinUri(const ZavloSoftHsm& hsm) {
  return "pkcs11:token=" + hsm.label() + "?module-path=" + ZavloSoftHsm::kModule;
}

/// Keys in a SoftHSM2 token of a private folder (the domain states in a key file beside
/// it), unlocked by the owner's secret: the token's user PIN.
class ZavloSoftHsmKeyStoreFactory {
 public:
  ZavloSoftHsmKeyStoreFactory()
      : store_(std::make_shared<ZavloLinuxPkcs11Token>(zavloOwnerPinUri(hsm_)),
               std::make_shared<ZavloLinuxKeyFile>((hsm_.tokens().parent_path() / "keys.db").string())) {}
  static std::optional<std::string> unavailable() { return ZavloSoftHsm::unavailable(); }
  ZavloLinuxTokenKeyStore& keyStore() { return store_; }
  std::string ownerSecret() { return ZavloSoftHsm::kPin; }
  static bool verify(const ZavloBytes& point, std::span<const std::uint8_t> message, const ZavloBytes& signature) {
    return zavloVerifyEs256(point, message, signature);
  }
  [[nodiscard]] const ZavloSoftHsm& hsm() const { return hsm_; }

 private:
  ZavloSoftHsm hsm_;
  ZavloLinuxTokenKeyStore store_;
};

/// Keys made inside a TPM of the test's own (swtpm), their blobs in a key file beside it.
class ZavloTpmKeyStoreFactory {
 public:
  ZavloTpmKeyStoreFactory()
      : store_(std::make_shared<ZavloLinuxKeyFile>((swtpm_.folder() / "keychain.db").string()),
               std::make_shared<ZavloLinuxTpmProtection>(swtpm_.tcti()),
               std::make_shared<ZavloLinuxSealedProtection>(ZavloLinuxSealedProtection::Cost{10, 8, 1})) {}
  static std::optional<std::string> unavailable() { return ZavloSwtpm::unavailable(); }
  ZavloKeyStore& keyStore() { return store_; }
  std::string ownerSecret() { return "correct horse battery staple"; }
  static bool verify(const ZavloBytes& point, std::span<const std::uint8_t> message, const ZavloBytes& signature) {
    return zavloVerifyEs256(point, message, signature);
  }

 private:
  ZavloSwtpm swtpm_;
  ZavloLinuxFileKeyStore store_;
};

/// Every key store the key store contract runs on.
using ZavloKeyStoreFactories = ::testing::Types<ZavloInMemoryKeyStoreFactory, ZavloSealedKeyStoreFactory,
                                                ZavloSoftHsmKeyStoreFactory, ZavloTpmKeyStoreFactory>;
