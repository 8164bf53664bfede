#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>

#include "Platform/Linux/Keys/ZavloLinuxKeyFile.hpp"
#include "Platform/Linux/Keys/ZavloLinuxPkcs11Token.hpp"
#include "Platform/ZavloKeyStore.hpp"

/// The key store of a host that keeps its binding keys in a PKCS#11 token: P-256 key pairs
/// made and used inside the token (ZavloLinuxPkcs11Token), the domain-state records in the
/// key file. Keys are located {"pkcs11", hardware-backed}.
///
/// The owner's secret is the token's user PIN: each creation and signature logs in with
/// it and logs out again, so the token itself checks it (a refused PIN is ownerRefused, a
/// locked one lockedOut, none noOwnerSecret) and counts the failed tries. A URI that gives
/// the PIN (pin-source, pin-value) is for hosts with nobody at the prompt: that PIN is used
/// and the proof's secret is not (pinFromUri()).
///
/// findKey needs no PIN: a key is there while its public object is. deleteKey has no proof:
/// without the URI's PIN it destroys the public object, which makes the key gone for
/// findKey and sign, and the next logged-in operation destroys the private object left.
///
/// Threading contract: that of the token and the file (any thread, synchronous).
class ZavloLinuxTokenKeyStore final : public ZavloKeyStore {
 public:
  ZavloLinuxTokenKeyStore(std::shared_ptr<ZavloLinuxPkcs11Token> token, std::shared_ptr<ZavloLinuxKeyFile> file);

  ZavloKeyStoreResult<ZavloCreatedKey> createKey(const ZavloBytes& tag, const ZavloOwnerProof& proof) override;
  ZavloKeyStoreResult<std::optional<ZavloKeyLocation>> findKey(const ZavloBytes& tag) override;
  ZavloKeyStoreResult<ZavloBytes> sign(const ZavloBytes& tag, std::span<const std::uint8_t> message,
                                       const ZavloOwnerProof& proof) override;
  ZavloKeyStoreResult<bool> deleteKey(const ZavloBytes& tag) override;
  ZavloKeyStoreResult<std::optional<ZavloBytes>> domainState(const std::string& keyId) override;
  ZavloKeyStoreResult<ZavloVoid> setDomainState(const std::string& keyId,
                                                const std::optional<ZavloBytes>& state) override;

  /// Whether the token's PIN comes from the URI, so that the owner is not asked for it.
  [[nodiscard]] bool pinFromUri() const { return token_->pinFromUri(); }
  [[nodiscard]] ZavloLinuxPkcs11Token& token() { return *token_; }

  static ZavloKeyLocation location() { return {"pkcs11", true}; }

 private:
  std::shared_ptr<ZavloLinuxPkcs11Token> token_;
  std::shared_ptr<ZavloLinuxKeyFile> file_;
};
