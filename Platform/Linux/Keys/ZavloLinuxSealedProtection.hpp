#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "Platform/Linux/Keys/ZavloLinuxKeyProtection.hpp"

/// Software keys sealed under the owner's secret, for machines without a TPM. The private
/// scalar is encrypted with AES-256-GCM under a key derived from the secret with scrypt
/// (a salt of its own per key), the tag, the public key, the machine id and the user bound
/// in as associated data, so the blob alone yields nothing, and a blob moved to another
/// tag, machine or user does not open, even with the secret. The plain scalar exists only
/// while one signature is made, in locked memory left out of core dumps, wiped afterwards.
///
/// Blob: "ZS1", scrypt log2(N), r, p (one byte each), salt (16), nonce (12), the sealed
/// scalar (32) and the GCM tag (16).
class ZavloLinuxSealedProtection final : public ZavloLinuxKeyProtection {
 public:
  /// scrypt's cost: N = 2^log2N, r, p. The cost a key was sealed with is kept in its blob.
  struct Cost {
    std::uint8_t log2N = 15;
    std::uint8_t r = 8;
    std::uint8_t p = 1;
  };

  ZavloLinuxSealedProtection() : ZavloLinuxSealedProtection(Cost{}) {}
  explicit ZavloLinuxSealedProtection(Cost cost);

  [[nodiscard]] std::string_view name() const override { return "sealed"; }
  [[nodiscard]] bool hardwareBacked() const override { return false; }
  ZavloKeyStoreResult<Made> create(const ZavloBytes& tag, const ZavloOwnerProof& proof) override;
  ZavloKeyStoreResult<ZavloBytes> sign(const ZavloLinuxKeyRecord& record, std::span<const std::uint8_t> message,
                                       const ZavloOwnerProof& proof) override;

  /// Seals the plain key of a "plain" record (an RFC 5915 ECPrivateKey in DER) for proof's
  /// owner: what a "sealed" record of the same key keeps.
  ZavloKeyStoreResult<Made> seal(const ZavloLinuxKeyRecord& plain, const ZavloOwnerProof& proof);
  /// Signs with the plain key of a "plain" record.
  static ZavloKeyStoreResult<ZavloBytes> signPlain(const ZavloLinuxKeyRecord& plain,
                                                   std::span<const std::uint8_t> message);

 private:
  Cost cost_;
};
