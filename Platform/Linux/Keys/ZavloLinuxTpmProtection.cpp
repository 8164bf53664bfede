#include "Platform/Linux/Keys/ZavloLinuxTpmProtection.hpp"

#include "Platform/Linux/Keys/ZavloLinuxEcKeys.hpp"

#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <tss2/tss2_esys.h>
#include <tss2/tss2_mu.h>
#include <tss2/tss2_rc.h>
#include <tss2/tss2_tctildr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

namespace {

using Failure = ZavloKeyStoreFailure;
using Problem = std::optional<ZavloKeyStoreError>;  // nothing: it went well

constexpr std::uint8_t kVersion = 1;
constexpr std::uint8_t kPbkdf2Sha256 = 1;
constexpr std::size_t kSaltSize = 16;
constexpr std::size_t kHeaderSize = 1 + 1 + 4 + 1;
constexpr std::size_t kAuthValueSize = 32;
constexpr std::size_t kCoordinateSize = 32;
constexpr std::size_t kPointSize = 1 + 2 * kCoordinateSize;
// A crafted blob must not hold a call for minutes.
constexpr std::uint32_t kMaxIterations = 10'000'000;
constexpr TPM2_HANDLE kSrkHandle = 0x81000001;
constexpr TPMA_OBJECT kKeyAttributes = TPMA_OBJECT_FIXEDTPM | TPMA_OBJECT_FIXEDPARENT |
                                       TPMA_OBJECT_SENSITIVEDATAORIGIN | TPMA_OBJECT_USERWITHAUTH |
                                       TPMA_OBJECT_SIGN_ENCRYPT;
constexpr TPMA_OBJECT kStorageAttributes = TPMA_OBJECT_FIXEDTPM | TPMA_OBJECT_FIXEDPARENT |
                                           TPMA_OBJECT_SENSITIVEDATAORIGIN | TPMA_OBJECT_USERWITHAUTH |
                                           TPMA_OBJECT_NODA | TPMA_OBJECT_RESTRICTED | TPMA_OBJECT_DECRYPT;

// What a call was doing when the TPM answered: the same code means different things.
enum class Step {
  connect,  // opening the TCTI and ESAPI, asking for capabilities
  parent,   // finding or making the storage key, starting the session
  create,   // making a key
  load,     // loading a key's blob
  sign,     // signing with the owner's authValue
};

ZavloFailure<ZavloKeyStoreError> failure(Failure kind, std::string description) {
  return zavloFailure(ZavloKeyStoreError{kind, 0, std::move(description)});
}

// The one mapping of TPM and TSS response codes.
Failure failureOf(TSS2_RC rc, Step step) {
  const TSS2_RC layer = rc & TSS2_RC_LAYER_MASK;
  if (layer == TSS2_TPM_RC_LAYER || layer == TSS2_RESMGR_TPM_RC_LAYER) {
    const TSS2_RC code = rc & 0xFFFF;
    if ((code & TPM2_RC_FMT1) != 0) {
      // Format 1: the number without the handle, session or parameter it names.
      const TSS2_RC base = code & (TPM2_RC_FMT1 | 0x3F);
      if (base == TPM2_RC_AUTH_FAIL || base == TPM2_RC_BAD_AUTH) {
        // Only the key's own authorisation is the owner's; a parent or hierarchy that
        // wants a password this library was never given makes the TPM unusable here.
        return step == Step::sign ? Failure::ownerRefused : Failure::unavailable;
      }
      // A blob the TPM will not load or use: not made under this TPM's storage key.
      if (step == Step::load || step == Step::sign) return Failure::damaged;
      return Failure::unavailable;  // a hierarchy switched off, a curve it lacks
    }
    const TSS2_RC base = code & (TPM2_RC_WARN | 0x7F);
    if (base == TPM2_RC_LOCKOUT) return Failure::lockedOut;
    if ((base & TPM2_RC_WARN) == TPM2_RC_WARN || base == TPM2_RC_INITIALIZE || base == TPM2_RC_FAILURE ||
        base == TPM2_RC_DISABLED) {
      return Failure::unavailable;  // busy, out of memory, testing, failed, not started
    }
    return step == Step::load ? Failure::damaged : Failure::internal;
  }
  const TSS2_RC base = rc & 0xFFFF;
  if (layer == TSS2_TCTI_RC_LAYER || layer == TSS2_RESMGR_RC_LAYER || base == TSS2_BASE_RC_IO_ERROR ||
      base == TSS2_BASE_RC_NO_CONNECTION || base == TSS2_BASE_RC_TRY_AGAIN) {
    return Failure::unavailable;
  }
  if (layer == TSS2_MU_RC_LAYER) return Failure::damaged;
  return Failure::internal;
}

ZavloKeyStoreError tpmError(TSS2_RC rc, Step step, std::string_view call) {
  const char* decoded = Tss2_RC_Decode(rc);
  return {failureOf(rc, step), static_cast<std::int64_t>(rc),
          "TPM: " + std::string(call) + ": " + (decoded != nullptr ? decoded : "unknown response code")};
}

// Whether an error left the ESAPI context unusable: anything the TPM itself did not answer.
bool contextLost(const ZavloKeyStoreError& error) {
  const auto layer = static_cast<TSS2_RC>(error.code) & TSS2_RC_LAYER_MASK;
  return error.code != 0 && layer != TSS2_TPM_RC_LAYER && layer != TSS2_RESMGR_TPM_RC_LAYER;
}

template <class T>
struct EsysFree {
  void operator()(T* value) const { Esys_Free(value); }
};
template <class T>
using EsysPointer = std::unique_ptr<T, EsysFree<T>>;

// A transient object or session, flushed at the end of the operation that made it.
class Transient {
 public:
  explicit Transient(ESYS_CONTEXT* esys) : esys_(esys) {}
  Transient(const Transient&) = delete;
  Transient& operator=(const Transient&) = delete;
  ~Transient() {
    if (handle_ != ESYS_TR_NONE) (void)Esys_FlushContext(esys_, handle_);
  }
  ESYS_TR* out() { return &handle_; }
  [[nodiscard]] ESYS_TR get() const { return handle_; }

 private:
  ESYS_CONTEXT* esys_;
  ESYS_TR handle_ = ESYS_TR_NONE;
};

// A TPM structure that holds the authValue, kept in a secret's locked, wiped memory.
template <class T>
T& inSecret(ZavloLinuxSecret& secret) {
  return *new (secret.data()) T{};
}

TPM2B_PUBLIC storageTemplate() {
  TPM2B_PUBLIC result{};
  auto& area = result.publicArea;
  area.type = TPM2_ALG_ECC;
  area.nameAlg = TPM2_ALG_SHA256;
  area.objectAttributes = kStorageAttributes;
  auto& ecc = area.parameters.eccDetail;
  ecc.symmetric.algorithm = TPM2_ALG_AES;
  ecc.symmetric.keyBits.aes = 128;
  ecc.symmetric.mode.aes = TPM2_ALG_CFB;
  ecc.scheme.scheme = TPM2_ALG_NULL;
  ecc.curveID = TPM2_ECC_NIST_P256;
  ecc.kdf.scheme = TPM2_ALG_NULL;
  return result;
}

TPM2B_PUBLIC keyTemplate() {
  TPM2B_PUBLIC result{};
  auto& area = result.publicArea;
  area.type = TPM2_ALG_ECC;
  area.nameAlg = TPM2_ALG_SHA256;
  area.objectAttributes = kKeyAttributes;
  auto& ecc = area.parameters.eccDetail;
  ecc.symmetric.algorithm = TPM2_ALG_NULL;
  ecc.scheme.scheme = TPM2_ALG_ECDSA;
  ecc.scheme.details.ecdsa.hashAlg = TPM2_ALG_SHA256;
  ecc.curveID = TPM2_ECC_NIST_P256;
  ecc.kdf.scheme = TPM2_ALG_NULL;
  return result;
}

// A storage key this library can put keys under: restricted, decrypt, usable with an empty
// authValue.
bool isStorageKey(const TPMT_PUBLIC& area) {
  const TPMA_OBJECT needed = TPMA_OBJECT_RESTRICTED | TPMA_OBJECT_DECRYPT | TPMA_OBJECT_USERWITHAUTH;
  return (area.type == TPM2_ALG_ECC || area.type == TPM2_ALG_RSA) && (area.objectAttributes & needed) == needed &&
         (area.objectAttributes & TPMA_OBJECT_SIGN_ENCRYPT) == 0;
}

// The key's public point as X9.63, or nothing when the area is no key of ours.
std::optional<ZavloBytes> pointOf(const TPMT_PUBLIC& area) {
  const auto& ecc = area.parameters.eccDetail;
  if (area.type != TPM2_ALG_ECC || area.nameAlg != TPM2_ALG_SHA256 || area.objectAttributes != kKeyAttributes ||
      ecc.curveID != TPM2_ECC_NIST_P256 || ecc.scheme.scheme != TPM2_ALG_ECDSA ||
      ecc.scheme.details.ecdsa.hashAlg != TPM2_ALG_SHA256) {
    return std::nullopt;
  }
  const auto& x = area.unique.ecc.x;
  const auto& y = area.unique.ecc.y;
  if (x.size == 0 || x.size > kCoordinateSize || y.size == 0 || y.size > kCoordinateSize) return std::nullopt;
  ZavloBytes point(kPointSize, 0);
  point[0] = 0x04;
  // Coordinates the TPM gave shorter are padded on the left.
  std::copy_n(x.buffer, x.size, point.data() + 1 + (kCoordinateSize - x.size));
  std::copy_n(y.buffer, y.size, point.data() + 1 + kCoordinateSize + (kCoordinateSize - y.size));
  return point;
}

// A blob's parts as the TPM takes them.
struct Parsed {
  std::uint32_t iterations = 0;
  std::span<const std::uint8_t> salt;
  std::size_t publicStart = 0;
  std::size_t privateStart = 0;
  TPM2B_PUBLIC publicArea{};
  TPM2B_PRIVATE privateArea{};
};

std::optional<Parsed> parse(std::span<const std::uint8_t> blob) {
  if (blob.size() < kHeaderSize || blob[0] != kVersion || blob[1] != kPbkdf2Sha256) return std::nullopt;
  Parsed parsed;
  parsed.iterations = (std::uint32_t{blob[2]} << 24) | (std::uint32_t{blob[3]} << 16) | (std::uint32_t{blob[4]} << 8) |
                      std::uint32_t{blob[5]};
  const std::size_t saltSize = blob[6];
  if (parsed.iterations == 0 || parsed.iterations > kMaxIterations || saltSize < kSaltSize ||
      blob.size() < kHeaderSize + saltSize) {
    return std::nullopt;
  }
  parsed.salt = blob.subspan(kHeaderSize, saltSize);
  std::size_t offset = kHeaderSize + saltSize;
  parsed.publicStart = offset;
  if (Tss2_MU_TPM2B_PUBLIC_Unmarshal(blob.data(), blob.size(), &offset, &parsed.publicArea) != TSS2_RC_SUCCESS) {
    return std::nullopt;
  }
  parsed.privateStart = offset;
  if (Tss2_MU_TPM2B_PRIVATE_Unmarshal(blob.data(), blob.size(), &offset, &parsed.privateArea) != TSS2_RC_SUCCESS ||
      offset != blob.size()) {
    return std::nullopt;
  }
  return parsed;
}

std::optional<ZavloBytes> wrap(std::uint32_t iterations, std::span<const std::uint8_t> salt,
                               const TPM2B_PUBLIC& publicArea, const TPM2B_PRIVATE& privateArea) {
  ZavloBytes blob(kHeaderSize + salt.size() + sizeof(TPM2B_PUBLIC) + sizeof(TPM2B_PRIVATE));
  blob[0] = kVersion;
  blob[1] = kPbkdf2Sha256;
  for (int index = 0; index < 4; ++index) blob[2 + index] = static_cast<std::uint8_t>(iterations >> (24 - 8 * index));
  blob[6] = static_cast<std::uint8_t>(salt.size());
  std::copy(salt.begin(), salt.end(), blob.begin() + kHeaderSize);
  std::size_t offset = kHeaderSize + salt.size();
  if (Tss2_MU_TPM2B_PUBLIC_Marshal(&publicArea, blob.data(), blob.size(), &offset) != TSS2_RC_SUCCESS ||
      Tss2_MU_TPM2B_PRIVATE_Marshal(&privateArea, blob.data(), blob.size(), &offset) != TSS2_RC_SUCCESS) {
    return std::nullopt;
  }
  blob.resize(offset);
  return blob;
}

}  // namespace

// The ESAPI context and what is known about the TPM behind it.
struct ZavloLinuxTpmProtection::Tpm {
  explicit Tpm(std::string tctiName) : tcti(std::move(tctiName)) {}
  Tpm(const Tpm&) = delete;
  Tpm& operator=(const Tpm&) = delete;
  ~Tpm() { closeLocked(); }

  // Runs body(esys, storage key) with the context open; a context that lost its TPM is
  // closed, and the next call opens another.
  template <class Body>
  auto run(Body&& body) -> decltype(body(nullptr, ESYS_TR_NONE)) {
    const std::lock_guard lock(mutex);
    if (auto problem = openLocked()) return zavloFailure(std::move(*problem));
    auto result = body(esys, srk);
    if (!result && contextLost(result.error())) closeLocked();
    return result;
  }

  Problem openLocked() {
    if (esys != nullptr) return std::nullopt;
    if (auto problem = connect(tcti, &tctiContext, &esys)) return problem;
    // The persistent SRK, when the TPM has one that can hold keys: asked once a context.
    TPMI_YES_NO more = TPM2_NO;
    TPMS_CAPABILITY_DATA* raw = nullptr;
    TSS2_RC rc = Esys_GetCapability(esys, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, TPM2_CAP_HANDLES, kSrkHandle, 1,
                                    &more, &raw);
    const EsysPointer<TPMS_CAPABILITY_DATA> handles(raw);
    if (rc != TSS2_RC_SUCCESS) return failAndClose(rc, "Esys_GetCapability");
    if (handles->data.handles.count == 0 || handles->data.handles.handle[0] != kSrkHandle) return std::nullopt;
    ESYS_TR found = ESYS_TR_NONE;
    rc = Esys_TR_FromTPMPublic(esys, kSrkHandle, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, &found);
    if (rc != TSS2_RC_SUCCESS) return failAndClose(rc, "Esys_TR_FromTPMPublic");
    TPM2B_PUBLIC* area = nullptr;
    rc = Esys_ReadPublic(esys, found, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, &area, nullptr, nullptr);
    const EsysPointer<TPM2B_PUBLIC> owned(area);
    if (rc != TSS2_RC_SUCCESS) return failAndClose(rc, "Esys_ReadPublic");
    if (isStorageKey(area->publicArea)) {
      srk = found;
    } else {
      (void)Esys_TR_Close(esys, &found);
    }
    return std::nullopt;
  }

  Problem failAndClose(TSS2_RC rc, std::string_view call) {
    auto error = tpmError(rc, Step::connect, call);
    closeLocked();
    return error;
  }

  void closeLocked() {
    if (esys != nullptr) Esys_Finalize(&esys);
    if (tctiContext != nullptr) Tss2_TctiLdr_Finalize(&tctiContext);
    esys = nullptr;
    tctiContext = nullptr;
    srk = ESYS_TR_NONE;
  }

  static Problem connect(const std::string& name, TSS2_TCTI_CONTEXT** tctiOut, ESYS_CONTEXT** esysOut) {
    TSS2_RC rc = Tss2_TctiLdr_Initialize(name.c_str(), tctiOut);
    if (rc != TSS2_RC_SUCCESS) {
      auto error = tpmError(rc, Step::connect, "Tss2_TctiLdr_Initialize(" + name + ")");
      error.failure = Failure::unavailable;  // whatever the loader says, there is no TPM here
      return error;
    }
    rc = Esys_Initialize(esysOut, *tctiOut, nullptr);
    if (rc != TSS2_RC_SUCCESS) {
      Tss2_TctiLdr_Finalize(tctiOut);
      auto error = tpmError(rc, Step::connect, "Esys_Initialize");
      error.failure = Failure::unavailable;
      return error;
    }
    return std::nullopt;
  }

  const std::string tcti;
  std::mutex mutex;
  TSS2_TCTI_CONTEXT* tctiContext = nullptr;
  ESYS_CONTEXT* esys = nullptr;
  ESYS_TR srk = ESYS_TR_NONE;
};

namespace {

// The storage key an operation puts its key under: the SRK, or a primary made for it.
ZavloKeyStoreResult<ZavloVoid> makePrimary(ESYS_CONTEXT* esys, Transient& primary) {
  const TPM2B_SENSITIVE_CREATE sensitive{};
  const TPM2B_PUBLIC area = storageTemplate();
  const TPM2B_DATA outside{};
  const TPML_PCR_SELECTION pcrs{};
  const TSS2_RC rc =
      Esys_CreatePrimary(esys, ESYS_TR_RH_OWNER, ESYS_TR_PASSWORD, ESYS_TR_NONE, ESYS_TR_NONE, &sensitive, &area,
                         &outside, &pcrs, primary.out(), nullptr, nullptr, nullptr, nullptr);
  if (rc != TSS2_RC_SUCCESS) return zavloFailure(tpmError(rc, Step::parent, "Esys_CreatePrimary"));
  return ZavloVoid{};
}

// An HMAC session salted with the storage key (so that only the TPM knows its session key)
// that encrypts each command's first parameter.
ZavloKeyStoreResult<ZavloVoid> startSession(ESYS_CONTEXT* esys, ESYS_TR saltKey, Transient& session) {
  TPMT_SYM_DEF symmetric{};
  symmetric.algorithm = TPM2_ALG_AES;
  symmetric.keyBits.aes = 128;
  symmetric.mode.aes = TPM2_ALG_CFB;
  TSS2_RC rc = Esys_StartAuthSession(esys, saltKey, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, nullptr,
                                     TPM2_SE_HMAC, &symmetric, TPM2_ALG_SHA256, session.out());
  if (rc != TSS2_RC_SUCCESS) return zavloFailure(tpmError(rc, Step::parent, "Esys_StartAuthSession"));
  rc = Esys_TRSess_SetAttributes(esys, session.get(), TPMA_SESSION_DECRYPT | TPMA_SESSION_CONTINUESESSION, 0xFF);
  if (rc != TSS2_RC_SUCCESS) return zavloFailure(tpmError(rc, Step::parent, "Esys_TRSess_SetAttributes"));
  return ZavloVoid{};
}

struct Created {
  EsysPointer<TPM2B_PUBLIC> publicArea;
  EsysPointer<TPM2B_PRIVATE> privateArea;
};

ZavloKeyStoreResult<Created> createUnder(ESYS_CONTEXT* esys, ESYS_TR srk, const ZavloLinuxSecret& authValue) {
  Transient primary(esys);
  ESYS_TR parent = srk;
  if (parent == ESYS_TR_NONE) {
    if (auto made = makePrimary(esys, primary); !made) return zavloFailure(std::move(made).error());
    parent = primary.get();
  }
  Transient session(esys);
  if (auto started = startSession(esys, parent, session); !started) return zavloFailure(std::move(started).error());
  ZavloLinuxSecret sensitiveMemory(sizeof(TPM2B_SENSITIVE_CREATE));
  auto& sensitive = inSecret<TPM2B_SENSITIVE_CREATE>(sensitiveMemory);
  sensitive.sensitive.userAuth.size = static_cast<UINT16>(authValue.size());
  std::copy_n(authValue.data(), authValue.size(), sensitive.sensitive.userAuth.buffer);
  const TPM2B_PUBLIC area = keyTemplate();
  const TPM2B_DATA outside{};
  const TPML_PCR_SELECTION pcrs{};
  TPM2B_PRIVATE* privateArea = nullptr;
  TPM2B_PUBLIC* publicArea = nullptr;
  const TSS2_RC rc = Esys_Create(esys, parent, session.get(), ESYS_TR_NONE, ESYS_TR_NONE, &sensitive, &area, &outside,
                                 &pcrs, &privateArea, &publicArea, nullptr, nullptr, nullptr);
  Created created{EsysPointer<TPM2B_PUBLIC>(publicArea), EsysPointer<TPM2B_PRIVATE>(privateArea)};
  if (rc != TSS2_RC_SUCCESS) return zavloFailure(tpmError(rc, Step::create, "Esys_Create"));
  return created;
}

ZavloKeyStoreResult<EsysPointer<TPMT_SIGNATURE>> signUnder(ESYS_CONTEXT* esys, ESYS_TR parent, const Parsed& parsed,
                                                           const ZavloLinuxSecret& authValue,
                                                           const TPM2B_DIGEST& digest) {
  Transient session(esys);
  if (auto started = startSession(esys, parent, session); !started) return zavloFailure(std::move(started).error());
  Transient key(esys);
  TSS2_RC rc = Esys_Load(esys, parent, session.get(), ESYS_TR_NONE, ESYS_TR_NONE, &parsed.privateArea,
                         &parsed.publicArea, key.out());
  if (rc != TSS2_RC_SUCCESS) return zavloFailure(tpmError(rc, Step::load, "Esys_Load"));
  ZavloLinuxSecret authMemory(sizeof(TPM2B_AUTH));
  auto& auth = inSecret<TPM2B_AUTH>(authMemory);
  auth.size = static_cast<UINT16>(authValue.size());
  std::copy_n(authValue.data(), authValue.size(), auth.buffer);
  rc = Esys_TR_SetAuth(esys, key.get(), &auth);
  if (rc != TSS2_RC_SUCCESS) return zavloFailure(tpmError(rc, Step::sign, "Esys_TR_SetAuth"));
  TPMT_SIG_SCHEME scheme{};
  scheme.scheme = TPM2_ALG_ECDSA;
  scheme.details.ecdsa.hashAlg = TPM2_ALG_SHA256;
  TPMT_TK_HASHCHECK validation{};
  validation.tag = TPM2_ST_HASHCHECK;
  validation.hierarchy = TPM2_RH_NULL;
  TPMT_SIGNATURE* signature = nullptr;
  rc = Esys_Sign(esys, key.get(), session.get(), ESYS_TR_NONE, ESYS_TR_NONE, &digest, &scheme, &validation, &signature);
  EsysPointer<TPMT_SIGNATURE> owned(signature);
  // ESAPI keeps its own copy of the authValue with the key until the flush frees it unwiped.
  const TPM2B_AUTH none{};
  (void)Esys_TR_SetAuth(esys, key.get(), &none);
  if (rc != TSS2_RC_SUCCESS) return zavloFailure(tpmError(rc, Step::sign, "Esys_Sign"));
  return owned;
}

}  // namespace

ZavloLinuxTpmProtection::ZavloLinuxTpmProtection(std::string tcti, Options options)
    : tpm_(std::make_unique<Tpm>(tcti.empty() ? std::string(kSystemTcti) : std::move(tcti))),
      options_(std::move(options)) {
  options_.iterations = std::clamp<std::uint32_t>(options_.iterations, 1, kMaxIterations);
}

ZavloLinuxTpmProtection::~ZavloLinuxTpmProtection() = default;

template <class T>
ZavloKeyStoreResult<T> ZavloLinuxTpmProtection::traced(ZavloKeyStoreResult<T> result) const {
  if (!result && options_.trace) {
    try {
      options_.trace(result.error().description);
    } catch (...) {  // a sink's failure is not the key's
    }
  }
  return result;
}

const std::string& ZavloLinuxTpmProtection::tcti() const { return tpm_->tcti; }

std::optional<ZavloLinuxSecret> ZavloLinuxTpmProtection::authValue(std::span<const std::uint8_t> secret,
                                                                   std::span<const std::uint8_t> salt,
                                                                   std::uint32_t iterations) {
  ZavloLinuxSecret value(kAuthValueSize);
  static const char kNothing = 0;
  const char* password = secret.empty() ? &kNothing : reinterpret_cast<const char*>(secret.data());
  if (iterations == 0 || iterations > kMaxIterations ||
      PKCS5_PBKDF2_HMAC(password, static_cast<int>(secret.size()), salt.data(), static_cast<int>(salt.size()),
                        static_cast<int>(iterations), EVP_sha256(), static_cast<int>(value.size()),
                        value.data()) != 1) {
    ERR_clear_error();
    return std::nullopt;
  }
  return value;
}

std::optional<ZavloLinuxTpmProtection::Wrapped> ZavloLinuxTpmProtection::unwrap(std::span<const std::uint8_t> blob) {
  const auto parsed = parse(blob);
  if (!parsed) return std::nullopt;
  return Wrapped{parsed->iterations,
                 {parsed->salt.begin(), parsed->salt.end()},
                 {blob.begin() + static_cast<std::ptrdiff_t>(parsed->publicStart),
                  blob.begin() + static_cast<std::ptrdiff_t>(parsed->privateStart)},
                 {blob.begin() + static_cast<std::ptrdiff_t>(parsed->privateStart), blob.end()}};
}

ZavloKeyStoreResult<ZavloVoid> ZavloLinuxTpmProtection::probe(const std::string& tcti) {
  try {
    // A missing device is answered without the loader, which would log its failure.
    const std::string_view device = "device:";
    if (tcti.starts_with(device) && access(tcti.c_str() + device.size(), R_OK | W_OK) != 0) {
      return failure(Failure::unavailable, "TPM: " + tcti.substr(device.size()) + " cannot be opened");
    }
    TSS2_TCTI_CONTEXT* tctiContext = nullptr;
    ESYS_CONTEXT* esys = nullptr;
    if (auto problem = Tpm::connect(tcti, &tctiContext, &esys)) return zavloFailure(std::move(*problem));
    TPMI_YES_NO more = TPM2_NO;
    TPMS_CAPABILITY_DATA* raw = nullptr;
    const TSS2_RC rc = Esys_GetCapability(esys, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, TPM2_CAP_TPM_PROPERTIES,
                                          TPM2_PT_FAMILY_INDICATOR, 1, &more, &raw);
    Esys_Free(raw);
    Esys_Finalize(&esys);
    Tss2_TctiLdr_Finalize(&tctiContext);
    if (rc != TSS2_RC_SUCCESS) return zavloFailure(tpmError(rc, Step::connect, "Esys_GetCapability"));
    return ZavloVoid{};
  } catch (...) {
    return failure(Failure::internal, "TPM: the probe failed");
  }
}

ZavloKeyStoreResult<ZavloLinuxKeyProtection::Made> ZavloLinuxTpmProtection::create(const ZavloBytes& /*tag*/,
                                                                                   const ZavloOwnerProof& proof) {
  return traced([&]() -> ZavloKeyStoreResult<Made> {
    try {
      if (proof.secret().empty()) return failure(Failure::noOwnerSecret, "TPM key: the owner gave no secret");
      std::array<std::uint8_t, kSaltSize> salt{};
      if (RAND_bytes(salt.data(), static_cast<int>(salt.size())) != 1) {
        ERR_clear_error();
        return failure(Failure::internal, "TPM key: RAND_bytes failed");
      }
      const std::uint32_t iterations = options_.iterations;
      // The KDF runs before the lock: it needs no TPM, and other callers need not wait for it.
      const auto auth = authValue(proof.secret(), salt, iterations);
      if (!auth) return failure(Failure::internal, "TPM key: PBKDF2 failed");
      auto created = tpm_->run([&](ESYS_CONTEXT* esys, ESYS_TR srk) { return createUnder(esys, srk, *auth); });
      if (!created) return zavloFailure(std::move(created).error());
      auto point = pointOf(created.value().publicArea->publicArea);
      if (!point) return failure(Failure::publicKeyExport, "TPM key: the TPM made a key that is not the one asked for");
      auto blob = wrap(iterations, salt, *created.value().publicArea, *created.value().privateArea);
      if (!blob) return failure(Failure::internal, "TPM key: the key's blob cannot be written");
      return Made{std::move(*point), std::move(*blob)};
    } catch (...) {
      return failure(Failure::internal, "TPM key: creation failed");
    }
  }());
}

ZavloKeyStoreResult<ZavloBytes> ZavloLinuxTpmProtection::sign(const ZavloLinuxKeyRecord& record,
                                                              std::span<const std::uint8_t> message,
                                                              const ZavloOwnerProof& proof) {
  return traced([&]() -> ZavloKeyStoreResult<ZavloBytes> {
    try {
      const auto parsed = parse(record.blob);
      if (!parsed || pointOf(parsed->publicArea.publicArea) != record.publicKey) {
        return failure(Failure::damaged, "TPM key: the blob is not a key this library made");
      }
      if (proof.secret().empty()) return failure(Failure::noOwnerSecret, "TPM key: the key needs the owner's secret");
      const auto auth = authValue(proof.secret(), parsed->salt, parsed->iterations);
      if (!auth) return failure(Failure::internal, "TPM key: PBKDF2 failed");
      TPM2B_DIGEST digest{};
      digest.size = kCoordinateSize;
      static const unsigned char kNothing = 0;
      if (EVP_Digest(message.empty() ? &kNothing : message.data(), message.size(), digest.buffer, nullptr, EVP_sha256(),
                     nullptr) != 1) {
        ERR_clear_error();
        return failure(Failure::internal, "TPM key: SHA-256 failed");
      }
      auto signature = tpm_->run([&](ESYS_CONTEXT* esys, ESYS_TR srk) {
        if (srk == ESYS_TR_NONE) {
          Transient primary(esys);
          if (auto made = makePrimary(esys, primary); !made) {
            return ZavloKeyStoreResult<EsysPointer<TPMT_SIGNATURE>>(zavloFailure(std::move(made).error()));
          }
          return signUnder(esys, primary.get(), *parsed, *auth, digest);
        }
        auto underSrk = signUnder(esys, srk, *parsed, *auth, digest);
        // A key made before the SRK was put in place lives under the primary of the
        // standard template, which the SRK need not be.
        if (underSrk || underSrk.error().failure != Failure::damaged) return underSrk;
        Transient primary(esys);
        if (auto made = makePrimary(esys, primary); !made) return underSrk;
        auto underPrimary = signUnder(esys, primary.get(), *parsed, *auth, digest);
        return underPrimary ? std::move(underPrimary) : std::move(underSrk);
      });
      if (!signature) return zavloFailure(std::move(signature).error());
      const auto& value = *signature.value();
      if (value.sigAlg != TPM2_ALG_ECDSA)
        return failure(Failure::internal, "TPM key: the TPM signed with another scheme");
      const auto& ecdsa = value.signature.ecdsa;
      auto der = ZavloLinuxEcKeys::derSignature({ecdsa.signatureR.buffer, ecdsa.signatureR.size},
                                                {ecdsa.signatureS.buffer, ecdsa.signatureS.size});
      if (!der) return failure(Failure::internal, "TPM key: the signature cannot be encoded");
      return std::move(*der);
    } catch (...) {
      return failure(Failure::internal, "TPM key: signing failed");
    }
  }());
}
