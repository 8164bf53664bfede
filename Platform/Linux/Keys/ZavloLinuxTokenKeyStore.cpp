#include "Platform/Linux/Keys/ZavloLinuxTokenKeyStore.hpp"

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/evp.h>

#include <utility>

#include "Platform/Linux/Keys/ZavloLinuxKeyRequest.hpp"
#include "Platform/ZavloOwnerAuthentication.hpp"

namespace {

namespace Key = ZavloKeychainKey;
namespace Status = ZavloKeychainStatus;
using Token = ZavloLinuxPkcs11Token;

constexpr std::int64_t kInternalComponent = Token::internalComponent;

// A key pair of the token, used through the context it was loaded with.
class ZavloLinuxTokenKey final : public ZavloSecureKey {
 public:
  ZavloLinuxTokenKey(std::shared_ptr<Token> token, Token::KeyPair pair,
                     std::shared_ptr<ZavloOwnerAuthenticationContext> context)
      : token_(std::move(token)), pair_(std::move(pair)), context_(std::move(context)) {}
  ZavloLinuxTokenKey(const ZavloLinuxTokenKey&) = delete;
  ZavloLinuxTokenKey& operator=(const ZavloLinuxTokenKey&) = delete;
  ~ZavloLinuxTokenKey() override { token_->release(pair_); }

  [[nodiscard]] bool isUsable() const { return context_ != nullptr && context_->isAuthenticated(); }
  [[nodiscard]] const Token::KeyPair& pair() const { return pair_; }
  [[nodiscard]] Token& token() const { return *token_; }

 private:
  std::shared_ptr<Token> token_;
  Token::KeyPair pair_;
  std::shared_ptr<ZavloOwnerAuthenticationContext> context_;
};

// A key query, sorted into what the token can match and the controls that shape the answer.
struct KeyQuery {
  std::optional<ZavloBytes> tag;
  bool matchesNothing = false;
  ZavloLinuxKeychainControls controls;
};

template <class T>
bool holds(const ZavloKeychainValue& value, const T& expected) {
  const auto* held = std::get_if<T>(&value);
  return held != nullptr && *held == expected;
}

// The reason the query is malformed, or nothing.
std::optional<std::string> parse(const ZavloKeychainAttributes& attributes, KeyQuery& query) {
  for (const auto& [name, value] : attributes) {
    if (name == Key::kSecClass) continue;  // the caller routed on it
    if (ZavloLinuxKeychainControls::isControl(name)) {
      if (auto malformed = query.controls.take(name, value)) return malformed;
    } else if (std::holds_alternative<std::shared_ptr<const ZavloKeychainAttributes>>(value) ||
               std::holds_alternative<std::shared_ptr<ZavloOwnerAuthenticationContext>>(value)) {
      return name + " has a value of a type the keychain does not store";
    } else if (const auto* tag = std::get_if<ZavloBytes>(&value); name == Key::kSecAttrApplicationTag && tag) {
      query.tag = *tag;
    } else if (name == Key::kSecAttrKeyType) {
      query.matchesNothing |= !holds(value, std::string(Key::kSecAttrKeyTypeECSECPrimeRandom));
    } else if (name == Key::kSecAttrKeySizeInBits) {
      query.matchesNothing |= !holds(value, std::int64_t{256});
    } else if (name == Key::kSecAttrTokenID) {
      query.matchesNothing |= !holds(value, std::string(Key::kSecAttrTokenIDSecureEnclave));
    } else if (name == Key::kSecAttrIsPermanent) {
      query.matchesNothing |= !holds(value, true);
    } else {
      query.matchesNothing = true;  // an attribute the token does not record
    }
  }
  return std::nullopt;
}

bool isKeyClass(const ZavloKeychainAttributes& attributes) {
  const auto* itemClass = attributes.find<std::string>(Key::kSecClass);
  return itemClass != nullptr && *itemClass == Key::kSecClassKey;
}

ZavloFailure<ZavloSecureKeyError> failure(std::int64_t code, std::string description) {
  return zavloFailure(ZavloSecureKeyError{code, std::move(description)});
}

ZavloFailure<ZavloSecureKeyError> failure(const Token::Failure& failed) {
  return failure(failed.status, failed.description);
}

// r then s, each as wide as half the raw signature, as one X9.62 DER SEQUENCE.
std::optional<ZavloBytes> derSignature(const ZavloBytes& raw) {
  if (raw.empty() || raw.size() % 2 != 0) return std::nullopt;
  const auto half = static_cast<int>(raw.size() / 2);
  const std::unique_ptr<ECDSA_SIG, decltype(&ECDSA_SIG_free)> signature(ECDSA_SIG_new(), ECDSA_SIG_free);
  BIGNUM* r = BN_bin2bn(raw.data(), half, nullptr);
  BIGNUM* s = BN_bin2bn(raw.data() + half, half, nullptr);
  if (signature == nullptr || r == nullptr || s == nullptr || ECDSA_SIG_set0(signature.get(), r, s) != 1) {
    BN_free(r);
    BN_free(s);
    return std::nullopt;
  }
  const int length = i2d_ECDSA_SIG(signature.get(), nullptr);
  if (length <= 0) return std::nullopt;
  ZavloBytes der(static_cast<std::size_t>(length));
  unsigned char* out = der.data();
  if (i2d_ECDSA_SIG(signature.get(), &out) != length) return std::nullopt;
  return der;
}

}  // namespace

// MARK: keychain

ZavloLinuxTokenKeychain::ZavloLinuxTokenKeychain(std::shared_ptr<ZavloLinuxPkcs11Token> token,
                                                 std::shared_ptr<ZavloKeychain> items)
    : token_(std::move(token)), items_(std::move(items)) {}

ZavloKeychainQueryResult ZavloLinuxTokenKeychain::copyMatching(const ZavloKeychainAttributes& query) {
  if (!isKeyClass(query)) return items_->copyMatching(query);
  KeyQuery parsed;
  if (parse(query, parsed)) return {Status::param, std::nullopt};
  // The same refusals as the keychain file, in the same order.
  if (parsed.controls.returnRef && parsed.controls.returnData) return {Status::param, std::nullopt};
  if (parsed.controls.returnData) return {Status::param, std::nullopt};  // a private key is never data
  if (parsed.matchesNothing) return {Status::itemNotFound, std::nullopt};

  const bool authenticated = parsed.controls.context != nullptr && parsed.controls.context->isAuthenticated();
  auto found = token_->find(parsed.tag, parsed.controls.returnRef && authenticated);
  if (!found) return {found.error().status, std::nullopt};
  if (found.value().empty()) return {Status::itemNotFound, std::nullopt};
  if (!parsed.controls.returnRef) return {Status::success, std::nullopt};
  if (!authenticated) return {Status::interactionNotAllowed, std::nullopt};
  auto key = std::make_shared<ZavloLinuxTokenKey>(token_, std::move(found.value().front()), parsed.controls.context);
  return {Status::success, ZavloKeychainItem(std::shared_ptr<ZavloSecureKey>(std::move(key)))};
}

std::int32_t ZavloLinuxTokenKeychain::add(const ZavloKeychainAttributes& attributes) {
  // The keychain file refuses key items itself: keys are made, not added.
  return items_->add(attributes);
}

std::int32_t ZavloLinuxTokenKeychain::remove(const ZavloKeychainAttributes& query) {
  if (!isKeyClass(query)) return items_->remove(query);
  KeyQuery parsed;
  if (parse(query, parsed)) return Status::param;
  if (parsed.matchesNothing) return Status::itemNotFound;
  return token_->destroy(parsed.tag);
}

// MARK: secure keys

ZavloLinuxTokenSecureKeys::ZavloLinuxTokenSecureKeys(std::shared_ptr<ZavloLinuxPkcs11Token> token)
    : token_(std::move(token)) {}

ZavloSecureKeyResult<std::shared_ptr<const ZavloAccessControl>> ZavloLinuxTokenSecureKeys::createAccessControl(
    const std::string& protection, std::uint64_t flags) {
  return zavloLinuxAccessControl(protection, flags);
}

ZavloSecureKeyResult<std::shared_ptr<ZavloSecureKey>> ZavloLinuxTokenSecureKeys::createRandomKey(
    const ZavloKeychainAttributes& attributes) {
  auto request = ZavloLinuxKeyRequest::parse(attributes);
  if (!request) return zavloFailure(std::move(request).error());
  auto pair = token_->generate(request.value().tag, request.value().permanent);
  if (!pair) return failure(pair.error());
  // Fresh from creation a key has no context, so it never signs (as with the software store).
  return std::shared_ptr<ZavloSecureKey>(
      std::make_shared<ZavloLinuxTokenKey>(token_, std::move(pair).value(), nullptr));
}

std::shared_ptr<ZavloPublicKey> ZavloLinuxTokenSecureKeys::copyPublicKey(const ZavloSecureKey& key) {
  const auto* tokenKey = dynamic_cast<const ZavloLinuxTokenKey*>(&key);
  if (tokenKey == nullptr || tokenKey->pair().point.empty()) return nullptr;
  return std::make_shared<ZavloLinuxPublicKey>(tokenKey->pair().point);
}

ZavloSecureKeyResult<ZavloBytes> ZavloLinuxTokenSecureKeys::copyExternalRepresentation(const ZavloPublicKey& key) {
  const auto* publicKey = dynamic_cast<const ZavloLinuxPublicKey*>(&key);
  if (publicKey == nullptr) return failure(Status::param, "Public key export: the key is not one of a Linux key store");
  return publicKey->point();
}

ZavloSecureKeyResult<ZavloBytes> ZavloLinuxTokenSecureKeys::createSignature(const ZavloSecureKey& key,
                                                                            std::string_view algorithm,
                                                                            const ZavloBytes& message) {
  if (algorithm != kSecKeyAlgorithmECDSASignatureMessageX962SHA256) {
    return failure(Status::param, "Signing: unsupported algorithm " + std::string(algorithm));
  }
  const auto* tokenKey = dynamic_cast<const ZavloLinuxTokenKey*>(&key);
  if (tokenKey == nullptr) return failure(Status::param, "Signing: the key is not one of this token");
  if (!tokenKey->isUsable()) {
    return failure(Status::interactionNotAllowed,
                   "Signing: the private key is used only through a context whose owner has authenticated");
  }
  ZavloBytes digest(EVP_MAX_MD_SIZE);
  unsigned int digestLength = 0;
  if (EVP_Digest(message.data(), message.size(), digest.data(), &digestLength, EVP_sha256(), nullptr) != 1) {
    return failure(kInternalComponent, "Signing: SHA-256 failed");
  }
  digest.resize(digestLength);
  auto raw = tokenKey->token().sign(tokenKey->pair(), digest);
  if (!raw) return failure(raw.error());
  auto der = derSignature(raw.value());
  if (!der) return failure(kInternalComponent, "Signing: the token's signature cannot be encoded as DER");
  return std::move(*der);
}
