#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

/// A byte string: tags, stored secrets, public keys, signatures.
using ZavloBytes = std::vector<std::uint8_t>;

inline ZavloBytes zavloBytes(std::string_view text) { return {text.begin(), text.end()}; }

class ZavloOwnerAuthenticationContext;
class ZavloSecureKey;
struct ZavloAccessControl;
struct ZavloKeychainAttributes;

/// One attribute value of a keychain query or item. Constants the platform names (such as
/// kSecClassKey) travel as their names in a std::string.
using ZavloKeychainValue =
    std::variant<bool, std::int64_t, std::string, ZavloBytes, std::shared_ptr<const ZavloKeychainAttributes>,
                 std::shared_ptr<ZavloOwnerAuthenticationContext>, std::shared_ptr<const ZavloAccessControl>>;

/// A query or an item: attribute name to value, names as the platform spells them.
struct ZavloKeychainAttributes : std::map<std::string, ZavloKeychainValue, std::less<>> {
  using std::map<std::string, ZavloKeychainValue, std::less<>>::map;

  /// The value of name when it holds a T, else null.
  template <class T>
  [[nodiscard]] const T* find(std::string_view name) const {
    const auto found = std::map<std::string, ZavloKeychainValue, std::less<>>::find(name);
    return found == end() ? nullptr : std::get_if<T>(&found->second);
  }
};

/// Attribute names and constant values, spelled as the platform spells them.
namespace ZavloKeychainKey {
inline constexpr const char* kSecClass = "kSecClass";
inline constexpr const char* kSecClassKey = "kSecClassKey";
inline constexpr const char* kSecClassGenericPassword = "kSecClassGenericPassword";
inline constexpr const char* kSecAttrApplicationTag = "kSecAttrApplicationTag";
inline constexpr const char* kSecAttrKeyType = "kSecAttrKeyType";
inline constexpr const char* kSecAttrKeyTypeECSECPrimeRandom = "kSecAttrKeyTypeECSECPrimeRandom";
inline constexpr const char* kSecAttrKeySizeInBits = "kSecAttrKeySizeInBits";
inline constexpr const char* kSecAttrTokenID = "kSecAttrTokenID";
inline constexpr const char* kSecAttrTokenIDSecureEnclave = "kSecAttrTokenIDSecureEnclave";
inline constexpr const char* kSecPrivateKeyAttrs = "kSecPrivateKeyAttrs";
inline constexpr const char* kSecAttrIsPermanent = "kSecAttrIsPermanent";
inline constexpr const char* kSecAttrAccessControl = "kSecAttrAccessControl";
inline constexpr const char* kSecAttrService = "kSecAttrService";
inline constexpr const char* kSecAttrAccount = "kSecAttrAccount";
inline constexpr const char* kSecAttrAccessible = "kSecAttrAccessible";
inline constexpr const char* kSecAttrAccessibleAfterFirstUnlockThisDeviceOnly =
    "kSecAttrAccessibleAfterFirstUnlockThisDeviceOnly";
inline constexpr const char* kSecAttrAccessibleWhenUnlockedThisDeviceOnly =
    "kSecAttrAccessibleWhenUnlockedThisDeviceOnly";
inline constexpr const char* kSecValueData = "kSecValueData";
inline constexpr const char* kSecReturnRef = "kSecReturnRef";
inline constexpr const char* kSecReturnData = "kSecReturnData";
inline constexpr const char* kSecUseAuthenticationUI = "kSecUseAuthenticationUI";
inline constexpr const char* kSecUseAuthenticationUISkip = "kSecUseAuthenticationUISkip";
inline constexpr const char* kSecUseAuthenticationContext = "kSecUseAuthenticationContext";
}  // namespace ZavloKeychainKey

/// Status codes of keychain calls, with the platform's values.
namespace ZavloKeychainStatus {
inline constexpr std::int32_t success = 0;
inline constexpr std::int32_t param = -50;               ///< a malformed query or item
inline constexpr std::int32_t io = -36;                  ///< the store could not be read or written
inline constexpr std::int32_t notAvailable = -25291;     ///< no store can be opened
inline constexpr std::int32_t duplicateItem = -25299;
inline constexpr std::int32_t itemNotFound = -25300;
inline constexpr std::int32_t interactionNotAllowed = -25308;  ///< exists, but needs the owner first
inline constexpr std::int32_t decode = -26275;                 ///< the store holds something unreadable
}  // namespace ZavloKeychainStatus

/// What a query returns when it asks for a result: stored bytes (kSecReturnData) or a
/// usable private key (kSecReturnRef).
using ZavloKeychainItem = std::variant<ZavloBytes, std::shared_ptr<ZavloSecureKey>>;

struct ZavloKeychainQueryResult {
  std::int32_t status = ZavloKeychainStatus::itemNotFound;
  std::optional<ZavloKeychainItem> item;  ///< only when the query asked for one and status is 0
};

/// The persistent item store: generic passwords and private keys, matched by attributes.
///
/// Threading contract: every operation may be called from any thread and is synchronous.
/// Each write is atomic; a failed call leaves every other item as it was.
///
/// Matching: an item matches when it has every attribute of the query with an equal
/// value, except the control attributes (kSecReturn*, kSecUse*), which shape the answer.
/// copyMatching answers the first match. A private key comes back (kSecReturnRef true)
/// only with a kSecUseAuthenticationContext whose owner has authenticated; otherwise the
/// status is interactionNotAllowed.
class ZavloKeychain {
 public:
  ZavloKeychain() = default;
  ZavloKeychain(const ZavloKeychain&) = delete;
  ZavloKeychain& operator=(const ZavloKeychain&) = delete;
  virtual ~ZavloKeychain() = default;

  virtual ZavloKeychainQueryResult copyMatching(const ZavloKeychainAttributes& query) = 0;
  /// duplicateItem when an item of the same class and identity exists (key: class and
  /// application tag; generic password: class, service and account).
  virtual std::int32_t add(const ZavloKeychainAttributes& attributes) = 0;
  /// Deletes every match; itemNotFound when there was none.
  virtual std::int32_t remove(const ZavloKeychainAttributes& query) = 0;
};
