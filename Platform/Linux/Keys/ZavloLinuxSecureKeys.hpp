#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "Platform/Linux/Keys/ZavloLinuxKeychain.hpp"
#include "Platform/ZavloSecureKeys.hpp"

/// P-256 keys made and used with OpenSSL 3, stored as key items of a ZavloLinuxKeychain.
///
/// The private material never leaves the key store: no call returns it, and no error
/// description or trace line holds it; buffers it passes through are wiped. A key signs
/// only when it was loaded from the keychain with a kSecUseAuthenticationContext whose
/// owner has authenticated (and still answers isAuthenticated()); any other use fails
/// with interactionNotAllowed.
///
/// Error codes: the keychain's statuses (param for malformed attributes or an unknown
/// algorithm, duplicateItem for a tag in use, interactionNotAllowed, the storage
/// statuses), and internalComponent when OpenSSL itself fails.
///
/// Threading contract: every operation may be called from any thread and is synchronous.
/// The object holds no state of its own beyond the keychain, which serialises itself; a
/// key may be used by several threads at once.
class ZavloLinuxSecureKeys final : public ZavloSecureKeys {
 public:
  /// OpenSSL failed (errSecInternalComponent).
  static constexpr std::int64_t internalComponent = -2070;

  explicit ZavloLinuxSecureKeys(std::shared_ptr<ZavloLinuxKeychain> keychain);

  ZavloSecureKeyResult<std::shared_ptr<const ZavloAccessControl>> createAccessControl(const std::string& protection,
                                                                                      std::uint64_t flags) override;
  ZavloSecureKeyResult<std::shared_ptr<ZavloSecureKey>> createRandomKey(
      const ZavloKeychainAttributes& attributes) override;
  std::shared_ptr<ZavloPublicKey> copyPublicKey(const ZavloSecureKey& key) override;
  ZavloSecureKeyResult<ZavloBytes> copyExternalRepresentation(const ZavloPublicKey& key) override;
  ZavloSecureKeyResult<ZavloBytes> createSignature(const ZavloSecureKey& key, std::string_view algorithm,
                                                   const ZavloBytes& message) override;

  [[nodiscard]] ZavloLinuxKeychain& keychain() { return *keychain_; }

 private:
  std::shared_ptr<ZavloLinuxKeychain> keychain_;
};
