#include "Platform/Linux/Keys/ZavloLinuxKeyRequest.hpp"

namespace {

namespace Key = ZavloKeychainKey;

ZavloFailure<ZavloSecureKeyError> badParameter(std::string description) {
  return zavloFailure(ZavloSecureKeyError{ZavloKeychainStatus::param, std::move(description)});
}

bool isKnownProtection(const std::string& protection) {
  return protection == Key::kSecAttrAccessibleWhenUnlockedThisDeviceOnly ||
         protection == Key::kSecAttrAccessibleAfterFirstUnlockThisDeviceOnly;
}

// Present with another type than T counts as malformed.
template <class T>
bool wellTyped(const ZavloKeychainAttributes& attributes, std::string_view name) {
  return !attributes.contains(name) || attributes.find<T>(name) != nullptr;
}

}  // namespace

std::optional<std::string> ZavloLinuxKeychainControls::take(const std::string& name, const ZavloKeychainValue& value) {
  present = true;
  const auto* flag = std::get_if<bool>(&value);
  if (name == Key::kSecReturnRef && flag != nullptr) {
    returnRef = *flag;
  } else if (name == Key::kSecReturnData && flag != nullptr) {
    returnData = *flag;
  } else if (const auto* given = std::get_if<std::shared_ptr<ZavloOwnerAuthenticationContext>>(&value);
             name == Key::kSecUseAuthenticationContext && given != nullptr) {
    context = *given;
  } else if (name != Key::kSecUseAuthenticationUI || !std::holds_alternative<std::string>(value)) {
    return name + " is not a control attribute this keychain knows, or has a value of the wrong type";
  }
  return std::nullopt;
}

ZavloSecureKeyResult<std::shared_ptr<const ZavloAccessControl>> zavloLinuxAccessControl(const std::string& protection,
                                                                                        std::uint64_t flags) {
  namespace Flags = ZavloAccessControlFlags;
  constexpr std::uint64_t known =
      Flags::biometryCurrentSet | Flags::devicePasscode | Flags::orFlag | Flags::privateKeyUsage;
  if (!isKnownProtection(protection)) return badParameter("Access control: unknown protection \"" + protection + "\"");
  if ((flags & ~known) != 0) return badParameter("Access control: unknown flags " + std::to_string(flags & ~known));
  return std::make_shared<const ZavloAccessControl>(ZavloAccessControl{protection, flags});
}

ZavloSecureKeyResult<ZavloLinuxKeyRequest> ZavloLinuxKeyRequest::parse(const ZavloKeychainAttributes& attributes) {
  const auto* type = attributes.find<std::string>(Key::kSecAttrKeyType);
  if (type == nullptr || *type != Key::kSecAttrKeyTypeECSECPrimeRandom) {
    return badParameter("Key creation: kSecAttrKeyType must be kSecAttrKeyTypeECSECPrimeRandom");
  }
  if (const auto* size = attributes.find<std::int64_t>(Key::kSecAttrKeySizeInBits);
      !wellTyped<std::int64_t>(attributes, Key::kSecAttrKeySizeInBits) || (size != nullptr && *size != 256)) {
    return badParameter("Key creation: only 256-bit keys (P-256) are made");
  }
  // Every Linux key store stands in for the secure element that the token names.
  if (const auto* token = attributes.find<std::string>(Key::kSecAttrTokenID);
      !wellTyped<std::string>(attributes, Key::kSecAttrTokenID) ||
      (token != nullptr && *token != Key::kSecAttrTokenIDSecureEnclave)) {
    return badParameter("Key creation: unknown kSecAttrTokenID");
  }
  using Nested = std::shared_ptr<const ZavloKeychainAttributes>;
  const auto* nested = attributes.find<Nested>(Key::kSecPrivateKeyAttrs);
  if (!wellTyped<Nested>(attributes, Key::kSecPrivateKeyAttrs) || (nested != nullptr && *nested == nullptr)) {
    return badParameter("Key creation: kSecPrivateKeyAttrs must be a dictionary");
  }
  const ZavloKeychainAttributes noAttributes;
  const ZavloKeychainAttributes& privateAttributes = nested != nullptr ? **nested : noAttributes;
  if (!wellTyped<bool>(privateAttributes, Key::kSecAttrIsPermanent) ||
      !wellTyped<ZavloBytes>(privateAttributes, Key::kSecAttrApplicationTag) ||
      !wellTyped<std::shared_ptr<const ZavloAccessControl>>(privateAttributes, Key::kSecAttrAccessControl)) {
    return badParameter("Key creation: a private-key attribute has a value of the wrong type");
  }
  ZavloLinuxKeyRequest request;
  const auto* permanent = privateAttributes.find<bool>(Key::kSecAttrIsPermanent);
  request.permanent = permanent != nullptr && *permanent;
  const auto* tag = privateAttributes.find<ZavloBytes>(Key::kSecAttrApplicationTag);
  if (request.permanent && tag == nullptr) {
    return badParameter("Key creation: a permanent key needs kSecAttrApplicationTag");
  }
  if (tag != nullptr) request.tag = *tag;
  for (const auto& [name, value] : attributes) {
    if (name != Key::kSecPrivateKeyAttrs) request.item.emplace(name, value);
  }
  for (const auto& [name, value] : privateAttributes) request.item.insert_or_assign(name, value);
  request.item.emplace(Key::kSecAttrKeySizeInBits, std::int64_t{256});
  return request;
}
