#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "Platform/Linux/Keys/ZavloLinuxPkcs11Token.hpp"
#include "Platform/ZavloKeychain.hpp"
#include "Platform/ZavloSecureKeys.hpp"

/// The keychain of a host that keeps its binding keys in a PKCS#11 token: key items
/// (kSecClassKey) are the token's key pairs, every other item is kept by `items` (the
/// keychain file).
///
/// A key item's attributes are those the token itself records: kSecAttrApplicationTag
/// (the tag, CKA_ID), kSecAttrKeyType (EC), kSecAttrKeySizeInBits (256), kSecAttrTokenID
/// (the secure element) and kSecAttrIsPermanent (true). A query naming any other
/// attribute, or one of these with another value, matches no key. The rules of the
/// keychain file hold otherwise: a key comes back as a reference only through a context
/// whose owner has authenticated, never as data, and keys are made by
/// ZavloLinuxTokenSecureKeys, not added.
///
/// Threading contract: as the token's and the keychain file's (any thread, synchronous).
class ZavloLinuxTokenKeychain final : public ZavloKeychain {
 public:
  ZavloLinuxTokenKeychain(std::shared_ptr<ZavloLinuxPkcs11Token> token, std::shared_ptr<ZavloKeychain> items);

  ZavloKeychainQueryResult copyMatching(const ZavloKeychainAttributes& query) override;
  std::int32_t add(const ZavloKeychainAttributes& attributes) override;
  std::int32_t remove(const ZavloKeychainAttributes& query) override;

 private:
  std::shared_ptr<ZavloLinuxPkcs11Token> token_;
  std::shared_ptr<ZavloKeychain> items_;
};

/// P-256 keys generated inside a PKCS#11 token, sensitive and never extractable; the
/// token signs (CKM_ECDSA over the SHA-256 digest) and the raw r and s become the DER
/// signature here. Permanent keys are token objects found again by tag through
/// ZavloLinuxTokenKeychain; the others are session objects that go with their key.
///
/// As with the software store, a key signs only when it came from the keychain with a
/// context whose owner has authenticated. Error codes: the token's statuses
/// (ZavloLinuxPkcs11Token::statusFor), param for malformed requests, internalComponent
/// when OpenSSL fails to encode a signature.
///
/// Threading contract: every operation may be called from any thread and is synchronous.
class ZavloLinuxTokenSecureKeys final : public ZavloSecureKeys {
 public:
  explicit ZavloLinuxTokenSecureKeys(std::shared_ptr<ZavloLinuxPkcs11Token> token);

  ZavloSecureKeyResult<std::shared_ptr<const ZavloAccessControl>> createAccessControl(const std::string& protection,
                                                                                      std::uint64_t flags) override;
  ZavloSecureKeyResult<std::shared_ptr<ZavloSecureKey>> createRandomKey(
      const ZavloKeychainAttributes& attributes) override;
  std::shared_ptr<ZavloPublicKey> copyPublicKey(const ZavloSecureKey& key) override;
  ZavloSecureKeyResult<ZavloBytes> copyExternalRepresentation(const ZavloPublicKey& key) override;
  ZavloSecureKeyResult<ZavloBytes> createSignature(const ZavloSecureKey& key, std::string_view algorithm,
                                                   const ZavloBytes& message) override;

 private:
  std::shared_ptr<ZavloLinuxPkcs11Token> token_;
};
