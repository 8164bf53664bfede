#pragma once

#include <cstddef>
#include <memory>

#include "Platform/ZavloOwnerAuthentication.hpp"
#include "Platform/ZavloSecureKeys.hpp"

struct evp_pkey_st;  // OpenSSL's EVP_PKEY; kept out of the installed headers

/// A P-256 private key of the Linux key store. Opaque on purpose: its material lives only
/// inside this object and the keychain file, and no member gives it out. Only the key
/// store makes these (ZavloLinuxSecureKeys creates them, ZavloLinuxKeychain loads them).
///
/// The key signs only while the owner-authentication context it was loaded with has
/// authenticated; a key fresh from creation has no context and never signs.
class ZavloLinuxSecureKey final : public ZavloSecureKey {
 public:
  /// True when the owner has authenticated the context this key came with.
  [[nodiscard]] bool isUsable() const;

 private:
  friend class ZavloLinuxKeychain;
  friend class ZavloLinuxSecureKeys;

  /// Encoded private key (DER), wiped when it goes out of scope.
  class Material {
   public:
    explicit Material(std::size_t size);
    Material(const Material&) = delete;
    Material& operator=(const Material&) = delete;
    ~Material();
    [[nodiscard]] unsigned char* data() { return bytes_.get(); }
    [[nodiscard]] const unsigned char* data() const { return bytes_.get(); }
    [[nodiscard]] std::size_t size() const { return size_; }

   private:
    std::unique_ptr<unsigned char[]> bytes_;
    std::size_t size_;
  };

  ZavloLinuxSecureKey(std::shared_ptr<evp_pkey_st> key, std::shared_ptr<ZavloOwnerAuthenticationContext> context);

  /// The key as stored: an RFC 5915 ECPrivateKey in DER. Null if OpenSSL cannot encode it.
  [[nodiscard]] std::unique_ptr<Material> material() const;
  /// A key from stored material, used through context; null unless it is a P-256 key.
  static std::shared_ptr<ZavloLinuxSecureKey> fromMaterial(const void* der, std::size_t size,
                                                           std::shared_ptr<ZavloOwnerAuthenticationContext> context);

  std::shared_ptr<evp_pkey_st> key_;
  std::shared_ptr<ZavloOwnerAuthenticationContext> context_;
};
