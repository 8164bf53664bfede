#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Platform/ZavloKeychain.hpp"
#include "Platform/ZavloOwnerAuthentication.hpp"
#include "Platform/ZavloSecureKeys.hpp"

/// Keychain items and queries shaped as device binding makes them.
namespace ZavloKeyStoreItems {

namespace Key = ZavloKeychainKey;

/// A generic password; without data it is a query for one.
inline ZavloKeychainAttributes password(const std::string& service, const std::string& account,
                                        std::optional<ZavloBytes> data = std::nullopt) {
  ZavloKeychainAttributes item{{Key::kSecClass, std::string(Key::kSecClassGenericPassword)},
                               {Key::kSecAttrService, service},
                               {Key::kSecAttrAccount, account}};
  if (data) item.emplace(Key::kSecValueData, *data);
  return item;
}

inline ZavloKeychainAttributes with(ZavloKeychainAttributes attributes, const std::string& name,
                                    ZavloKeychainValue value) {
  attributes.insert_or_assign(name, std::move(value));
  return attributes;
}

/// The attributes of a new P-256 key; permanent keys carry the tag into the keychain.
inline ZavloKeychainAttributes keyAttributes(const ZavloBytes& tag,
                                             std::shared_ptr<const ZavloAccessControl> access = nullptr,
                                             bool permanent = true) {
  auto privateAttributes = std::make_shared<ZavloKeychainAttributes>(
      ZavloKeychainAttributes{{Key::kSecAttrIsPermanent, permanent}, {Key::kSecAttrApplicationTag, tag}});
  if (access) privateAttributes->emplace(Key::kSecAttrAccessControl, std::move(access));
  return {{Key::kSecAttrKeyType, std::string(Key::kSecAttrKeyTypeECSECPrimeRandom)},
          {Key::kSecAttrKeySizeInBits, std::int64_t{256}},
          {Key::kSecAttrTokenID, std::string(Key::kSecAttrTokenIDSecureEnclave)},
          {Key::kSecPrivateKeyAttrs, std::shared_ptr<const ZavloKeychainAttributes>(std::move(privateAttributes))}};
}

/// The key of this tag: class, tag and type only (as a delete names it).
inline ZavloKeychainAttributes key(const ZavloBytes& tag) {
  return {{Key::kSecClass, std::string(Key::kSecClassKey)},
          {Key::kSecAttrApplicationTag, tag},
          {Key::kSecAttrKeyType, std::string(Key::kSecAttrKeyTypeECSECPrimeRandom)}};
}

/// Does the key exist? Asks for no reference and never for a prompt.
inline ZavloKeychainAttributes keyExists(const ZavloBytes& tag) {
  return with(with(key(tag), Key::kSecReturnRef, false), Key::kSecUseAuthenticationUI,
              std::string(Key::kSecUseAuthenticationUISkip));
}

/// The key as a usable reference, through this context (none: no context attribute).
inline ZavloKeychainAttributes keyReference(const ZavloBytes& tag,
                                            std::shared_ptr<ZavloOwnerAuthenticationContext> context) {
  auto query = with(key(tag), Key::kSecReturnRef, true);
  if (context) query.emplace(Key::kSecUseAuthenticationContext, std::move(context));
  return query;
}

}  // namespace ZavloKeyStoreItems
