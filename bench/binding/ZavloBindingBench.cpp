// Device binding end to end, as a host calls it: enrolDeviceBinding and
// signDeviceBindingChallenge through the native wrapper on the Linux platform (SQLite key
// store in a private temporary folder, owner authentication set to allow, telemetry to a
// loopback collector), each next to its floor: the bare OpenSSL key generation and
// ECDSA-SHA256 signature with the key already in memory. The ratio floor/library is the
// share of the time that is cryptography; the rest is the store, the prompt round trip,
// the checks and the telemetry hand-off.
//
// The token figures: token-*/pkcs11 make a permanent key and sign with bare PKCS#11 calls on
// a SoftHSM2 token (a folder of the benchmark's own); their library counterparts went with
// the key service they used, and come back with the token key store. Names are WHAT/WHO;
// scripts/bench compares WHAT/library with the others.
#include <benchmark/benchmark.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <p11-kit/p11-kit.h>
#include <p11-kit/pkcs11.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "Graph/ZavloAuthenticationGraph.hpp"
#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "Telemetry/ZavloAuthLogManager.hpp"
#include "Testing/Network/ZavloSoftHsm.hpp"
#include "tools/peers/ZavloHttpTestServer.hpp"

namespace {

using namespace std::chrono_literals;

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

 private:
  static std::string makeFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "zavlo-binding-bench-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    return pattern;
  }
  static ZavloLinuxPlatform::Options options(const std::string& folder) {
    ZavloLinuxPlatform::Options options;
    options.keyFilePath = folder + "/keychain.db";
    options.ownerAuthentication.mode = ZavloLinuxOwnerAuthentication::Mode::allow;
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

void BM_EnrollFloor(benchmark::State& state) {
  for (auto _ : state) {
    EVP_PKEY* key = EVP_EC_gen("P-256");
    unsigned char point[65];
    std::size_t length = 0;
    EVP_PKEY_get_octet_string_param(key, "encoded-pub-key", point, sizeof point, &length);
    benchmark::DoNotOptimize(length);
    EVP_PKEY_free(key);
  }
}

void BM_SignLibrary(benchmark::State& state) {
  BindingHost host;
  const std::string keyId =
      host.run(&ZavloAuthenticationNativeWrapper::enrollDeviceBinding, nlohmann::json::object()).at("keyId");
  const nlohmann::json config{{"allowedKeyIds", {keyId}}, {"challenge", "3f9a1c7e-challenge-from-the-server"}};
  for (auto _ : state) {
    benchmark::DoNotOptimize(host.run(&ZavloAuthenticationNativeWrapper::signDeviceBindingChallenge, config));
  }
}

void BM_SignFloor(benchmark::State& state) {
  const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(EVP_EC_gen("P-256"), EVP_PKEY_free);
  const std::string challenge = "3f9a1c7e-challenge-from-the-server";
  unsigned char signature[80];
  for (auto _ : state) {
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    std::size_t length = sizeof signature;
    if (EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, key.get()) != 1 ||
        EVP_DigestSign(context.get(), signature, &length, reinterpret_cast<const unsigned char*>(challenge.data()),
                       challenge.size()) != 1) {
      state.SkipWithError("OpenSSL refused to sign");
      break;
    }
    benchmark::DoNotOptimize(signature);
  }
}

// MARK: token

const std::string kChallenge = "3f9a1c7e-challenge-from-the-server";
// The same token through bare PKCS#11: the module loaded without p11-kit's management, one
// logged-in session.
class RawToken {
 public:
  explicit RawToken(const ZavloSoftHsm& hsm)
      : module_(p11_kit_module_load(ZavloSoftHsm::kModule, P11_KIT_MODULE_UNMANAGED)) {
    if (module_ == nullptr) throw std::runtime_error("the module cannot be loaded");
    const CK_RV initialised = module_->C_Initialize(nullptr);
    if (initialised != CKR_OK && initialised != CKR_CRYPTOKI_ALREADY_INITIALIZED)
      throw std::runtime_error("C_Initialize");
    CK_SLOT_ID slots[8];
    CK_ULONG count = 8;
    if (module_->C_GetSlotList(CK_TRUE, slots, &count) != CKR_OK || count == 0) throw std::runtime_error("no slot");
    for (CK_ULONG index = 0; index < count; ++index) {
      CK_TOKEN_INFO info{};
      if (module_->C_GetTokenInfo(slots[index], &info) != CKR_OK) continue;
      if (std::string(reinterpret_cast<const char*>(info.label), hsm.label().size()) != hsm.label()) continue;
      if (module_->C_OpenSession(slots[index], CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session_) !=
          CKR_OK) {
        throw std::runtime_error("C_OpenSession");
      }
      std::string pin = ZavloSoftHsm::kPin;
      module_->C_Login(session_, CKU_USER, reinterpret_cast<CK_UTF8CHAR*>(pin.data()), pin.size());
      return;
    }
    throw std::runtime_error("no token " + hsm.label());
  }
  RawToken(const RawToken&) = delete;
  RawToken& operator=(const RawToken&) = delete;
  ~RawToken() {
    module_->C_CloseSession(session_);
    module_->C_Finalize(nullptr);
    p11_kit_module_release(module_);
  }

  // A permanent key pair and its point, as an enrolment makes them.
  std::pair<CK_OBJECT_HANDLE, CK_OBJECT_HANDLE> generate(std::vector<CK_BYTE>& point) {
    static const CK_BYTE parameters[] = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
    CK_BBOOL yes = CK_TRUE;
    CK_BYTE id[] = {'r', 'a', 'w'};
    CK_ATTRIBUTE publicTemplate[] = {{CKA_TOKEN, &yes, 1},
                                     {CKA_VERIFY, &yes, 1},
                                     {CKA_EC_PARAMS, const_cast<CK_BYTE*>(parameters), sizeof parameters},
                                     {CKA_ID, id, sizeof id}};
    CK_ATTRIBUTE privateTemplate[] = {{CKA_TOKEN, &yes, 1},
                                      {CKA_PRIVATE, &yes, 1},
                                      {CKA_SENSITIVE, &yes, 1},
                                      {CKA_SIGN, &yes, 1},
                                      {CKA_ID, id, sizeof id}};
    CK_MECHANISM mechanism{CKM_EC_KEY_PAIR_GEN, nullptr, 0};
    CK_OBJECT_HANDLE publicKey = 0;
    CK_OBJECT_HANDLE privateKey = 0;
    if (module_->C_GenerateKeyPair(session_, &mechanism, publicTemplate, 4, privateTemplate, 5, &publicKey,
                                   &privateKey) != CKR_OK) {
      throw std::runtime_error("C_GenerateKeyPair");
    }
    point.resize(80);
    CK_ATTRIBUTE read{CKA_EC_POINT, point.data(), point.size()};
    if (module_->C_GetAttributeValue(session_, publicKey, &read, 1) != CKR_OK) throw std::runtime_error("CKA_EC_POINT");
    point.resize(read.ulValueLen);
    return {publicKey, privateKey};
  }
  void destroy(std::pair<CK_OBJECT_HANDLE, CK_OBJECT_HANDLE> pair) {
    module_->C_DestroyObject(session_, pair.second);
    module_->C_DestroyObject(session_, pair.first);
  }
  std::size_t sign(CK_OBJECT_HANDLE key, CK_BYTE* digest, CK_BYTE* signature) {
    CK_MECHANISM mechanism{CKM_ECDSA, nullptr, 0};
    CK_ULONG length = 64;
    if (module_->C_SignInit(session_, &mechanism, key) != CKR_OK ||
        module_->C_Sign(session_, digest, 32, signature, &length) != CKR_OK) {
      throw std::runtime_error("C_Sign");
    }
    return length;
  }

 private:
  CK_FUNCTION_LIST* module_;
  CK_SESSION_HANDLE session_ = 0;
};

bool tokenUnavailable(benchmark::State& state) {
  if (const auto why = ZavloSoftHsm::unavailable()) {
    state.SkipWithError(why->c_str());
    return true;
  }
  return false;
}

void BM_TokenEnrollRaw(benchmark::State& state) {
  if (tokenUnavailable(state)) return;
  ZavloSoftHsm hsm;
  RawToken token(hsm);
  std::vector<CK_BYTE> point;
  for (auto _ : state) {
    const auto pair = token.generate(point);
    benchmark::DoNotOptimize(point);
    state.PauseTiming();
    token.destroy(pair);
    state.ResumeTiming();
  }
}

void BM_TokenSignRaw(benchmark::State& state) {
  if (tokenUnavailable(state)) return;
  ZavloSoftHsm hsm;
  RawToken token(hsm);
  std::vector<CK_BYTE> point;
  const auto pair = token.generate(point);
  CK_BYTE digest[32];
  CK_BYTE signature[64];
  for (auto _ : state) {
    EVP_Digest(kChallenge.data(), kChallenge.size(), digest, nullptr, EVP_sha256(), nullptr);
    benchmark::DoNotOptimize(token.sign(pair.second, digest, signature));
  }
}

}  // namespace

BENCHMARK(BM_TokenEnrollRaw)->Name("token-enroll/pkcs11")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TokenSignRaw)->Name("token-sign/pkcs11")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_EnrollLibrary)->Name("enroll/library")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_EnrollFloor)->Name("enroll/openssl")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SignLibrary)->Name("sign/library")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SignFloor)->Name("sign/openssl")->Unit(benchmark::kMicrosecond);
BENCHMARK_MAIN();
