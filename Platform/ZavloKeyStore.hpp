#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/ZavloResult.hpp"

/// A byte string: tags, domain states, public keys, signatures.
using ZavloBytes = std::vector<std::uint8_t>;

inline ZavloBytes zavloBytes(std::string_view text) { return {text.begin(), text.end()}; }

class ZavloOwnerProof;

/// Why a key store call failed. Each store maps its own errors (TPM response codes,
/// PKCS#11 return values, SQLite codes) to one of these in one function, and keeps the
/// native code beside it.
enum class ZavloKeyStoreFailure {
  notFound,         ///< no key under the tag
  duplicate,        ///< a key already has the tag
  noOwnerSecret,    ///< the key needs the owner's secret and the proof carries none
  ownerRefused,     ///< the proof's secret does not unlock the key
  lockedOut,        ///< the store refuses every secret for now (dictionary-attack lockout, a locked PIN)
  unavailable,      ///< the store cannot be reached: no file, no TPM, no token
  damaged,          ///< what the store holds cannot be read, or belongs to another device
  publicKeyExport,  ///< a new key was made but its public key cannot be read (the key stays until deleted)
  invalidArgument,
  internal,
};

struct ZavloKeyStoreError {
  ZavloKeyStoreFailure failure = ZavloKeyStoreFailure::internal;
  /// The store's native code (a TPM response code, a CKR_ value, an SQLite code), or 0.
  std::int64_t code = 0;
  /// For diagnosis only: it never holds key material or a secret, and never reaches a caller.
  std::string description;

  friend bool operator==(const ZavloKeyStoreError&, const ZavloKeyStoreError&) = default;
};

template <class T>
using ZavloKeyStoreResult = ZavloResult<T, ZavloKeyStoreError>;

/// Where a key lives, as its store says.
struct ZavloKeyLocation {
  /// A short name of the store: "tpm", "sealed", "pkcs11", "plain" (a key from before
  /// sealing, not yet sealed), "memory".
  std::string store;
  /// True when the private key exists only inside hardware (a TPM, a token).
  bool hardwareBacked = false;

  friend bool operator==(const ZavloKeyLocation&, const ZavloKeyLocation&) = default;
};

struct ZavloCreatedKey {
  /// The public key as an X9.63 uncompressed point: 0x04, X, Y (65 bytes for P-256).
  ZavloBytes publicKey;
  ZavloKeyLocation location;
};

/// Device binding's key store: P-256 signing keys under byte tags, each usable only with
/// a proof from its owner, and one domain-state record per key id.
///
/// A key is made for the owner who proves presence at its creation; a store that can
/// derive the key's protection from the owner's secret does so, and then refuses every
/// other secret (ownerRefused) and the lack of one (noOwnerSecret). No call returns a
/// private key or anything it can be rebuilt from.
///
/// Threading contract: every operation may be called from any thread and is synchronous;
/// each write is atomic and leaves every other key and record as it was.
class ZavloKeyStore {
 public:
  ZavloKeyStore() = default;
  ZavloKeyStore(const ZavloKeyStore&) = delete;
  ZavloKeyStore& operator=(const ZavloKeyStore&) = delete;
  virtual ~ZavloKeyStore() = default;

  /// A new P-256 signing key under tag for the owner of proof; duplicate when tag is taken.
  virtual ZavloKeyStoreResult<ZavloCreatedKey> createKey(const ZavloBytes& tag, const ZavloOwnerProof& proof) = 0;
  /// Where the key of tag lives, or absent when there is none. Never needs the owner.
  virtual ZavloKeyStoreResult<std::optional<ZavloKeyLocation>> findKey(const ZavloBytes& tag) = 0;
  /// ECDSA over SHA-256 of message with the key of tag, as an X9.62 DER SEQUENCE of r and s.
  virtual ZavloKeyStoreResult<ZavloBytes> sign(const ZavloBytes& tag, std::span<const std::uint8_t> message,
                                               const ZavloOwnerProof& proof) = 0;
  /// Deletes the key of tag and everything it leaves in the store: true when there was
  /// one, false when there was none.
  virtual ZavloKeyStoreResult<bool> deleteKey(const ZavloBytes& tag) = 0;

  /// The domain-state record of keyId, or absent when there is none. A record that exists
  /// but cannot be read is answered as an empty value, which equals no domain state (a
  /// domain state is never empty), so that it counts as changed.
  virtual ZavloKeyStoreResult<std::optional<ZavloBytes>> domainState(const std::string& keyId) = 0;
  /// Replaces the record of keyId with state, or removes it when state is absent.
  virtual ZavloKeyStoreResult<ZavloVoid> setDomainState(const std::string& keyId,
                                                        const std::optional<ZavloBytes>& state) = 0;
};
