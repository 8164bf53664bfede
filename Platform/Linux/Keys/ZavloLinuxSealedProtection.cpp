#include "Platform/Linux/Keys/ZavloLinuxSealedProtection.hpp"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/param_build.h>
#include <openssl/rand.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>

#include "Platform/Linux/Keys/ZavloLinuxEcKeys.hpp"
#include "Platform/Linux/ZavloLinuxSecret.hpp"

namespace {

using Failure = ZavloKeyStoreFailure;

constexpr std::array<std::uint8_t, 3> kMagic = {'Z', 'S', '1'};
constexpr std::size_t kSaltSize = 16;
constexpr std::size_t kNonceSize = 12;
constexpr std::size_t kScalarSize = 32;
constexpr std::size_t kGcmTagSize = 16;
constexpr std::size_t kPointSize = 65;
constexpr std::size_t kBlobSize = kMagic.size() + 3 + kSaltSize + kNonceSize + kScalarSize + kGcmTagSize;
// Bounds on a blob's own cost, so that a crafted blob cannot ask for gigabytes.
constexpr std::uint8_t kMaxLog2N = 20;
constexpr std::uint8_t kMaxR = 16;
constexpr std::uint8_t kMaxP = 4;
constexpr char kAssociatedLabel[] = "zavlo sealed P-256 key";

using PKey = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

struct BignumClearFree {
  void operator()(BIGNUM* number) const { BN_clear_free(number); }
};
using SecureBignum = std::unique_ptr<BIGNUM, BignumClearFree>;

ZavloFailure<ZavloKeyStoreError> failure(Failure kind, std::string description) {
  return zavloFailure(ZavloKeyStoreError{kind, 0, std::move(description)});
}

// The one mapping of OpenSSL failures: the first queued error's text, then a clean queue.
ZavloFailure<ZavloKeyStoreError> opensslFailure(const std::string& what) {
  std::string description = "Sealed key: " + what + " failed";
  const unsigned long error = ERR_get_error();
  if (error != 0) {
    char text[256] = {};
    ERR_error_string_n(error, text, sizeof text);
    description += std::string(": ") + text;
  }
  ERR_clear_error();
  return zavloFailure(ZavloKeyStoreError{Failure::internal, static_cast<std::int64_t>(error), std::move(description)});
}

// OpenSSL keeps private key numbers in its secure heap once there is one: locked pages
// left out of core dumps, wiped when freed. Made once, small; a host that made its own
// keeps it.
void ensureSecureHeap() {
  static std::once_flag once;
  std::call_once(once, [] {
    if (CRYPTO_secure_malloc_initialized() == 0) (void)CRYPTO_secure_malloc_init(std::size_t{64} * 1024, 32);
  });
}

// The private scalar of a P-256 key, big-endian, in a secret.
std::optional<ZavloLinuxSecret> scalarOf(const EVP_PKEY* key) {
  SecureBignum number(BN_secure_new());
  BIGNUM* raw = number.get();
  if (raw == nullptr || EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_PRIV_KEY, &raw) != 1 ||
      BN_num_bytes(raw) > static_cast<int>(kScalarSize)) {
    ERR_clear_error();
    return std::nullopt;
  }
  ZavloLinuxSecret scalar(kScalarSize);
  if (BN_bn2binpad(raw, scalar.data(), kScalarSize) != static_cast<int>(kScalarSize)) return std::nullopt;
  return scalar;
}

// The key of scalar and its public point, checked to belong together.
PKey keyOf(const ZavloLinuxSecret& scalar, const ZavloBytes& point) {
  PKey none(nullptr, EVP_PKEY_free);
  SecureBignum number(BN_secure_new());
  if (number == nullptr || BN_bin2bn(scalar.data(), static_cast<int>(scalar.size()), number.get()) == nullptr) {
    return none;
  }
  const std::unique_ptr<OSSL_PARAM_BLD, decltype(&OSSL_PARAM_BLD_free)> builder(OSSL_PARAM_BLD_new(),
                                                                                OSSL_PARAM_BLD_free);
  if (builder == nullptr ||
      OSSL_PARAM_BLD_push_utf8_string(builder.get(), OSSL_PKEY_PARAM_GROUP_NAME, SN_X9_62_prime256v1, 0) != 1 ||
      OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_PRIV_KEY, number.get()) != 1 ||
      OSSL_PARAM_BLD_push_octet_string(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, point.data(), point.size()) != 1) {
    return none;
  }
  // The private number is in the parameters' secure part, which OSSL_PARAM_free wipes.
  const std::unique_ptr<OSSL_PARAM, decltype(&OSSL_PARAM_free)> params(OSSL_PARAM_BLD_to_param(builder.get()),
                                                                       OSSL_PARAM_free);
  const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(
      EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr), EVP_PKEY_CTX_free);
  EVP_PKEY* raw = nullptr;
  if (params == nullptr || context == nullptr || EVP_PKEY_fromdata_init(context.get()) != 1 ||
      EVP_PKEY_fromdata(context.get(), &raw, EVP_PKEY_KEYPAIR, params.get()) != 1) {
    return none;
  }
  PKey key(raw, EVP_PKEY_free);
  // A scalar that is not the point's would sign what the enrolled key does not verify.
  const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> check(EVP_PKEY_CTX_new(key.get(), nullptr),
                                                                          EVP_PKEY_CTX_free);
  if (check == nullptr || EVP_PKEY_pairwise_check(check.get()) != 1) return none;
  return key;
}

ZavloKeyStoreResult<ZavloBytes> signWith(EVP_PKEY* key, std::span<const std::uint8_t> message) {
  const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  if (context == nullptr ||
      EVP_DigestSignInit_ex(context.get(), nullptr, "SHA256", nullptr, nullptr, key, nullptr) != 1) {
    return opensslFailure("signing");
  }
  static const unsigned char kNothing = 0;  // OpenSSL wants a pointer even for an empty message
  const unsigned char* data = message.empty() ? &kNothing : message.data();
  std::size_t length = 0;
  if (EVP_DigestSign(context.get(), nullptr, &length, data, message.size()) != 1) return opensslFailure("signing");
  ZavloBytes signature(length);
  if (EVP_DigestSign(context.get(), signature.data(), &length, data, message.size()) != 1) {
    return opensslFailure("signing");
  }
  signature.resize(length);
  return signature;
}

// The key that seals: scrypt of the owner's secret with the key's salt and cost.
std::optional<ZavloLinuxSecret> sealingKey(std::span<const std::uint8_t> secret, std::span<const std::uint8_t> salt,
                                           ZavloLinuxSealedProtection::Cost cost) {
  const std::unique_ptr<EVP_KDF, decltype(&EVP_KDF_free)> kdf(EVP_KDF_fetch(nullptr, "SCRYPT", nullptr), EVP_KDF_free);
  const std::unique_ptr<EVP_KDF_CTX, decltype(&EVP_KDF_CTX_free)> context(kdf ? EVP_KDF_CTX_new(kdf.get()) : nullptr,
                                                                          EVP_KDF_CTX_free);
  if (context == nullptr) return std::nullopt;
  std::uint64_t n = std::uint64_t{1} << cost.log2N;
  std::uint32_t r = cost.r;
  std::uint32_t p = cost.p;
  // OSSL_PARAM wants non-const pointers; it only reads them here.
  auto* password = const_cast<std::uint8_t*>(secret.data());  // NOLINT
  auto* saltBytes = const_cast<std::uint8_t*>(salt.data());   // NOLINT
  const OSSL_PARAM params[] = {
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_PASSWORD, password, secret.size()),
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_SALT, saltBytes, salt.size()),
      OSSL_PARAM_construct_uint64(OSSL_KDF_PARAM_SCRYPT_N, &n),
      OSSL_PARAM_construct_uint32(OSSL_KDF_PARAM_SCRYPT_R, &r),
      OSSL_PARAM_construct_uint32(OSSL_KDF_PARAM_SCRYPT_P, &p),
      OSSL_PARAM_construct_end(),
  };
  ZavloLinuxSecret key(32);
  if (EVP_KDF_derive(context.get(), key.data(), key.size(), params) != 1) {
    ERR_clear_error();
    return std::nullopt;
  }
  return key;
}

// The machine and the user a key is sealed on: not secret, but a key file copied to
// another machine or into another user's home does not open there, even with the secret.
std::string ownerPlace() {
  std::string machine;
  for (const char* path : {"/etc/machine-id", "/var/lib/dbus/machine-id"}) {
    std::ifstream file(path);
    if (std::getline(file, machine) && !machine.empty()) break;
  }
  return "machine " + machine + "\nuser " + std::to_string(geteuid()) + "\n";
}

// What the GCM tag also covers: the key's tag and public point, and the place it was
// sealed on, so that a blob opens only under its tag, for its key, where it was made.
ZavloBytes associatedData(const ZavloBytes& tag, const ZavloBytes& point) {
  ZavloBytes data(std::begin(kAssociatedLabel), std::end(kAssociatedLabel));  // with its NUL
  const auto place = ownerPlace();
  data.insert(data.end(), place.begin(), place.end());
  const auto length = static_cast<std::uint32_t>(tag.size());
  for (int shift = 24; shift >= 0; shift -= 8) data.push_back(static_cast<std::uint8_t>(length >> shift));
  data.insert(data.end(), tag.begin(), tag.end());
  data.insert(data.end(), point.begin(), point.end());
  return data;
}

// AES-256-GCM of scalar under key; in the blob's layout: ciphertext then GCM tag.
bool encrypt(const ZavloLinuxSecret& key, std::span<const std::uint8_t> nonce, const ZavloBytes& associated,
             const ZavloLinuxSecret& scalar, std::uint8_t* out) {
  const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(),
                                                                                EVP_CIPHER_CTX_free);
  int length = 0;
  int final = 0;
  const bool done =
      context != nullptr &&
      EVP_EncryptInit_ex2(context.get(), EVP_aes_256_gcm(), key.data(), nonce.data(), nullptr) == 1 &&
      EVP_EncryptUpdate(context.get(), nullptr, &length, associated.data(), static_cast<int>(associated.size())) == 1 &&
      EVP_EncryptUpdate(context.get(), out, &length, scalar.data(), static_cast<int>(scalar.size())) == 1 &&
      length == static_cast<int>(kScalarSize) && EVP_EncryptFinal_ex(context.get(), out + length, &final) == 1 &&
      EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_GET_TAG, kGcmTagSize, out + kScalarSize) == 1;
  ERR_clear_error();
  return done;
}

// The scalar, or nothing when the key, the associated data or the blob is not the one it
// was sealed with.
std::optional<ZavloLinuxSecret> decrypt(const ZavloLinuxSecret& key, std::span<const std::uint8_t> nonce,
                                        const ZavloBytes& associated, std::span<const std::uint8_t> sealed) {
  const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(),
                                                                                EVP_CIPHER_CTX_free);
  ZavloLinuxSecret scalar(kScalarSize);
  int length = 0;
  int final = 0;
  std::array<std::uint8_t, kGcmTagSize> tag{};
  std::copy_n(sealed.begin() + kScalarSize, kGcmTagSize, tag.begin());
  const bool opened =
      context != nullptr &&
      EVP_DecryptInit_ex2(context.get(), EVP_aes_256_gcm(), key.data(), nonce.data(), nullptr) == 1 &&
      EVP_DecryptUpdate(context.get(), nullptr, &length, associated.data(), static_cast<int>(associated.size())) == 1 &&
      EVP_DecryptUpdate(context.get(), scalar.data(), &length, sealed.data(), static_cast<int>(kScalarSize)) == 1 &&
      EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_SET_TAG, kGcmTagSize, tag.data()) == 1 &&
      EVP_DecryptFinal_ex(context.get(), scalar.data() + length, &final) == 1;
  ERR_clear_error();
  if (!opened) return std::nullopt;
  return scalar;
}

// The blob of scalar sealed for secret, bound to tag and point.
ZavloKeyStoreResult<ZavloBytes> sealedBlob(ZavloLinuxSealedProtection::Cost cost, const ZavloBytes& tag,
                                           const ZavloBytes& point, const ZavloLinuxSecret& scalar,
                                           std::span<const std::uint8_t> secret) {
  ZavloBytes blob(kBlobSize);
  std::copy(kMagic.begin(), kMagic.end(), blob.begin());
  blob[3] = cost.log2N;
  blob[4] = cost.r;
  blob[5] = cost.p;
  const std::span<std::uint8_t> salt(blob.data() + 6, kSaltSize);
  const std::span<std::uint8_t> nonce(salt.data() + kSaltSize, kNonceSize);
  if (RAND_bytes(salt.data(), static_cast<int>(salt.size() + nonce.size())) != 1) return opensslFailure("RAND_bytes");
  const auto sealing = sealingKey(secret, salt, cost);
  if (!sealing) return opensslFailure("scrypt");
  if (!encrypt(*sealing, nonce, associatedData(tag, point), scalar, nonce.data() + kNonceSize)) {
    return opensslFailure("AES-256-GCM sealing");
  }
  return blob;
}

PKey plainKey(const ZavloLinuxKeyRecord& plain) {
  PKey none(nullptr, EVP_PKEY_free);
  if (plain.blob.empty() || plain.blob.size() > static_cast<std::size_t>(LONG_MAX)) return none;
  ensureSecureHeap();
  const auto* cursor = plain.blob.data();
  PKey key(d2i_PrivateKey(EVP_PKEY_EC, nullptr, &cursor, static_cast<long>(plain.blob.size())), EVP_PKEY_free);
  ERR_clear_error();
  if (key == nullptr || ZavloLinuxEcKeys::publicPoint(key.get()) != plain.publicKey) return none;
  return key;
}

}  // namespace

ZavloLinuxSealedProtection::ZavloLinuxSealedProtection(Cost cost) : cost_(cost) {}

ZavloKeyStoreResult<ZavloLinuxKeyProtection::Made> ZavloLinuxSealedProtection::create(const ZavloBytes& tag,
                                                                                      const ZavloOwnerProof& proof) {
  if (proof.secret().empty())
    return failure(Failure::noOwnerSecret, "Sealed key: the owner gave no secret to seal with");
  ensureSecureHeap();
  PKey key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"), EVP_PKEY_free);
  if (key == nullptr) return opensslFailure("P-256 key generation");
  auto point = ZavloLinuxEcKeys::publicPoint(key.get());
  const auto scalar = scalarOf(key.get());
  if (!point || !scalar) return failure(Failure::publicKeyExport, "Sealed key: the new key cannot be read back");
  auto blob = sealedBlob(cost_, tag, *point, *scalar, proof.secret());
  if (!blob) return zavloFailure(std::move(blob).error());
  return Made{std::move(*point), std::move(blob).value()};
}

ZavloKeyStoreResult<ZavloBytes> ZavloLinuxSealedProtection::sign(const ZavloLinuxKeyRecord& record,
                                                                 std::span<const std::uint8_t> message,
                                                                 const ZavloOwnerProof& proof) {
  const auto& blob = record.blob;
  if (blob.size() != kBlobSize || !std::equal(kMagic.begin(), kMagic.end(), blob.begin()) ||
      record.publicKey.size() != kPointSize) {
    return failure(Failure::damaged, "Sealed key: the blob is not one this library sealed");
  }
  const Cost cost{blob[3], blob[4], blob[5]};
  if (cost.log2N == 0 || cost.log2N > kMaxLog2N || cost.r == 0 || cost.r > kMaxR || cost.p == 0 || cost.p > kMaxP) {
    return failure(Failure::damaged, "Sealed key: the blob asks for a cost out of bounds");
  }
  if (proof.secret().empty()) return failure(Failure::noOwnerSecret, "Sealed key: the key needs the owner's secret");
  const std::span<const std::uint8_t> salt(blob.data() + 6, kSaltSize);
  const std::span<const std::uint8_t> nonce(salt.data() + kSaltSize, kNonceSize);
  const std::span<const std::uint8_t> sealed(nonce.data() + kNonceSize, kScalarSize + kGcmTagSize);
  const auto sealing = sealingKey(proof.secret(), salt, cost);
  if (!sealing) return opensslFailure("scrypt");
  const auto scalar = decrypt(*sealing, nonce, associatedData(record.tag, record.publicKey), sealed);
  if (!scalar) return failure(Failure::ownerRefused, "Sealed key: the owner's secret does not open the key");
  ensureSecureHeap();
  const auto key = keyOf(*scalar, record.publicKey);
  if (key == nullptr) return opensslFailure("rebuilding the key");
  return signWith(key.get(), message);
}

ZavloKeyStoreResult<ZavloLinuxKeyProtection::Made> ZavloLinuxSealedProtection::seal(const ZavloLinuxKeyRecord& plain,
                                                                                    const ZavloOwnerProof& proof) {
  if (proof.secret().empty())
    return failure(Failure::noOwnerSecret, "Sealed key: the owner gave no secret to seal with");
  const auto key = plainKey(plain);
  if (key == nullptr) return failure(Failure::damaged, "Sealed key: the plain key is no P-256 key of its point");
  const auto scalar = scalarOf(key.get());
  if (!scalar) return failure(Failure::damaged, "Sealed key: the plain key cannot be read");
  auto blob = sealedBlob(cost_, plain.tag, plain.publicKey, *scalar, proof.secret());
  if (!blob) return zavloFailure(std::move(blob).error());
  return Made{plain.publicKey, std::move(blob).value()};
}

ZavloKeyStoreResult<ZavloBytes> ZavloLinuxSealedProtection::signPlain(const ZavloLinuxKeyRecord& plain,
                                                                      std::span<const std::uint8_t> message) {
  const auto key = plainKey(plain);
  if (key == nullptr) return failure(Failure::damaged, "Plain key: it is no P-256 key of its point");
  return signWith(key.get(), message);
}
