#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Platform/Linux/Keys/ZavloLinuxKeyFile.hpp"
#include "Platform/Linux/Keys/ZavloLinuxSealedProtection.hpp"
#include "Platform/Linux/Owner/ZavloLinuxOwnerAuthentication.hpp"
#include "Platform/ZavloKeyStore.hpp"
#include "Platform/ZavloOwnerAuthentication.hpp"

// The services ZavloLinuxPlatform makes through factories, so that its core links neither
// the key store (SQLite, p11-kit) nor owner authentication (PAM, GIO). The targets
// ZavloAuthenticationSDK::LinuxKeys and ::LinuxOwner define the factories; a host that
// links neither gets the unavailable services below.

/// Where and how the platform's key store is kept (ZavloLinuxPlatform::Options).
struct ZavloLinuxKeyStoreSettings {
  /// The key file.
  std::string path;
  /// The path is the user's default one, whose missing folders are then made.
  bool defaultPath = false;
  ZavloLinuxKeyFile::Options file = {};
  /// A PKCS#11 URI: keys live in that token, the file keeps the domain-state records.
  std::optional<std::string> keyToken = {};
  /// A tpm2-tss TCTI string for the TPM that makes new keys ("" for the system's TPM).
  /// Absent: the system's TPM where one answers, else sealed software keys.
  std::optional<std::string> tpm = {};
  /// scrypt's cost for keys sealed in software.
  ZavloLinuxSealedProtection::Cost sealingCost = {};
};

/// The key store the settings made, and what it is, for traces and `binding state -v`.
struct ZavloLinuxKeyStoreService {
  std::shared_ptr<ZavloKeyStore> store;
  /// Where new keys go, such as "TPM 2.0 (device:/dev/tpmrm0), key file /path".
  std::string description;
};

/// Owner authentication as the platform reaches it: through makeContext, so that the
/// platform calls no function of the owner target directly.
struct ZavloLinuxOwnerAuthenticationService {
  std::shared_ptr<ZavloLinuxOwnerAuthentication> authentication;
  std::function<std::shared_ptr<ZavloOwnerAuthenticationContext>()> makeContext;
};

using ZavloLinuxKeyStoreFactory = ZavloLinuxKeyStoreService (*)(ZavloLinuxKeyStoreSettings settings);
using ZavloLinuxOwnerAuthenticationFactory =
    ZavloLinuxOwnerAuthenticationService (*)(ZavloLinuxOwnerAuthentication::Options options);

/// The factories of the linked targets; null for one that is not linked. Named in C so that
/// each target can ask the linker to keep its definition (--undefined).
extern "C" {
extern const ZavloLinuxKeyStoreFactory zavloLinuxKeyStoreFactory;
extern const ZavloLinuxOwnerAuthenticationFactory zavloLinuxOwnerAuthenticationFactory;
}

/// A key store where every call fails as unavailable.
class ZavloLinuxUnavailableKeyStore final : public ZavloKeyStore {
 public:
  ZavloKeyStoreResult<ZavloCreatedKey> createKey(const ZavloBytes& tag, const ZavloOwnerProof& proof) override;
  ZavloKeyStoreResult<std::optional<ZavloKeyLocation>> findKey(const ZavloBytes& tag) override;
  ZavloKeyStoreResult<ZavloBytes> sign(const ZavloBytes& tag, std::span<const std::uint8_t> message,
                                       const ZavloOwnerProof& proof) override;
  ZavloKeyStoreResult<bool> deleteKey(const ZavloBytes& tag) override;
  ZavloKeyStoreResult<std::optional<ZavloBytes>> domainState(const std::string& keyId) override;
  ZavloKeyStoreResult<ZavloVoid> setDomainState(const std::string& keyId,
                                                const std::optional<ZavloBytes>& state) override;

  static ZavloKeyStoreError error();
};

/// A context that can evaluate nothing: every policy is biometryNotAvailable, and every
/// prompt fails so, on a thread of its own as a real prompt's reply would.
class ZavloLinuxUnavailableOwnerAuthenticationContext final : public ZavloOwnerAuthenticationContext {
 public:
  bool canEvaluatePolicy(ZavloOwnerAuthenticationPolicy policy) override;
  void setLocalizedFallbackTitle(std::optional<std::string> title) override;
  void evaluatePolicy(ZavloOwnerAuthenticationPolicy policy, const std::string& localizedReason, Reply reply) override;
  std::optional<ZavloBytes> evaluatedPolicyDomainState() override;
  std::unique_ptr<ZavloOwnerProof> takeOwnerProof() override;

  static ZavloOwnerAuthenticationError error();
};
