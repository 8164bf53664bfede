#include "Testing/ZavloTestKeychain.hpp"

#include <algorithm>
#include <string_view>

#include "Platform/ZavloOwnerAuthentication.hpp"
#include "Platform/ZavloSecureKeys.hpp"

namespace {

namespace Key = ZavloKeychainKey;
namespace Status = ZavloKeychainStatus;

using AttributeMap = std::map<std::string, ZavloKeychainValue, std::less<>>;

const ZavloKeychainValue* valueOf(const ZavloKeychainAttributes& attributes, std::string_view name) {
  const auto& map = static_cast<const AttributeMap&>(attributes);
  const auto found = map.find(name);
  return found == map.end() ? nullptr : &found->second;
}

// Attributes that shape an answer instead of selecting items.
bool isControlAttribute(std::string_view name) {
  return name.starts_with("kSecReturn") || name.starts_with("kSecUse") || name.starts_with("kSecMatch");
}

bool asksFor(const ZavloKeychainAttributes& query, const char* name) {
  const auto* value = query.find<bool>(name);
  return value && *value;
}

// The attributes that identify an item: two items alike in these are duplicates.
ZavloKeychainAttributes identity(const ZavloKeychainAttributes& attributes) {
  ZavloKeychainAttributes key;
  const auto* itemClass = attributes.find<std::string>(Key::kSecClass);
  if (!itemClass) return key;
  const auto names = *itemClass == Key::kSecClassKey
                         ? std::vector<const char*>{Key::kSecClass, Key::kSecAttrApplicationTag}
                         : std::vector<const char*>{Key::kSecClass, Key::kSecAttrService, Key::kSecAttrAccount};
  for (const auto* name : names) {
    if (const auto* value = valueOf(attributes, name)) key.emplace(name, *value);
  }
  return key;
}

bool sameIdentity(const ZavloKeychainAttributes& left, const ZavloKeychainAttributes& right) {
  const auto a = identity(left);
  const auto b = identity(right);
  return a.size() == b.size() && ZavloTestKeychain::matches(a, b);
}

std::string hex(const ZavloBytes& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const auto byte : bytes) {
    text.push_back(kDigits[byte >> 4]);
    text.push_back(kDigits[byte & 0x0F]);
  }
  return text;
}

bool isPrintableText(const ZavloBytes& bytes) {
  // Control characters and invalid UTF-8 are shown in hexadecimal instead.
  if (std::any_of(bytes.begin(), bytes.end(), [](std::uint8_t byte) { return byte < 0x20 || byte == 0x7F; })) {
    return false;
  }
  try {
    (void)nlohmann::json(std::string(bytes.begin(), bytes.end())).dump();
    return true;
  } catch (const nlohmann::json::exception&) {
    return false;
  }
}

}  // namespace

bool ZavloTestKeychain::equal(const ZavloKeychainValue& left, const ZavloKeychainValue& right) {
  if (left.index() != right.index()) return false;
  if (const auto* nested = std::get_if<std::shared_ptr<const ZavloKeychainAttributes>>(&left)) {
    const auto& other = std::get<std::shared_ptr<const ZavloKeychainAttributes>>(right);
    if (!*nested || !other) return *nested == other;
    return (*nested)->size() == other->size() && matches(**nested, *other) && matches(*other, **nested);
  }
  if (const auto* access = std::get_if<std::shared_ptr<const ZavloAccessControl>>(&left)) {
    const auto& other = std::get<std::shared_ptr<const ZavloAccessControl>>(right);
    if (!*access || !other) return *access == other;
    return (*access)->protection == other->protection && (*access)->flags == other->flags;
  }
  return left == right;
}

bool ZavloTestKeychain::matches(const ZavloKeychainAttributes& item, const ZavloKeychainAttributes& query) {
  return std::all_of(query.begin(), query.end(), [&item](const auto& entry) {
    if (isControlAttribute(entry.first)) return true;
    const auto* value = valueOf(item, entry.first);
    return value && equal(*value, entry.second);
  });
}

nlohmann::json ZavloTestKeychain::describe(const ZavloKeychainAttributes& attributes) {
  nlohmann::json described = nlohmann::json::object();
  for (const auto& [name, value] : attributes) {
    described[name] = std::visit(
        [](const auto& held) -> nlohmann::json {
          using T = std::decay_t<decltype(held)>;
          if constexpr (std::is_same_v<T, ZavloBytes>) {
            if (isPrintableText(held)) return {{"bytes", std::string(held.begin(), held.end())}};
            return {{"hex", hex(held)}};
          } else if constexpr (std::is_same_v<T, std::shared_ptr<const ZavloKeychainAttributes>>) {
            return held ? describe(*held) : nlohmann::json(nullptr);
          } else if constexpr (std::is_same_v<T, std::shared_ptr<ZavloOwnerAuthenticationContext>>) {
            return held ? "<context>" : nlohmann::json(nullptr);
          } else if constexpr (std::is_same_v<T, std::shared_ptr<const ZavloAccessControl>>) {
            if (!held) return nullptr;
            return {{"protection", held->protection}, {"flags", held->flags}};
          } else {
            return held;
          }
        },
        value);
  }
  return described;
}

const ZavloTestKeychain::Script* ZavloTestKeychain::scripted(Operation operation,
                                                             const ZavloKeychainAttributes& attributes) {
  for (auto script = scripts_.rbegin(); script != scripts_.rend(); ++script) {
    if (script->operation != operation || (script->remaining && *script->remaining == 0)) continue;
    // Control attributes count here too: a test may script only the queries that ask for a key.
    const bool all = std::all_of(script->match.begin(), script->match.end(), [&attributes](const auto& entry) {
      const auto* value = valueOf(attributes, entry.first);
      return value && equal(*value, entry.second);
    });
    if (!all) continue;
    if (script->remaining) --*script->remaining;
    return &*script;
  }
  return nullptr;
}

std::int32_t ZavloTestKeychain::record(Operation operation, const ZavloKeychainAttributes& attributes,
                                       std::int32_t status) {
  calls_.push_back({operation, attributes, status});
  return status;
}

ZavloKeychainQueryResult ZavloTestKeychain::copyMatching(const ZavloKeychainAttributes& query) {
  std::lock_guard lock(mutex_);
  if (const auto* script = scripted(Operation::copyMatching, query)) {
    record(Operation::copyMatching, query, script->status);
    ZavloKeychainQueryResult result{script->status, std::nullopt};
    if (script->status == Status::success) result.item = script->item;
    return result;
  }
  if (!query.find<std::string>(Key::kSecClass)) return {record(Operation::copyMatching, query, Status::param), {}};
  const auto found = std::find_if(items_.begin(), items_.end(),
                                  [&query](const Item& item) { return matches(item.attributes, query); });
  if (found == items_.end()) return {record(Operation::copyMatching, query, Status::itemNotFound), {}};

  // A private key never comes back as bytes: asking for them is a malformed query.
  if (asksFor(query, Key::kSecReturnData) && found->opener) {
    return {record(Operation::copyMatching, query, Status::param), {}};
  }
  ZavloKeychainQueryResult result{Status::success, std::nullopt};
  if (asksFor(query, Key::kSecReturnRef) && found->opener) {
    const auto* context =
        query.find<std::shared_ptr<ZavloOwnerAuthenticationContext>>(Key::kSecUseAuthenticationContext);
    if (!context || !*context || !(*context)->isAuthenticated()) {
      return {record(Operation::copyMatching, query, Status::interactionNotAllowed), {}};
    }
    result.item = found->opener(*context);
  } else if (asksFor(query, Key::kSecReturnData)) {
    if (const auto* data = found->attributes.find<ZavloBytes>(Key::kSecValueData)) result.item = *data;
  }
  record(Operation::copyMatching, query, Status::success);
  return result;
}

std::int32_t ZavloTestKeychain::insert(const ZavloKeychainAttributes& attributes, KeyOpener opener) {
  if (!attributes.find<std::string>(Key::kSecClass)) return Status::param;
  const bool duplicate = std::any_of(items_.begin(), items_.end(), [&attributes](const Item& item) {
    return sameIdentity(item.attributes, attributes);
  });
  if (duplicate) return Status::duplicateItem;
  ZavloKeychainAttributes stored;
  for (const auto& entry : attributes) {
    if (!isControlAttribute(entry.first)) stored.insert(entry);
  }
  items_.push_back({std::move(stored), std::move(opener)});
  return Status::success;
}

std::int32_t ZavloTestKeychain::add(const ZavloKeychainAttributes& attributes) {
  std::lock_guard lock(mutex_);
  if (const auto* script = scripted(Operation::add, attributes)) {
    return record(Operation::add, attributes, script->status);
  }
  return record(Operation::add, attributes, insert(attributes, nullptr));
}

std::int32_t ZavloTestKeychain::addKey(const ZavloKeychainAttributes& attributes, KeyOpener opener) {
  // The key store's own write: neither scripted nor recorded, so that the calls show
  // only what the code under test asked.
  std::lock_guard lock(mutex_);
  return insert(attributes, std::move(opener));
}

std::int32_t ZavloTestKeychain::remove(const ZavloKeychainAttributes& query) {
  std::lock_guard lock(mutex_);
  if (const auto* script = scripted(Operation::remove, query)) {
    return record(Operation::remove, query, script->status);
  }
  if (!query.find<std::string>(Key::kSecClass)) return record(Operation::remove, query, Status::param);
  const auto removed = std::erase_if(items_, [&query](const Item& item) { return matches(item.attributes, query); });
  return record(Operation::remove, query, removed == 0 ? Status::itemNotFound : Status::success);
}

void ZavloTestKeychain::answer(Operation operation, ZavloKeychainAttributes match, std::int32_t status,
                               std::optional<ZavloKeychainItem> item, std::optional<std::size_t> times) {
  std::lock_guard lock(mutex_);
  scripts_.push_back({operation, std::move(match), status, std::move(item), times});
}

void ZavloTestKeychain::clearAnswers() {
  std::lock_guard lock(mutex_);
  scripts_.clear();
}

std::vector<ZavloTestKeychain::Call> ZavloTestKeychain::calls() const {
  std::lock_guard lock(mutex_);
  return calls_;
}

void ZavloTestKeychain::clearCalls() {
  std::lock_guard lock(mutex_);
  calls_.clear();
}

std::vector<ZavloKeychainAttributes> ZavloTestKeychain::items() const {
  std::lock_guard lock(mutex_);
  std::vector<ZavloKeychainAttributes> attributes;
  for (const auto& item : items_) attributes.push_back(item.attributes);
  return attributes;
}

std::size_t ZavloTestKeychain::itemCount() const {
  std::lock_guard lock(mutex_);
  return items_.size();
}
