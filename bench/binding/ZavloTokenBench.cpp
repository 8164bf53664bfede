// The token figures: a SoftHSM2 token (a folder of the benchmark's own) behind the token key
// store, next to bare PKCS#11 calls doing the same token work. The store logs in with the
// owner's PIN for every operation and out again, so the bare figures do too:
//   token-sign/library      ZavloLinuxTokenKeyStore::sign (SHA-256, the key found by tag,
//                           the sweep of private halves left by deletes, DER encoding)
//   token-sign/pkcs11       C_Login, the private key found by id, C_SignInit, C_Sign, C_Logout
//                           (a logout drops the handles of private objects)
//   token-sign/pkcs11-held  C_SignInit, C_Sign on a handle kept, in a session logged in once:
//                           what the login per operation costs
//   token-enroll/library    ZavloLinuxTokenKeyStore::createKey (the duplicate check included);
//                           the key is deleted untimed
//   token-enroll/pkcs11     C_Login, C_GenerateKeyPair, CKA_EC_POINT, C_Logout; destroyed untimed
// Names are WHAT/WHO; scripts/bench compares WHAT/library with the others.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <p11-kit/p11-kit.h>
#include <p11-kit/pkcs11.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "Platform/Linux/Keys/ZavloLinuxTokenKeyStore.hpp"
#include "Platform/Linux/ZavloLinuxSecret.hpp"
#include "Testing/Network/ZavloSoftHsm.hpp"

namespace {

const std::string kChallenge = "3f9a1c7e-challenge-from-the-server";
const ZavloBytes kTag = zavloBytes("in.zavlo.authsdk.devicebinding.bench");

// The token behind the store, unlocked by the owner's PIN; a second store with the URI's PIN
// deletes both halves of a key at once, outside the timed part.
struct TokenStore {
  ZavloSoftHsm hsm;
  std::shared_ptr<ZavloLinuxKeyFile> file =
      std::make_shared<ZavloLinuxKeyFile>((hsm.tokens().parent_path() / "keys.db").string());
  ZavloLinuxTokenKeyStore store{
      std::make_shared<ZavloLinuxPkcs11Token>("pkcs11:token=" + hsm.label() + "?module-path=" + ZavloSoftHsm::kModule),
      file};
  ZavloLinuxTokenKeyStore cleaner{std::make_shared<ZavloLinuxPkcs11Token>(hsm.uri()), file};
  ZavloLinuxOwnerProof owner{ZavloLinuxSecret::copyOf(zavloBytes(ZavloSoftHsm::kPin)), false};
};

// The same token through bare PKCS#11: the module loaded without p11-kit's management.
class RawToken {
 public:
  explicit RawToken(const ZavloSoftHsm& hsm)
      : module_(p11_kit_module_load(ZavloSoftHsm::kModule, P11_KIT_MODULE_UNMANAGED)) {
    if (module_ == nullptr) throw std::runtime_error("the module cannot be loaded");
    const CK_RV initialised = module_->C_Initialize(nullptr);
    if (initialised != CKR_OK && initialised != CKR_CRYPTOKI_ALREADY_INITIALIZED) {
      throw std::runtime_error("C_Initialize");
    }
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

  void login() {
    std::string pin = ZavloSoftHsm::kPin;
    if (module_->C_Login(session_, CKU_USER, reinterpret_cast<CK_UTF8CHAR*>(pin.data()), pin.size()) != CKR_OK) {
      throw std::runtime_error("C_Login");
    }
  }
  void logout() { module_->C_Logout(session_); }

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
  // The private key with the id generate() gives: a logout drops the handles of private
  // objects, so after a new login it is looked up again.
  CK_OBJECT_HANDLE findPrivateKey() {
    CK_OBJECT_CLASS privateClass = CKO_PRIVATE_KEY;
    CK_BYTE id[] = {'r', 'a', 'w'};
    CK_ATTRIBUTE match[] = {{CKA_CLASS, &privateClass, sizeof privateClass}, {CKA_ID, id, sizeof id}};
    CK_OBJECT_HANDLE found = 0;
    CK_ULONG count = 0;
    if (module_->C_FindObjectsInit(session_, match, 2) != CKR_OK ||
        module_->C_FindObjects(session_, &found, 1, &count) != CKR_OK ||
        module_->C_FindObjectsFinal(session_) != CKR_OK || count != 1) {
      throw std::runtime_error("no private key");
    }
    return found;
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

void BM_TokenEnrollLibrary(benchmark::State& state) {
  if (tokenUnavailable(state)) return;
  TokenStore token;
  for (auto _ : state) {
    const auto created = token.store.createKey(kTag, token.owner);
    if (!created) {
      state.SkipWithError(created.error().description.c_str());
      break;
    }
    benchmark::DoNotOptimize(created.value().publicKey);
    state.PauseTiming();  // the delete keeps the token at one key; it is no part of an enrolment
    (void)token.cleaner.deleteKey(kTag);
    state.ResumeTiming();
  }
}

void BM_TokenEnrollRaw(benchmark::State& state) {
  if (tokenUnavailable(state)) return;
  ZavloSoftHsm hsm;
  RawToken token(hsm);
  std::vector<CK_BYTE> point;
  for (auto _ : state) {
    token.login();
    const auto pair = token.generate(point);
    token.logout();
    benchmark::DoNotOptimize(point);
    state.PauseTiming();
    token.login();
    token.destroy(pair);
    token.logout();
    state.ResumeTiming();
  }
}

void BM_TokenSignLibrary(benchmark::State& state) {
  if (tokenUnavailable(state)) return;
  TokenStore token;
  if (const auto created = token.store.createKey(kTag, token.owner); !created) {
    state.SkipWithError(created.error().description.c_str());
    return;
  }
  const auto message = zavloBytes(kChallenge);
  for (auto _ : state) {
    auto signature = token.store.sign(kTag, message, token.owner);
    if (!signature) {
      state.SkipWithError(signature.error().description.c_str());
      break;
    }
    benchmark::DoNotOptimize(signature);
  }
}

void signRaw(benchmark::State& state, bool loginEachTime) {
  if (tokenUnavailable(state)) return;
  ZavloSoftHsm hsm;
  RawToken token(hsm);
  std::vector<CK_BYTE> point;
  token.login();
  const auto pair = token.generate(point);
  if (loginEachTime) token.logout();
  CK_BYTE digest[32];
  CK_BYTE signature[64];
  for (auto _ : state) {
    if (loginEachTime) token.login();
    EVP_Digest(kChallenge.data(), kChallenge.size(), digest, nullptr, EVP_sha256(), nullptr);
    benchmark::DoNotOptimize(token.sign(loginEachTime ? token.findPrivateKey() : pair.second, digest, signature));
    if (loginEachTime) token.logout();
  }
}

void BM_TokenSignRaw(benchmark::State& state) { signRaw(state, true); }
void BM_TokenSignRawHeldLogin(benchmark::State& state) { signRaw(state, false); }

}  // namespace

BENCHMARK(BM_TokenEnrollLibrary)->Name("token-enroll/library")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TokenEnrollRaw)->Name("token-enroll/pkcs11")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TokenSignLibrary)->Name("token-sign/library")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TokenSignRaw)->Name("token-sign/pkcs11")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TokenSignRawHeldLogin)->Name("token-sign/pkcs11-held")->Unit(benchmark::kMicrosecond);
