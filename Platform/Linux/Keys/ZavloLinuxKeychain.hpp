#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "Platform/ZavloKeychain.hpp"

struct sqlite3;
class ZavloLinuxSecureKey;

/// The keychain of the Linux platform: one SQLite 3 file.
///
/// Where it lives: the file is created with mode 0600 (an existing one is narrowed to
/// 0600) in a directory that neither group nor others may write; with
/// Options::createDirectory the last level of that directory is made, mode 0700. A missing
/// or unreachable directory, an unwritable one or a file that is no keychain makes every
/// call fail with a status (notAvailable, decode, io) and a description (lastFailure(),
/// Options::trace); the file is then left exactly as it was. Opening is retried by each
/// call until it succeeds.
///
/// Threading contract: every operation may be called from any thread and is synchronous;
/// one mutex per object serialises its SQLite connection. Several objects and several
/// processes may use one file at once: SQLite's WAL journal and file locks keep them
/// apart, each write is one IMMEDIATE transaction (all of it or nothing), and a writer
/// waits up to 10 s for another's transaction.
///
/// File format (SQLite, PRAGMA user_version = 1):
///   items(id INTEGER PRIMARY KEY, class TEXT, identity BLOB, secret BLOB,
///         UNIQUE(class, identity))
///     identity: the encoded values that make an item unique (key: kSecAttrApplicationTag;
///     generic password: kSecAttrService and kSecAttrAccount), so that the database itself
///     refuses a duplicate, also one added by another process;
///     secret: a private key's material, an RFC 5915 ECPrivateKey in DER; NULL otherwise.
///     It is never matched and never returned as bytes.
///   attributes(item, name, kind, value, PRIMARY KEY(item, name))
///     one row per stored attribute other than kSecClass; kind 0 bool and 1 integer (value
///     an INTEGER), 2 text (TEXT), 3 bytes (BLOB), 4 access control (TEXT "flags:protection").
/// secure_delete is on, so the pages of a deleted key are overwritten with zeros.
///
/// Beyond the ZavloKeychain rules: kSecClass is required (kSecClassKey or
/// kSecClassGenericPassword); key items are added only by ZavloLinuxSecureKeys; a key's
/// material never comes back as data (kSecReturnData on a key answers param); a query may
/// ask for data or for a key reference, not both.
class ZavloLinuxKeychain final : public ZavloKeychain {
 public:
  struct Options {
    /// Create the file's directory, last level only, with mode 0700.
    bool createDirectory = false;
    /// Receives each failure's description (never any item's content).
    std::function<void(const std::string&)> trace = {};
  };

  struct Failure {
    std::int32_t status = 0;
    std::string description;
  };

  explicit ZavloLinuxKeychain(std::string path) : ZavloLinuxKeychain(std::move(path), Options{}) {}
  ZavloLinuxKeychain(std::string path, Options options);
  ~ZavloLinuxKeychain() override;

  ZavloKeychainQueryResult copyMatching(const ZavloKeychainAttributes& query) override;
  std::int32_t add(const ZavloKeychainAttributes& attributes) override;
  std::int32_t remove(const ZavloKeychainAttributes& query) override;

  /// Stores key as a permanent key item with these attributes (kSecClass is set here;
  /// kSecAttrApplicationTag is required). duplicateItem when a key has that tag.
  std::int32_t addKey(const ZavloKeychainAttributes& attributes, const ZavloLinuxSecureKey& key);

  [[nodiscard]] const std::string& path() const { return path_; }
  /// The latest failure of any call on this object, for tracing.
  [[nodiscard]] std::optional<Failure> lastFailure() const;

 private:
  template <class Body>
  auto locked(Body&& body);
  std::int32_t openLocked();
  /// Whether the open file is empty (no tables yet); decode for a foreign or newer format.
  std::int32_t readFormat(bool& empty);
  void closeLocked();
  std::int32_t fail(std::int32_t status, std::string description);
  /// message: SQLite's, when the connection's own may have moved on.
  std::int32_t failSqlite(int code, const std::string& action, const char* message = nullptr);
  /// One write transaction around rows(), which answers an SQLite code and its message
  /// (SQLITE_NOTFOUND: nothing matched).
  std::int32_t writeLocked(const std::string& action, const std::function<int(std::string&)>& rows);

  const std::string path_;
  const Options options_;
  mutable std::mutex mutex_;
  sqlite3* db_ = nullptr;
  std::optional<Failure> lastFailure_;
  std::optional<std::string> pendingTrace_;
};
