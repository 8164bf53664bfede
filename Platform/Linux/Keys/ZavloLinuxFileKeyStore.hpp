#pragma once

#include <memory>
#include <vector>

#include "Platform/Linux/Keys/ZavloLinuxKeyFile.hpp"
#include "Platform/Linux/Keys/ZavloLinuxKeyProtection.hpp"
#include "Platform/Linux/Keys/ZavloLinuxSealedProtection.hpp"
#include "Platform/ZavloKeyStore.hpp"

/// The key store of keys kept in a key file: each record names its protection, which signs
/// with it; new keys get the creating protection (the TPM where one works, else a sealed
/// key). A "plain" key of the first file format signs with the proof of a successful
/// prompt and is then sealed by the sealing protection when the proof carries a secret, so
/// that no plain key stays in the file.
///
/// Threading contract: that of the file and the protections (any thread, synchronous).
class ZavloLinuxFileKeyStore final : public ZavloKeyStore {
 public:
  /// creating: the protection new keys get. sealing: the one plain keys are sealed with
  /// (may be the same); both also sign the records that name them.
  ZavloLinuxFileKeyStore(std::shared_ptr<ZavloLinuxKeyFile> file, std::shared_ptr<ZavloLinuxKeyProtection> creating,
                         std::shared_ptr<ZavloLinuxSealedProtection> sealing);

  ZavloKeyStoreResult<ZavloCreatedKey> createKey(const ZavloBytes& tag, const ZavloOwnerProof& proof) override;
  ZavloKeyStoreResult<std::optional<ZavloKeyLocation>> findKey(const ZavloBytes& tag) override;
  ZavloKeyStoreResult<ZavloBytes> sign(const ZavloBytes& tag, std::span<const std::uint8_t> message,
                                       const ZavloOwnerProof& proof) override;
  ZavloKeyStoreResult<bool> deleteKey(const ZavloBytes& tag) override;
  ZavloKeyStoreResult<std::optional<ZavloBytes>> domainState(const std::string& keyId) override;
  ZavloKeyStoreResult<ZavloVoid> setDomainState(const std::string& keyId,
                                                const std::optional<ZavloBytes>& state) override;

  [[nodiscard]] ZavloLinuxKeyFile& file() { return *file_; }
  [[nodiscard]] const ZavloLinuxKeyProtection& creating() const { return *creating_; }

 private:
  [[nodiscard]] ZavloLinuxKeyProtection* protectionNamed(std::string_view name) const;
  [[nodiscard]] ZavloKeyLocation locationOf(const ZavloLinuxKeyRecord& record) const;

  std::shared_ptr<ZavloLinuxKeyFile> file_;
  std::shared_ptr<ZavloLinuxKeyProtection> creating_;
  std::shared_ptr<ZavloLinuxSealedProtection> sealing_;
};
