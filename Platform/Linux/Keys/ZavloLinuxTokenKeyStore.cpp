#include "Platform/Linux/Keys/ZavloLinuxTokenKeyStore.hpp"

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/evp.h>

#include <utility>

#include "Platform/ZavloOwnerAuthentication.hpp"

namespace {

// r then s, each as wide as half the raw signature, as one X9.62 DER SEQUENCE.
std::optional<ZavloBytes> derSignature(const ZavloBytes& raw) {
  if (raw.empty() || raw.size() % 2 != 0) return std::nullopt;
  const auto half = static_cast<int>(raw.size() / 2);
  const std::unique_ptr<ECDSA_SIG, decltype(&ECDSA_SIG_free)> signature(ECDSA_SIG_new(), ECDSA_SIG_free);
  BIGNUM* r = BN_bin2bn(raw.data(), half, nullptr);
  BIGNUM* s = BN_bin2bn(raw.data() + half, half, nullptr);
  if (signature == nullptr || r == nullptr || s == nullptr || ECDSA_SIG_set0(signature.get(), r, s) != 1) {
    BN_free(r);
    BN_free(s);
    return std::nullopt;
  }
  const int length = i2d_ECDSA_SIG(signature.get(), nullptr);
  if (length <= 0) return std::nullopt;
  ZavloBytes der(static_cast<std::size_t>(length));
  unsigned char* out = der.data();
  if (i2d_ECDSA_SIG(signature.get(), &out) != length) return std::nullopt;
  return der;
}

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
  auto der = derSignature(raw.value());
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
