#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Platform/ZavloSecureKeys.hpp"

class ZavloTestKeychain;

/// A key store for the test platform that needs no cryptography library. Every key gets
/// a serial number from which its 65-byte public point is derived, and its "signature" of
/// a message is a DER SEQUENCE of two 32-byte INTEGERs derived from the public point and
/// the message: deterministic, different for every key and message, checkable with
/// verify(). It is not ECDSA and proves nothing outside tests.
///
/// As on the device: a permanent key is stored in the platform's keychain under its
/// application tag, and a key signs only when it was taken from the keychain with an
/// owner-authentication context that has authenticated.
///
/// Threading contract: every method is callable from any thread.
class ZavloTestSecureKeys final : public ZavloSecureKeys {
 public:
  enum class Operation {
    createAccessControl,
    createRandomKey,
    copyPublicKey,
    copyExternalRepresentation,
    createSignature
  };

  struct SignatureRequest {
    std::uint64_t keySerial;
    std::string algorithm;
    ZavloBytes message;
  };

  explicit ZavloTestSecureKeys(ZavloTestKeychain& keychain);

  ZavloSecureKeyResult<std::shared_ptr<const ZavloAccessControl>> createAccessControl(const std::string& protection,
                                                                                      std::uint64_t flags) override;
  ZavloSecureKeyResult<std::shared_ptr<ZavloSecureKey>> createRandomKey(
      const ZavloKeychainAttributes& attributes) override;
  std::shared_ptr<ZavloPublicKey> copyPublicKey(const ZavloSecureKey& key) override;
  ZavloSecureKeyResult<ZavloBytes> copyExternalRepresentation(const ZavloPublicKey& key) override;
  ZavloSecureKeyResult<ZavloBytes> createSignature(const ZavloSecureKey& key, std::string_view algorithm,
                                                   const ZavloBytes& message) override;

  /// Every later call of operation fails with error (copyPublicKey answers no key) until
  /// clearFailures().
  void fail(Operation operation, ZavloSecureKeyError error);
  void clearFailures();

  /// A permanent key stored under tag, as enrolment would make it (for tests that need a
  /// key without enrolling). Returns the key's X9.63 public point.
  ZavloBytes installKey(const ZavloBytes& tag);

  /// Whether signature is what the key with this public point makes for message.
  static bool verify(const ZavloBytes& publicPoint, const ZavloBytes& message, const ZavloBytes& signature);

  [[nodiscard]] std::vector<ZavloAccessControl> accessControlRequests() const;
  /// The attributes of every createRandomKey call, in order.
  [[nodiscard]] std::vector<ZavloKeychainAttributes> keyRequests() const;
  [[nodiscard]] std::vector<SignatureRequest> signatureRequests() const;
  /// Keys made so far (serial numbers run from 1).
  [[nodiscard]] std::size_t keyCount() const;

 private:
  class Key;
  class PublicKey;

  std::optional<ZavloSecureKeyError> failure(Operation operation) const;
  std::shared_ptr<ZavloSecureKey> store(const ZavloKeychainAttributes& itemAttributes, std::uint64_t serial,
                                        std::int32_t& status);

  ZavloTestKeychain& keychain_;
  mutable std::mutex mutex_;
  std::map<Operation, ZavloSecureKeyError> failures_;
  std::vector<ZavloAccessControl> accessControlRequests_;
  std::vector<ZavloKeychainAttributes> keyRequests_;
  std::vector<SignatureRequest> signatureRequests_;
  std::uint64_t keyCount_ = 0;
};
