#include "Testing/ZavloTestKeyStore.hpp"

#include <algorithm>

namespace {

using Failure = ZavloKeyStoreFailure;

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

std::uint64_t fnv1a(std::span<const std::uint8_t> bytes, std::uint64_t hash = 0xCBF29CE484222325ULL) {
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

ZavloBytes signatureOf(const ZavloBytes& point, std::span<const std::uint8_t> message) {
  const auto keyHash = fnv1a(point);
  ZavloBytes signature{0x30, static_cast<std::uint8_t>(2 * (2 + kCoordinateLength))};
  appendInteger(signature, keyHash);
  appendInteger(signature, fnv1a(message, keyHash));
  return signature;
}

ZavloFailure<ZavloKeyStoreError> failure(Failure kind, std::string description) {
  return zavloFailure(ZavloKeyStoreError{kind, 0, std::move(description)});
}

}  // namespace

ZavloTestOwnerProof::~ZavloTestOwnerProof() { std::fill(secret_.begin(), secret_.end(), std::uint8_t{0}); }

std::optional<ZavloKeyStoreError> ZavloTestKeyStore::enter(Operation operation, std::string subject) {
  std::lock_guard lock(mutex_);
  const auto found = failures_.find(operation);
  calls_.push_back({operation, std::move(subject), found == failures_.end()});
  if (found == failures_.end()) return std::nullopt;
  return found->second;
}

ZavloBytes ZavloTestKeyStore::storeLocked(const ZavloBytes& tag, std::span<const std::uint8_t> secret) {
  const auto serial = ++keyCount_;
  keys_[tag] = Key{serial, ZavloBytes(secret.begin(), secret.end())};
  return publicPoint(serial);
}

ZavloKeyStoreResult<ZavloCreatedKey> ZavloTestKeyStore::createKey(const ZavloBytes& tag, const ZavloOwnerProof& proof) {
  if (auto error = enter(Operation::createKey, std::string(tag.begin(), tag.end()))) {
    return zavloFailure(std::move(*error));
  }
  std::lock_guard lock(mutex_);
  if (keys_.contains(tag)) return failure(Failure::duplicate, "A key has this tag.");
  return ZavloCreatedKey{storeLocked(tag, proof.secret()), location_};
}

ZavloKeyStoreResult<std::optional<ZavloKeyLocation>> ZavloTestKeyStore::findKey(const ZavloBytes& tag) {
  if (auto error = enter(Operation::findKey, std::string(tag.begin(), tag.end()))) {
    return zavloFailure(std::move(*error));
  }
  std::lock_guard lock(mutex_);
  if (!keys_.contains(tag)) return std::optional<ZavloKeyLocation>();
  return std::optional(location_);
}

ZavloKeyStoreResult<ZavloBytes> ZavloTestKeyStore::sign(const ZavloBytes& tag, std::span<const std::uint8_t> message,
                                                        const ZavloOwnerProof& proof) {
  if (auto error = enter(Operation::sign, std::string(tag.begin(), tag.end()))) return zavloFailure(std::move(*error));
  std::lock_guard lock(mutex_);
  const auto found = keys_.find(tag);
  if (found == keys_.end()) return failure(Failure::notFound, "No key has this tag.");
  const auto& secret = found->second.secret;
  if (!secret.empty()) {
    if (proof.secret().empty()) return failure(Failure::noOwnerSecret, "The key needs the owner's secret.");
    if (!std::ranges::equal(secret, proof.secret())) return failure(Failure::ownerRefused, "Another secret.");
  }
  signatureRequests_.push_back({found->second.serial, ZavloBytes(message.begin(), message.end())});
  return signatureOf(publicPoint(found->second.serial), message);
}

ZavloKeyStoreResult<bool> ZavloTestKeyStore::deleteKey(const ZavloBytes& tag) {
  if (auto error = enter(Operation::deleteKey, std::string(tag.begin(), tag.end()))) {
    return zavloFailure(std::move(*error));
  }
  std::lock_guard lock(mutex_);
  return keys_.erase(tag) > 0;
}

ZavloKeyStoreResult<std::optional<ZavloBytes>> ZavloTestKeyStore::domainState(const std::string& keyId) {
  if (auto error = enter(Operation::domainState, keyId)) return zavloFailure(std::move(*error));
  std::lock_guard lock(mutex_);
  const auto found = domainStates_.find(keyId);
  if (found == domainStates_.end()) return std::optional<ZavloBytes>();
  return std::optional(found->second);
}

ZavloKeyStoreResult<ZavloVoid> ZavloTestKeyStore::setDomainState(const std::string& keyId,
                                                                 const std::optional<ZavloBytes>& state) {
  if (auto error = enter(Operation::setDomainState, keyId)) return zavloFailure(std::move(*error));
  std::lock_guard lock(mutex_);
  if (state) {
    domainStates_[keyId] = *state;
  } else {
    domainStates_.erase(keyId);
  }
  return ZavloVoid{};
}

void ZavloTestKeyStore::fail(Operation operation, ZavloKeyStoreError error) {
  std::lock_guard lock(mutex_);
  failures_[operation] = std::move(error);
}

void ZavloTestKeyStore::clearFailures() {
  std::lock_guard lock(mutex_);
  failures_.clear();
}

void ZavloTestKeyStore::setLocation(ZavloKeyLocation location) {
  std::lock_guard lock(mutex_);
  location_ = std::move(location);
}

ZavloBytes ZavloTestKeyStore::installKey(const ZavloBytes& tag, std::string_view secret) {
  std::lock_guard lock(mutex_);
  return storeLocked(tag, std::span(reinterpret_cast<const std::uint8_t*>(secret.data()), secret.size()));
}

bool ZavloTestKeyStore::verify(const ZavloBytes& publicPoint, std::span<const std::uint8_t> message,
                               const ZavloBytes& signature) {
  return signatureOf(publicPoint, message) == signature;
}

std::vector<ZavloTestKeyStore::Call> ZavloTestKeyStore::calls() const {
  std::lock_guard lock(mutex_);
  return calls_;
}

void ZavloTestKeyStore::clearCalls() {
  std::lock_guard lock(mutex_);
  calls_.clear();
}

std::vector<ZavloTestKeyStore::SignatureRequest> ZavloTestKeyStore::signatureRequests() const {
  std::lock_guard lock(mutex_);
  return signatureRequests_;
}

std::size_t ZavloTestKeyStore::keyCount() const {
  std::lock_guard lock(mutex_);
  return keyCount_;
}

std::size_t ZavloTestKeyStore::itemCount() const {
  std::lock_guard lock(mutex_);
  return keys_.size() + domainStates_.size();
}
