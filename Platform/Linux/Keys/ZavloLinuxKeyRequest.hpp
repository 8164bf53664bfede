#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/ZavloKeychain.hpp"
#include "Platform/ZavloSecureKeys.hpp"

/// What every Linux key store accepts as a key creation request, checked in one place so
/// that the software store and a token refuse the same requests with the same errors.
struct ZavloLinuxKeyRequest {
  /// Stored in the keychain (kSecAttrIsPermanent), found again by tag.
  bool permanent = false;
  /// kSecAttrApplicationTag; required for a permanent key, empty when absent.
  ZavloBytes tag;
  /// The attributes a stored key item carries: the request's, with the private-key
  /// attributes flattened beside them and the size made explicit.
  ZavloKeychainAttributes item;

  /// param (with a description) for anything but a P-256 request of known attributes.
  static ZavloSecureKeyResult<ZavloLinuxKeyRequest> parse(const ZavloKeychainAttributes& attributes);
};

/// The control attributes of a keychain call (kSecReturn*, kSecUse*), which shape the
/// answer rather than match items; read alike by every Linux keychain.
struct ZavloLinuxKeychainControls {
  bool present = false;
  bool returnRef = false;
  bool returnData = false;
  std::shared_ptr<ZavloOwnerAuthenticationContext> context;

  [[nodiscard]] static bool isControl(std::string_view name) {
    return name.starts_with("kSecReturn") || name.starts_with("kSecUse");
  }
  /// Takes one control attribute; the reason it is malformed, or nothing.
  std::optional<std::string> take(const std::string& name, const ZavloKeychainValue& value);
};

/// The public half of a key of a Linux key store: its uncompressed point, checked when it
/// was copied.
class ZavloLinuxPublicKey final : public ZavloPublicKey {
 public:
  explicit ZavloLinuxPublicKey(ZavloBytes point) : point_(std::move(point)) {}
  [[nodiscard]] const ZavloBytes& point() const { return point_; }

 private:
  ZavloBytes point_;
};

/// An access control of a known protection and flags; param otherwise.
ZavloSecureKeyResult<std::shared_ptr<const ZavloAccessControl>> zavloLinuxAccessControl(const std::string& protection,
                                                                                        std::uint64_t flags);
