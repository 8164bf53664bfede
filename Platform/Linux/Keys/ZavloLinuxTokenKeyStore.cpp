#include "Platform/Linux/Keys/ZavloLinuxTokenKeyStore.hpp"

#include "Platform/Linux/Keys/ZavloLinuxEcKeys.hpp"

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/evp.h>

#include <utility>

#include "Platform/ZavloOwnerAuthentication.hpp"

namespace {

ZavloFailure<ZavloKeyStoreError> internal(std::string description) {
  return zavloFailure(ZavloKeyStoreError{ZavloKeyStoreFailure::internal, 0, std::move(description)});
}

}  // namespace

ZavloLinuxTokenKeyStore::ZavloLinuxTokenKeyStore(std::shared_ptr<ZavloLinuxPkcs11Token> token,
                                                 std::shared_ptr<ZavloLinuxKeyFile> file)
    : token_(std::move(token)), file_(std::move(file)) {}

ZavloKeyStoreResult<ZavloCreatedKey> ZavloLinuxTokenKeyStore::createKey(const ZavloBytes& tag,
                                                                        const ZavloOwnerProof& proof) {
  auto point = token_->generate(tag, proof.secret());
  if (!point) return zavloFailure(std::move(point).error());
  return ZavloCreatedKey{std::move(point).value(), location()};
}

ZavloKeyStoreResult<std::optional<ZavloKeyLocation>> ZavloLinuxTokenKeyStore::findKey(const ZavloBytes& tag) {
  const auto found = token_->find(tag);
  if (!found) return zavloFailure(found.error());
  if (!found.value()) return std::optional<ZavloKeyLocation>();
  return std::optional(location());
}

ZavloKeyStoreResult<ZavloBytes> ZavloLinuxTokenKeyStore::sign(const ZavloBytes& tag,
                                                              std::span<const std::uint8_t> message,
                                                              const ZavloOwnerProof& proof) {
  ZavloBytes digest(EVP_MAX_MD_SIZE);
  unsigned int digestLength = 0;
  if (EVP_Digest(message.data(), message.size(), digest.data(), &digestLength, EVP_sha256(), nullptr) != 1) {
    return internal("Signing: SHA-256 failed");
  }
  digest.resize(digestLength);
  auto raw = token_->sign(tag, digest, proof.secret());
  if (!raw) return zavloFailure(std::move(raw).error());
  const auto& rs = raw.value();  // r then s, each half of it
  auto der = rs.size() % 2 == 0 ? ZavloLinuxEcKeys::derSignature(std::span(rs).first(rs.size() / 2),
                                                                 std::span(rs).subspan(rs.size() / 2))
                                : std::nullopt;
  if (!der) return internal("Signing: the token's signature cannot be encoded as DER");
  return std::move(*der);
}

ZavloKeyStoreResult<bool> ZavloLinuxTokenKeyStore::deleteKey(const ZavloBytes& tag) { return token_->destroy(tag); }

ZavloKeyStoreResult<std::optional<ZavloBytes>> ZavloLinuxTokenKeyStore::domainState(const std::string& keyId) {
  return file_->domainState(keyId);
}

ZavloKeyStoreResult<ZavloVoid> ZavloLinuxTokenKeyStore::setDomainState(const std::string& keyId,
                                                                       const std::optional<ZavloBytes>& state) {
  return file_->setDomainState(keyId, state);
}
