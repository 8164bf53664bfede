#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include <nlohmann/json.hpp>

#include "Platform/ZavloKeychain.hpp"

/// An in-memory keychain for the test platform. It keeps the keychain contract (attribute
/// matching, duplicates, private keys only through an authenticated context), records the
/// attributes of every call, and answers any status the test scripts for a call.
///
/// Threading contract: every method is callable from any thread; calls are serialised.
class ZavloTestKeychain final : public ZavloKeychain {
 public:
  enum class Operation { copyMatching, add, remove };

  struct Call {
    Operation operation;
    ZavloKeychainAttributes attributes;
    std::int32_t status;  ///< what the call answered
  };

  /// Makes the usable key behind a stored private key item for a query's authenticated
  /// context (the key store registers one with each permanent key it creates).
  using KeyOpener =
      std::function<std::shared_ptr<ZavloSecureKey>(const std::shared_ptr<ZavloOwnerAuthenticationContext>&)>;

  ZavloKeychainQueryResult copyMatching(const ZavloKeychainAttributes& query) override;
  std::int32_t add(const ZavloKeychainAttributes& attributes) override;
  std::int32_t remove(const ZavloKeychainAttributes& query) override;

  /// Adds a private key item; what add() does for the key store of the same platform.
  std::int32_t addKey(const ZavloKeychainAttributes& attributes, KeyOpener opener);

  /// From now on, calls of operation whose attributes include every entry of match (equal
  /// values) answer status, and item for a copyMatching that asks for a result, without
  /// touching the store; for the next `times` such calls, or for all when absent. The
  /// latest matching script wins.
  void answer(Operation operation, ZavloKeychainAttributes match, std::int32_t status,
              std::optional<ZavloKeychainItem> item = std::nullopt, std::optional<std::size_t> times = std::nullopt);
  void clearAnswers();

  /// Every call so far, in order (a copy).
  [[nodiscard]] std::vector<Call> calls() const;
  void clearCalls();
  /// The stored items' attributes, in insertion order (a copy).
  [[nodiscard]] std::vector<ZavloKeychainAttributes> items() const;
  [[nodiscard]] std::size_t itemCount() const;

  /// Whether an item has every non-control attribute of query with an equal value.
  static bool matches(const ZavloKeychainAttributes& item, const ZavloKeychainAttributes& query);
  /// Deep equality: nested dictionaries by content, access controls by protection and
  /// flags, contexts by identity.
  static bool equal(const ZavloKeychainValue& left, const ZavloKeychainValue& right);
  /// A readable form for assertions: byte strings become {"bytes": text} (or {"hex": ...}
  /// when they are not printable UTF-8), contexts "<context>", access controls
  /// {"protection", "flags"}, nested dictionaries objects.
  static nlohmann::json describe(const ZavloKeychainAttributes& attributes);

 private:
  struct Item {
    ZavloKeychainAttributes attributes;
    KeyOpener opener;  // set for private keys only
  };
  struct Script {
    Operation operation;
    ZavloKeychainAttributes match;
    std::int32_t status;
    std::optional<ZavloKeychainItem> item;
    std::optional<std::size_t> remaining;
  };

  // The scripted answer for this call, if any (consumes one use).
  const Script* scripted(Operation operation, const ZavloKeychainAttributes& attributes);
  std::int32_t record(Operation operation, const ZavloKeychainAttributes& attributes, std::int32_t status);
  std::int32_t insert(const ZavloKeychainAttributes& attributes, KeyOpener opener);

  mutable std::mutex mutex_;
  std::vector<Item> items_;
  std::vector<Script> scripts_;
  std::vector<Call> calls_;
};
