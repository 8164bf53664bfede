#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "Platform/ZavloKeyStore.hpp"

struct sqlite3;

/// One key as the key file keeps it. The blob is what the key's protection needs to use
/// the key again (a sealed scalar, a TPM's wrapped key); only a "plain" key, written by a
/// version of the library from before sealing and not yet sealed, holds a usable private
/// key, which the store seals at the owner's next successful prompt.
struct ZavloLinuxKeyRecord {
  ZavloBytes tag;
  std::string protection;  ///< "sealed", "tpm", "plain"
  ZavloBytes publicKey;    ///< X9.63 uncompressed point
  ZavloBytes blob;

  friend bool operator==(const ZavloLinuxKeyRecord&, const ZavloLinuxKeyRecord&) = default;
};

/// The key file of the Linux platform: one SQLite 3 file holding key records and
/// domain-state records.
///
/// Where it lives: the file is created with mode 0600 (an existing one is narrowed to
/// 0600) in a directory that neither group nor others may write; with
/// Options::createDirectory the last level of that directory is made, mode 0700. A missing
/// or unreachable directory, an unwritable one or a file that is no key file makes every
/// call fail (unavailable, damaged) with a description (Options::trace); the file is then
/// left exactly as it was. Opening is retried by each call until it succeeds.
///
/// Nothing deleted or replaced stays behind in the store's files: secure_delete overwrites
/// freed content with zeros, and the rollback journal (journal_mode DELETE, no WAL) is
/// removed at the end of every transaction. A file of the first format (the attribute
/// keychain with plain keys, in WAL mode) is converted when it is opened: its keys become
/// "plain" records, its domain-state records (finger names only, which no domain state of
/// today equals) are dropped, and its WAL and old tables are gone afterwards (secure_delete
/// zeroes the pages they free).
///
/// Threading contract: every operation may be called from any thread and is synchronous;
/// one mutex per object serialises its SQLite connection. Several objects and processes
/// may use one file at once: each write is one IMMEDIATE transaction, and a writer waits
/// up to 10 s for another's.
///
/// File format 2 (PRAGMA user_version = 2):
///   keys(tag BLOB PRIMARY KEY, protection TEXT, public_key BLOB, blob BLOB)
///   domain_states(key_id BLOB PRIMARY KEY, state BLOB)   key_id: the id's UTF-8 bytes
class ZavloLinuxKeyFile {
 public:
  struct Options {
    /// Create the file's directory, last level only, with mode 0700.
    bool createDirectory = false;
    /// Receives each failure's description (never a record's content).
    std::function<void(const std::string&)> trace = {};
  };

  explicit ZavloLinuxKeyFile(std::string path) : ZavloLinuxKeyFile(std::move(path), Options{}) {}
  ZavloLinuxKeyFile(std::string path, Options options);
  ~ZavloLinuxKeyFile();
  ZavloLinuxKeyFile(const ZavloLinuxKeyFile&) = delete;
  ZavloLinuxKeyFile& operator=(const ZavloLinuxKeyFile&) = delete;

  ZavloKeyStoreResult<std::optional<ZavloLinuxKeyRecord>> find(const ZavloBytes& tag);
  /// duplicate when a record has the tag.
  ZavloKeyStoreResult<ZavloVoid> insert(const ZavloLinuxKeyRecord& record);
  /// Replaces the record of record.tag only if it still equals expected (notFound
  /// otherwise): a plain key sealed by one process is not sealed again by another.
  ZavloKeyStoreResult<ZavloVoid> replace(const ZavloLinuxKeyRecord& expected, const ZavloLinuxKeyRecord& record);
  /// true when a record was removed.
  ZavloKeyStoreResult<bool> remove(const ZavloBytes& tag);

  ZavloKeyStoreResult<std::optional<ZavloBytes>> domainState(const std::string& keyId);
  ZavloKeyStoreResult<ZavloVoid> setDomainState(const std::string& keyId, const std::optional<ZavloBytes>& state);

  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  template <class Body>
  auto locked(Body&& body);
  using Problem = std::optional<ZavloKeyStoreError>;  // nothing: it went well

  Problem openLocked();
  /// The file as this object needs it: format 2, no WAL; empty is made format 2.
  Problem prepareLocked();
  Problem migrateFormat1Locked();
  void closeLocked();
  ZavloKeyStoreError fail(ZavloKeyStoreFailure failure, std::int64_t code, std::string description);
  /// message: SQLite's, when the connection's own may have moved on.
  ZavloKeyStoreError failSqlite(int code, const std::string& action, const char* message = nullptr);
  /// One write transaction around rows(), which answers an SQLite code and its message;
  /// SQLITE_NOTFOUND from rows() commits nothing and sets *nothing.
  Problem writeLocked(const std::string& action, const std::function<int(std::string&)>& rows, bool* nothing = nullptr);

  const std::string path_;
  const Options options_;
  mutable std::mutex mutex_;
  sqlite3* db_ = nullptr;
  std::optional<std::string> pendingTrace_;
};
