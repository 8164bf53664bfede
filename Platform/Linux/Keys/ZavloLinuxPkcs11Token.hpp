#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Platform/Linux/ZavloLinuxSecret.hpp"
#include "Platform/ZavloKeyStore.hpp"

struct p11_kit_uri;  // p11-kit's parsed URI; kept out of the installed headers

/// One PKCS#11 token (a TPM through tpm2-pkcs11, a smart card through OpenSC, an HSM,
/// SoftHSM2 in tests), named by an RFC 7512 URI, holding P-256 key pairs by tag.
///
/// The URI chooses the module (module-path, else module-name, else every module p11-kit
/// has registered) and the token (token, manufacturer, serial, model, slot attributes).
/// It may also give the PIN (pin-value, or pin-source naming a file, as a path or a file:
/// URI; one trailing line end is dropped), for hosts where nobody is at the prompt: then
/// that PIN is used and the owner's is not asked for. Otherwise the PIN is the one each
/// call is given (the owner's, from the prompt). Nothing is loaded before the first
/// operation; each operation opens what is missing, so a token inserted later is found.
///
/// Every operation that needs the user logged in logs in with its PIN, does its work and
/// logs out, so no session stays logged in and no PIN is kept: a PIN lives in a
/// ZavloLinuxSecret for one call (a pin-source file is read again each time). PKCS#11 keeps
/// the login per process and token, not per session, so one mutex serialises the
/// operations of every token object of the process: one object's logout cannot end
/// another's login halfway. A PIN from the URI that the token refused is never offered
/// again by this object, so that retries cannot lock the token; the owner's PIN is tried
/// once per call, and the token's own retry counter bounds guessing.
///
/// Keys: a private object (CKA_PRIVATE, CKA_SENSITIVE, not CKA_EXTRACTABLE, CKA_SIGN only)
/// and a public object (CKA_PRIVATE false, CKA_VERIFY only, CKA_EC_POINT), both token
/// objects with the tag as CKA_ID and CKA_LABEL. A key exists while its public object does:
/// it is found without a PIN, and destroy() without one removes only the public object
/// (the private one cannot be seen before a login). Every logged-in operation first
/// destroys private objects of this kind (EC, CKA_ID equal to CKA_LABEL) whose public
/// object is gone.
///
/// Failures are key store errors: failureFor() is the one mapping of PKCS#11 return codes,
/// and the code is kept; descriptions name the call and its return code, never a PIN.
///
/// Threading contract: every operation may be called from any thread and is synchronous.
class ZavloLinuxPkcs11Token {
 public:
  struct Options {
    /// Receives each failure's description, and once the note that the PIN came from the URI.
    std::function<void(const std::string&)> trace = {};
  };

  template <class T>
  using Result = ZavloKeyStoreResult<T>;

  /// A token for uri. A malformed uri makes every operation fail as invalidArgument.
  explicit ZavloLinuxPkcs11Token(std::string uri) : ZavloLinuxPkcs11Token(std::move(uri), Options{}) {}
  ZavloLinuxPkcs11Token(std::string uri, Options options);
  ~ZavloLinuxPkcs11Token();
  ZavloLinuxPkcs11Token(const ZavloLinuxPkcs11Token&) = delete;
  ZavloLinuxPkcs11Token& operator=(const ZavloLinuxPkcs11Token&) = delete;

  /// Why text is not a PKCS#11 URI this class can use; nothing when it is.
  static std::optional<std::string> uriProblem(const std::string& text);
  /// The key store failure for a PKCS#11 return code. pinFromUri: the PIN was the URI's,
  /// so a refused one is the host's configuration (unavailable), not the owner's answer.
  static ZavloKeyStoreFailure failureFor(unsigned long returnCode, bool pinFromUri = false);

  /// Whether the URI gives the PIN (pin-source or pin-value): the owner's PIN is then not used.
  [[nodiscard]] bool pinFromUri() const { return pinSource_.has_value() || pinValue_.has_value(); }
  /// The URI as descriptions show it, with any pin-value hidden.
  [[nodiscard]] const std::string& shownUri() const { return shownUri_; }

  /// The public point (X9.63: 0x04, X, Y) of the key with this tag, or nothing. No login.
  Result<std::optional<ZavloBytes>> find(const ZavloBytes& tag);
  /// A new key pair under tag, made while logged in with pin; duplicate when the tag is taken.
  Result<ZavloBytes> generate(const ZavloBytes& tag, std::span<const std::uint8_t> pin);
  /// The raw signature (r then s, 32 bytes each) of a SHA-256 digest, made in the token
  /// while logged in with pin.
  Result<ZavloBytes> sign(const ZavloBytes& tag, std::span<const std::uint8_t> digest,
                          std::span<const std::uint8_t> pin);
  /// Destroys the key with this tag: both objects with the URI's PIN (or on a token that
  /// needs no login), else the public object, the private one being swept by the next
  /// logged-in operation. true when there was a key.
  Result<bool> destroy(const ZavloBytes& tag);

 private:
  struct Modules;  // the loaded PKCS#11 modules, and the one whose slot holds the token
  using Problem = std::optional<ZavloKeyStoreError>;

  /// The token's EC keys by CKA_ID, as a logged-in session sees them.
  struct Keys {
    std::map<ZavloBytes, unsigned long> publicKeys;
    std::map<ZavloBytes, unsigned long> privateKeys;
  };

  template <class Body>
  auto locked(Body&& body);
  /// open, log in with pin, keysLocked(), body(keys), log out; the body answers a Result.
  template <class T, class Body>
  Result<T> loggedInLocked(std::span<const std::uint8_t> pin, Body&& body);
  Problem openLocked();
  Problem loadModulesLocked();
  Problem loginLocked(std::span<const std::uint8_t> ownerPin);
  void logoutLocked();
  /// The keys, once the private halves whose public half is gone have been destroyed.
  Result<Keys> keysLocked();
  void closeSessionLocked();
  [[nodiscard]] bool loginRequiredLocked() const;
  /// The URI's PIN, read afresh from pin-source; a problem when it cannot be had.
  ZavloKeyStoreResult<ZavloLinuxSecret> uriPinLocked();
  ZavloKeyStoreError fail(ZavloKeyStoreFailure failure, std::int64_t code, std::string description);
  /// Maps the code and drops a session the token no longer knows.
  ZavloKeyStoreError failCall(unsigned long returnCode, const std::string& call, bool pinFromUri = false);
  Result<std::vector<unsigned long>> findObjectsLocked(unsigned long objectClass, const std::optional<ZavloBytes>& tag);
  Result<ZavloBytes> attributeLocked(unsigned long object, unsigned long type, const char* name);
  Result<ZavloBytes> pointLocked(unsigned long publicKey);
  Problem destroyObjectsLocked(const std::vector<unsigned long>& objects);

  std::string shownUri_;
  const Options options_;
  std::optional<std::string> uriFailure_;
  std::optional<ZavloLinuxSecret> pinValue_;  // the URI's pin-value, taken out of the text
  std::optional<std::string> pinSource_;      // the file of the URI's pin-source
  std::unique_ptr<p11_kit_uri, void (*)(p11_kit_uri*)> parsed_;

  std::unique_ptr<Modules> modules_;
  unsigned long slot_ = 0;
  unsigned long session_ = 0;
  unsigned long tokenFlags_ = 0;
  bool sessionOpen_ = false;
  bool loggedIn_ = false;
  std::optional<ZavloKeyStoreError> uriPinRefused_;  // the token's refusal of the URI's PIN
  bool uriPinNoted_ = false;
  std::optional<std::string> pendingTrace_;
};
