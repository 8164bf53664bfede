#include "Platform/Linux/Keys/ZavloLinuxSecureKeys.hpp"

#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>

#include "Platform/Linux/Keys/ZavloLinuxKeyRequest.hpp"
#include "Platform/Linux/Keys/ZavloLinuxSecureKey.hpp"

namespace {

namespace Status = ZavloKeychainStatus;

constexpr std::size_t kPointSize = 65;  // 0x04, X, Y of P-256

ZavloFailure<ZavloSecureKeyError> failure(std::int64_t code, std::string description) {
  return zavloFailure(ZavloSecureKeyError{code, std::move(description)});
}

ZavloFailure<ZavloSecureKeyError> badParameter(std::string description) {
  return failure(Status::param, std::move(description));
}

// The one mapping of OpenSSL failures: the first queued error's text, then a clean queue
// so that the next call on this thread starts afresh.
ZavloFailure<ZavloSecureKeyError> opensslFailure(const std::string& what) {
  std::string description = what + " failed";
  if (const unsigned long error = ERR_get_error(); error != 0) {
    char text[256] = {};
    ERR_error_string_n(error, text, sizeof text);
    description += std::string(": ") + text;
  }
  ERR_clear_error();
  return failure(ZavloLinuxSecureKeys::internalComponent, std::move(description));
}

std::optional<ZavloBytes> uncompressedPoint(const EVP_PKEY* key) {
  ZavloBytes point(kPointSize);
  std::size_t length = 0;
  if (EVP_PKEY_get_octet_string_param(key, OSSL_PKEY_PARAM_ENCODED_PUBLIC_KEY, point.data(), point.size(), &length) !=
          1 ||
      length != kPointSize || point[0] != 0x04) {
    ERR_clear_error();
    return std::nullopt;
  }
  return point;
}

}  // namespace

ZavloLinuxSecureKeys::ZavloLinuxSecureKeys(std::shared_ptr<ZavloLinuxKeychain> keychain)
    : keychain_(std::move(keychain)) {}

ZavloSecureKeyResult<std::shared_ptr<const ZavloAccessControl>> ZavloLinuxSecureKeys::createAccessControl(
    const std::string& protection, std::uint64_t flags) {
  return zavloLinuxAccessControl(protection, flags);
}

ZavloSecureKeyResult<std::shared_ptr<ZavloSecureKey>> ZavloLinuxSecureKeys::createRandomKey(
    const ZavloKeychainAttributes& attributes) {
  auto request = ZavloLinuxKeyRequest::parse(attributes);
  if (!request) return zavloFailure(std::move(request).error());

  EVP_PKEY* raw = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256");
  if (raw == nullptr) return opensslFailure("P-256 key generation");
  auto key = std::shared_ptr<ZavloLinuxSecureKey>(
      new ZavloLinuxSecureKey(std::shared_ptr<evp_pkey_st>(raw, EVP_PKEY_free), nullptr));

  if (request.value().permanent) {
    if (const auto status = keychain_->addKey(request.value().item, *key); status != Status::success) {
      return failure(status,
                     "Key creation: storing the key in the keychain failed with status " + std::to_string(status));
    }
  }
  return std::shared_ptr<ZavloSecureKey>(std::move(key));
}

std::shared_ptr<ZavloPublicKey> ZavloLinuxSecureKeys::copyPublicKey(const ZavloSecureKey& key) {
  const auto* linuxKey = dynamic_cast<const ZavloLinuxSecureKey*>(&key);
  if (linuxKey == nullptr) return nullptr;
  auto point = uncompressedPoint(linuxKey->key_.get());
  if (!point) return nullptr;
  return std::make_shared<ZavloLinuxPublicKey>(std::move(*point));
}

ZavloSecureKeyResult<ZavloBytes> ZavloLinuxSecureKeys::copyExternalRepresentation(const ZavloPublicKey& key) {
  const auto* publicKey = dynamic_cast<const ZavloLinuxPublicKey*>(&key);
  if (publicKey == nullptr) return badParameter("Public key export: the key is not one of this key store");
  return publicKey->point();
}

ZavloSecureKeyResult<ZavloBytes> ZavloLinuxSecureKeys::createSignature(const ZavloSecureKey& key,
                                                                       std::string_view algorithm,
                                                                       const ZavloBytes& message) {
  if (algorithm != kSecKeyAlgorithmECDSASignatureMessageX962SHA256) {
    return badParameter("Signing: unsupported algorithm " + std::string(algorithm));
  }
  const auto* linuxKey = dynamic_cast<const ZavloLinuxSecureKey*>(&key);
  if (linuxKey == nullptr) return badParameter("Signing: the key is not one of this key store");
  if (!linuxKey->isUsable()) {
    return failure(Status::interactionNotAllowed,
                   "Signing: the private key is used only through a context whose owner has authenticated");
  }

  const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  if (context == nullptr ||
      EVP_DigestSignInit_ex(context.get(), nullptr, "SHA256", nullptr, nullptr, linuxKey->key_.get(), nullptr) != 1) {
    return opensslFailure("Signing");
  }
  static const unsigned char kNothing = 0;  // OpenSSL wants a pointer even for an empty message
  const unsigned char* data = message.empty() ? &kNothing : message.data();
  std::size_t length = 0;
  if (EVP_DigestSign(context.get(), nullptr, &length, data, message.size()) != 1) return opensslFailure("Signing");
  ZavloBytes signature(length);
  if (EVP_DigestSign(context.get(), signature.data(), &length, data, message.size()) != 1) {
    return opensslFailure("Signing");
  }
  signature.resize(length);
  return signature;
}
