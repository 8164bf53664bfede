// Device binding as a host calls it, and the sealed software key under it.
//
// enroll/library and sign/library run enrolDeviceBinding and signDeviceBindingChallenge
// through the native wrapper on the Linux platform (sealed keys in a private temporary
// folder, owner authentication set to allow with a secret file, telemetry to a loopback
// collector); their reference sign/store is the key store's sign alone, so the ratio is
// what the flow adds to the store (prompt hand-off, checks, events).
//
// sealed-sign/library is the key store's sign on a sealed key (scrypt, then AES-256-GCM,
// then ECDSA) and sealed-sign/openssl the same unseal-and-sign made of bare OpenSSL calls
// with the same KDF and cost; kdf/scrypt is the KDF on its own, the share of a sign that is
// there on purpose. Names are WHAT/WHO; scripts/bench compares WHAT/library with the others.
#include <benchmark/benchmark.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/param_build.h>
#include <openssl/rand.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "Graph/ZavloAuthenticationGraph.hpp"
#include "Platform/Linux/Keys/ZavloLinuxFileKeyStore.hpp"
#include "Platform/Linux/Keys/ZavloLinuxSealedProtection.hpp"
#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "Telemetry/ZavloAuthLogManager.hpp"
#include "Platform/Linux/ZavloLinuxSecret.hpp"
#include "tools/peers/ZavloHttpTestServer.hpp"

namespace {

using namespace std::chrono_literals;

constexpr const char* kSecret = "correct horse battery staple";
const std::string kChallenge = "3f9a1c7e-challenge-from-the-server";
const ZavloLinuxSealedProtection::Cost kCost{};  // the library's own

ZavloLinuxOwnerProof ownerProof() {
  const std::string_view secret = kSecret;
  return {ZavloLinuxSecret::copyOf({reinterpret_cast<const std::uint8_t*>(secret.data()), secret.size()}), true};
}

std::string makeFolder() {
  std::string pattern = (std::filesystem::temp_directory_path() / "zavlo-binding-bench-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  return pattern;
}

// One platform, key store and graph per benchmark, removed with their folder.
class BindingHost {
 public:
  BindingHost() : folder_(makeFolder()), platform_(options(folder_)), graph_(platform_) {
    graph_.logManager->configure(ZavloAuthEnvironment::development, collector_.url("/events"));
  }
  BindingHost(const BindingHost&) = delete;
  BindingHost& operator=(const BindingHost&) = delete;
  ~BindingHost() {
    platform_.ownerAuthentication()->waitForEvaluations();
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }

  // Runs one operation to its completion on the platform's run loop.
  nlohmann::json run(void (ZavloAuthenticationNativeWrapper::*operation)(const nlohmann::json&,
                                                                         ZavloAuthenticationNativeWrapper::Completion),
                     const nlohmann::json& config) {
    std::optional<nlohmann::json> outcome;
    (graph_.nativeWrapper.*operation)(config, [&outcome](ZavloResult<nlohmann::json> result) {
      outcome = result ? result.value() : nlohmann::json{{"status", "FAILURE"}};
    });
    platform_.runLoop().runUntil([&outcome] { return outcome.has_value(); }, 10s);
    if (!outcome || outcome->value("status", "") != "SUCCESS") {
      throw std::runtime_error("binding operation failed: " + (outcome ? outcome->dump() : std::string("timeout")));
    }
    return *outcome;
  }
  ZavloKeyStore& keyStore() { return platform_.keyStore(); }

 private:
  static ZavloLinuxPlatform::Options options(const std::string& folder) {
    std::ofstream(folder + "/secret") << kSecret << '\n';
    ZavloLinuxPlatform::Options options;
    options.keyFilePath = folder + "/keychain.db";
    options.ownerAuthentication.mode = ZavloLinuxOwnerAuthentication::Mode::allow;
    options.ownerAuthentication.secretFile = folder + "/secret";
    return options;
  }

  std::string folder_;
  ZavloHttpTestServer collector_;
  ZavloLinuxPlatform platform_;
  ZavloAuthenticationGraph graph_;
};

void BM_EnrollLibrary(benchmark::State& state) {
  BindingHost host;
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        host.run(&ZavloAuthenticationNativeWrapper::enrollDeviceBinding, nlohmann::json::object()));
  }
}

void BM_SignLibrary(benchmark::State& state) {
  BindingHost host;
  const std::string keyId =
      host.run(&ZavloAuthenticationNativeWrapper::enrollDeviceBinding, nlohmann::json::object()).at("keyId");
  const nlohmann::json config{{"allowedKeyIds", {keyId}}, {"challenge", kChallenge}};
  for (auto _ : state) {
    benchmark::DoNotOptimize(host.run(&ZavloAuthenticationNativeWrapper::signDeviceBindingChallenge, config));
  }
}

// A sealed store of its own, with one key.
struct SealedStore {
  SealedStore() {
    auto sealed = std::make_shared<ZavloLinuxSealedProtection>(kCost);
    store = std::make_unique<ZavloLinuxFileKeyStore>(std::make_shared<ZavloLinuxKeyFile>(folder + "/keychain.db"),
                                                     sealed, sealed);
    if (!store->createKey(tag, ownerProof())) throw std::runtime_error("no sealed key");
  }
  SealedStore(const SealedStore&) = delete;
  SealedStore& operator=(const SealedStore&) = delete;
  ~SealedStore() {
    store.reset();
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
  }

  std::string folder = makeFolder();
  ZavloBytes tag = zavloBytes("in.zavlo.authsdk.devicebinding.bench");
  std::unique_ptr<ZavloLinuxFileKeyStore> store;
};

void signWithStore(benchmark::State& state) {
  SealedStore sealed;
  const auto proof = ownerProof();
  const auto message = zavloBytes(kChallenge);
  for (auto _ : state) {
    auto signature = sealed.store->sign(sealed.tag, message, proof);
    if (!signature) {
      state.SkipWithError(signature.error().description.c_str());
      break;
    }
    benchmark::DoNotOptimize(signature);
  }
}

// scrypt of the secret with the sealed key's cost into out (32 bytes).
bool scrypt(const unsigned char* salt, std::size_t saltSize, unsigned char* out) {
  std::uint64_t n = std::uint64_t{1} << kCost.log2N;
  std::uint32_t r = kCost.r;
  std::uint32_t p = kCost.p;
  std::string secret = kSecret;
  const OSSL_PARAM params[] = {
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_PASSWORD, secret.data(), secret.size()),
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_SALT, const_cast<unsigned char*>(salt), saltSize),  // NOLINT
      OSSL_PARAM_construct_uint64(OSSL_KDF_PARAM_SCRYPT_N, &n),
      OSSL_PARAM_construct_uint32(OSSL_KDF_PARAM_SCRYPT_R, &r),
      OSSL_PARAM_construct_uint32(OSSL_KDF_PARAM_SCRYPT_P, &p),
      OSSL_PARAM_construct_end(),
  };
  EVP_KDF* kdf = EVP_KDF_fetch(nullptr, "SCRYPT", nullptr);
  EVP_KDF_CTX* context = EVP_KDF_CTX_new(kdf);
  const bool derived = EVP_KDF_derive(context, out, 32, params) == 1;
  EVP_KDF_CTX_free(context);
  EVP_KDF_free(kdf);
  return derived;
}

void BM_KdfScrypt(benchmark::State& state) {
  unsigned char salt[16];
  unsigned char key[32];
  RAND_bytes(salt, sizeof salt);
  for (auto _ : state) {
    if (!scrypt(salt, sizeof salt, key)) {
      state.SkipWithError("scrypt failed");
      break;
    }
    benchmark::DoNotOptimize(key);
  }
}

// The same unseal-and-sign from bare OpenSSL calls: scrypt, AES-256-GCM open, key from its
// scalar and point, ECDSA-SHA256.
void BM_SealedSignOpenssl(benchmark::State& state) {
  const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> original(EVP_EC_gen("P-256"), EVP_PKEY_free);
  BIGNUM* privateNumber = nullptr;
  unsigned char scalar[32];
  unsigned char point[65];
  std::size_t pointSize = 0;
  EVP_PKEY_get_bn_param(original.get(), OSSL_PKEY_PARAM_PRIV_KEY, &privateNumber);
  BN_bn2binpad(privateNumber, scalar, sizeof scalar);
  BN_clear_free(privateNumber);
  EVP_PKEY_get_octet_string_param(original.get(), OSSL_PKEY_PARAM_ENCODED_PUBLIC_KEY, point, sizeof point, &pointSize);
  unsigned char salt[16];
  unsigned char nonce[12];
  unsigned char key[32];
  unsigned char sealed[32];
  unsigned char gcmTag[16];
  RAND_bytes(salt, sizeof salt);
  RAND_bytes(nonce, sizeof nonce);
  int length = 0;
  scrypt(salt, sizeof salt, key);
  EVP_CIPHER_CTX* seal = EVP_CIPHER_CTX_new();
  EVP_EncryptInit_ex2(seal, EVP_aes_256_gcm(), key, nonce, nullptr);
  EVP_EncryptUpdate(seal, sealed, &length, scalar, sizeof scalar);
  EVP_EncryptFinal_ex(seal, sealed + length, &length);
  EVP_CIPHER_CTX_ctrl(seal, EVP_CTRL_GCM_GET_TAG, sizeof gcmTag, gcmTag);
  EVP_CIPHER_CTX_free(seal);

  for (auto _ : state) {
    unsigned char opened[32];
    bool ok = scrypt(salt, sizeof salt, key);
    EVP_CIPHER_CTX* open = EVP_CIPHER_CTX_new();
    ok = ok && EVP_DecryptInit_ex2(open, EVP_aes_256_gcm(), key, nonce, nullptr) == 1 &&
         EVP_DecryptUpdate(open, opened, &length, sealed, sizeof sealed) == 1 &&
         EVP_CIPHER_CTX_ctrl(open, EVP_CTRL_GCM_SET_TAG, sizeof gcmTag, gcmTag) == 1 &&
         EVP_DecryptFinal_ex(open, opened + length, &length) == 1;
    EVP_CIPHER_CTX_free(open);
    BIGNUM* number = BN_bin2bn(opened, sizeof opened, BN_secure_new());
    OSSL_PARAM_BLD* builder = OSSL_PARAM_BLD_new();
    OSSL_PARAM_BLD_push_utf8_string(builder, OSSL_PKEY_PARAM_GROUP_NAME, "prime256v1", 0);
    OSSL_PARAM_BLD_push_BN(builder, OSSL_PKEY_PARAM_PRIV_KEY, number);
    OSSL_PARAM_BLD_push_octet_string(builder, OSSL_PKEY_PARAM_PUB_KEY, point, pointSize);
    OSSL_PARAM* params = OSSL_PARAM_BLD_to_param(builder);
    EVP_PKEY_CTX* fromData = EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr);
    EVP_PKEY* rebuilt = nullptr;
    ok = ok && EVP_PKEY_fromdata_init(fromData) == 1 &&
         EVP_PKEY_fromdata(fromData, &rebuilt, EVP_PKEY_KEYPAIR, params) == 1;
    unsigned char signature[80];
    std::size_t signatureSize = sizeof signature;
    EVP_MD_CTX* digest = EVP_MD_CTX_new();
    ok = ok && EVP_DigestSignInit_ex(digest, nullptr, "SHA256", nullptr, nullptr, rebuilt, nullptr) == 1 &&
         EVP_DigestSign(digest, signature, &signatureSize, reinterpret_cast<const unsigned char*>(kChallenge.data()),
                        kChallenge.size()) == 1;
    EVP_MD_CTX_free(digest);
    EVP_PKEY_free(rebuilt);
    EVP_PKEY_CTX_free(fromData);
    OSSL_PARAM_free(params);
    OSSL_PARAM_BLD_free(builder);
    BN_clear_free(number);
    OPENSSL_cleanse(opened, sizeof opened);
    if (!ok) {
      state.SkipWithError("bare unseal-and-sign failed");
      break;
    }
    benchmark::DoNotOptimize(signature);
  }
}

}  // namespace

BENCHMARK(BM_EnrollLibrary)->Name("enroll/library")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SignLibrary)->Name("sign/library")->Unit(benchmark::kMillisecond);
BENCHMARK(signWithStore)->Name("sign/store")->Unit(benchmark::kMillisecond);
BENCHMARK(signWithStore)->Name("sealed-sign/library")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SealedSignOpenssl)->Name("sealed-sign/openssl")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_KdfScrypt)->Name("kdf/scrypt")->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
