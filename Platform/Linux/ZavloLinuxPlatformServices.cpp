#include "Platform/Linux/ZavloLinuxPlatformServices.hpp"

#include <thread>
#include <utility>

namespace {

constexpr const char* kNoKeyStore = "no key store: the host links no ZavloAuthenticationSDK::LinuxKeys";

ZavloFailure<ZavloSecureKeyError> noKeyStore() {
  return zavloFailure(ZavloSecureKeyError{ZavloKeychainStatus::notAvailable, kNoKeyStore});
}

}  // namespace

ZavloKeychainQueryResult ZavloLinuxUnavailableKeychain::copyMatching(const ZavloKeychainAttributes& /*query*/) {
  return {ZavloKeychainStatus::notAvailable, std::nullopt};
}

std::int32_t ZavloLinuxUnavailableKeychain::add(const ZavloKeychainAttributes& /*attributes*/) {
  return ZavloKeychainStatus::notAvailable;
}

std::int32_t ZavloLinuxUnavailableKeychain::remove(const ZavloKeychainAttributes& /*query*/) {
  return ZavloKeychainStatus::notAvailable;
}

ZavloSecureKeyResult<std::shared_ptr<const ZavloAccessControl>> ZavloLinuxUnavailableSecureKeys::createAccessControl(
    const std::string& /*protection*/, std::uint64_t /*flags*/) {
  return noKeyStore();
}

ZavloSecureKeyResult<std::shared_ptr<ZavloSecureKey>> ZavloLinuxUnavailableSecureKeys::createRandomKey(
    const ZavloKeychainAttributes& /*attributes*/) {
  return noKeyStore();
}

std::shared_ptr<ZavloPublicKey> ZavloLinuxUnavailableSecureKeys::copyPublicKey(const ZavloSecureKey& /*key*/) {
  return nullptr;
}

ZavloSecureKeyResult<ZavloBytes> ZavloLinuxUnavailableSecureKeys::copyExternalRepresentation(
    const ZavloPublicKey& /*key*/) {
  return noKeyStore();
}

ZavloSecureKeyResult<ZavloBytes> ZavloLinuxUnavailableSecureKeys::createSignature(const ZavloSecureKey& /*key*/,
                                                                                  std::string_view /*algorithm*/,
                                                                                  const ZavloBytes& /*message*/) {
  return noKeyStore();
}

ZavloOwnerAuthenticationError ZavloLinuxUnavailableOwnerAuthenticationContext::error() {
  return ZavloOwnerAuthenticationError::localAuthentication(
      ZavloLAError::biometryNotAvailable,
      "Owner authentication is not available: the host links no ZavloAuthenticationSDK::LinuxOwner");
}

bool ZavloLinuxUnavailableOwnerAuthenticationContext::canEvaluatePolicy(ZavloOwnerAuthenticationPolicy /*policy*/) {
  return false;
}

void ZavloLinuxUnavailableOwnerAuthenticationContext::setLocalizedFallbackTitle(std::optional<std::string> /*title*/) {}

void ZavloLinuxUnavailableOwnerAuthenticationContext::evaluatePolicy(ZavloOwnerAuthenticationPolicy /*policy*/,
                                                                     const std::string& /*localizedReason*/,
                                                                     Reply reply) {
  // Never inline in the call, as the contract promises.
  std::thread([reply = std::move(reply)] { reply(false, error()); }).detach();
}

std::optional<ZavloBytes> ZavloLinuxUnavailableOwnerAuthenticationContext::evaluatedPolicyDomainState() {
  return std::nullopt;
}

bool ZavloLinuxUnavailableOwnerAuthenticationContext::isAuthenticated() const { return false; }
