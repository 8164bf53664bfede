#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Platform/ZavloKeyStore.hpp"
#include "Platform/ZavloResult.hpp"

struct p11_kit_uri;  // p11-kit's parsed URI; kept out of the installed headers

/// The statuses of token calls (the values of the platform's keychain statuses).
namespace ZavloLinuxTokenStatus {
inline constexpr std::int32_t success = 0;
inline constexpr std::int32_t param = -50;
inline constexpr std::int32_t io = -36;
inline constexpr std::int32_t notAvailable = -25291;
inline constexpr std::int32_t duplicateItem = -25299;
inline constexpr std::int32_t itemNotFound = -25300;
inline constexpr std::int32_t decode = -26275;
}  // namespace ZavloLinuxTokenStatus

/// One PKCS#11 token (a TPM through tpm2-pkcs11, a smart card through OpenSC, an HSM,
/// SoftHSM2 in tests), named by an RFC 7512 URI, holding P-256 key pairs by tag.
///
/// The URI chooses the module (module-path, else module-name, else every module p11-kit
/// has registered), the token (token, manufacturer, serial, model, slot attributes) and
/// the PIN (pin-value, or pin-source naming a file, as a path or a file: URI; one
/// trailing newline is dropped). Nothing is loaded before the first operation; each
/// operation opens what is missing, so a token inserted later is found then.
///
/// One session per object, reused by every operation and serialised by one mutex (a
/// session runs one operation at a time). When the token reports the session gone (the
/// token removed, the device reset), the session is dropped and the next operation opens
/// a new one. A PIN the token refused is never offered again by this object, so that
/// retries cannot lock the token.
///
/// Keys: a private object (CKA_SENSITIVE true, CKA_EXTRACTABLE false, CKA_SIGN) and a
/// public object (CKA_VERIFY, CKA_EC_POINT), both with the tag as CKA_ID and CKA_LABEL.
/// Permanent keys are token objects; the others are session objects, destroyed by
/// release() or with the session.
///
/// Errors are keychain statuses (statusFor() is the one mapping of PKCS#11 return codes);
/// descriptions name the call and its return code, never a PIN.
///
/// Threading contract: every operation may be called from any thread and is synchronous.
class ZavloLinuxPkcs11Token {
 public:
  struct Options {
    /// Receives each failure's description.
    std::function<void(const std::string&)> trace = {};
  };

  struct Failure {
    std::int32_t status = 0;
    std::string description;
  };
  template <class T>
  using Result = ZavloResult<T, Failure>;

  /// A key pair as found or made: its tag and its public point (X9.63: 0x04, X, Y).
  struct KeyPair {
    ZavloBytes tag;
    ZavloBytes point;
    bool permanent = true;
    unsigned long privateKey = 0;  ///< handles, valid in session `session`
    unsigned long publicKey = 0;
    std::uint64_t session = 0;
  };

  /// No PKCS#11 failure: the module's call failed without a return code (errSecInternalComponent).
  static constexpr std::int32_t internalComponent = -2070;
  /// The PIN was refused or is missing (errSecAuthFailed).
  static constexpr std::int32_t authFailed = -25293;

  /// A token for uri. A malformed uri makes every operation fail with param.
  explicit ZavloLinuxPkcs11Token(std::string uri) : ZavloLinuxPkcs11Token(std::move(uri), Options{}) {}
  ZavloLinuxPkcs11Token(std::string uri, Options options);
  ~ZavloLinuxPkcs11Token();
  ZavloLinuxPkcs11Token(const ZavloLinuxPkcs11Token&) = delete;
  ZavloLinuxPkcs11Token& operator=(const ZavloLinuxPkcs11Token&) = delete;

  /// Why text is not a PKCS#11 URI this class can use; nothing when it is.
  static std::optional<std::string> uriProblem(const std::string& text);
  /// The keychain status for a PKCS#11 return code.
  static std::int32_t statusFor(unsigned long returnCode);

  /// A new key pair; duplicateItem when a permanent key has this tag.
  Result<KeyPair> generate(const ZavloBytes& tag, bool permanent);
  /// The permanent EC key pairs, every one or those with this tag; points are read when
  /// asked for.
  Result<std::vector<KeyPair>> find(const std::optional<ZavloBytes>& tag, bool withPoints);
  /// The raw signature (r then s, 32 bytes each) of a SHA-256 digest, made in the token.
  Result<ZavloBytes> sign(const KeyPair& key, const ZavloBytes& digest);
  /// Destroys every permanent key pair with this tag (every one without a tag);
  /// itemNotFound when there was none.
  std::int32_t destroy(const std::optional<ZavloBytes>& tag);
  /// Destroys a session key; permanent keys are left alone.
  void release(const KeyPair& key);

  [[nodiscard]] std::optional<Failure> lastFailure() const;

 private:
  struct Modules;  // the loaded PKCS#11 modules, and the one whose slot holds the token
  template <class Body>
  auto locked(Body&& body);
  std::int32_t openLocked();
  std::int32_t loadModulesLocked();
  std::int32_t loginLocked(unsigned long flags);
  void closeSessionLocked();
  std::int32_t fail(std::int32_t status, std::string description);
  /// Maps the code, drops a session the token no longer knows.
  std::int32_t failCall(unsigned long returnCode, const std::string& call);
  Result<std::vector<unsigned long>> findObjectsLocked(unsigned long objectClass, const std::optional<ZavloBytes>& tag);
  Result<ZavloBytes> attributeLocked(unsigned long object, unsigned long type, const char* name);
  Result<ZavloBytes> pointLocked(unsigned long publicKey);
  /// The key's private handle in this session; lookUp: found again by tag, not remembered.
  Result<unsigned long> privateHandleLocked(const KeyPair& key, bool lookUp);

  const std::string uri_;
  std::string shownUri_;
  const Options options_;
  std::optional<std::string> uriFailure_;
  std::unique_ptr<p11_kit_uri, void (*)(p11_kit_uri*)> parsed_;

  mutable std::mutex mutex_;
  std::unique_ptr<Modules> modules_;
  unsigned long slot_ = 0;
  unsigned long session_ = 0;
  bool sessionOpen_ = false;
  std::uint64_t generation_ = 0;  // counts sessions opened
  bool pinRefused_ = false;
  std::map<ZavloBytes, unsigned long> handles_;  // private handles by tag, this session
  std::optional<Failure> lastFailure_;
  std::optional<std::string> pendingTrace_;
};
