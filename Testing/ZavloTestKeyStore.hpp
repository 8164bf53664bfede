#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Platform/ZavloKeyStore.hpp"
#include "Platform/ZavloOwnerAuthentication.hpp"

/// A proof with a fixed secret, for tests and for stores that need one built by hand.
class ZavloTestOwnerProof final : public ZavloOwnerProof {
 public:
  explicit ZavloTestOwnerProof(std::string_view secret = {}, bool verified = true)
      : secret_(secret.begin(), secret.end()), verified_(verified) {}
  ~ZavloTestOwnerProof() override;

  [[nodiscard]] std::span<const std::uint8_t> secret() const override { return secret_; }
  [[nodiscard]] bool verified() const override { return verified_; }

 private:
  ZavloBytes secret_;
  bool verified_;
};

/// An in-memory key store for the test platform that needs no cryptography library. Every
/// key gets a serial number from which its 65-byte public point is derived, and its
/// "signature" of a message is a DER SEQUENCE of two 32-byte INTEGERs derived from the
/// public point and the message: deterministic, different for every key and message,
/// checkable with verify(). It is not ECDSA and proves nothing outside tests.
///
/// As a real store does, a key remembers the secret it was made with and signs only for a
/// proof with that secret: another secret is ownerRefused, none is noOwnerSecret (a key
/// made without a secret signs for any proof). Every call is recorded, and a test may
/// script any operation's failure.
///
/// Threading contract: every method is callable from any thread; calls are serialised.
class ZavloTestKeyStore final : public ZavloKeyStore {
 public:
  enum class Operation { createKey, findKey, sign, deleteKey, domainState, setDomainState };

  struct Call {
    Operation operation;
    /// The tag as text (createKey, findKey, sign, deleteKey) or the key id.
    std::string subject;
    bool succeeded;
  };

  struct SignatureRequest {
    std::uint64_t keySerial;
    ZavloBytes message;
  };

  ZavloKeyStoreResult<ZavloCreatedKey> createKey(const ZavloBytes& tag, const ZavloOwnerProof& proof) override;
  ZavloKeyStoreResult<std::optional<ZavloKeyLocation>> findKey(const ZavloBytes& tag) override;
  ZavloKeyStoreResult<ZavloBytes> sign(const ZavloBytes& tag, std::span<const std::uint8_t> message,
                                       const ZavloOwnerProof& proof) override;
  ZavloKeyStoreResult<bool> deleteKey(const ZavloBytes& tag) override;
  ZavloKeyStoreResult<std::optional<ZavloBytes>> domainState(const std::string& keyId) override;
  ZavloKeyStoreResult<ZavloVoid> setDomainState(const std::string& keyId,
                                                const std::optional<ZavloBytes>& state) override;

  /// Every later call of operation fails with error until clearFailures().
  void fail(Operation operation, ZavloKeyStoreError error);
  void clearFailures();
  /// Where new keys say they live (by default "memory", not hardware-backed).
  void setLocation(ZavloKeyLocation location);

  /// A key stored under tag as enrolment would make it, for tests that need one without
  /// enrolling; secret is what it then signs for. Returns its X9.63 public point.
  ZavloBytes installKey(const ZavloBytes& tag, std::string_view secret = {});

  /// Whether signature is what the key with this public point makes for message.
  static bool verify(const ZavloBytes& publicPoint, std::span<const std::uint8_t> message, const ZavloBytes& signature);

  [[nodiscard]] std::vector<Call> calls() const;
  void clearCalls();
  [[nodiscard]] std::vector<SignatureRequest> signatureRequests() const;
  /// Keys made so far (serial numbers run from 1), deleted ones included.
  [[nodiscard]] std::size_t keyCount() const;
  /// Keys and domain-state records held now.
  [[nodiscard]] std::size_t itemCount() const;

 private:
  struct Key {
    std::uint64_t serial;
    ZavloBytes secret;
  };

  // The scripted failure of operation, if any; records the call either way.
  std::optional<ZavloKeyStoreError> enter(Operation operation, std::string subject);
  ZavloBytes storeLocked(const ZavloBytes& tag, std::span<const std::uint8_t> secret);

  mutable std::mutex mutex_;
  std::map<ZavloBytes, Key> keys_;
  std::map<std::string, ZavloBytes> domainStates_;
  std::map<Operation, ZavloKeyStoreError> failures_;
  ZavloKeyLocation location_{"memory", false};
  std::vector<Call> calls_;
  std::vector<SignatureRequest> signatureRequests_;
  std::uint64_t keyCount_ = 0;
};
