#include "ZavloCliKeychainTrace.hpp"

#include <iostream>

ZavloCliTracingPlatform::ZavloCliTracingPlatform(ZavloPlatform& wrapped, Trace trace, std::string ownerNotice)
    : ZavloPlatformWrapper(wrapped), keychain_(wrapped, std::move(trace)), ownerNotice_(std::move(ownerNotice)) {}

std::shared_ptr<ZavloOwnerAuthenticationContext> ZavloCliTracingPlatform::makeOwnerAuthenticationContext() {
  if (!ownerNotice_.empty()) {
    std::call_once(ownerNoticeShown_, [this] { std::cerr << ownerNotice_ << '\n' << std::flush; });
  }
  return ZavloPlatformWrapper::makeOwnerAuthenticationContext();
}

void ZavloCliTracingPlatform::TracingKeychain::traced(const char* operation, const ZavloKeychainAttributes& attributes,
                                                      std::int32_t status) const {
  if (!trace_) return;
  const auto* itemClass = attributes.find<std::string>(ZavloKeychainKey::kSecClass);
  trace_(std::string("keychain: ") + operation + " " + (itemClass != nullptr ? *itemClass : "(no class)") + " -> " +
         std::to_string(status));
}

ZavloKeychainQueryResult ZavloCliTracingPlatform::TracingKeychain::copyMatching(const ZavloKeychainAttributes& query) {
  auto result = platform_.keychain().copyMatching(query);
  traced("copyMatching", query, result.status);
  return result;
}

std::int32_t ZavloCliTracingPlatform::TracingKeychain::add(const ZavloKeychainAttributes& attributes) {
  const auto status = platform_.keychain().add(attributes);
  traced("add", attributes, status);
  return status;
}

std::int32_t ZavloCliTracingPlatform::TracingKeychain::remove(const ZavloKeychainAttributes& query) {
  const auto status = platform_.keychain().remove(query);
  traced("delete", query, status);
  return status;
}
