#include "Platform/Linux/Keys/ZavloLinuxSecureKey.hpp"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>

#include <climits>
#include <cstring>

namespace {

bool isP256(const EVP_PKEY* key) {
  char group[32] = {};
  std::size_t length = 0;
  return EVP_PKEY_is_a(key, "EC") == 1 &&
         EVP_PKEY_get_utf8_string_param(key, OSSL_PKEY_PARAM_GROUP_NAME, group, sizeof group, &length) == 1 &&
         std::strcmp(group, SN_X9_62_prime256v1) == 0;
}

}  // namespace

ZavloLinuxSecureKey::Material::Material(std::size_t size) : bytes_(new unsigned char[size]()), size_(size) {}

ZavloLinuxSecureKey::Material::~Material() { OPENSSL_cleanse(bytes_.get(), size_); }

ZavloLinuxSecureKey::ZavloLinuxSecureKey(std::shared_ptr<evp_pkey_st> key,
                                         std::shared_ptr<ZavloOwnerAuthenticationContext> context)
    : key_(std::move(key)), context_(std::move(context)) {}

bool ZavloLinuxSecureKey::isUsable() const { return context_ != nullptr && context_->isAuthenticated(); }

std::unique_ptr<ZavloLinuxSecureKey::Material> ZavloLinuxSecureKey::material() const {
  const int length = i2d_PrivateKey(key_.get(), nullptr);
  if (length <= 0) {
    ERR_clear_error();
    return nullptr;
  }
  auto material = std::make_unique<Material>(static_cast<std::size_t>(length));
  unsigned char* cursor = material->data();
  if (i2d_PrivateKey(key_.get(), &cursor) != length) {
    ERR_clear_error();
    return nullptr;
  }
  return material;
}

std::shared_ptr<ZavloLinuxSecureKey> ZavloLinuxSecureKey::fromMaterial(
    const void* der, std::size_t size, std::shared_ptr<ZavloOwnerAuthenticationContext> context) {
  if (der == nullptr || size == 0 || size > static_cast<std::size_t>(LONG_MAX)) return nullptr;
  const auto* cursor = static_cast<const unsigned char*>(der);
  EVP_PKEY* raw = d2i_PrivateKey(EVP_PKEY_EC, nullptr, &cursor, static_cast<long>(size));
  if (raw == nullptr) {
    ERR_clear_error();
    return nullptr;
  }
  std::shared_ptr<evp_pkey_st> key(raw, EVP_PKEY_free);
  if (!isP256(raw)) return nullptr;
  return std::shared_ptr<ZavloLinuxSecureKey>(new ZavloLinuxSecureKey(std::move(key), std::move(context)));
}
