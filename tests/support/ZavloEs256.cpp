#include "ZavloEs256.hpp"

#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>

#include <memory>

#include "Core/ZavloBase64.hpp"

bool zavloVerifyEs256(const ZavloBytes& point, std::span<const std::uint8_t> message, const ZavloBytes& signature) {
  ZavloBytes pointCopy = point;
  char group[] = SN_X9_62_prime256v1;
  OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME, group, 0),
                         OSSL_PARAM_construct_octet_string(OSSL_PKEY_PARAM_PUB_KEY, pointCopy.data(), pointCopy.size()),
                         OSSL_PARAM_construct_end()};
  const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> keyContext(
      EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr), EVP_PKEY_CTX_free);
  EVP_PKEY* raw = nullptr;
  if (keyContext == nullptr || EVP_PKEY_fromdata_init(keyContext.get()) != 1 ||
      EVP_PKEY_fromdata(keyContext.get(), &raw, EVP_PKEY_PUBLIC_KEY, params) != 1) {
    ERR_clear_error();
    return false;
  }
  const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(raw, EVP_PKEY_free);
  const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  const bool valid =
      context != nullptr &&
      EVP_DigestVerifyInit_ex(context.get(), nullptr, "SHA256", nullptr, nullptr, key.get(), nullptr) == 1 &&
      EVP_DigestVerify(context.get(), signature.data(), signature.size(), message.data(), message.size()) == 1;
  ERR_clear_error();
  return valid;
}

bool zavloVerifyPublishedEs256(const std::string& publicKeyBase64, const std::string& message,
                               const std::string& signatureBase64) {
  const auto spki = ZavloBase64::decode(publicKeyBase64).value_or(ZavloBytes{});
  const auto signature = ZavloBase64::decode(signatureBase64).value_or(ZavloBytes{});
  if (spki.size() != 91) return false;
  return zavloVerifyEs256(ZavloBytes(spki.end() - 65, spki.end()), ZavloBytes(message.begin(), message.end()),
                          signature);
}
