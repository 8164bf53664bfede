#include "ZavloCliKeyStoreTrace.hpp"

#include <iostream>

namespace {

std::string failureName(ZavloKeyStoreFailure failure) {
  switch (failure) {
    case ZavloKeyStoreFailure::notFound:
      return "not found";
    case ZavloKeyStoreFailure::duplicate:
      return "tag in use";
    case ZavloKeyStoreFailure::noOwnerSecret:
      return "no owner secret";
    case ZavloKeyStoreFailure::ownerRefused:
      return "owner secret refused";
    case ZavloKeyStoreFailure::lockedOut:
      return "locked out";
    case ZavloKeyStoreFailure::unavailable:
      return "unavailable";
    case ZavloKeyStoreFailure::damaged:
      return "damaged";
    case ZavloKeyStoreFailure::publicKeyExport:
      return "public key unreadable";
    case ZavloKeyStoreFailure::invalidArgument:
      return "invalid argument";
    case ZavloKeyStoreFailure::internal:
      break;
  }
  return "internal error";
}

std::string where(const ZavloKeyLocation& location) {
  return location.store + (location.hardwareBacked ? ", hardware" : ", software");
}

}  // namespace

ZavloCliTracingPlatform::ZavloCliTracingPlatform(ZavloPlatform& wrapped, Trace trace, std::string ownerNotice)
    : ZavloPlatformWrapper(wrapped), keyStore_(wrapped, std::move(trace)), ownerNotice_(std::move(ownerNotice)) {}

std::shared_ptr<ZavloOwnerAuthenticationContext> ZavloCliTracingPlatform::makeOwnerAuthenticationContext() {
  if (!ownerNotice_.empty()) {
    std::call_once(ownerNoticeShown_, [this] { std::cerr << ownerNotice_ << '\n' << std::flush; });
  }
  return ZavloPlatformWrapper::makeOwnerAuthenticationContext();
}

template <class T>
void ZavloCliTracingPlatform::TracingKeyStore::traced(const char* operation, const ZavloKeyStoreResult<T>& result,
                                                      const std::string& success) const {
  if (!trace_) return;
  trace_(std::string("keystore: ") + operation + " -> " +
         (result ? success : failureName(result.error().failure) + " (" + std::to_string(result.error().code) + ")"));
}

ZavloKeyStoreResult<ZavloCreatedKey> ZavloCliTracingPlatform::TracingKeyStore::createKey(const ZavloBytes& tag,
                                                                                         const ZavloOwnerProof& proof) {
  auto result = platform_.keyStore().createKey(tag, proof);
  traced("createKey", result, result ? "made (" + where(result.value().location) + ")" : std::string());
  return result;
}

ZavloKeyStoreResult<std::optional<ZavloKeyLocation>> ZavloCliTracingPlatform::TracingKeyStore::findKey(
    const ZavloBytes& tag) {
  auto result = platform_.keyStore().findKey(tag);
  traced("findKey", result,
         result && result.value() ? "present (" + where(*result.value()) + ")" : std::string("absent"));
  return result;
}

ZavloKeyStoreResult<ZavloBytes> ZavloCliTracingPlatform::TracingKeyStore::sign(const ZavloBytes& tag,
                                                                               std::span<const std::uint8_t> message,
                                                                               const ZavloOwnerProof& proof) {
  auto result = platform_.keyStore().sign(tag, message, proof);
  traced("sign", result, "signed");
  return result;
}

ZavloKeyStoreResult<bool> ZavloCliTracingPlatform::TracingKeyStore::deleteKey(const ZavloBytes& tag) {
  auto result = platform_.keyStore().deleteKey(tag);
  traced("deleteKey", result, result && result.value() ? "deleted" : "absent");
  return result;
}

ZavloKeyStoreResult<std::optional<ZavloBytes>> ZavloCliTracingPlatform::TracingKeyStore::domainState(
    const std::string& keyId) {
  auto result = platform_.keyStore().domainState(keyId);
  traced("domainState", result, result && result.value() ? "recorded" : "none");
  return result;
}

ZavloKeyStoreResult<ZavloVoid> ZavloCliTracingPlatform::TracingKeyStore::setDomainState(
    const std::string& keyId, const std::optional<ZavloBytes>& state) {
  auto result = platform_.keyStore().setDomainState(keyId, state);
  traced("setDomainState", result, state ? "written" : "cleared");
  return result;
}
