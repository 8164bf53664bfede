#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "Platform/Linux/Keys/ZavloLinuxKeyFile.hpp"
#include "Platform/ZavloKeyStore.hpp"
#include "Platform/ZavloOwnerAuthentication.hpp"

/// How the private half of a key in the key file is kept from everyone but its owner: a
/// key sealed under the owner's secret, a key wrapped by a TPM. A protection makes a key
/// and hands the file a blob to keep; to sign, it gets the record back with the owner's
/// proof. The blob alone never signs.
///
/// Failures use the key store's kinds: ownerRefused for a secret that does not unlock the
/// key, noOwnerSecret when the proof carries none, lockedOut, unavailable (no TPM), damaged
/// (a blob this protection cannot use, such as one wrapped by another TPM).
///
/// Threading contract: every operation may be called from any thread and is synchronous.
class ZavloLinuxKeyProtection {
 public:
  struct Made {
    ZavloBytes publicKey;  ///< X9.63 uncompressed point
    ZavloBytes blob;       ///< what the file keeps
  };

  ZavloLinuxKeyProtection() = default;
  ZavloLinuxKeyProtection(const ZavloLinuxKeyProtection&) = delete;
  ZavloLinuxKeyProtection& operator=(const ZavloLinuxKeyProtection&) = delete;
  virtual ~ZavloLinuxKeyProtection() = default;

  /// The record's protection word ("sealed", "tpm").
  [[nodiscard]] virtual std::string_view name() const = 0;
  [[nodiscard]] virtual bool hardwareBacked() const = 0;

  /// A new P-256 key for tag, protected for proof's owner.
  virtual ZavloKeyStoreResult<Made> create(const ZavloBytes& tag, const ZavloOwnerProof& proof) = 0;
  /// ECDSA-SHA256 (X9.62 DER) of message with the key of record.
  virtual ZavloKeyStoreResult<ZavloBytes> sign(const ZavloLinuxKeyRecord& record, std::span<const std::uint8_t> message,
                                               const ZavloOwnerProof& proof) = 0;
};
