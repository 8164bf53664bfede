#include "Testing/ZavloTestSecureKeys.hpp"

#include "Platform/ZavloOwnerAuthentication.hpp"
#include "Testing/ZavloTestKeychain.hpp"

namespace {

namespace Attr = ZavloKeychainKey;

constexpr std::size_t kCoordinateLength = 32;

std::uint64_t splitMix(std::uint64_t& state) {
  std::uint64_t z = (state += 0x9E3779B97F4A7C15ULL);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
  return z ^ (z >> 31);
}

void appendDerived(ZavloBytes& out, std::uint64_t seed, std::size_t count) {
  std::uint64_t state = seed;
  while (count > 0) {
    const auto word = splitMix(state);
    for (std::size_t b = 0; b < 8 && count > 0; ++b, --count) out.push_back(static_cast<std::uint8_t>(word >> (8 * b)));
  }
}

std::uint64_t fnv1a(const ZavloBytes& bytes, std::uint64_t hash = 0xCBF29CE484222325ULL) {
  for (const auto byte : bytes) hash = (hash ^ byte) * 0x100000001B3ULL;
  return hash;
}

ZavloBytes publicPoint(std::uint64_t serial) {
  ZavloBytes point{0x04};
  appendDerived(point, serial, 2 * kCoordinateLength);
  return point;
}

// A positive, minimally encoded 32-byte DER INTEGER.
void appendInteger(ZavloBytes& out, std::uint64_t seed) {
  out.push_back(0x02);
  out.push_back(kCoordinateLength);
  const auto start = out.size();
  appendDerived(out, seed, kCoordinateLength);
  out[start] = static_cast<std::uint8_t>((out[start] & 0x7F) | 0x01);
}

ZavloBytes signatureOf(const ZavloBytes& point, const ZavloBytes& message) {
  const auto keyHash = fnv1a(point);
  ZavloBytes signature{0x30, static_cast<std::uint8_t>(2 * (2 + kCoordinateLength))};
  appendInteger(signature, keyHash);
  appendInteger(signature, fnv1a(message, keyHash));
  return signature;
}

}  // namespace

/// A handle on a stored or new key: its serial number, and the context it was taken with.
class ZavloTestSecureKeys::Key final : public ZavloSecureKey {
 public:
  Key(std::uint64_t serial, std::shared_ptr<ZavloOwnerAuthenticationContext> context)
      : serial(serial), context(std::move(context)) {}

  const std::uint64_t serial;
  const std::shared_ptr<ZavloOwnerAuthenticationContext> context;
};

class ZavloTestSecureKeys::PublicKey final : public ZavloPublicKey {
 public:
  explicit PublicKey(ZavloBytes point) : point(std::move(point)) {}
  const ZavloBytes point;
};

ZavloTestSecureKeys::ZavloTestSecureKeys(ZavloTestKeychain& keychain) : keychain_(keychain) {}

std::optional<ZavloSecureKeyError> ZavloTestSecureKeys::failure(Operation operation) const {
  std::lock_guard lock(mutex_);
  const auto found = failures_.find(operation);
  if (found == failures_.end()) return std::nullopt;
  return found->second;
}

void ZavloTestSecureKeys::fail(Operation operation, ZavloSecureKeyError error) {
  std::lock_guard lock(mutex_);
  failures_[operation] = std::move(error);
}

void ZavloTestSecureKeys::clearFailures() {
  std::lock_guard lock(mutex_);
  failures_.clear();
}

ZavloSecureKeyResult<std::shared_ptr<const ZavloAccessControl>> ZavloTestSecureKeys::createAccessControl(
    const std::string& protection, std::uint64_t flags) {
  {
    std::lock_guard lock(mutex_);
    accessControlRequests_.push_back({protection, flags});
  }
  if (auto error = failure(Operation::createAccessControl)) return zavloFailure(std::move(*error));
  // The same protections and flags the real stores accept.
  namespace Flags = ZavloAccessControlFlags;
  constexpr std::uint64_t known =
      Flags::biometryCurrentSet | Flags::devicePasscode | Flags::orFlag | Flags::privateKeyUsage;
  if ((protection != ZavloKeychainKey::kSecAttrAccessibleWhenUnlockedThisDeviceOnly &&
       protection != ZavloKeychainKey::kSecAttrAccessibleAfterFirstUnlockThisDeviceOnly) ||
      (flags & ~known) != 0) {
    return zavloFailure(ZavloSecureKeyError{ZavloKeychainStatus::param, "Unknown protection or flags."});
  }
  return std::make_shared<const ZavloAccessControl>(ZavloAccessControl{protection, flags});
}

std::shared_ptr<ZavloSecureKey> ZavloTestSecureKeys::store(const ZavloKeychainAttributes& itemAttributes,
                                                           std::uint64_t serial, std::int32_t& status) {
  status = keychain_.addKey(itemAttributes, [serial](const std::shared_ptr<ZavloOwnerAuthenticationContext>& context) {
    return std::make_shared<Key>(serial, context);
  });
  if (status != ZavloKeychainStatus::success) return nullptr;
  return std::make_shared<Key>(serial, nullptr);
}

ZavloSecureKeyResult<std::shared_ptr<ZavloSecureKey>> ZavloTestSecureKeys::createRandomKey(
    const ZavloKeychainAttributes& attributes) {
  {
    std::lock_guard lock(mutex_);
    keyRequests_.push_back(attributes);
  }
  if (auto error = failure(Operation::createRandomKey)) return zavloFailure(std::move(*error));

  const auto* type = attributes.find<std::string>(Attr::kSecAttrKeyType);
  const auto* size = attributes.find<std::int64_t>(Attr::kSecAttrKeySizeInBits);
  if (!type || *type != Attr::kSecAttrKeyTypeECSECPrimeRandom || !size || *size != 256) {
    return zavloFailure(ZavloSecureKeyError{ZavloKeychainStatus::param, "Only 256-bit EC keys are supported."});
  }
  std::uint64_t serial = 0;
  {
    std::lock_guard lock(mutex_);
    serial = ++keyCount_;
  }

  const auto* nestedValue = attributes.find<std::shared_ptr<const ZavloKeychainAttributes>>(Attr::kSecPrivateKeyAttrs);
  const ZavloKeychainAttributes* privateAttributes = nestedValue ? nestedValue->get() : nullptr;
  const auto* permanent = privateAttributes ? privateAttributes->find<bool>(Attr::kSecAttrIsPermanent) : nullptr;
  if (!permanent || !*permanent) return std::shared_ptr<ZavloSecureKey>(std::make_shared<Key>(serial, nullptr));

  const auto* tag = privateAttributes->find<ZavloBytes>(Attr::kSecAttrApplicationTag);
  if (!tag) return zavloFailure(ZavloSecureKeyError{ZavloKeychainStatus::param, "A permanent key needs a tag."});
  ZavloKeychainAttributes item{{Attr::kSecClass, std::string(Attr::kSecClassKey)},
                               {Attr::kSecAttrKeyType, *type},
                               {Attr::kSecAttrKeySizeInBits, *size},
                               {Attr::kSecAttrApplicationTag, *tag}};
  if (const auto* token = attributes.find<std::string>(Attr::kSecAttrTokenID))
    item.emplace(Attr::kSecAttrTokenID, *token);
  if (const auto* access =
          privateAttributes->find<std::shared_ptr<const ZavloAccessControl>>(Attr::kSecAttrAccessControl)) {
    item.emplace(Attr::kSecAttrAccessControl, *access);
  }
  std::int32_t status = 0;
  auto key = store(item, serial, status);
  if (!key) return zavloFailure(ZavloSecureKeyError{status, "The key could not be stored."});
  return key;
}

ZavloBytes ZavloTestSecureKeys::installKey(const ZavloBytes& tag) {
  std::uint64_t serial = 0;
  {
    std::lock_guard lock(mutex_);
    serial = ++keyCount_;
  }
  ZavloKeychainAttributes item{
      {Attr::kSecClass, std::string(Attr::kSecClassKey)},
      {Attr::kSecAttrKeyType, std::string(Attr::kSecAttrKeyTypeECSECPrimeRandom)},
      {Attr::kSecAttrKeySizeInBits, std::int64_t{256}},
      {Attr::kSecAttrApplicationTag, tag},
      {Attr::kSecAttrTokenID, std::string(Attr::kSecAttrTokenIDSecureEnclave)},
  };
  std::int32_t status = 0;
  if (!store(item, serial, status)) return {};
  return publicPoint(serial);
}

std::shared_ptr<ZavloPublicKey> ZavloTestSecureKeys::copyPublicKey(const ZavloSecureKey& key) {
  if (failure(Operation::copyPublicKey)) return nullptr;
  const auto* ours = dynamic_cast<const Key*>(&key);
  if (!ours) return nullptr;
  return std::make_shared<PublicKey>(publicPoint(ours->serial));
}

ZavloSecureKeyResult<ZavloBytes> ZavloTestSecureKeys::copyExternalRepresentation(const ZavloPublicKey& key) {
  if (auto error = failure(Operation::copyExternalRepresentation)) return zavloFailure(std::move(*error));
  const auto* ours = dynamic_cast<const PublicKey*>(&key);
  if (!ours) return zavloFailure(ZavloSecureKeyError{ZavloKeychainStatus::param, "Not a key of this store."});
  return ours->point;
}

ZavloSecureKeyResult<ZavloBytes> ZavloTestSecureKeys::createSignature(const ZavloSecureKey& key,
                                                                      std::string_view algorithm,
                                                                      const ZavloBytes& message) {
  const auto* ours = dynamic_cast<const Key*>(&key);
  {
    std::lock_guard lock(mutex_);
    signatureRequests_.push_back({ours ? ours->serial : 0, std::string(algorithm), message});
  }
  if (auto error = failure(Operation::createSignature)) return zavloFailure(std::move(*error));
  if (!ours) return zavloFailure(ZavloSecureKeyError{ZavloKeychainStatus::param, "Not a key of this store."});
  if (algorithm != kSecKeyAlgorithmECDSASignatureMessageX962SHA256) {
    return zavloFailure(ZavloSecureKeyError{ZavloKeychainStatus::param, "Unsupported algorithm."});
  }
  if (!ours->context || !ours->context->isAuthenticated()) {
    return zavloFailure(
        ZavloSecureKeyError{ZavloKeychainStatus::interactionNotAllowed, "The key needs an authenticated owner."});
  }
  return signatureOf(publicPoint(ours->serial), message);
}

bool ZavloTestSecureKeys::verify(const ZavloBytes& publicPoint, const ZavloBytes& message,
                                 const ZavloBytes& signature) {
  return signature == signatureOf(publicPoint, message);
}

std::vector<ZavloAccessControl> ZavloTestSecureKeys::accessControlRequests() const {
  std::lock_guard lock(mutex_);
  return accessControlRequests_;
}

std::vector<ZavloKeychainAttributes> ZavloTestSecureKeys::keyRequests() const {
  std::lock_guard lock(mutex_);
  return keyRequests_;
}

std::vector<ZavloTestSecureKeys::SignatureRequest> ZavloTestSecureKeys::signatureRequests() const {
  std::lock_guard lock(mutex_);
  return signatureRequests_;
}

std::size_t ZavloTestSecureKeys::keyCount() const {
  std::lock_guard lock(mutex_);
  return keyCount_;
}
