#include "Platform/Linux/Keys/ZavloLinuxPkcs11Token.hpp"

#include <fcntl.h>
#include <p11-kit/p11-kit.h>
#include <p11-kit/pkcs11.h>
#include <p11-kit/uri.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string_view>
#include <utility>

#include "Platform/Linux/Keys/ZavloLinuxTracedLock.hpp"

namespace {

using Failure = ZavloKeyStoreFailure;

// DER of the named curve prime256v1 (1.2.840.10045.3.1.7), as CKA_EC_PARAMS holds it.
constexpr std::array<CK_BYTE, 10> kP256Parameters = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
constexpr std::size_t kPointSize = 65;
constexpr CK_ULONG kFindBatch = 32;
constexpr std::size_t kMaxPinFile = 4096;  // a PIN file is a line, not a document
constexpr std::string_view kPinValue = "pin-value=";

// PKCS#11 keeps the login per process and token: every token object takes this one lock
// for a whole operation, so that no logout lands inside another object's login.
std::mutex& processLock() {
  static std::mutex lock;
  return lock;
}

const char* returnCodeName(CK_RV code) {
  switch (code) {
    case CKR_OK:
      return "CKR_OK";
    case CKR_HOST_MEMORY:
      return "CKR_HOST_MEMORY";
    case CKR_SLOT_ID_INVALID:
      return "CKR_SLOT_ID_INVALID";
    case CKR_GENERAL_ERROR:
      return "CKR_GENERAL_ERROR";
    case CKR_FUNCTION_FAILED:
      return "CKR_FUNCTION_FAILED";
    case CKR_ARGUMENTS_BAD:
      return "CKR_ARGUMENTS_BAD";
    case CKR_ATTRIBUTE_TYPE_INVALID:
      return "CKR_ATTRIBUTE_TYPE_INVALID";
    case CKR_ATTRIBUTE_VALUE_INVALID:
      return "CKR_ATTRIBUTE_VALUE_INVALID";
    case CKR_DEVICE_ERROR:
      return "CKR_DEVICE_ERROR";
    case CKR_DEVICE_MEMORY:
      return "CKR_DEVICE_MEMORY";
    case CKR_DEVICE_REMOVED:
      return "CKR_DEVICE_REMOVED";
    case CKR_FUNCTION_NOT_SUPPORTED:
      return "CKR_FUNCTION_NOT_SUPPORTED";
    case CKR_KEY_HANDLE_INVALID:
      return "CKR_KEY_HANDLE_INVALID";
    case CKR_KEY_TYPE_INCONSISTENT:
      return "CKR_KEY_TYPE_INCONSISTENT";
    case CKR_KEY_FUNCTION_NOT_PERMITTED:
      return "CKR_KEY_FUNCTION_NOT_PERMITTED";
    case CKR_MECHANISM_INVALID:
      return "CKR_MECHANISM_INVALID";
    case CKR_OBJECT_HANDLE_INVALID:
      return "CKR_OBJECT_HANDLE_INVALID";
    case CKR_OPERATION_ACTIVE:
      return "CKR_OPERATION_ACTIVE";
    case CKR_PIN_INCORRECT:
      return "CKR_PIN_INCORRECT";
    case CKR_PIN_INVALID:
      return "CKR_PIN_INVALID";
    case CKR_PIN_LEN_RANGE:
      return "CKR_PIN_LEN_RANGE";
    case CKR_PIN_EXPIRED:
      return "CKR_PIN_EXPIRED";
    case CKR_PIN_LOCKED:
      return "CKR_PIN_LOCKED";
    case CKR_SESSION_CLOSED:
      return "CKR_SESSION_CLOSED";
    case CKR_SESSION_COUNT:
      return "CKR_SESSION_COUNT";
    case CKR_SESSION_HANDLE_INVALID:
      return "CKR_SESSION_HANDLE_INVALID";
    case CKR_SESSION_READ_ONLY:
      return "CKR_SESSION_READ_ONLY";
    case CKR_TEMPLATE_INCOMPLETE:
      return "CKR_TEMPLATE_INCOMPLETE";
    case CKR_TEMPLATE_INCONSISTENT:
      return "CKR_TEMPLATE_INCONSISTENT";
    case CKR_TOKEN_NOT_PRESENT:
      return "CKR_TOKEN_NOT_PRESENT";
    case CKR_TOKEN_NOT_RECOGNIZED:
      return "CKR_TOKEN_NOT_RECOGNIZED";
    case CKR_TOKEN_WRITE_PROTECTED:
      return "CKR_TOKEN_WRITE_PROTECTED";
    case CKR_USER_NOT_LOGGED_IN:
      return "CKR_USER_NOT_LOGGED_IN";
    case CKR_USER_ALREADY_LOGGED_IN:
      return "CKR_USER_ALREADY_LOGGED_IN";
    case CKR_USER_PIN_NOT_INITIALIZED:
      return "CKR_USER_PIN_NOT_INITIALIZED";
    case CKR_DOMAIN_PARAMS_INVALID:
      return "CKR_DOMAIN_PARAMS_INVALID";
    case CKR_CURVE_NOT_SUPPORTED:
      return "CKR_CURVE_NOT_SUPPORTED";
    case CKR_BUFFER_TOO_SMALL:
      return "CKR_BUFFER_TOO_SMALL";
    case CKR_CRYPTOKI_NOT_INITIALIZED:
      return "CKR_CRYPTOKI_NOT_INITIALIZED";
    default:
      return nullptr;
  }
}

std::string describe(CK_RV code) {
  if (const char* name = returnCodeName(code)) return name;
  char hex[24];
  std::snprintf(hex, sizeof hex, "0x%lx", code);
  return std::string("CKR ") + hex;
}

// Codes after which the session (and maybe the token) is gone; another session may work.
bool sessionLost(CK_RV code) {
  return code == CKR_SESSION_HANDLE_INVALID || code == CKR_SESSION_CLOSED || code == CKR_DEVICE_REMOVED ||
         code == CKR_TOKEN_NOT_PRESENT || code == CKR_TOKEN_NOT_RECOGNIZED || code == CKR_DEVICE_ERROR ||
         code == CKR_CRYPTOKI_NOT_INITIALIZED;
}

// Codes with which the token refuses a PIN itself (not the lack of one).
bool pinRefusal(CK_RV code) {
  return code == CKR_PIN_INCORRECT || code == CKR_PIN_INVALID || code == CKR_PIN_LEN_RANGE || code == CKR_PIN_LOCKED ||
         code == CKR_PIN_EXPIRED;
}

// The file a pin-source names: "file:PATH" (RFC 8089 local form, file:///PATH too) or a path.
std::optional<std::string> pinFile(const std::string& source) {
  if (source.starts_with("file://")) {
    const auto rest = source.substr(7);
    return rest.starts_with('/') ? std::optional(rest) : std::nullopt;  // only the local host
  }
  if (source.starts_with("file:")) return source.substr(5);
  if (source.starts_with('/')) return source;
  return std::nullopt;
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Takes every pin-value attribute out of text (the query's, or one written into the path),
// wiping its characters there first, and answers the last one's percent-decoded value;
// nothing when there is none. p11-kit never sees the PIN, so none of its copies outlives
// the parse, and no description shows it.
std::optional<ZavloLinuxSecret> takePinValue(std::string& text) {
  std::optional<ZavloLinuxSecret> taken;
  for (auto start = text.find(kPinValue); start != std::string::npos; start = text.find(kPinValue, start)) {
    if (start == 0 || std::string_view(":;?&").find(text[start - 1]) == std::string_view::npos) {
      start += kPinValue.size();  // part of another attribute's value
      continue;
    }
    const auto valueStart = start + kPinValue.size();
    const auto valueEnd = std::min(text.find_first_of("&;?", valueStart), text.size());
    ZavloLinuxSecret pin(valueEnd - valueStart);
    std::size_t length = 0;
    for (std::size_t at = valueStart; at < valueEnd; ++at) {
      const bool escaped =
          text[at] == '%' && at + 2 < valueEnd && hexDigit(text[at + 1]) >= 0 && hexDigit(text[at + 2]) >= 0;
      if (escaped) {
        pin.data()[length++] = static_cast<std::uint8_t>(hexDigit(text[at + 1]) * 16 + hexDigit(text[at + 2]));
        at += 2;
      } else {
        pin.data()[length++] = static_cast<std::uint8_t>(text[at]);
      }
    }
    pin.shrink(length);
    taken = std::move(pin);
    std::memset(text.data() + valueStart, 'x', valueEnd - valueStart);
    // The attribute goes with one separator: the one before it, else the one after it
    // (not a '?', which divides the path from the query).
    auto eraseStart = start;
    auto eraseEnd = valueEnd;
    if (text[start - 1] == ';' || text[start - 1] == '&') {
      --eraseStart;
    } else if (eraseEnd < text.size() && text[eraseEnd] != '?') {
      ++eraseEnd;
    }
    text.erase(eraseStart, eraseEnd - eraseStart);
    start = eraseStart;
  }
  if (text.ends_with('?')) text.pop_back();
  return taken;
}

// The 65-byte point of CKA_EC_POINT, which tokens give DER-wrapped (an OCTET STRING) or bare.
std::optional<ZavloBytes> uncompressedPoint(const ZavloBytes& value) {
  if (value.size() == kPointSize + 2 && value[0] == 0x04 && value[1] == kPointSize && value[2] == 0x04) {
    return ZavloBytes(value.begin() + 2, value.end());
  }
  if (value.size() == kPointSize && value[0] == 0x04) return value;
  return std::nullopt;
}

CK_ATTRIBUTE attribute(CK_ATTRIBUTE_TYPE type, const void* value, std::size_t size) {
  // The template is only read by the token; PKCS#11 has no const in its types.
  return CK_ATTRIBUTE{type, const_cast<void*>(value), static_cast<CK_ULONG>(size)};  // NOLINT
}

template <class T>
CK_ATTRIBUTE attribute(CK_ATTRIBUTE_TYPE type, const T& value) {
  return attribute(type, &value, sizeof value);
}

CK_ATTRIBUTE attribute(CK_ATTRIBUTE_TYPE type, const ZavloBytes& value) {
  return attribute(type, value.data(), value.size());
}

}  // namespace

struct ZavloLinuxPkcs11Token::Modules {
  std::vector<CK_FUNCTION_LIST*> loaded;
  CK_FUNCTION_LIST** registered = nullptr;  // p11-kit's registered set, released as one
  CK_FUNCTION_LIST* token = nullptr;        // the module whose slot holds the token

  Modules() = default;
  Modules(const Modules&) = delete;
  Modules& operator=(const Modules&) = delete;
  ~Modules() {
    if (registered != nullptr) {
      p11_kit_modules_finalize_and_release(registered);  // frees its own array too
      return;
    }
    for (auto* module : loaded) {
      (void)p11_kit_module_finalize(module);
      p11_kit_module_release(module);
    }
  }
};

ZavloLinuxPkcs11Token::ZavloLinuxPkcs11Token(std::string uri, Options options)
    : options_(std::move(options)),
      parsed_(p11_kit_uri_new(), p11_kit_uri_free),
      modules_(std::make_unique<Modules>()) {
  uriFailure_ = uriProblem(uri);
  pinValue_ = takePinValue(uri);
  // Descriptions show the URI without its PIN.
  shownUri_ =
      uri + (pinValue_ ? std::string(uri.find('?') == std::string::npos ? "?" : "&") + "pin-value=(hidden)" : "");
  if (uriFailure_) return;
  if (p11_kit_uri_parse(uri.c_str(), P11_KIT_URI_FOR_ANY, parsed_.get()) != P11_KIT_URI_OK) {
    uriFailure_ = "it cannot be parsed";
    return;
  }
  if (const char* source = p11_kit_uri_get_pin_source(parsed_.get())) pinSource_ = pinFile(source);
}

ZavloLinuxPkcs11Token::~ZavloLinuxPkcs11Token() {
  const std::lock_guard lock(processLock());
  closeSessionLocked();
}

std::optional<std::string> ZavloLinuxPkcs11Token::uriProblem(const std::string& text) {
  std::string withoutPin = text;
  const bool pinValue = takePinValue(withoutPin).has_value();
  const std::unique_ptr<P11KitUri, void (*)(P11KitUri*)> parsed(p11_kit_uri_new(), p11_kit_uri_free);
  if (parsed == nullptr) return "no memory to parse it";
  if (const int code = p11_kit_uri_parse(withoutPin.c_str(), P11_KIT_URI_FOR_ANY, parsed.get());
      code != P11_KIT_URI_OK) {
    return std::string("it is no PKCS#11 URI: ") + p11_kit_uri_message(code);
  }
  if (p11_kit_uri_any_unrecognized(parsed.get()) != 0) return "it has attributes this library does not know";
  const char* source = p11_kit_uri_get_pin_source(parsed.get());
  if (pinValue && source != nullptr) return "it gives both pin-value and pin-source";
  if (source != nullptr && !pinFile(source)) {
    return std::string("its pin-source must name a file (file:/path or /path), not \"") + source + "\"";
  }
  return std::nullopt;
}

ZavloKeyStoreFailure ZavloLinuxPkcs11Token::failureFor(unsigned long returnCode, bool pinFromUri) {
  switch (returnCode) {
    case CKR_PIN_INCORRECT:
    case CKR_PIN_INVALID:
    case CKR_PIN_LEN_RANGE:
      // The owner's PIN is their answer; the URI's is the host's setting, which no
      // answer at the prompt repairs.
      return pinFromUri ? Failure::unavailable : Failure::ownerRefused;
    case CKR_PIN_LOCKED:
    case CKR_PIN_EXPIRED:  // no PIN opens it before the PIN is changed
      return Failure::lockedOut;
    case CKR_USER_NOT_LOGGED_IN:
      return Failure::noOwnerSecret;
    case CKR_KEY_HANDLE_INVALID:
    case CKR_OBJECT_HANDLE_INVALID:
      return Failure::notFound;
    case CKR_SLOT_ID_INVALID:
    case CKR_DEVICE_ERROR:
    case CKR_DEVICE_REMOVED:
    case CKR_DEVICE_MEMORY:
    case CKR_TOKEN_NOT_PRESENT:
    case CKR_TOKEN_NOT_RECOGNIZED:
    case CKR_TOKEN_WRITE_PROTECTED:
    case CKR_SESSION_CLOSED:
    case CKR_SESSION_HANDLE_INVALID:
    case CKR_SESSION_COUNT:
    case CKR_SESSION_READ_ONLY:
    case CKR_CRYPTOKI_NOT_INITIALIZED:
    case CKR_USER_PIN_NOT_INITIALIZED:
      return Failure::unavailable;
    default:
      // Templates, mechanisms and curves the token refuses, and its own faults.
      return Failure::internal;
  }
}

template <class Body>
auto ZavloLinuxPkcs11Token::locked(Body&& body) {
  return zavloLockedThenTraced(processLock(), pendingTrace_, options_.trace, std::forward<Body>(body));
}

ZavloKeyStoreError ZavloLinuxPkcs11Token::fail(ZavloKeyStoreFailure failure, std::int64_t code,
                                               std::string description) {
  description = "PKCS#11 token " + shownUri_ + ": " + description;
  pendingTrace_ = pendingTrace_ ? *pendingTrace_ + "\n" + description : description;
  return {failure, code, std::move(description)};
}

ZavloKeyStoreError ZavloLinuxPkcs11Token::failCall(unsigned long returnCode, const std::string& call, bool pinFromUri) {
  if (sessionLost(returnCode)) closeSessionLocked();
  return fail(failureFor(returnCode, pinFromUri), static_cast<std::int64_t>(returnCode),
              call + " failed: " + describe(returnCode));
}

void ZavloLinuxPkcs11Token::closeSessionLocked() {
  // Closing the session also ends a login it held.
  if (sessionOpen_ && modules_->token != nullptr) (void)modules_->token->C_CloseSession(session_);
  sessionOpen_ = false;
  loggedIn_ = false;
}

ZavloLinuxPkcs11Token::Problem ZavloLinuxPkcs11Token::loadModulesLocked() {
  if (!modules_->loaded.empty()) return std::nullopt;
  const char* path = p11_kit_uri_get_module_path(parsed_.get());
  const char* name = p11_kit_uri_get_module_name(parsed_.get());
  if (path != nullptr || name != nullptr) {
    // A name is looked up in p11-kit's module folder, a path is taken as it stands.
    const char* which = path != nullptr ? path : name;
    CK_FUNCTION_LIST* module = p11_kit_module_load(which, 0);
    if (module == nullptr) {
      const char* message = p11_kit_message();
      return fail(Failure::unavailable, 0,
                  std::string("the module ") + which + " cannot be loaded" +
                      (message != nullptr ? std::string(": ") + message : std::string()));
    }
    if (const CK_RV code = p11_kit_module_initialize(module); code != CKR_OK) {
      p11_kit_module_release(module);
      return fail(Failure::unavailable, static_cast<std::int64_t>(code),
                  std::string("the module ") + which + " cannot be initialised: " + describe(code));
    }
    modules_->loaded.push_back(module);
    return std::nullopt;
  }
  CK_FUNCTION_LIST** registered = p11_kit_modules_load_and_initialize(0);
  if (registered == nullptr || registered[0] == nullptr) {
    if (registered != nullptr) p11_kit_modules_finalize_and_release(registered);
    return fail(Failure::unavailable, 0,
                "the URI names no module (module-path or module-name) and p11-kit has none registered");
  }
  for (auto** module = registered; *module != nullptr; ++module) modules_->loaded.push_back(*module);
  modules_->registered = registered;
  return std::nullopt;
}

ZavloLinuxPkcs11Token::Problem ZavloLinuxPkcs11Token::openLocked() {
  if (uriFailure_) return fail(Failure::invalidArgument, 0, "the URI is not usable: " + *uriFailure_);
  if (sessionOpen_) {
    // A session the token dropped in the meantime (a reset, a reinserted card), or a slot
    // that holds no token now (a software token keeps its sessions when it is deleted),
    // makes the token be looked for again.
    CK_SESSION_INFO session{};
    CK_TOKEN_INFO token{};
    if (modules_->token->C_GetSessionInfo(session_, &session) == CKR_OK &&
        modules_->token->C_GetTokenInfo(slot_, &token) == CKR_OK) {
      return std::nullopt;
    }
    closeSessionLocked();
  }
  if (auto problem = loadModulesLocked()) return problem;

  auto*& chosen = modules_->token;
  chosen = nullptr;
  for (auto* module : modules_->loaded) {
    CK_INFO info{};
    if (module->C_GetInfo(&info) != CKR_OK || p11_kit_uri_match_module_info(parsed_.get(), &info) == 0) continue;
    CK_ULONG count = 0;
    if (module->C_GetSlotList(CK_TRUE, nullptr, &count) != CKR_OK || count == 0) continue;
    std::vector<CK_SLOT_ID> slots(count);
    if (module->C_GetSlotList(CK_TRUE, slots.data(), &count) != CKR_OK) continue;
    slots.resize(count);
    for (const auto slot : slots) {
      CK_SLOT_INFO slotInfo{};
      CK_TOKEN_INFO tokenInfo{};
      if (module->C_GetSlotInfo(slot, &slotInfo) != CKR_OK || module->C_GetTokenInfo(slot, &tokenInfo) != CKR_OK) {
        continue;
      }
      if (p11_kit_uri_match_slot_info(parsed_.get(), &slotInfo) == 0 ||
          p11_kit_uri_match_token_info(parsed_.get(), &tokenInfo) == 0) {
        continue;
      }
      chosen = module;
      slot_ = slot;
      tokenFlags_ = tokenInfo.flags;
      break;
    }
    if (chosen != nullptr) break;
  }
  if (chosen == nullptr) return fail(Failure::unavailable, 0, "no token present matches the URI");

  if (const CK_RV code = chosen->C_OpenSession(slot_, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session_);
      code != CKR_OK) {
    return failCall(code, "C_OpenSession");
  }
  sessionOpen_ = true;
  return std::nullopt;
}

bool ZavloLinuxPkcs11Token::loginRequiredLocked() const { return (tokenFlags_ & CKF_LOGIN_REQUIRED) != 0; }

ZavloKeyStoreResult<ZavloLinuxSecret> ZavloLinuxPkcs11Token::uriPinLocked() {
  if (pinValue_) return ZavloLinuxSecret::copyOf(pinValue_->bytes());
  // Read straight into locked memory: no stream buffer keeps a copy.
  const int file = ::open(pinSource_->c_str(), O_RDONLY | O_CLOEXEC);
  struct stat status {};
  if (file < 0 || fstat(file, &status) != 0 || !S_ISREG(status.st_mode) ||
      static_cast<std::size_t>(status.st_size) > kMaxPinFile) {
    if (file >= 0) ::close(file);
    return zavloFailure(fail(Failure::unavailable, 0, "the PIN file " + *pinSource_ + " cannot be read"));
  }
  ZavloLinuxSecret pin(static_cast<std::size_t>(status.st_size));
  std::size_t length = 0;
  while (length < pin.size()) {
    const auto count = ::read(file, pin.data() + length, pin.size() - length);
    if (count <= 0) break;
    length += static_cast<std::size_t>(count);
  }
  ::close(file);
  if (length > 0 && pin.data()[length - 1] == '\n') --length;
  if (length > 0 && pin.data()[length - 1] == '\r') --length;
  pin.shrink(length);
  return pin;
}

ZavloLinuxPkcs11Token::Problem ZavloLinuxPkcs11Token::loginLocked(std::span<const std::uint8_t> ownerPin) {
  if (!loginRequiredLocked()) return std::nullopt;
  const bool fromUri = pinFromUri();
  if (fromUri && uriPinRefused_) {
    return fail(uriPinRefused_->failure, uriPinRefused_->code,
                "the token refused the URI's PIN before; it is not offered again, so the token does not lock");
  }
  ZavloLinuxSecret pin;
  if (fromUri) {
    auto read = uriPinLocked();
    if (!read) return std::move(read).error();
    pin = std::move(read).value();
  } else {
    pin = ZavloLinuxSecret::copyOf(ownerPin);
  }
  // A reader with its own PIN pad asks there when no PIN is given.
  const bool onPad = pin.empty() && (tokenFlags_ & CKF_PROTECTED_AUTHENTICATION_PATH) != 0;
  if (pin.empty() && !onPad && !fromUri) {
    return fail(Failure::noOwnerSecret, 0, "the token needs the owner's PIN, and none was given");
  }
  const auto login = [&] {
    return modules_->token->C_Login(session_, CKU_USER, onPad ? nullptr : static_cast<CK_UTF8CHAR*>(pin.data()),
                                    static_cast<CK_ULONG>(pin.size()));
  };
  CK_RV code = login();
  if (code == CKR_USER_ALREADY_LOGGED_IN) {
    // Someone else's login must not stand in for this PIN: it is checked afresh.
    (void)modules_->token->C_Logout(session_);
    code = login();
  }
  if (code != CKR_OK) {
    auto error = failCall(code, "C_Login", fromUri);
    if (fromUri && pinRefusal(code)) uriPinRefused_ = error;
    return error;
  }
  loggedIn_ = true;
  if (fromUri && !uriPinNoted_) {
    uriPinNoted_ = true;
    const std::string note = std::string("PKCS#11 token ") + shownUri_ + ": the token's PIN came from the URI's " +
                             (pinValue_ ? "pin-value" : "pin-source") + "; the owner was not asked for it";
    pendingTrace_ = pendingTrace_ ? *pendingTrace_ + "\n" + note : note;
  }
  return std::nullopt;
}

void ZavloLinuxPkcs11Token::logoutLocked() {
  if (!loggedIn_) return;
  loggedIn_ = false;
  const CK_RV code = modules_->token->C_Logout(session_);
  // A login that does not end with the call ends with the session.
  if (code != CKR_OK && code != CKR_USER_NOT_LOGGED_IN) closeSessionLocked();
}

template <class T, class Body>
ZavloKeyStoreResult<T> ZavloLinuxPkcs11Token::loggedInLocked(std::span<const std::uint8_t> pin, Body&& body) {
  if (auto problem = openLocked()) return zavloFailure(std::move(*problem));
  if (auto problem = loginLocked(pin)) return zavloFailure(std::move(*problem));
  // Whatever the body does, even throw, the login ends with it.
  struct LogoutAtEnd {
    ZavloLinuxPkcs11Token& token;
    ~LogoutAtEnd() {
      if (token.sessionOpen_) token.logoutLocked();
    }
  } logoutAtEnd{*this};
  auto keys = keysLocked();
  if (!keys) return zavloFailure(std::move(keys).error());
  return std::forward<Body>(body)(keys.value());
}

ZavloLinuxPkcs11Token::Result<ZavloLinuxPkcs11Token::Keys> ZavloLinuxPkcs11Token::keysLocked() {
  Keys keys;
  const auto publicKeys = findObjectsLocked(CKO_PUBLIC_KEY, std::nullopt);
  if (!publicKeys) return zavloFailure(publicKeys.error());
  for (const auto handle : publicKeys.value()) {
    auto id = attributeLocked(handle, CKA_ID, "CKA_ID");
    if (!id) return zavloFailure(std::move(id).error());
    keys.publicKeys.emplace(std::move(id).value(), handle);
  }
  const auto privateKeys = findObjectsLocked(CKO_PRIVATE_KEY, std::nullopt);
  if (!privateKeys) return zavloFailure(privateKeys.error());
  for (const auto handle : privateKeys.value()) {
    auto id = attributeLocked(handle, CKA_ID, "CKA_ID");
    if (!id) return zavloFailure(std::move(id).error());
    if (!keys.publicKeys.contains(id.value())) {
      // A key whose public object went without a login can no longer be found or used,
      // and its private object goes now; a key of another application (its label not its
      // id, as this class never makes them) is left alone, and so is one that will not go.
      const auto label = attributeLocked(handle, CKA_LABEL, "CKA_LABEL");
      if (label && label.value() == id.value() && !destroyObjectsLocked({handle})) continue;
    }
    keys.privateKeys.emplace(std::move(id).value(), handle);
  }
  return keys;
}

ZavloLinuxPkcs11Token::Result<std::vector<unsigned long>> ZavloLinuxPkcs11Token::findObjectsLocked(
    unsigned long objectClass, const std::optional<ZavloBytes>& tag) {
  const CK_OBJECT_CLASS wantedClass = objectClass;
  const CK_KEY_TYPE keyType = CKK_EC;
  const CK_BBOOL onToken = CK_TRUE;
  std::vector<CK_ATTRIBUTE> match{attribute(CKA_CLASS, wantedClass), attribute(CKA_KEY_TYPE, keyType),
                                  attribute(CKA_TOKEN, onToken)};
  if (tag) match.push_back(attribute(CKA_ID, *tag));
  if (const CK_RV code =
          modules_->token->C_FindObjectsInit(session_, match.data(), static_cast<CK_ULONG>(match.size()));
      code != CKR_OK) {
    return zavloFailure(failCall(code, "C_FindObjectsInit"));
  }
  std::vector<unsigned long> found;
  CK_RV code = CKR_OK;
  for (;;) {
    std::array<CK_OBJECT_HANDLE, kFindBatch> batch{};
    CK_ULONG count = 0;
    code = modules_->token->C_FindObjects(session_, batch.data(), batch.size(), &count);
    if (code != CKR_OK || count == 0) break;
    found.insert(found.end(), batch.begin(), batch.begin() + static_cast<std::ptrdiff_t>(count));
  }
  const CK_RV finalCode = modules_->token->C_FindObjectsFinal(session_);
  if (code == CKR_OK) code = finalCode;
  if (code != CKR_OK) return zavloFailure(failCall(code, "C_FindObjects"));
  return found;
}

ZavloLinuxPkcs11Token::Result<ZavloBytes> ZavloLinuxPkcs11Token::attributeLocked(unsigned long object,
                                                                                 unsigned long type, const char* name) {
  // Ids, labels and points fit the first buffer: one call, not two, for each.
  std::array<CK_BYTE, 128> buffer{};
  CK_ATTRIBUTE query{type, buffer.data(), buffer.size()};
  CK_RV code = modules_->token->C_GetAttributeValue(session_, object, &query, 1);
  if (code == CKR_OK && query.ulValueLen <= buffer.size()) {
    return ZavloBytes(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(query.ulValueLen));
  }
  ZavloBytes value;
  if (code == CKR_BUFFER_TOO_SMALL) {
    query = {type, nullptr, 0};
    code = modules_->token->C_GetAttributeValue(session_, object, &query, 1);
    if (code == CKR_OK && query.ulValueLen != CK_UNAVAILABLE_INFORMATION) {
      value.resize(query.ulValueLen);
      query.pValue = value.data();
      code = modules_->token->C_GetAttributeValue(session_, object, &query, 1);
    }
  }
  if (code != CKR_OK) return zavloFailure(failCall(code, std::string("C_GetAttributeValue(") + name + ")"));
  value.resize(query.ulValueLen);
  return value;
}

ZavloLinuxPkcs11Token::Result<ZavloBytes> ZavloLinuxPkcs11Token::pointLocked(unsigned long publicKey) {
  auto value = attributeLocked(publicKey, CKA_EC_POINT, "CKA_EC_POINT");
  if (!value) return value;
  auto point = uncompressedPoint(value.value());
  if (!point)
    return zavloFailure(fail(Failure::damaged, 0, "a public key's CKA_EC_POINT is no uncompressed P-256 point"));
  return std::move(*point);
}

ZavloLinuxPkcs11Token::Problem ZavloLinuxPkcs11Token::destroyObjectsLocked(const std::vector<unsigned long>& objects) {
  for (const auto object : objects) {
    if (const CK_RV code = modules_->token->C_DestroyObject(session_, object); code != CKR_OK) {
      return failCall(code, "C_DestroyObject");
    }
  }
  return std::nullopt;
}

ZavloLinuxPkcs11Token::Result<std::optional<ZavloBytes>> ZavloLinuxPkcs11Token::find(const ZavloBytes& tag) {
  return locked([&]() -> Result<std::optional<ZavloBytes>> {
    if (auto problem = openLocked()) return zavloFailure(std::move(*problem));
    const auto publicKeys = findObjectsLocked(CKO_PUBLIC_KEY, tag);
    if (!publicKeys) return zavloFailure(publicKeys.error());
    if (publicKeys.value().empty()) return std::optional<ZavloBytes>();
    auto point = pointLocked(publicKeys.value().front());
    if (!point) return zavloFailure(std::move(point).error());
    return std::optional(std::move(point).value());
  });
}

ZavloLinuxPkcs11Token::Result<ZavloBytes> ZavloLinuxPkcs11Token::generate(const ZavloBytes& tag,
                                                                          std::span<const std::uint8_t> pin) {
  return locked([&] {
    return loggedInLocked<ZavloBytes>(pin, [&](const Keys& keys) -> Result<ZavloBytes> {
      // Either half under the tag makes it taken.
      if (keys.publicKeys.contains(tag) || keys.privateKeys.contains(tag)) {
        return zavloFailure(fail(Failure::duplicate, 0, "a key with this tag exists"));
      }
      const CK_BBOOL yes = CK_TRUE;
      const CK_BBOOL no = CK_FALSE;
      // Each half does one thing: the public key verifies, the private key signs.
      const std::array publicTemplate{
          attribute(CKA_TOKEN, yes),
          attribute(CKA_PRIVATE, no),
          attribute(CKA_VERIFY, yes),
          attribute(CKA_ENCRYPT, no),
          attribute(CKA_WRAP, no),
          attribute(CKA_DERIVE, no),
          attribute(CKA_EC_PARAMS, kP256Parameters.data(), kP256Parameters.size()),
          attribute(CKA_ID, tag),
          attribute(CKA_LABEL, tag),
      };
      const std::array privateTemplate{
          attribute(CKA_TOKEN, yes),      attribute(CKA_PRIVATE, yes), attribute(CKA_SENSITIVE, yes),
          attribute(CKA_EXTRACTABLE, no), attribute(CKA_SIGN, yes),    attribute(CKA_DECRYPT, no),
          attribute(CKA_UNWRAP, no),      attribute(CKA_DERIVE, no),   attribute(CKA_ID, tag),
          attribute(CKA_LABEL, tag),
      };
      CK_MECHANISM mechanism{CKM_EC_KEY_PAIR_GEN, nullptr, 0};
      CK_OBJECT_HANDLE publicKey = 0;
      CK_OBJECT_HANDLE privateKey = 0;
      // The templates are only read; PKCS#11 has no const in its types.
      if (const CK_RV code = modules_->token->C_GenerateKeyPair(
              session_, &mechanism, const_cast<CK_ATTRIBUTE*>(publicTemplate.data()),    // NOLINT
              publicTemplate.size(), const_cast<CK_ATTRIBUTE*>(privateTemplate.data()),  // NOLINT
              privateTemplate.size(), &publicKey, &privateKey);
          code != CKR_OK) {
        return zavloFailure(failCall(code, "C_GenerateKeyPair"));
      }
      auto point = pointLocked(publicKey);
      if (!point) {
        // No half-made key stays behind.
        if (sessionOpen_) (void)destroyObjectsLocked({privateKey, publicKey});
        auto error = std::move(point).error();
        error.failure = Failure::publicKeyExport;
        return zavloFailure(std::move(error));
      }
      return std::move(point).value();
    });
  });
}

ZavloLinuxPkcs11Token::Result<ZavloBytes> ZavloLinuxPkcs11Token::sign(const ZavloBytes& tag,
                                                                      std::span<const std::uint8_t> digest,
                                                                      std::span<const std::uint8_t> pin) {
  return locked([&] {
    return loggedInLocked<ZavloBytes>(pin, [&](const Keys& keys) -> Result<ZavloBytes> {
      // The key is there while its public half is; its private half signs.
      const auto privateKey = keys.privateKeys.find(tag);
      if (!keys.publicKeys.contains(tag) || privateKey == keys.privateKeys.end()) {
        return zavloFailure(fail(Failure::notFound, 0, "no key with this tag is in the token"));
      }
      CK_MECHANISM mechanism{CKM_ECDSA, nullptr, 0};
      CK_RV code = modules_->token->C_SignInit(session_, &mechanism, privateKey->second);
      std::array<CK_BYTE, 132> signature{};  // room for r and s of any curve up to P-521
      CK_ULONG length = signature.size();
      if (code == CKR_OK) {
        code = modules_->token->C_Sign(session_, const_cast<CK_BYTE*>(digest.data()),  // NOLINT: only read
                                       static_cast<CK_ULONG>(digest.size()), signature.data(), &length);
      }
      if (code != CKR_OK) return zavloFailure(failCall(code, "C_Sign"));
      return ZavloBytes(signature.begin(), signature.begin() + static_cast<std::ptrdiff_t>(length));
    });
  });
}

ZavloLinuxPkcs11Token::Result<bool> ZavloLinuxPkcs11Token::destroy(const ZavloBytes& tag) {
  return locked([&]() -> Result<bool> {
    if (auto problem = openLocked()) return zavloFailure(std::move(*problem));
    // The private half first: a key that can no longer sign is gone, whatever follows. It
    // is seen only when logged in (or on a token without login); otherwise the next
    // logged-in operation sweeps it.
    if (pinFromUri() && loginRequiredLocked()) {
      return loggedInLocked<bool>({}, [&](const Keys& keys) -> Result<bool> {
        for (const auto* found : {&keys.privateKeys, &keys.publicKeys}) {
          if (const auto key = found->find(tag); key != found->end()) {
            if (auto problem = destroyObjectsLocked({key->second})) return zavloFailure(std::move(*problem));
          }
        }
        return keys.publicKeys.contains(tag);
      });
    }
    for (const auto objectClass : {CKO_PRIVATE_KEY, CKO_PUBLIC_KEY}) {
      const auto found = findObjectsLocked(objectClass, tag);
      if (!found) return zavloFailure(found.error());
      if (auto problem = destroyObjectsLocked(found.value())) return zavloFailure(std::move(*problem));
      if (objectClass == CKO_PUBLIC_KEY) return !found.value().empty();
    }
    return false;
  });
}
