#include "Platform/Linux/ZavloLinuxPlatformServices.hpp"

#include <system_error>
#include <thread>
#include <utility>

ZavloKeyStoreError ZavloLinuxUnavailableKeyStore::error() {
  return {ZavloKeyStoreFailure::unavailable, 0, "no key store: the host links no ZavloAuthenticationSDK::LinuxKeys"};
}

ZavloKeyStoreResult<ZavloCreatedKey> ZavloLinuxUnavailableKeyStore::createKey(const ZavloBytes& /*tag*/,
                                                                              const ZavloOwnerProof& /*proof*/) {
  return zavloFailure(error());
}

ZavloKeyStoreResult<std::optional<ZavloKeyLocation>> ZavloLinuxUnavailableKeyStore::findKey(const ZavloBytes& /*tag*/) {
  return zavloFailure(error());
}

ZavloKeyStoreResult<ZavloBytes> ZavloLinuxUnavailableKeyStore::sign(const ZavloBytes& /*tag*/,
                                                                    std::span<const std::uint8_t> /*message*/,
                                                                    const ZavloOwnerProof& /*proof*/) {
  return zavloFailure(error());
}

ZavloKeyStoreResult<bool> ZavloLinuxUnavailableKeyStore::deleteKey(const ZavloBytes& /*tag*/) {
  return zavloFailure(error());
}

ZavloKeyStoreResult<std::optional<ZavloBytes>> ZavloLinuxUnavailableKeyStore::domainState(
    const std::string& /*keyId*/) {
  return zavloFailure(error());
}

ZavloKeyStoreResult<ZavloVoid> ZavloLinuxUnavailableKeyStore::setDomainState(
    const std::string& /*keyId*/, const std::optional<ZavloBytes>& /*state*/) {
  return zavloFailure(error());
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
  // Never inline in the call, as the contract promises, unless no thread can be had.
  try {
    std::thread([reply] { reply(false, error()); }).detach();
  } catch (const std::system_error&) {
    reply(false, error());
  }
}

std::optional<ZavloBytes> ZavloLinuxUnavailableOwnerAuthenticationContext::evaluatedPolicyDomainState() {
  return std::nullopt;
}

std::unique_ptr<ZavloOwnerProof> ZavloLinuxUnavailableOwnerAuthenticationContext::takeOwnerProof() { return nullptr; }
