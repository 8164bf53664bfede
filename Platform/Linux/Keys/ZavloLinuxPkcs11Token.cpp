#include "Platform/Linux/Keys/ZavloLinuxPkcs11Token.hpp"

#include <openssl/crypto.h>
#include <p11-kit/p11-kit.h>
#include <p11-kit/pkcs11.h>
#include <p11-kit/uri.h>

#include <array>
#include <cstring>
#include <fstream>
#include <iterator>
#include <utility>

#include "Platform/Linux/Keys/ZavloLinuxTracedLock.hpp"

namespace {

namespace Status = ZavloLinuxTokenStatus;

// DER of the named curve prime256v1 (1.2.840.10045.3.1.7), as CKA_EC_PARAMS holds it.
constexpr std::array<CK_BYTE, 10> kP256Parameters = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
constexpr std::size_t kPointSize = 65;
constexpr CK_ULONG kFindBatch = 32;

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

// A PIN held only as long as it is needed, wiped afterwards.
class Pin {
 public:
  Pin() = default;
  Pin(const Pin&) = delete;
  Pin& operator=(const Pin&) = delete;
  ~Pin() {
    if (!text_.empty()) OPENSSL_cleanse(text_.data(), text_.size());
  }
  std::string& text() { return text_; }

 private:
  std::string text_;
};

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
    : uri_(std::move(uri)),
      options_(std::move(options)),
      parsed_(p11_kit_uri_new(), p11_kit_uri_free),
      modules_(std::make_unique<Modules>()) {
  // Descriptions show the URI without a PIN written into it.
  shownUri_ = uri_;
  if (const auto start = shownUri_.find("pin-value="); start != std::string::npos) {
    const auto end = shownUri_.find_first_of("&;", start);
    shownUri_.replace(start, end == std::string::npos ? std::string::npos : end - start, "pin-value=(hidden)");
  }
  uriFailure_ = uriProblem(uri_);
  if (!uriFailure_ && p11_kit_uri_parse(uri_.c_str(), P11_KIT_URI_FOR_ANY, parsed_.get()) != P11_KIT_URI_OK) {
    uriFailure_ = "it cannot be parsed";
  }
}

ZavloLinuxPkcs11Token::~ZavloLinuxPkcs11Token() { closeSessionLocked(); }

std::optional<std::string> ZavloLinuxPkcs11Token::uriProblem(const std::string& text) {
  const std::unique_ptr<P11KitUri, void (*)(P11KitUri*)> parsed(p11_kit_uri_new(), p11_kit_uri_free);
  if (parsed == nullptr) return "no memory to parse it";
  if (const int code = p11_kit_uri_parse(text.c_str(), P11_KIT_URI_FOR_ANY, parsed.get()); code != P11_KIT_URI_OK) {
    return std::string("it is no PKCS#11 URI: ") + p11_kit_uri_message(code);
  }
  if (p11_kit_uri_any_unrecognized(parsed.get()) != 0) return "it has attributes this library does not know";
  if (p11_kit_uri_get_pin_value(parsed.get()) != nullptr && p11_kit_uri_get_pin_source(parsed.get()) != nullptr) {
    return "it gives both pin-value and pin-source";
  }
  if (const char* source = p11_kit_uri_get_pin_source(parsed.get()); source != nullptr && !pinFile(source)) {
    return std::string("its pin-source must name a file (file:/path or /path), not \"") + source + "\"";
  }
  return std::nullopt;
}

std::int32_t ZavloLinuxPkcs11Token::statusFor(unsigned long returnCode) {
  switch (returnCode) {
    case CKR_OK:
      return Status::success;
    case CKR_PIN_INCORRECT:
    case CKR_PIN_INVALID:
    case CKR_PIN_LEN_RANGE:
    case CKR_PIN_EXPIRED:
    case CKR_PIN_LOCKED:
    case CKR_USER_NOT_LOGGED_IN:
    case CKR_USER_PIN_NOT_INITIALIZED:
      return authFailed;
    case CKR_SLOT_ID_INVALID:
    case CKR_DEVICE_ERROR:
    case CKR_DEVICE_REMOVED:
    case CKR_TOKEN_NOT_PRESENT:
    case CKR_TOKEN_NOT_RECOGNIZED:
    case CKR_SESSION_CLOSED:
    case CKR_SESSION_HANDLE_INVALID:
    case CKR_SESSION_COUNT:
    case CKR_CRYPTOKI_NOT_INITIALIZED:
      return Status::notAvailable;
    case CKR_KEY_HANDLE_INVALID:
    case CKR_OBJECT_HANDLE_INVALID:
      return Status::itemNotFound;
    case CKR_ARGUMENTS_BAD:
    case CKR_ATTRIBUTE_TYPE_INVALID:
    case CKR_ATTRIBUTE_VALUE_INVALID:
    case CKR_TEMPLATE_INCOMPLETE:
    case CKR_TEMPLATE_INCONSISTENT:
    case CKR_MECHANISM_INVALID:
    case CKR_DOMAIN_PARAMS_INVALID:
    case CKR_CURVE_NOT_SUPPORTED:
    case CKR_KEY_TYPE_INCONSISTENT:
    case CKR_KEY_FUNCTION_NOT_PERMITTED:
      return Status::param;
    case CKR_TOKEN_WRITE_PROTECTED:
    case CKR_SESSION_READ_ONLY:
    case CKR_DEVICE_MEMORY:
    case CKR_HOST_MEMORY:
      return Status::io;
    default:
      return internalComponent;
  }
}

template <class Body>
auto ZavloLinuxPkcs11Token::locked(Body&& body) {
  return zavloLockedThenTraced(mutex_, pendingTrace_, options_.trace, std::forward<Body>(body));
}

std::optional<ZavloLinuxPkcs11Token::Failure> ZavloLinuxPkcs11Token::lastFailure() const {
  std::lock_guard lock(mutex_);
  return lastFailure_;
}

std::int32_t ZavloLinuxPkcs11Token::fail(std::int32_t status, std::string description) {
  description = "PKCS#11 token " + shownUri_ + ": " + description;
  lastFailure_ = Failure{status, description};
  pendingTrace_ = std::move(description);
  return status;
}

std::int32_t ZavloLinuxPkcs11Token::failCall(unsigned long returnCode, const std::string& call) {
  if (sessionLost(returnCode)) closeSessionLocked();
  if (returnCode == CKR_PIN_INCORRECT || returnCode == CKR_PIN_LOCKED) pinRefused_ = true;
  return fail(statusFor(returnCode), call + " failed: " + describe(returnCode));
}

void ZavloLinuxPkcs11Token::closeSessionLocked() {
  if (sessionOpen_ && modules_->token != nullptr) (void)modules_->token->C_CloseSession(session_);
  sessionOpen_ = false;
  handles_.clear();
}

std::int32_t ZavloLinuxPkcs11Token::loadModulesLocked() {
  if (!modules_->loaded.empty()) return Status::success;
  const char* path = p11_kit_uri_get_module_path(parsed_.get());
  const char* name = p11_kit_uri_get_module_name(parsed_.get());
  if (path != nullptr || name != nullptr) {
    // A name is looked up in p11-kit's module folder, a path is taken as it stands.
    const char* which = path != nullptr ? path : name;
    CK_FUNCTION_LIST* module = p11_kit_module_load(which, 0);
    if (module == nullptr) {
      const char* message = p11_kit_message();
      return fail(Status::notAvailable, std::string("the module ") + which + " cannot be loaded" +
                                            (message != nullptr ? std::string(": ") + message : std::string()));
    }
    if (const CK_RV code = p11_kit_module_initialize(module); code != CKR_OK) {
      p11_kit_module_release(module);
      return fail(statusFor(code) == Status::success ? internalComponent : Status::notAvailable,
                  std::string("the module ") + which + " cannot be initialised: " + describe(code));
    }
    modules_->loaded.push_back(module);
    return Status::success;
  }
  CK_FUNCTION_LIST** registered = p11_kit_modules_load_and_initialize(0);
  if (registered == nullptr || registered[0] == nullptr) {
    if (registered != nullptr) p11_kit_modules_finalize_and_release(registered);
    return fail(Status::notAvailable,
                "the URI names no module (module-path or module-name) and p11-kit has none registered");
  }
  for (auto** module = registered; *module != nullptr; ++module) modules_->loaded.push_back(*module);
  modules_->registered = registered;
  return Status::success;
}

std::int32_t ZavloLinuxPkcs11Token::loginLocked(unsigned long flags) {
  if ((flags & CKF_LOGIN_REQUIRED) == 0) return Status::success;
  if (pinRefused_) {
    return fail(authFailed, "the token refused this PIN before; it is not offered again, so the token does not lock");
  }
  Pin pin;
  if (const char* value = p11_kit_uri_get_pin_value(parsed_.get())) {
    pin.text() = value;
  } else if (const char* source = p11_kit_uri_get_pin_source(parsed_.get())) {
    const auto file = pinFile(source).value_or(source);
    std::ifstream stream(file, std::ios::binary);
    if (!stream) return fail(authFailed, "the PIN file " + file + " cannot be read");
    pin.text().assign(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
    if (pin.text().ends_with('\n')) pin.text().pop_back();
    if (pin.text().ends_with('\r')) pin.text().pop_back();
  } else if ((flags & CKF_PROTECTED_AUTHENTICATION_PATH) == 0) {
    return fail(authFailed, "the token needs a PIN: give pin-source (a file) or pin-value in the URI");
  }
  const bool onPad = pin.text().empty() && (flags & CKF_PROTECTED_AUTHENTICATION_PATH) != 0;
  const CK_RV code =
      modules_->token->C_Login(session_, CKU_USER, onPad ? nullptr : reinterpret_cast<CK_UTF8CHAR*>(pin.text().data()),
                               static_cast<CK_ULONG>(pin.text().size()));
  if (code != CKR_OK && code != CKR_USER_ALREADY_LOGGED_IN) return failCall(code, "C_Login");
  return Status::success;
}

std::int32_t ZavloLinuxPkcs11Token::openLocked() {
  if (uriFailure_) return fail(Status::param, "the URI is not usable: " + *uriFailure_);
  if (sessionOpen_) return Status::success;
  if (const auto status = loadModulesLocked(); status != Status::success) return status;

  auto*& chosen = modules_->token;
  chosen = nullptr;
  CK_ULONG tokenFlags = 0;
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
      tokenFlags = tokenInfo.flags;
      break;
    }
    if (chosen != nullptr) break;
  }
  if (chosen == nullptr) return fail(Status::notAvailable, "no token present matches the URI");

  if (const CK_RV code = chosen->C_OpenSession(slot_, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session_);
      code != CKR_OK) {
    return failCall(code, "C_OpenSession");
  }
  sessionOpen_ = true;
  ++generation_;
  if (const auto status = loginLocked(tokenFlags); status != Status::success) {
    closeSessionLocked();
    return status;
  }
  return Status::success;
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
    const auto status = failCall(code, "C_FindObjectsInit");
    return zavloFailure(Failure{status, lastFailure_->description});
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
  const CK_RV finalCode = sessionOpen_ ? modules_->token->C_FindObjectsFinal(session_) : CKR_OK;
  if (code == CKR_OK) code = finalCode;
  if (code != CKR_OK) {
    const auto status = failCall(code, "C_FindObjects");
    return zavloFailure(Failure{status, lastFailure_->description});
  }
  return found;
}

ZavloLinuxPkcs11Token::Result<ZavloBytes> ZavloLinuxPkcs11Token::attributeLocked(unsigned long object,
                                                                                 unsigned long type, const char* name) {
  CK_ATTRIBUTE query{type, nullptr, 0};
  CK_RV code = modules_->token->C_GetAttributeValue(session_, object, &query, 1);
  ZavloBytes value;
  if (code == CKR_OK && query.ulValueLen != CK_UNAVAILABLE_INFORMATION) {
    value.resize(query.ulValueLen);
    query.pValue = value.data();
    code = modules_->token->C_GetAttributeValue(session_, object, &query, 1);
  }
  if (code != CKR_OK) {
    const auto status = failCall(code, std::string("C_GetAttributeValue(") + name + ")");
    return zavloFailure(Failure{status, lastFailure_->description});
  }
  value.resize(query.ulValueLen);
  return value;
}

ZavloLinuxPkcs11Token::Result<ZavloBytes> ZavloLinuxPkcs11Token::pointLocked(unsigned long publicKey) {
  auto value = attributeLocked(publicKey, CKA_EC_POINT, "CKA_EC_POINT");
  if (!value) return value;
  auto point = uncompressedPoint(value.value());
  if (!point) {
    const auto status = fail(Status::decode, "a public key's CKA_EC_POINT is no uncompressed P-256 point");
    return zavloFailure(Failure{status, lastFailure_->description});
  }
  return std::move(*point);
}

ZavloLinuxPkcs11Token::Result<ZavloLinuxPkcs11Token::KeyPair> ZavloLinuxPkcs11Token::generate(const ZavloBytes& tag,
                                                                                              bool permanent) {
  return locked([&]() -> Result<KeyPair> {
    const auto failed = [this](std::int32_t status) {
      return zavloFailure(Failure{status, lastFailure_->description});
    };
    if (const auto status = openLocked(); status != Status::success) return failed(status);
    if (permanent) {
      auto existing = findObjectsLocked(CKO_PRIVATE_KEY, tag);
      if (!existing) return zavloFailure(existing.error());
      if (!existing.value().empty()) return failed(fail(Status::duplicateItem, "a key with this tag exists"));
    }
    const CK_BBOOL yes = CK_TRUE;
    const CK_BBOOL no = CK_FALSE;
    const CK_BBOOL onToken = permanent ? CK_TRUE : CK_FALSE;
    // Each half does one thing: the public key verifies, the private key signs.
    const std::array publicTemplate{
        attribute(CKA_TOKEN, onToken),
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
        attribute(CKA_TOKEN, onToken),  attribute(CKA_PRIVATE, yes), attribute(CKA_SENSITIVE, yes),
        attribute(CKA_EXTRACTABLE, no), attribute(CKA_SIGN, yes),    attribute(CKA_DECRYPT, no),
        attribute(CKA_UNWRAP, no),      attribute(CKA_DERIVE, no),   attribute(CKA_ID, tag),
        attribute(CKA_LABEL, tag),
    };
    CK_MECHANISM mechanism{CKM_EC_KEY_PAIR_GEN, nullptr, 0};
    KeyPair pair{tag, {}, permanent, 0, 0, generation_};
    // The templates are only read; PKCS#11 has no const in its types.
    if (const CK_RV code = modules_->token->C_GenerateKeyPair(
            session_, &mechanism, const_cast<CK_ATTRIBUTE*>(publicTemplate.data()),    // NOLINT
            publicTemplate.size(), const_cast<CK_ATTRIBUTE*>(privateTemplate.data()),  // NOLINT
            privateTemplate.size(), &pair.publicKey, &pair.privateKey);
        code != CKR_OK) {
      return failed(failCall(code, "C_GenerateKeyPair"));
    }
    auto point = pointLocked(pair.publicKey);
    if (!point) {
      // No half-made key stays behind.
      if (sessionOpen_) {
        (void)modules_->token->C_DestroyObject(session_, pair.privateKey);
        (void)modules_->token->C_DestroyObject(session_, pair.publicKey);
      }
      return zavloFailure(point.error());
    }
    pair.point = std::move(point).value();
    if (permanent) handles_[tag] = pair.privateKey;
    return pair;
  });
}

ZavloLinuxPkcs11Token::Result<std::vector<ZavloLinuxPkcs11Token::KeyPair>> ZavloLinuxPkcs11Token::find(
    const std::optional<ZavloBytes>& tag, bool withPoints) {
  return locked([&]() -> Result<std::vector<KeyPair>> {
    if (const auto status = openLocked(); status != Status::success) {
      return zavloFailure(Failure{status, lastFailure_->description});
    }
    auto privateKeys = findObjectsLocked(CKO_PRIVATE_KEY, tag);
    if (!privateKeys) return zavloFailure(privateKeys.error());
    std::vector<KeyPair> pairs;
    for (const auto handle : privateKeys.value()) {
      KeyPair pair{{}, {}, true, handle, 0, generation_};
      if (tag) {
        pair.tag = *tag;
      } else {
        auto id = attributeLocked(handle, CKA_ID, "CKA_ID");
        if (!id) return zavloFailure(id.error());
        pair.tag = std::move(id).value();
      }
      if (withPoints) {
        // The point is the public object's; a key without one has no point to give.
        auto publicKeys = findObjectsLocked(CKO_PUBLIC_KEY, pair.tag);
        if (!publicKeys) return zavloFailure(publicKeys.error());
        if (!publicKeys.value().empty()) {
          pair.publicKey = publicKeys.value().front();
          auto point = pointLocked(pair.publicKey);
          if (!point) return zavloFailure(point.error());
          pair.point = std::move(point).value();
        }
      }
      handles_[pair.tag] = handle;
      pairs.push_back(std::move(pair));
    }
    return pairs;
  });
}

ZavloLinuxPkcs11Token::Result<unsigned long> ZavloLinuxPkcs11Token::privateHandleLocked(const KeyPair& key,
                                                                                        bool lookUp) {
  if (!key.permanent) {
    if (key.session == generation_ && sessionOpen_) return key.privateKey;
    const auto status = fail(Status::itemNotFound, "a session key ended with the session it was made in");
    return zavloFailure(Failure{status, lastFailure_->description});
  }
  if (!lookUp && key.session == generation_ && sessionOpen_) return key.privateKey;
  if (const auto cached = handles_.find(key.tag); !lookUp && cached != handles_.end()) return cached->second;
  auto found = findObjectsLocked(CKO_PRIVATE_KEY, key.tag);
  if (!found) return zavloFailure(found.error());
  if (found.value().empty()) {
    const auto status = fail(Status::itemNotFound, "the key is no longer in the token");
    return zavloFailure(Failure{status, lastFailure_->description});
  }
  // The key found by tag must still be this key: one made again under the same tag would
  // sign challenges its enrolled public key does not verify.
  if (!key.point.empty()) {
    auto publicKeys = findObjectsLocked(CKO_PUBLIC_KEY, key.tag);
    if (!publicKeys) return zavloFailure(publicKeys.error());
    auto point =
        publicKeys.value().empty() ? Result<ZavloBytes>(ZavloBytes{}) : pointLocked(publicKeys.value().front());
    if (!point) return zavloFailure(point.error());
    if (point.value() != key.point) {
      const auto status = fail(Status::itemNotFound, "the key with this tag is not the key that was loaded");
      return zavloFailure(Failure{status, lastFailure_->description});
    }
  }
  handles_[key.tag] = found.value().front();
  return found.value().front();
}

ZavloLinuxPkcs11Token::Result<ZavloBytes> ZavloLinuxPkcs11Token::sign(const KeyPair& key, const ZavloBytes& digest) {
  return locked([&]() -> Result<ZavloBytes> {
    const auto failed = [this](std::int32_t status) {
      return zavloFailure(Failure{status, lastFailure_->description});
    };
    // A handle found in an earlier session, or one another process destroyed, is looked up
    // once more before the answer is a failure.
    for (int attempt = 0;; ++attempt) {
      if (const auto status = openLocked(); status != Status::success) return failed(status);
      auto handle = privateHandleLocked(key, attempt > 0);
      if (!handle) return zavloFailure(handle.error());
      CK_MECHANISM mechanism{CKM_ECDSA, nullptr, 0};
      CK_RV code = modules_->token->C_SignInit(session_, &mechanism, handle.value());
      std::array<CK_BYTE, 132> signature{};  // room for r and s of any curve up to P-521
      CK_ULONG length = signature.size();
      if (code == CKR_OK) {
        code = modules_->token->C_Sign(session_, const_cast<CK_BYTE*>(digest.data()),  // NOLINT: only read
                                       static_cast<CK_ULONG>(digest.size()), signature.data(), &length);
      }
      if (code == CKR_OK) return ZavloBytes(signature.begin(), signature.begin() + static_cast<std::ptrdiff_t>(length));
      const bool stale = code == CKR_KEY_HANDLE_INVALID || code == CKR_OBJECT_HANDLE_INVALID || sessionLost(code);
      handles_.erase(key.tag);
      if (!stale || !key.permanent || attempt > 0) return failed(failCall(code, "C_Sign"));
      if (sessionLost(code)) closeSessionLocked();  // quietly: the second try decides
    }
  });
}

std::int32_t ZavloLinuxPkcs11Token::destroy(const std::optional<ZavloBytes>& tag) {
  return locked([&]() -> std::int32_t {
    if (const auto status = openLocked(); status != Status::success) return status;
    auto privateKeys = findObjectsLocked(CKO_PRIVATE_KEY, tag);
    if (!privateKeys) return privateKeys.error().status;
    if (privateKeys.value().empty()) return Status::itemNotFound;
    // Without a tag, each key's own tag finds its public half.
    std::vector<ZavloBytes> tags;
    for (const auto handle : privateKeys.value()) {
      if (tag) {
        tags.push_back(*tag);
        continue;
      }
      auto id = attributeLocked(handle, CKA_ID, "CKA_ID");
      if (!id) return id.error().status;
      tags.push_back(std::move(id).value());
    }
    for (std::size_t index = 0; index < tags.size(); ++index) {
      // The private half first: a key that can no longer sign is gone, whatever follows.
      if (const CK_RV code = modules_->token->C_DestroyObject(session_, privateKeys.value()[index]); code != CKR_OK) {
        return failCall(code, "C_DestroyObject");
      }
      handles_.erase(tags[index]);
      auto publicKeys = findObjectsLocked(CKO_PUBLIC_KEY, tags[index]);
      if (!publicKeys) return publicKeys.error().status;
      for (const auto handle : publicKeys.value()) {
        if (const CK_RV code = modules_->token->C_DestroyObject(session_, handle); code != CKR_OK) {
          return failCall(code, "C_DestroyObject");
        }
      }
    }
    return Status::success;
  });
}

void ZavloLinuxPkcs11Token::release(const KeyPair& key) {
  if (key.permanent) return;
  locked([&] {
    if (sessionOpen_ && key.session == generation_) {
      (void)modules_->token->C_DestroyObject(session_, key.privateKey);
      (void)modules_->token->C_DestroyObject(session_, key.publicKey);
    }
    return 0;
  });
}
