#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "Platform/ZavloKeychain.hpp"
#include "Platform/ZavloResult.hpp"

/// A failure of a key operation: the platform's integer code and a text for debugging
/// only (it never reaches a caller of the library).
struct ZavloSecureKeyError {
  std::int64_t code = 0;
  std::string description;

  friend bool operator==(const ZavloSecureKeyError&, const ZavloSecureKeyError&) = default;
};

template <class T>
using ZavloSecureKeyResult = ZavloResult<T, ZavloSecureKeyError>;

/// Who may use a private key, and when: a protection class and the platform's flag bits.
struct ZavloAccessControl {
  std::string protection;
  std::uint64_t flags = 0;
};

/// Flag bits of an access control, with the platform's values.
namespace ZavloAccessControlFlags {
inline constexpr std::uint64_t biometryCurrentSet = 0x8;
inline constexpr std::uint64_t devicePasscode = 0x10;
inline constexpr std::uint64_t orFlag = 0x4000;
inline constexpr std::uint64_t privateKeyUsage = 0x40000000;
}  // namespace ZavloAccessControlFlags

/// A private key held by the key store. Opaque: no operation of the library returns its
/// bytes; it can only be asked for its public key and to sign.
class ZavloSecureKey {
 public:
  ZavloSecureKey() = default;
  ZavloSecureKey(const ZavloSecureKey&) = delete;
  ZavloSecureKey& operator=(const ZavloSecureKey&) = delete;
  virtual ~ZavloSecureKey() = default;
};

/// A public key, as copied from a private key.
class ZavloPublicKey {
 public:
  ZavloPublicKey() = default;
  ZavloPublicKey(const ZavloPublicKey&) = delete;
  ZavloPublicKey& operator=(const ZavloPublicKey&) = delete;
  virtual ~ZavloPublicKey() = default;
};

/// Key creation and use. Keys made permanent are stored in the platform's keychain and
/// found there by their application tag.
///
/// Threading contract: every operation may be called from any thread and is synchronous.
class ZavloSecureKeys {
 public:
  /// ECDSA over SHA-256 of the message, signature as an X9.62 DER SEQUENCE of r and s.
  static constexpr std::string_view kSecKeyAlgorithmECDSASignatureMessageX962SHA256 =
      "kSecKeyAlgorithmECDSASignatureMessageX962SHA256";

  ZavloSecureKeys() = default;
  ZavloSecureKeys(const ZavloSecureKeys&) = delete;
  ZavloSecureKeys& operator=(const ZavloSecureKeys&) = delete;
  virtual ~ZavloSecureKeys() = default;

  virtual ZavloSecureKeyResult<std::shared_ptr<const ZavloAccessControl>> createAccessControl(
      const std::string& protection, std::uint64_t flags) = 0;
  /// A new random key. attributes: kSecAttrKeyType, kSecAttrKeySizeInBits,
  /// kSecAttrTokenID and kSecPrivateKeyAttrs (a nested dictionary with kSecAttrIsPermanent,
  /// kSecAttrApplicationTag and kSecAttrAccessControl).
  virtual ZavloSecureKeyResult<std::shared_ptr<ZavloSecureKey>> createRandomKey(
      const ZavloKeychainAttributes& attributes) = 0;
  /// Absent when the key has no public key the store can give.
  virtual std::shared_ptr<ZavloPublicKey> copyPublicKey(const ZavloSecureKey& key) = 0;
  /// The X9.63 form of a public key: 0x04, X, Y (65 bytes for P-256).
  virtual ZavloSecureKeyResult<ZavloBytes> copyExternalRepresentation(const ZavloPublicKey& key) = 0;
  virtual ZavloSecureKeyResult<ZavloBytes> createSignature(const ZavloSecureKey& key, std::string_view algorithm,
                                                           const ZavloBytes& message) = 0;
};
