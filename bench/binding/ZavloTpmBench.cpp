// Signing with a key inside a TPM (swtpm of the benchmark's own, with a persistent SRK as a
// provisioned machine has one): tpm-sign/library signs through ZavloLinuxFileKeyStore (the
// key file's record, PBKDF2 of the owner's secret, a salted session, Load, Sign, flushes,
// DER), tpm-sign/esapi makes the same ESAPI calls bare with the authValue computed once.
// kdf/tpm-authvalue is the PBKDF2 alone, the part of the library's figure that the TPM
// does not spend. Names are WHAT/WHO; scripts/bench compares WHAT/library with the others.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <tss2/tss2_esys.h>
#include <tss2/tss2_mu.h>
#include <tss2/tss2_tctildr.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>

#include "Platform/Linux/Keys/ZavloLinuxFileKeyStore.hpp"
#include "Platform/Linux/Keys/ZavloLinuxSealedProtection.hpp"
#include "Platform/Linux/Keys/ZavloLinuxTpmProtection.hpp"
#include "Platform/Linux/ZavloLinuxSecret.hpp"
#include "Testing/Network/ZavloSwtpm.hpp"

namespace {

const std::string kSecret = "correct horse battery staple";
const std::string kChallenge = "3f9a1c7e-challenge-from-the-server";
const ZavloBytes kTag = zavloBytes("in.zavlo.authsdk.devicebinding.bench");

// The proof a successful prompt leaves, with the owner's secret.
ZavloLinuxOwnerProof owner() { return {ZavloLinuxSecret::copyOf(zavloBytes(kSecret)), true}; }

// An ESAPI context on the TPM of tcti, finalised at the end of the scope.
class Esys {
 public:
  explicit Esys(const std::string& tcti) {
    if (Tss2_TctiLdr_Initialize(tcti.c_str(), &tcti_) != TSS2_RC_SUCCESS) return;
    if (Esys_Initialize(&esys_, tcti_, nullptr) != TSS2_RC_SUCCESS) esys_ = nullptr;
  }
  Esys(const Esys&) = delete;
  Esys& operator=(const Esys&) = delete;
  ~Esys() {
    if (esys_ != nullptr) Esys_Finalize(&esys_);
    if (tcti_ != nullptr) Tss2_TctiLdr_Finalize(&tcti_);
  }
  ESYS_CONTEXT* get() { return esys_; }

 private:
  TSS2_TCTI_CONTEXT* tcti_ = nullptr;
  ESYS_CONTEXT* esys_ = nullptr;
};

// A TPM with the standard ECC storage key made persistent at 0x81000001, and a key store
// with one TPM key on it; ready() is false when any of it failed.
struct TpmStore {
  TpmStore() {
    Esys esys(tpm.tcti());
    if (!tpm.running() || esys.get() == nullptr) return;
    TPM2B_PUBLIC area{};
    area.publicArea.type = TPM2_ALG_ECC;
    area.publicArea.nameAlg = TPM2_ALG_SHA256;
    area.publicArea.objectAttributes = TPMA_OBJECT_FIXEDTPM | TPMA_OBJECT_FIXEDPARENT |
                                       TPMA_OBJECT_SENSITIVEDATAORIGIN | TPMA_OBJECT_USERWITHAUTH | TPMA_OBJECT_NODA |
                                       TPMA_OBJECT_RESTRICTED | TPMA_OBJECT_DECRYPT;
    auto& ecc = area.publicArea.parameters.eccDetail;
    ecc.symmetric.algorithm = TPM2_ALG_AES;
    ecc.symmetric.keyBits.aes = 128;
    ecc.symmetric.mode.aes = TPM2_ALG_CFB;
    ecc.scheme.scheme = TPM2_ALG_NULL;
    ecc.curveID = TPM2_ECC_NIST_P256;
    ecc.kdf.scheme = TPM2_ALG_NULL;
    const TPM2B_SENSITIVE_CREATE sensitive{};
    const TPM2B_DATA outside{};
    const TPML_PCR_SELECTION pcrs{};
    ESYS_TR primary = ESYS_TR_NONE;
    ESYS_TR persistent = ESYS_TR_NONE;
    ready =
        Esys_CreatePrimary(esys.get(), ESYS_TR_RH_OWNER, ESYS_TR_PASSWORD, ESYS_TR_NONE, ESYS_TR_NONE, &sensitive,
                           &area, &outside, &pcrs, &primary, nullptr, nullptr, nullptr, nullptr) == TSS2_RC_SUCCESS &&
        Esys_EvictControl(esys.get(), ESYS_TR_RH_OWNER, primary, ESYS_TR_PASSWORD, ESYS_TR_NONE, ESYS_TR_NONE,
                          0x81000001, &persistent) == TSS2_RC_SUCCESS &&
        Esys_FlushContext(esys.get(), primary) == TSS2_RC_SUCCESS && store.createKey(kTag, owner());
  }

  ZavloSwtpm tpm;
  ZavloLinuxFileKeyStore store{std::make_shared<ZavloLinuxKeyFile>((tpm.folder() / "keychain.db").string()),
                               std::make_shared<ZavloLinuxTpmProtection>(tpm.tcti()),
                               std::make_shared<ZavloLinuxSealedProtection>()};
  bool ready = false;
};

bool tpmUnavailable(benchmark::State& state, const TpmStore* tpm) {
  if (const auto why = ZavloSwtpm::unavailable()) {
    state.SkipWithError(why->c_str());
    return true;
  }
  if (tpm != nullptr && !tpm->ready) {
    state.SkipWithError("swtpm did not start, or made no SRK or key");
    return true;
  }
  return false;
}

// False, after marking the benchmark failed, when rc is not success.
bool succeeded(benchmark::State& state, TSS2_RC rc, const char* call) {
  if (rc == TSS2_RC_SUCCESS) return true;
  state.SkipWithError((std::string(call) + " failed: " + std::to_string(rc)).c_str());
  return false;
}

void BM_TpmSignLibrary(benchmark::State& state) {
  if (tpmUnavailable(state, nullptr)) return;
  TpmStore tpm;
  if (tpmUnavailable(state, &tpm)) return;
  const auto proof = owner();
  const auto message = zavloBytes(kChallenge);
  for (auto _ : state) {
    auto signature = tpm.store.sign(kTag, message, proof);
    if (!signature) {
      state.SkipWithError(signature.error().description.c_str());
      break;
    }
    benchmark::DoNotOptimize(signature);
  }
}

void BM_TpmSignEsapi(benchmark::State& state) {
  if (tpmUnavailable(state, nullptr)) return;
  TpmStore tpm;
  if (tpmUnavailable(state, &tpm)) return;
  // The key the library made, and its authValue computed once.
  const auto wrapped = ZavloLinuxTpmProtection::unwrap(tpm.store.file().find(kTag).value()->blob);
  const auto authValue = ZavloLinuxTpmProtection::authValue(zavloBytes(kSecret), wrapped->salt, wrapped->iterations);
  TPM2B_PUBLIC publicArea{};
  TPM2B_PRIVATE privateArea{};
  std::size_t offset = 0;
  Tss2_MU_TPM2B_PUBLIC_Unmarshal(wrapped->publicArea.data(), wrapped->publicArea.size(), &offset, &publicArea);
  offset = 0;
  Tss2_MU_TPM2B_PRIVATE_Unmarshal(wrapped->privateArea.data(), wrapped->privateArea.size(), &offset, &privateArea);
  TPM2B_AUTH auth{};
  auth.size = static_cast<UINT16>(authValue->size());
  std::copy_n(authValue->data(), authValue->size(), auth.buffer);

  Esys esys(tpm.tpm.tcti());
  ESYS_TR srk = ESYS_TR_NONE;
  if (!succeeded(state, Esys_TR_FromTPMPublic(esys.get(), 0x81000001, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, &srk),
                 "Esys_TR_FromTPMPublic")) {
    return;
  }
  TPMT_SYM_DEF symmetric{};
  symmetric.algorithm = TPM2_ALG_AES;
  symmetric.keyBits.aes = 128;
  symmetric.mode.aes = TPM2_ALG_CFB;
  TPMT_SIG_SCHEME scheme{};
  scheme.scheme = TPM2_ALG_ECDSA;
  scheme.details.ecdsa.hashAlg = TPM2_ALG_SHA256;
  TPMT_TK_HASHCHECK validation{};
  validation.tag = TPM2_ST_HASHCHECK;
  validation.hierarchy = TPM2_RH_NULL;
  for (auto _ : state) {
    TPM2B_DIGEST digest{};
    digest.size = 32;
    EVP_Digest(kChallenge.data(), kChallenge.size(), digest.buffer, nullptr, EVP_sha256(), nullptr);
    ESYS_TR session = ESYS_TR_NONE;
    ESYS_TR key = ESYS_TR_NONE;
    TPMT_SIGNATURE* signature = nullptr;
    const bool done =
        succeeded(state,
                  Esys_StartAuthSession(esys.get(), srk, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE,
                                        nullptr, TPM2_SE_HMAC, &symmetric, TPM2_ALG_SHA256, &session),
                  "Esys_StartAuthSession") &&
        succeeded(
            state,
            Esys_TRSess_SetAttributes(esys.get(), session, TPMA_SESSION_DECRYPT | TPMA_SESSION_CONTINUESESSION, 0xFF),
            "Esys_TRSess_SetAttributes") &&
        succeeded(state,
                  Esys_Load(esys.get(), srk, session, ESYS_TR_NONE, ESYS_TR_NONE, &privateArea, &publicArea, &key),
                  "Esys_Load") &&
        succeeded(state, Esys_TR_SetAuth(esys.get(), key, &auth), "Esys_TR_SetAuth") &&
        succeeded(
            state,
            Esys_Sign(esys.get(), key, session, ESYS_TR_NONE, ESYS_TR_NONE, &digest, &scheme, &validation, &signature),
            "Esys_Sign");
    benchmark::DoNotOptimize(signature);
    Esys_Free(signature);
    if (key != ESYS_TR_NONE) Esys_FlushContext(esys.get(), key);
    if (session != ESYS_TR_NONE) Esys_FlushContext(esys.get(), session);
    if (!done) break;
  }
}

void BM_TpmAuthValue(benchmark::State& state) {
  const ZavloBytes salt(16, 0x5A);
  const auto secret = zavloBytes(kSecret);
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        ZavloLinuxTpmProtection::authValue(secret, salt, ZavloLinuxTpmProtection::kDefaultIterations));
  }
}

}  // namespace

BENCHMARK(BM_TpmSignLibrary)->Name("tpm-sign/library")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TpmSignEsapi)->Name("tpm-sign/esapi")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TpmAuthValue)->Name("kdf/tpm-authvalue")->Unit(benchmark::kMicrosecond);
