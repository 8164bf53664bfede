#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "Platform/ZavloKeyStore.hpp"
#include "Platform/ZavloPlatformWrapper.hpp"

/// The platform the command-line host installs: the Linux one, with every key store
/// operation traced by name and outcome (never a tag, a key id or a record's bytes), and a
/// notice on the first owner prompt when the owner is not really asked.
class ZavloCliTracingPlatform final : public ZavloPlatformWrapper {
 public:
  using Trace = std::function<void(const std::string&)>;
  /// ownerNotice, when not empty, goes to standard error before the first owner prompt.
  ZavloCliTracingPlatform(ZavloPlatform& wrapped, Trace trace, std::string ownerNotice);

  ZavloKeyStore& keyStore() override { return keyStore_; }
  std::shared_ptr<ZavloOwnerAuthenticationContext> makeOwnerAuthenticationContext() override;

 private:
  class TracingKeyStore final : public ZavloKeyStore {
   public:
    TracingKeyStore(ZavloPlatform& platform, Trace trace) : platform_(platform), trace_(std::move(trace)) {}
    ZavloKeyStoreResult<ZavloCreatedKey> createKey(const ZavloBytes& tag, const ZavloOwnerProof& proof) override;
    ZavloKeyStoreResult<std::optional<ZavloKeyLocation>> findKey(const ZavloBytes& tag) override;
    ZavloKeyStoreResult<ZavloBytes> sign(const ZavloBytes& tag, std::span<const std::uint8_t> message,
                                         const ZavloOwnerProof& proof) override;
    ZavloKeyStoreResult<bool> deleteKey(const ZavloBytes& tag) override;
    ZavloKeyStoreResult<std::optional<ZavloBytes>> domainState(const std::string& keyId) override;
    ZavloKeyStoreResult<ZavloVoid> setDomainState(const std::string& keyId,
                                                  const std::optional<ZavloBytes>& state) override;

   private:
    template <class T>
    void traced(const char* operation, const ZavloKeyStoreResult<T>& result, const std::string& success) const;
    ZavloPlatform& platform_;
    Trace trace_;
  };
  TracingKeyStore keyStore_;
  std::string ownerNotice_;
  std::once_flag ownerNoticeShown_;
};
