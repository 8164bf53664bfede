#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "Platform/Linux/Keys/ZavloLinuxKeyProtection.hpp"
#include "Platform/Linux/ZavloLinuxSecret.hpp"

/// Keys made and used inside a TPM 2.0, reached through tpm2-tss (ESAPI over a TCTI
/// string: "device:/dev/tpmrm0", "swtpm:host=127.0.0.1,port=2321").
///
/// A key is an ECC P-256 ECDSA-SHA256 signing key created by the TPM under its storage
/// primary key (the persistent SRK at 0x81000001 when it is a storage key, else a primary
/// made from the standard ECC P-256 storage template in the owner hierarchy), with
/// fixedTPM and fixedParent: its private part leaves the TPM only wrapped under that
/// primary, and loads into no other TPM. Its authValue is PBKDF2-HMAC-SHA256 of the
/// owner's secret with a salt of its own; it is not noDA, so the TPM's dictionary-attack
/// lockout bounds how many secrets can be tried, and without the TPM the blob allows no
/// guess at all. The authValue crosses the TCTI only inside salted, parameter-encrypted
/// HMAC sessions. Every transient object is flushed after each operation.
///
/// Blob: version (1), KDF (1: PBKDF2-HMAC-SHA256), iterations (4, big-endian), salt size
/// (1), salt, then the TPM's TPM2B_PUBLIC and TPM2B_PRIVATE as tpm2-tss marshals them.
///
/// Threading contract: any thread; one mutex serialises the ESAPI context, which is opened
/// at the first use and again after the connection to the TPM failed. Nothing throws.
class ZavloLinuxTpmProtection final : public ZavloLinuxKeyProtection {
 public:
  /// The system's TPM, through the kernel's resource manager.
  static constexpr std::string_view kSystemTcti = "device:/dev/tpmrm0";
  /// PBKDF2 iterations of new keys. The TPM, not the KDF, stops guessing (see the class
  /// comment), so the count is small: about 0.5 ms here, beside a TPM signature.
  static constexpr std::uint32_t kDefaultIterations = 1000;

  struct Options {
    /// PBKDF2 iterations of the keys it makes.
    std::uint32_t iterations = kDefaultIterations;
    /// Receives each failure's description (never a secret), after the call's lock.
    std::function<void(const std::string&)> trace = {};
  };

  /// tcti: a tctildr string; empty means kSystemTcti.
  explicit ZavloLinuxTpmProtection(std::string tcti) : ZavloLinuxTpmProtection(std::move(tcti), Options{}) {}
  ZavloLinuxTpmProtection(std::string tcti, Options options);
  ~ZavloLinuxTpmProtection() override;

  [[nodiscard]] std::string_view name() const override { return "tpm"; }
  [[nodiscard]] bool hardwareBacked() const override { return true; }
  ZavloKeyStoreResult<Made> create(const ZavloBytes& tag, const ZavloOwnerProof& proof) override;
  ZavloKeyStoreResult<ZavloBytes> sign(const ZavloLinuxKeyRecord& record, std::span<const std::uint8_t> message,
                                       const ZavloOwnerProof& proof) override;

  [[nodiscard]] const std::string& tcti() const;

  /// Whether a TPM answers at tcti: opens it and asks for one property, nothing more.
  static ZavloKeyStoreResult<ZavloVoid> probe(const std::string& tcti);

  /// What a blob holds, for tools and checks outside the library.
  struct Wrapped {
    std::uint32_t iterations = 0;
    ZavloBytes salt;
    ZavloBytes publicArea;   ///< the TPM2B_PUBLIC as marshalled
    ZavloBytes privateArea;  ///< the TPM2B_PRIVATE as marshalled
  };
  /// The parts of a blob of this protection, or nothing when it is not one.
  static std::optional<Wrapped> unwrap(std::span<const std::uint8_t> blob);
  /// A key's authValue: PBKDF2-HMAC-SHA256 of secret with salt, 32 bytes.
  static std::optional<ZavloLinuxSecret> authValue(std::span<const std::uint8_t> secret,
                                                   std::span<const std::uint8_t> salt, std::uint32_t iterations);

 private:
  template <class T>
  ZavloKeyStoreResult<T> traced(ZavloKeyStoreResult<T> result) const;

  struct Tpm;
  std::unique_ptr<Tpm> tpm_;
  Options options_;
};
