#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "Platform/ZavloKeychain.hpp"
#include "Platform/ZavloPlatformWrapper.hpp"

/// The platform the command-line host installs: the Linux one, with every keychain
/// operation traced by name, item class and status (never an attribute's value, so no
/// tag, account or key material reaches the trace), and a notice on the first owner
/// prompt when the owner is not really asked.
class ZavloCliTracingPlatform final : public ZavloPlatformWrapper {
 public:
  using Trace = std::function<void(const std::string&)>;
  /// ownerNotice, when not empty, goes to standard error before the first owner prompt.
  ZavloCliTracingPlatform(ZavloPlatform& wrapped, Trace trace, std::string ownerNotice);

  ZavloKeychain& keychain() override { return keychain_; }
  std::shared_ptr<ZavloOwnerAuthenticationContext> makeOwnerAuthenticationContext() override;

 private:
  class TracingKeychain final : public ZavloKeychain {
   public:
    TracingKeychain(ZavloPlatform& platform, Trace trace) : platform_(platform), trace_(std::move(trace)) {}
    ZavloKeychainQueryResult copyMatching(const ZavloKeychainAttributes& query) override;
    std::int32_t add(const ZavloKeychainAttributes& attributes) override;
    std::int32_t remove(const ZavloKeychainAttributes& query) override;

   private:
    void traced(const char* operation, const ZavloKeychainAttributes& attributes, std::int32_t status) const;
    ZavloPlatform& platform_;
    Trace trace_;
  };
  TracingKeychain keychain_;
  std::string ownerNotice_;
  std::once_flag ownerNoticeShown_;
};
