#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Platform/Linux/Keys/ZavloLinuxKeychain.hpp"
#include "Platform/Linux/Owner/ZavloLinuxOwnerAuthentication.hpp"
#include "Platform/ZavloKeychain.hpp"
#include "Platform/ZavloOwnerAuthentication.hpp"
#include "Platform/ZavloSecureKeys.hpp"

// The services ZavloLinuxPlatform makes through factories, so that its core links neither
// the key store (SQLite, p11-kit) nor owner authentication (PAM, GIO). The targets
// ZavloAuthenticationSDK::LinuxKeys and ::LinuxOwner define the factories; a host that
// links neither gets the unavailable services below.

/// Where and how the platform's key store is kept (ZavloLinuxPlatform::Options).
struct ZavloLinuxKeyStoreSettings {
  std::string path;
  /// The path is the user's default one, whose missing folders are then made.
  bool defaultPath = false;
  ZavloLinuxKeychain::Options keychain = {};
  std::optional<std::string> keyToken = {};
};

/// The keychain and the key service over it; the keys keep what they share alive.
struct ZavloLinuxKeyStore {
  std::shared_ptr<ZavloKeychain> keychain;
  std::shared_ptr<ZavloSecureKeys> secureKeys;
};

/// Owner authentication as the platform reaches it: through makeContext, so that the
/// platform calls no function of the owner target directly.
struct ZavloLinuxOwnerAuthenticationService {
  std::shared_ptr<ZavloLinuxOwnerAuthentication> authentication;
  std::function<std::shared_ptr<ZavloOwnerAuthenticationContext>()> makeContext;
};

using ZavloLinuxKeyStoreFactory = ZavloLinuxKeyStore (*)(ZavloLinuxKeyStoreSettings settings);
using ZavloLinuxOwnerAuthenticationFactory =
    ZavloLinuxOwnerAuthenticationService (*)(ZavloLinuxOwnerAuthentication::Options options);

/// The factories of the linked targets; null for one that is not linked. Named in C so that
/// each target can ask the linker to keep its definition (--undefined).
extern "C" {
extern const ZavloLinuxKeyStoreFactory zavloLinuxKeyStoreFactory;
extern const ZavloLinuxOwnerAuthenticationFactory zavloLinuxOwnerAuthenticationFactory;
}

/// A keychain where every call fails with notAvailable.
class ZavloLinuxUnavailableKeychain final : public ZavloKeychain {
 public:
  ZavloKeychainQueryResult copyMatching(const ZavloKeychainAttributes& query) override;
  std::int32_t add(const ZavloKeychainAttributes& attributes) override;
  std::int32_t remove(const ZavloKeychainAttributes& query) override;
};

/// Key operations that all fail with notAvailable; there is never a public key.
class ZavloLinuxUnavailableSecureKeys final : public ZavloSecureKeys {
 public:
  ZavloSecureKeyResult<std::shared_ptr<const ZavloAccessControl>> createAccessControl(const std::string& protection,
                                                                                      std::uint64_t flags) override;
  ZavloSecureKeyResult<std::shared_ptr<ZavloSecureKey>> createRandomKey(
      const ZavloKeychainAttributes& attributes) override;
  std::shared_ptr<ZavloPublicKey> copyPublicKey(const ZavloSecureKey& key) override;
  ZavloSecureKeyResult<ZavloBytes> copyExternalRepresentation(const ZavloPublicKey& key) override;
  ZavloSecureKeyResult<ZavloBytes> createSignature(const ZavloSecureKey& key, std::string_view algorithm,
                                                   const ZavloBytes& message) override;
};

/// A context that can evaluate nothing: every policy is biometryNotAvailable, and every
/// prompt fails so, on a thread of its own as a real prompt's reply would.
class ZavloLinuxUnavailableOwnerAuthenticationContext final : public ZavloOwnerAuthenticationContext {
 public:
  bool canEvaluatePolicy(ZavloOwnerAuthenticationPolicy policy) override;
  void setLocalizedFallbackTitle(std::optional<std::string> title) override;
  void evaluatePolicy(ZavloOwnerAuthenticationPolicy policy, const std::string& localizedReason, Reply reply) override;
  std::optional<ZavloBytes> evaluatedPolicyDomainState() override;
  [[nodiscard]] bool isAuthenticated() const override;

  static ZavloOwnerAuthenticationError error();
};
