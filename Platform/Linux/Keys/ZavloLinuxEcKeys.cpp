#include "Platform/Linux/Keys/ZavloLinuxEcKeys.hpp"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>

#include <climits>
#include <memory>

namespace ZavloLinuxEcKeys {

namespace {
constexpr std::size_t kPointSize = 65;
}  // namespace

std::optional<ZavloBytes> publicPoint(const evp_pkey_st* key) {
  ZavloBytes point(kPointSize);
  std::size_t length = 0;
  const bool read = key != nullptr && EVP_PKEY_get_octet_string_param(key, OSSL_PKEY_PARAM_ENCODED_PUBLIC_KEY,
                                                                      point.data(), point.size(), &length) == 1;
  ERR_clear_error();
  if (!read || length != kPointSize || point[0] != 0x04) return std::nullopt;
  return point;
}

std::optional<ZavloBytes> publicPointOfDer(std::span<const std::uint8_t> der) {
  if (der.empty() || der.size() > static_cast<std::size_t>(LONG_MAX)) return std::nullopt;
  const auto* cursor = der.data();
  const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(
      d2i_PrivateKey(EVP_PKEY_EC, nullptr, &cursor, static_cast<long>(der.size())), EVP_PKEY_free);
  ERR_clear_error();
  return publicPoint(key.get());
}

std::optional<ZavloBytes> derSignature(std::span<const std::uint8_t> r, std::span<const std::uint8_t> s) {
  if (r.empty() || s.empty()) return std::nullopt;
  const std::unique_ptr<ECDSA_SIG, decltype(&ECDSA_SIG_free)> signature(ECDSA_SIG_new(), ECDSA_SIG_free);
  BIGNUM* rNumber = BN_bin2bn(r.data(), static_cast<int>(r.size()), nullptr);
  BIGNUM* sNumber = BN_bin2bn(s.data(), static_cast<int>(s.size()), nullptr);
  if (signature == nullptr || rNumber == nullptr || sNumber == nullptr ||
      ECDSA_SIG_set0(signature.get(), rNumber, sNumber) != 1) {
    BN_free(rNumber);
    BN_free(sNumber);
    ERR_clear_error();
    return std::nullopt;
  }
  const int length = i2d_ECDSA_SIG(signature.get(), nullptr);
  if (length <= 0) return std::nullopt;
  ZavloBytes der(static_cast<std::size_t>(length));
  unsigned char* cursor = der.data();
  if (i2d_ECDSA_SIG(signature.get(), &cursor) != length) return std::nullopt;
  return der;
}

}  // namespace ZavloLinuxEcKeys
