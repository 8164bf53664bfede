#include "Platform/Linux/Keys/ZavloLinuxKeyFile.hpp"

#include <fcntl.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <utility>
#include <vector>

#include "Platform/Linux/Keys/ZavloLinuxEcKeys.hpp"
#include "Platform/Linux/Keys/ZavloLinuxTracedLock.hpp"

namespace {

using Failure = ZavloKeyStoreFailure;

constexpr int kFormatVersion = 2;
constexpr int kBusyTimeoutMilliseconds = 10'000;

constexpr const char* kSchema =
    "CREATE TABLE keys(tag BLOB PRIMARY KEY, protection TEXT NOT NULL, public_key BLOB NOT NULL,"
    " blob BLOB NOT NULL) WITHOUT ROWID;"
    "CREATE TABLE domain_states(key_id BLOB PRIMARY KEY, state BLOB NOT NULL) WITHOUT ROWID;"
    "PRAGMA user_version = 2;";

// The first format's names: an attribute keychain whose key items held plain keys.
constexpr const char* kFormat1KeyClass = "kSecClassKey";

struct StatementDeleter {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, StatementDeleter>;

int prepare(sqlite3* db, const char* sql, Statement& statement) {
  sqlite3_stmt* raw = nullptr;
  const int code = sqlite3_prepare_v2(db, sql, -1, &raw, nullptr);
  statement.reset(raw);
  return code;
}

int bindBytes(sqlite3_stmt* statement, int index, std::span<const std::uint8_t> bytes) {
  // An empty span's data() may be null, which SQLite would store as NULL.
  if (bytes.empty()) return sqlite3_bind_zeroblob(statement, index, 0);
  return sqlite3_bind_blob64(statement, index, bytes.data(), bytes.size(), SQLITE_STATIC);
}

int bindText(sqlite3_stmt* statement, int index, const std::string& text) {
  return sqlite3_bind_text64(statement, index, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
}

std::span<const std::uint8_t> idBytes(const std::string& keyId) {
  return {reinterpret_cast<const std::uint8_t*>(keyId.data()), keyId.size()};
}

ZavloBytes columnBytes(sqlite3_stmt* statement, int column) {
  const auto* data = static_cast<const std::uint8_t*>(sqlite3_column_blob(statement, column));
  const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement, column));
  return data == nullptr ? ZavloBytes{} : ZavloBytes(data, data + size);
}

// The one mapping of SQLite result codes (extended) to key store failures.
Failure failureFor(int code) {
  if (code == SQLITE_IOERR_SHORT_READ) return Failure::damaged;  // a file shorter than it says it is
  switch (code & 0xff) {
    case SQLITE_CONSTRAINT:
      return code == SQLITE_CONSTRAINT_PRIMARYKEY || code == SQLITE_CONSTRAINT_UNIQUE ? Failure::duplicate
                                                                                      : Failure::internal;
    case SQLITE_NOTADB:
    case SQLITE_CORRUPT:
    case SQLITE_FORMAT:
      return Failure::damaged;
    default:  // cannot open, busy past the time-out, read-only, full, I/O errors, out of memory
      return Failure::unavailable;
  }
}

// A write transaction that rolls back unless committed. IMMEDIATE takes the write lock
// first, so a writer waits (busy time-out) instead of failing on a stale snapshot.
class Transaction {
 public:
  explicit Transaction(sqlite3* db) : db_(db) {}
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  ~Transaction() {
    if (active_) sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
  }
  int begin() {
    const int code = sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
    active_ = code == SQLITE_OK;
    return code;
  }
  int commit() {
    const int code = sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr);
    if (code == SQLITE_OK) active_ = false;
    return code;
  }

 private:
  sqlite3* db_;
  bool active_ = false;
};

// SQLite's message, taken while the failing statement lives (finalising another one would
// replace it), and the code.
int failure(sqlite3* db, int code, std::string& message) {
  message = sqlite3_errmsg(db);
  return code;
}

// Runs one statement to its end with the values bound by bind().
template <class Bind>
int execute(sqlite3* db, const char* sql, Bind&& bind, std::string& message) {
  Statement statement;
  int code = prepare(db, sql, statement);
  if (code == SQLITE_OK) code = bind(statement.get());
  if (code == SQLITE_OK) code = sqlite3_step(statement.get());
  if (code != SQLITE_DONE) return failure(db, code, message);
  return SQLITE_OK;
}

std::string systemError(int error) { return std::strerror(error); }

std::string octalMode(mode_t mode) {
  char text[8];
  std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
  return text;
}

}  // namespace

template <class Body>
auto ZavloLinuxKeyFile::locked(Body&& body) {
  return zavloLockedThenTraced(mutex_, pendingTrace_, options_.trace, std::forward<Body>(body));
}

ZavloLinuxKeyFile::ZavloLinuxKeyFile(std::string path, Options options)
    : path_(std::move(path)), options_(std::move(options)) {
  locked([this] { return openLocked(); });
}

ZavloLinuxKeyFile::~ZavloLinuxKeyFile() { closeLocked(); }

ZavloKeyStoreError ZavloLinuxKeyFile::fail(Failure failure, std::int64_t code, std::string description) {
  pendingTrace_ = description;
  return {failure, code, std::move(description)};
}

ZavloKeyStoreError ZavloLinuxKeyFile::failSqlite(int code, const std::string& action, const char* message) {
  // SQLite's messages never quote bound values, so no record's content reaches the text.
  if (message == nullptr) message = db_ != nullptr ? sqlite3_errmsg(db_) : sqlite3_errstr(code);
  return fail(
      failureFor(code), code,
      "Key file " + path_ + ": " + action + " failed: " + message + " (SQLite code " + std::to_string(code) + ")");
}

void ZavloLinuxKeyFile::closeLocked() {
  if (db_ != nullptr) sqlite3_close_v2(db_);
  db_ = nullptr;
}

ZavloLinuxKeyFile::Problem ZavloLinuxKeyFile::openLocked() {
  if (db_ != nullptr) return std::nullopt;
  if (path_.empty()) return fail(Failure::unavailable, 0, "Key file: no file path was given");

  const std::filesystem::path file(path_);
  const std::string directory = file.has_parent_path() ? file.parent_path().string() : ".";
  struct stat info {};
  if (stat(directory.c_str(), &info) != 0) {
    const int error = errno;
    if (error != ENOENT || !options_.createDirectory) {
      return fail(Failure::unavailable, error,
                  "Key file directory " + directory + " is not usable: " + systemError(error));
    }
    // Only the last level: a wrong parent path should fail, not grow a tree.
    if (mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
      return fail(Failure::unavailable, errno,
                  "Key file directory " + directory + " cannot be created: " + systemError(errno));
    }
    if (stat(directory.c_str(), &info) != 0) {
      return fail(Failure::unavailable, errno,
                  "Key file directory " + directory + " is not usable: " + systemError(errno));
    }
  }
  if (!S_ISDIR(info.st_mode))
    return fail(Failure::unavailable, 0, "Key file directory " + directory + " is no directory");
  if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return fail(Failure::unavailable, 0,
                "Key file directory " + directory + " may be written by others (mode " + octalMode(info.st_mode) +
                    "); give a private one");
  }

  // The file is made here, not by SQLite, which would create it with mode 0644.
  const int fd = ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) {
    return fail(Failure::unavailable, errno,
                "Key file " + path_ + " cannot be opened for writing: " + systemError(errno));
  }
  struct stat fileInfo {};
  std::string problem;
  if (fstat(fd, &fileInfo) != 0) {
    problem = systemError(errno);
  } else if (!S_ISREG(fileInfo.st_mode)) {
    problem = "it is no regular file";
  } else if ((fileInfo.st_mode & 0777) != 0600 && fchmod(fd, 0600) != 0) {
    problem = "its mode cannot be set to 0600: " + systemError(errno);
  }
  ::close(fd);
  if (!problem.empty()) return fail(Failure::unavailable, 0, "Key file " + path_ + " is not usable: " + problem);

  const int code =
      sqlite3_open_v2(path_.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW, nullptr);
  if (code != SQLITE_OK) {
    auto error = failSqlite(code, "opening");
    closeLocked();
    return error;
  }
  sqlite3_extended_result_codes(db_, 1);
  sqlite3_busy_timeout(db_, kBusyTimeoutMilliseconds);
  auto problemAfterOpen = prepareLocked();
  if (problemAfterOpen) closeLocked();
  return problemAfterOpen;
}

ZavloLinuxKeyFile::Problem ZavloLinuxKeyFile::prepareLocked() {
  // Nothing is written into the file before it has proved to be an intact key file (or
  // empty): a damaged or foreign file is refused whole, never repaired or replaced.
  Statement check;
  int code = prepare(db_, "PRAGMA quick_check(1)", check);
  if (code == SQLITE_OK) code = sqlite3_step(check.get());
  if (code != SQLITE_ROW) return failSqlite(code, "checking the file");
  const auto* verdict = reinterpret_cast<const char*>(sqlite3_column_text(check.get(), 0));
  if (verdict == nullptr || std::strcmp(verdict, "ok") != 0) {
    return fail(Failure::damaged, SQLITE_CORRUPT,
                "Key file " + path_ + " is damaged: " + (verdict != nullptr ? verdict : "no verdict"));
  }
  check.reset();

  // Freed content is overwritten, and the rollback journal goes with each transaction;
  // leaving WAL mode also folds a first-format file's WAL in and removes it.
  code = sqlite3_exec(db_, "PRAGMA secure_delete = ON; PRAGMA journal_mode = DELETE;", nullptr, nullptr, nullptr);
  if (code != SQLITE_OK) return failSqlite(code, "opening");

  const auto readFormat = [this](std::int64_t& format, bool& empty) -> Problem {
    Statement version;
    int code = prepare(
        db_, "SELECT (SELECT user_version FROM pragma_user_version), (SELECT count(*) FROM sqlite_schema)", version);
    if (code == SQLITE_OK) code = sqlite3_step(version.get());
    if (code != SQLITE_ROW) return failSqlite(code, "reading the format");
    format = sqlite3_column_int64(version.get(), 0);
    empty = format == 0 && sqlite3_column_int64(version.get(), 1) == 0;
    return std::nullopt;
  };
  std::int64_t format = 0;
  bool empty = false;
  if (auto problem = readFormat(format, empty)) return problem;
  if (format == kFormatVersion) return std::nullopt;
  if (!empty && format != 1) {
    return fail(Failure::damaged, 0,
                "Key file " + path_ + " is no key file of a known format (format " + std::to_string(format) + ")");
  }
  // Another process may be making or converting the tables as well; the write lock
  // decides who does.
  Transaction transaction(db_);
  if ((code = transaction.begin()) != SQLITE_OK) return failSqlite(code, "opening");
  if (auto problem = readFormat(format, empty)) return problem;
  if (empty && (code = sqlite3_exec(db_, kSchema, nullptr, nullptr, nullptr)) != SQLITE_OK) {
    return failSqlite(code, "creating the tables");
  }
  if (format == 1) {
    if (auto problem = migrateFormat1Locked()) return problem;
  }
  if ((code = transaction.commit()) != SQLITE_OK) return failSqlite(code, "opening");
  return std::nullopt;
}

ZavloLinuxKeyFile::Problem ZavloLinuxKeyFile::migrateFormat1Locked() {
  int code = sqlite3_exec(db_, kSchema, nullptr, nullptr, nullptr);
  if (code != SQLITE_OK) return failSqlite(code, "converting the first format");

  // Keys: the tag attribute and the plain key; each keeps working, and is sealed at the
  // owner's next successful prompt.
  Statement keys;
  code = prepare(db_,
                 "SELECT a.value, i.secret FROM items i JOIN attributes a ON a.item = i.id"
                 " WHERE i.class = ?1 AND a.name = 'kSecAttrApplicationTag' AND a.kind = 3 AND i.secret IS NOT NULL",
                 keys);
  if (code == SQLITE_OK) code = sqlite3_bind_text(keys.get(), 1, kFormat1KeyClass, -1, SQLITE_STATIC);
  std::string message;
  while (code == SQLITE_OK && (code = sqlite3_step(keys.get())) == SQLITE_ROW) {
    const auto tag = columnBytes(keys.get(), 0);
    auto der = columnBytes(keys.get(), 1);
    const auto point = ZavloLinuxEcKeys::publicPointOfDer(der);
    code = SQLITE_OK;
    if (point) {
      code = execute(
          db_, "INSERT OR IGNORE INTO keys(tag, protection, public_key, blob) VALUES(?1, 'plain', ?2, ?3)",
          [&](sqlite3_stmt* insert) {
            int bound = bindBytes(insert, 1, tag);
            if (bound == SQLITE_OK) bound = bindBytes(insert, 2, *point);
            if (bound == SQLITE_OK) bound = bindBytes(insert, 3, der);
            return bound;
          },
          message);
    }
    OPENSSL_cleanse(der.data(), der.size());
  }
  if (code != SQLITE_DONE) return failSqlite(code, "converting the first format's keys", message.c_str());
  keys.reset();

  // The first format's domain states digest finger names only, which today's digest never
  // equals: kept, they would invalidate every key at the first look. Its keys count as
  // enrolled without biometrics instead, as the format cannot say more.
  // Deleted row by row first, so that secure_delete zeroes the plain keys' cells.
  code = sqlite3_exec(db_,
                      "DELETE FROM attributes; DELETE FROM items; DROP INDEX IF EXISTS attributes_by_value;"
                      " DROP TABLE attributes; DROP TABLE items; PRAGMA user_version = 2;",
                      nullptr, nullptr, nullptr);
  if (code != SQLITE_OK) return failSqlite(code, "removing the first format's tables");
  return std::nullopt;
}

ZavloLinuxKeyFile::Problem ZavloLinuxKeyFile::writeLocked(const std::string& action,
                                                          const std::function<int(std::string&)>& rows, bool* nothing) {
  if (auto problem = openLocked()) return problem;
  Transaction transaction(db_);
  int code = transaction.begin();
  if (code != SQLITE_OK) return failSqlite(code, action);
  std::string message;
  code = rows(message);
  if (code == SQLITE_NOTFOUND && nothing != nullptr) {
    *nothing = true;
    return std::nullopt;
  }
  // Described before the transaction rolls back, which would replace SQLite's message.
  if (code != SQLITE_OK) return failSqlite(code, action, message.c_str());
  if ((code = transaction.commit()) != SQLITE_OK) return failSqlite(code, action);
  return std::nullopt;
}

ZavloKeyStoreResult<std::optional<ZavloLinuxKeyRecord>> ZavloLinuxKeyFile::find(const ZavloBytes& tag) {
  return locked([&]() -> ZavloKeyStoreResult<std::optional<ZavloLinuxKeyRecord>> {
    if (auto problem = openLocked()) return zavloFailure(std::move(*problem));
    Statement select;
    int code = prepare(db_, "SELECT protection, public_key, blob FROM keys WHERE tag = ?1", select);
    if (code == SQLITE_OK) code = bindBytes(select.get(), 1, tag);
    if (code == SQLITE_OK) code = sqlite3_step(select.get());
    if (code == SQLITE_DONE) return std::optional<ZavloLinuxKeyRecord>();
    if (code != SQLITE_ROW) return zavloFailure(failSqlite(code, "reading a key"));
    const auto* protection = reinterpret_cast<const char*>(sqlite3_column_text(select.get(), 0));
    return std::optional(ZavloLinuxKeyRecord{tag, protection != nullptr ? protection : "", columnBytes(select.get(), 1),
                                             columnBytes(select.get(), 2)});
  });
}

ZavloKeyStoreResult<ZavloVoid> ZavloLinuxKeyFile::insert(const ZavloLinuxKeyRecord& record) {
  return locked([&]() -> ZavloKeyStoreResult<ZavloVoid> {
    auto problem = writeLocked("adding a key", [&](std::string& message) {
      return execute(
          db_, "INSERT INTO keys(tag, protection, public_key, blob) VALUES(?1, ?2, ?3, ?4)",
          [&](sqlite3_stmt* statement) {
            int code = bindBytes(statement, 1, record.tag);
            if (code == SQLITE_OK) code = bindText(statement, 2, record.protection);
            if (code == SQLITE_OK) code = bindBytes(statement, 3, record.publicKey);
            if (code == SQLITE_OK) code = bindBytes(statement, 4, record.blob);
            return code;
          },
          message);
    });
    if (problem) return zavloFailure(std::move(*problem));
    return ZavloVoid{};
  });
}

ZavloKeyStoreResult<ZavloVoid> ZavloLinuxKeyFile::replace(const ZavloLinuxKeyRecord& expected,
                                                          const ZavloLinuxKeyRecord& record) {
  return locked([&]() -> ZavloKeyStoreResult<ZavloVoid> {
    bool nothing = false;
    auto problem = writeLocked(
        "replacing a key",
        [&](std::string& message) {
          const int code = execute(
              db_,
              "UPDATE keys SET protection = ?2, public_key = ?3, blob = ?4"
              " WHERE tag = ?1 AND protection = ?5 AND public_key = ?6 AND blob = ?7",
              [&](sqlite3_stmt* statement) {
                int bound = bindBytes(statement, 1, record.tag);
                if (bound == SQLITE_OK) bound = bindText(statement, 2, record.protection);
                if (bound == SQLITE_OK) bound = bindBytes(statement, 3, record.publicKey);
                if (bound == SQLITE_OK) bound = bindBytes(statement, 4, record.blob);
                if (bound == SQLITE_OK) bound = bindText(statement, 5, expected.protection);
                if (bound == SQLITE_OK) bound = bindBytes(statement, 6, expected.publicKey);
                if (bound == SQLITE_OK) bound = bindBytes(statement, 7, expected.blob);
                return bound;
              },
              message);
          if (code == SQLITE_OK && sqlite3_changes(db_) == 0) return SQLITE_NOTFOUND;
          return code;
        },
        &nothing);
    if (problem) return zavloFailure(std::move(*problem));
    if (nothing) return zavloFailure(fail(Failure::notFound, 0, "Key file " + path_ + ": the key changed meanwhile"));
    return ZavloVoid{};
  });
}

ZavloKeyStoreResult<bool> ZavloLinuxKeyFile::remove(const ZavloBytes& tag) {
  return locked([&]() -> ZavloKeyStoreResult<bool> {
    bool nothing = false;
    auto problem = writeLocked(
        "deleting a key",
        [&](std::string& message) {
          const int code = execute(
              db_, "DELETE FROM keys WHERE tag = ?1",
              [&](sqlite3_stmt* statement) { return bindBytes(statement, 1, tag); }, message);
          if (code == SQLITE_OK && sqlite3_changes(db_) == 0) return SQLITE_NOTFOUND;
          return code;
        },
        &nothing);
    if (problem) return zavloFailure(std::move(*problem));
    return !nothing;
  });
}

ZavloKeyStoreResult<std::optional<ZavloBytes>> ZavloLinuxKeyFile::domainState(const std::string& keyId) {
  return locked([&]() -> ZavloKeyStoreResult<std::optional<ZavloBytes>> {
    if (auto problem = openLocked()) return zavloFailure(std::move(*problem));
    Statement select;
    int code = prepare(db_, "SELECT state FROM domain_states WHERE key_id = ?1", select);
    if (code == SQLITE_OK) code = bindBytes(select.get(), 1, idBytes(keyId));
    if (code == SQLITE_OK) code = sqlite3_step(select.get());
    if (code == SQLITE_DONE) return std::optional<ZavloBytes>();
    if (code != SQLITE_ROW) return zavloFailure(failSqlite(code, "reading a domain state"));
    // A record that is no byte string was not written by this library: it equals nothing.
    if (sqlite3_column_type(select.get(), 0) != SQLITE_BLOB) return std::optional(ZavloBytes{});
    return std::optional(columnBytes(select.get(), 0));
  });
}

ZavloKeyStoreResult<ZavloVoid> ZavloLinuxKeyFile::setDomainState(const std::string& keyId,
                                                                 const std::optional<ZavloBytes>& state) {
  return locked([&]() -> ZavloKeyStoreResult<ZavloVoid> {
    auto problem = writeLocked("writing a domain state", [&](std::string& message) {
      if (!state) {
        return execute(
            db_, "DELETE FROM domain_states WHERE key_id = ?1",
            [&](sqlite3_stmt* statement) { return bindBytes(statement, 1, idBytes(keyId)); }, message);
      }
      return execute(
          db_, "INSERT OR REPLACE INTO domain_states(key_id, state) VALUES(?1, ?2)",
          [&](sqlite3_stmt* statement) {
            int code = bindBytes(statement, 1, idBytes(keyId));
            if (code == SQLITE_OK) code = bindBytes(statement, 2, *state);
            return code;
          },
          message);
    });
    if (problem) return zavloFailure(std::move(*problem));
    return ZavloVoid{};
  });
}
