#include "Platform/Linux/Keys/ZavloLinuxFileKeyStore.hpp"

#include <utility>

namespace {

using Failure = ZavloKeyStoreFailure;

constexpr std::string_view kPlain = "plain";

ZavloFailure<ZavloKeyStoreError> failure(Failure kind, std::string description) {
  return zavloFailure(ZavloKeyStoreError{kind, 0, std::move(description)});
}

}  // namespace

ZavloLinuxFileKeyStore::ZavloLinuxFileKeyStore(std::shared_ptr<ZavloLinuxKeyFile> file,
                                               std::shared_ptr<ZavloLinuxKeyProtection> creating,
                                               std::shared_ptr<ZavloLinuxSealedProtection> sealing)
    : file_(std::move(file)), creating_(std::move(creating)), sealing_(std::move(sealing)) {}

ZavloLinuxKeyProtection* ZavloLinuxFileKeyStore::protectionNamed(std::string_view name) const {
  if (creating_ && creating_->name() == name) return creating_.get();
  if (sealing_ && sealing_->name() == name) return sealing_.get();
  return nullptr;
}

ZavloKeyLocation ZavloLinuxFileKeyStore::locationOf(const ZavloLinuxKeyRecord& record) const {
  const auto* protection = protectionNamed(record.protection);
  // A record of a protection this store was not given (a TPM key on a host without its
  // TPM) is named as it is; only a TPM keeps keys in hardware.
  return {record.protection, protection != nullptr ? protection->hardwareBacked() : record.protection == "tpm"};
}

ZavloKeyStoreResult<ZavloCreatedKey> ZavloLinuxFileKeyStore::createKey(const ZavloBytes& tag,
                                                                       const ZavloOwnerProof& proof) {
  // Asked first: a key made for a tag that is taken would be thrown away.
  const auto existing = file_->find(tag);
  if (!existing) return zavloFailure(existing.error());
  if (existing.value()) return failure(Failure::duplicate, "A key has this tag.");
  auto made = creating_->create(tag, proof);
  if (!made) return zavloFailure(std::move(made).error());
  ZavloLinuxKeyRecord record{tag, std::string(creating_->name()), made.value().publicKey, std::move(made.value().blob)};
  if (auto inserted = file_->insert(record); !inserted) return zavloFailure(inserted.error());
  return ZavloCreatedKey{std::move(record.publicKey), locationOf(record)};
}

ZavloKeyStoreResult<std::optional<ZavloKeyLocation>> ZavloLinuxFileKeyStore::findKey(const ZavloBytes& tag) {
  const auto found = file_->find(tag);
  if (!found) return zavloFailure(found.error());
  if (!found.value()) return std::optional<ZavloKeyLocation>();
  return std::optional(locationOf(*found.value()));
}

ZavloKeyStoreResult<ZavloBytes> ZavloLinuxFileKeyStore::sign(const ZavloBytes& tag,
                                                             std::span<const std::uint8_t> message,
                                                             const ZavloOwnerProof& proof) {
  const auto found = file_->find(tag);
  if (!found) return zavloFailure(found.error());
  if (!found.value()) return failure(Failure::notFound, "No key has this tag.");
  const auto& record = *found.value();
  if (record.protection == kPlain) {
    auto* sealing = sealing_.get();
    auto signature = ZavloLinuxSealedProtection::signPlain(record, message);
    // The owner has just proved presence: the key is sealed for their secret now, and the
    // plain bytes leave the file. Without a secret it stays plain until a prompt gives one.
    if (signature && sealing != nullptr && !proof.secret().empty()) {
      if (auto sealed = sealing->seal(record, proof)) {
        (void)file_->replace(record, {record.tag, std::string(sealing->name()), std::move(sealed.value().publicKey),
                                      std::move(sealed.value().blob)});
      }
    }
    return signature;
  }
  auto* protection = protectionNamed(record.protection);
  if (protection == nullptr) {
    return failure(Failure::unavailable, "The key is kept by \"" + record.protection + "\", which this host lacks.");
  }
  return protection->sign(record, message, proof);
}

ZavloKeyStoreResult<bool> ZavloLinuxFileKeyStore::deleteKey(const ZavloBytes& tag) { return file_->remove(tag); }

ZavloKeyStoreResult<std::optional<ZavloBytes>> ZavloLinuxFileKeyStore::domainState(const std::string& keyId) {
  return file_->domainState(keyId);
}

ZavloKeyStoreResult<ZavloVoid> ZavloLinuxFileKeyStore::setDomainState(const std::string& keyId,
                                                                      const std::optional<ZavloBytes>& state) {
  return file_->setDomainState(keyId, state);
}
