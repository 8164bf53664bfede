#include "Platform/Linux/Keys/ZavloLinuxKeychain.hpp"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <utility>
#include <vector>

#include "Platform/Linux/Keys/ZavloLinuxKeyRequest.hpp"
#include "Platform/Linux/Keys/ZavloLinuxSecureKey.hpp"
#include "Platform/Linux/Keys/ZavloLinuxTracedLock.hpp"
#include "Platform/ZavloOwnerAuthentication.hpp"
#include "Platform/ZavloSecureKeys.hpp"

namespace {

namespace Key = ZavloKeychainKey;
namespace Status = ZavloKeychainStatus;

constexpr int kFormatVersion = 1;
constexpr int kBusyTimeoutMilliseconds = 10'000;

constexpr const char* kSchema =
    "CREATE TABLE items(id INTEGER PRIMARY KEY, class TEXT NOT NULL, identity BLOB NOT NULL, secret BLOB,"
    " UNIQUE(class, identity));"
    "CREATE TABLE attributes(item INTEGER NOT NULL, name TEXT NOT NULL, kind INTEGER NOT NULL, value,"
    " PRIMARY KEY(item, name)) WITHOUT ROWID;"
    "CREATE INDEX attributes_by_value ON attributes(name, value);"
    "PRAGMA user_version = 1;";

enum Kind : int { boolKind = 0, integerKind = 1, textKind = 2, bytesKind = 3, accessControlKind = 4 };

// An attribute value in the form it is stored and bound in.
struct Stored {
  Kind kind = boolKind;
  std::int64_t integer = 0;
  std::string text;  // a text, or an access control as "flags:protection"
  const ZavloBytes* bytes = nullptr;
};

std::optional<Stored> storedForm(const ZavloKeychainValue& value) {
  if (const auto* flag = std::get_if<bool>(&value)) return Stored{boolKind, *flag ? 1 : 0, {}, nullptr};
  if (const auto* number = std::get_if<std::int64_t>(&value)) return Stored{integerKind, *number, {}, nullptr};
  if (const auto* text = std::get_if<std::string>(&value)) return Stored{textKind, 0, *text, nullptr};
  if (const auto* bytes = std::get_if<ZavloBytes>(&value)) return Stored{bytesKind, 0, {}, bytes};
  if (const auto* access = std::get_if<std::shared_ptr<const ZavloAccessControl>>(&value); access && *access) {
    return Stored{accessControlKind, 0, std::to_string((*access)->flags) + ":" + (*access)->protection, nullptr};
  }
  return std::nullopt;  // nested dictionaries and contexts shape calls; they are not stored
}

// Appends one value to an item's identity: kind, length and content, so that no two
// different values encode alike.
void appendIdentity(std::string& identity, const Stored* value) {
  if (value == nullptr) {
    identity += "-;";
    return;
  }
  std::string content = value->text;
  if (value->kind == boolKind || value->kind == integerKind) content = std::to_string(value->integer);
  if (value->kind == bytesKind) content.assign(value->bytes->begin(), value->bytes->end());
  identity += std::to_string(value->kind) + ":" + std::to_string(content.size()) + ":" + content + ";";
}

// A call's attributes, sorted into the item class, the stored attributes and the controls.
struct Parsed {
  std::string itemClass;
  std::vector<std::pair<std::string, Stored>> stored;
  ZavloLinuxKeychainControls controls;

  [[nodiscard]] const Stored* find(std::string_view name) const {
    for (const auto& [storedName, value] : stored) {
      if (storedName == name) return &value;
    }
    return nullptr;
  }
};

// The reason the attributes are malformed, or nothing.
std::optional<std::string> parse(const ZavloKeychainAttributes& attributes, Parsed& parsed) {
  for (const auto& [name, value] : attributes) {
    if (name == Key::kSecClass) {
      const auto* itemClass = std::get_if<std::string>(&value);
      if (itemClass == nullptr || (*itemClass != Key::kSecClassKey && *itemClass != Key::kSecClassGenericPassword)) {
        return "kSecClass must be kSecClassKey or kSecClassGenericPassword";
      }
      parsed.itemClass = *itemClass;
    } else if (ZavloLinuxKeychainControls::isControl(name)) {
      if (auto malformed = parsed.controls.take(name, value)) return malformed;
    } else if (auto stored = storedForm(value)) {
      parsed.stored.emplace_back(name, std::move(*stored));
    } else {
      return name + " has a value of a type the keychain does not store";
    }
  }
  if (parsed.itemClass.empty()) return "kSecClass is missing";
  return std::nullopt;
}

struct StatementDeleter {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, StatementDeleter>;

int prepare(sqlite3* db, const std::string& sql, Statement& statement) {
  sqlite3_stmt* raw = nullptr;
  const int code = sqlite3_prepare_v2(db, sql.c_str(), static_cast<int>(sql.size() + 1), &raw, nullptr);
  statement.reset(raw);
  return code;
}

int bind(sqlite3_stmt* statement, int index, const Stored& value) {
  switch (value.kind) {
    case boolKind:
    case integerKind:
      return sqlite3_bind_int64(statement, index, value.integer);
    case textKind:
    case accessControlKind:
      return sqlite3_bind_text64(statement, index, value.text.data(), value.text.size(), SQLITE_STATIC, SQLITE_UTF8);
    case bytesKind:
      // An empty vector's data() may be null, which SQLite would store as NULL.
      if (value.bytes->empty()) return sqlite3_bind_zeroblob(statement, index, 0);
      return sqlite3_bind_blob64(statement, index, value.bytes->data(), value.bytes->size(), SQLITE_STATIC);
  }
  return SQLITE_MISUSE;
}

// "class = ?1 AND <every stored attribute of the query>", binding from index 2 on.
std::string matchClause(const Parsed& query) {
  std::string clause = "items.class = ?1";
  for (std::size_t i = 0; i < query.stored.size(); ++i) {
    const auto first = std::to_string(2 + 3 * i);
    clause += " AND EXISTS (SELECT 1 FROM attributes a WHERE a.item = items.id AND a.name = ?" + first +
              " AND a.kind = ?" + std::to_string(3 + 3 * i) + " AND a.value IS ?" + std::to_string(4 + 3 * i) + ")";
  }
  return clause;
}

int bindMatch(sqlite3_stmt* statement, const Parsed& query) {
  int code =
      sqlite3_bind_text64(statement, 1, query.itemClass.data(), query.itemClass.size(), SQLITE_STATIC, SQLITE_UTF8);
  for (std::size_t i = 0; i < query.stored.size() && code == SQLITE_OK; ++i) {
    const auto& [name, value] = query.stored[i];
    const int first = static_cast<int>(2 + 3 * i);
    code = sqlite3_bind_text64(statement, first, name.data(), name.size(), SQLITE_STATIC, SQLITE_UTF8);
    if (code == SQLITE_OK) code = sqlite3_bind_int(statement, first + 1, value.kind);
    if (code == SQLITE_OK) code = bind(statement, first + 2, value);
  }
  return code;
}

// The one mapping of SQLite result codes (extended) to keychain statuses.
std::int32_t statusFor(int code) {
  if (code == SQLITE_IOERR_SHORT_READ) return Status::decode;  // a file shorter than it says it is
  switch (code & 0xff) {
    case SQLITE_OK:
    case SQLITE_DONE:
    case SQLITE_ROW:
      return Status::success;
    case SQLITE_CONSTRAINT:
      return code == SQLITE_CONSTRAINT_UNIQUE || code == SQLITE_CONSTRAINT_PRIMARYKEY ? Status::duplicateItem
                                                                                      : Status::io;
    case SQLITE_NOTADB:
    case SQLITE_CORRUPT:
    case SQLITE_FORMAT:
      return Status::decode;
    case SQLITE_CANTOPEN:
    case SQLITE_PERM:
    case SQLITE_AUTH:
      return Status::notAvailable;
    default:  // busy past the time-out, read-only, full, I/O errors, out of memory
      return Status::io;
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

// The row writers answer SQLITE_OK or the failing code with SQLite's message, taken while
// the failing statement lives (finalising another one would replace it).
int failure(sqlite3* db, int code, std::string& message) {
  message = sqlite3_errmsg(db);
  return code;
}

// Inserts one item with its attributes.
int insertItem(sqlite3* db, const Parsed& parsed, const std::string& identity, const unsigned char* secret,
               std::size_t secretSize, std::string& message) {
  Statement item;
  int code = prepare(db, "INSERT INTO items(class, identity, secret) VALUES(?1, ?2, ?3)", item);
  if (code == SQLITE_OK) {
    code = sqlite3_bind_text64(item.get(), 1, parsed.itemClass.data(), parsed.itemClass.size(), SQLITE_STATIC,
                               SQLITE_UTF8);
  }
  if (code == SQLITE_OK) code = sqlite3_bind_blob64(item.get(), 2, identity.data(), identity.size(), SQLITE_STATIC);
  if (code == SQLITE_OK && secret != nullptr)
    code = sqlite3_bind_blob64(item.get(), 3, secret, secretSize, SQLITE_STATIC);
  if (code == SQLITE_OK) code = sqlite3_step(item.get());
  if (code != SQLITE_DONE) return failure(db, code, message);
  const auto id = sqlite3_last_insert_rowid(db);

  Statement attribute;
  code = prepare(db, "INSERT INTO attributes(item, name, kind, value) VALUES(?1, ?2, ?3, ?4)", attribute);
  for (const auto& [name, value] : parsed.stored) {
    if (code != SQLITE_OK) break;
    sqlite3_reset(attribute.get());
    code = sqlite3_bind_int64(attribute.get(), 1, id);
    if (code == SQLITE_OK) {
      code = sqlite3_bind_text64(attribute.get(), 2, name.data(), name.size(), SQLITE_STATIC, SQLITE_UTF8);
    }
    if (code == SQLITE_OK) code = sqlite3_bind_int(attribute.get(), 3, value.kind);
    if (code == SQLITE_OK) code = bind(attribute.get(), 4, value);
    if (code == SQLITE_OK && (code = sqlite3_step(attribute.get())) == SQLITE_DONE) code = SQLITE_OK;
  }
  return code == SQLITE_OK ? code : failure(db, code, message);
}

// Deletes every item matching the query; SQLITE_NOTFOUND when none does.
int deleteMatches(sqlite3* db, const Parsed& query, std::string& message) {
  std::vector<std::int64_t> ids;
  Statement select;
  int code = prepare(db, "SELECT items.id FROM items WHERE " + matchClause(query), select);
  if (code == SQLITE_OK) code = bindMatch(select.get(), query);
  while (code == SQLITE_OK && (code = sqlite3_step(select.get())) == SQLITE_ROW) {
    ids.push_back(sqlite3_column_int64(select.get(), 0));
    code = SQLITE_OK;
  }
  if (code != SQLITE_DONE) return failure(db, code, message);
  if (ids.empty()) return SQLITE_NOTFOUND;

  Statement attributes;
  Statement items;
  code = prepare(db, "DELETE FROM attributes WHERE item = ?1", attributes);
  if (code == SQLITE_OK) code = prepare(db, "DELETE FROM items WHERE id = ?1", items);
  for (const auto id : ids) {
    for (auto* statement : {attributes.get(), items.get()}) {
      if (code != SQLITE_OK) return failure(db, code, message);
      sqlite3_reset(statement);
      code = sqlite3_bind_int64(statement, 1, id);
      if (code == SQLITE_OK && (code = sqlite3_step(statement)) == SQLITE_DONE) code = SQLITE_OK;
    }
  }
  return code == SQLITE_OK ? code : failure(db, code, message);
}

std::string systemError(int error) { return std::strerror(error); }

std::string octalMode(mode_t mode) {
  char text[8];
  std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
  return text;
}

}  // namespace

template <class Body>
auto ZavloLinuxKeychain::locked(Body&& body) {
  return zavloLockedThenTraced(mutex_, pendingTrace_, options_.trace, std::forward<Body>(body));
}

ZavloLinuxKeychain::ZavloLinuxKeychain(std::string path, Options options)
    : path_(std::move(path)), options_(std::move(options)) {
  locked([this] { return openLocked(); });
}

ZavloLinuxKeychain::~ZavloLinuxKeychain() { closeLocked(); }

std::optional<ZavloLinuxKeychain::Failure> ZavloLinuxKeychain::lastFailure() const {
  std::lock_guard lock(mutex_);
  return lastFailure_;
}

std::int32_t ZavloLinuxKeychain::fail(std::int32_t status, std::string description) {
  lastFailure_ = Failure{status, description};
  pendingTrace_ = std::move(description);
  return status;
}

std::int32_t ZavloLinuxKeychain::failSqlite(int code, const std::string& action, const char* message) {
  // SQLite's messages never quote bound values, so no item's content reaches the text.
  if (message == nullptr) message = db_ != nullptr ? sqlite3_errmsg(db_) : sqlite3_errstr(code);
  return fail(statusFor(code), "Keychain " + path_ + ": " + action + " failed: " + message + " (SQLite code " +
                                   std::to_string(code) + ")");
}

void ZavloLinuxKeychain::closeLocked() {
  if (db_ != nullptr) sqlite3_close_v2(db_);
  db_ = nullptr;
}

std::int32_t ZavloLinuxKeychain::readFormat(bool& empty) {
  Statement version;
  int code = prepare(db_, "SELECT (SELECT user_version FROM pragma_user_version), (SELECT count(*) FROM sqlite_schema)",
                     version);
  if (code == SQLITE_OK) code = sqlite3_step(version.get());
  if (code != SQLITE_ROW) return failSqlite(code, "reading the format");
  const auto format = sqlite3_column_int64(version.get(), 0);
  empty = format == 0 && sqlite3_column_int64(version.get(), 1) == 0;
  if (!empty && format != kFormatVersion) {
    return fail(Status::decode,
                "Keychain " + path_ + " is no keychain of a known format (format " + std::to_string(format) + ")");
  }
  return Status::success;
}

std::int32_t ZavloLinuxKeychain::openLocked() {
  if (db_ != nullptr) return Status::success;
  if (path_.empty()) return fail(Status::notAvailable, "Keychain: no file path was given");

  const std::filesystem::path file(path_);
  const std::string directory = file.has_parent_path() ? file.parent_path().string() : ".";
  struct stat info {};
  if (stat(directory.c_str(), &info) != 0) {
    const int error = errno;
    if (error != ENOENT || !options_.createDirectory) {
      return fail(Status::notAvailable, "Keychain directory " + directory + " is not usable: " + systemError(error));
    }
    // Only the last level: a wrong parent path should fail, not grow a tree.
    if (mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
      return fail(Status::notAvailable,
                  "Keychain directory " + directory + " cannot be created: " + systemError(errno));
    }
    if (stat(directory.c_str(), &info) != 0) {
      return fail(Status::notAvailable, "Keychain directory " + directory + " is not usable: " + systemError(errno));
    }
  }
  if (!S_ISDIR(info.st_mode)) return fail(Status::notAvailable, "Keychain directory " + directory + " is no directory");
  if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return fail(Status::notAvailable, "Keychain directory " + directory + " may be written by others (mode " +
                                          octalMode(info.st_mode) + "); give a private one");
  }

  // The file is made here, not by SQLite, which would create it with mode 0644.
  const int fd = ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) {
    return fail(Status::notAvailable,
                "Keychain file " + path_ + " cannot be opened for writing: " + systemError(errno));
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
  if (!problem.empty()) return fail(Status::notAvailable, "Keychain file " + path_ + " is not usable: " + problem);

  int code =
      sqlite3_open_v2(path_.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW, nullptr);
  if (code != SQLITE_OK) {
    const auto status = failSqlite(code, "opening");
    closeLocked();
    return status;
  }
  sqlite3_extended_result_codes(db_, 1);
  sqlite3_busy_timeout(db_, kBusyTimeoutMilliseconds);

  const auto status = [&]() -> std::int32_t {
    // Nothing is written into the file before it has proved to be an intact keychain (or
    // empty): a damaged or foreign file is refused whole, never repaired or replaced, so
    // nothing in it is lost.
    Statement check;
    code = prepare(db_, "PRAGMA quick_check(1)", check);
    if (code == SQLITE_OK) code = sqlite3_step(check.get());
    if (code != SQLITE_ROW) return failSqlite(code, "checking the file");
    const auto* verdict = reinterpret_cast<const char*>(sqlite3_column_text(check.get(), 0));
    if (verdict == nullptr || std::strcmp(verdict, "ok") != 0) {
      return fail(Status::decode,
                  "Keychain " + path_ + " is damaged: " + (verdict != nullptr ? verdict : "no verdict"));
    }
    check.reset();
    bool empty = false;
    if (const auto status = readFormat(empty); status != Status::success) return status;

    code = sqlite3_exec(db_, "PRAGMA journal_mode = WAL; PRAGMA secure_delete = ON;", nullptr, nullptr, nullptr);
    if (code != SQLITE_OK) return failSqlite(code, "opening");
    if (!empty) return Status::success;
    // Another process may be making the tables as well; the write lock decides who does.
    Transaction transaction(db_);
    if ((code = transaction.begin()) != SQLITE_OK) return failSqlite(code, "opening");
    if (const auto status = readFormat(empty); status != Status::success) return status;
    if (empty && (code = sqlite3_exec(db_, kSchema, nullptr, nullptr, nullptr)) != SQLITE_OK) {
      return failSqlite(code, "creating the tables");
    }
    if ((code = transaction.commit()) != SQLITE_OK) return failSqlite(code, "opening");
    return Status::success;
  }();
  if (status != Status::success) closeLocked();
  return status;
}

ZavloKeychainQueryResult ZavloLinuxKeychain::copyMatching(const ZavloKeychainAttributes& query) {
  Parsed parsed;
  const auto malformed = parse(query, parsed);
  // Asked before the lock is taken: the context is another object's business.
  const bool authenticated = parsed.controls.context != nullptr && parsed.controls.context->isAuthenticated();
  return locked([&]() -> ZavloKeychainQueryResult {
    if (malformed) return {fail(Status::param, "Keychain query: " + *malformed), std::nullopt};
    const bool isKey = parsed.itemClass == Key::kSecClassKey;
    if (parsed.controls.returnRef && parsed.controls.returnData) {
      return {fail(Status::param, "Keychain query: ask for data or for a key reference, not both"), std::nullopt};
    }
    if (parsed.controls.returnData && isKey) {
      return {fail(Status::param, "Keychain query: a private key is never returned as data"), std::nullopt};
    }
    if (parsed.controls.returnRef && !isKey) {
      return {fail(Status::param, "Keychain query: only keys are returned as references"), std::nullopt};
    }
    if (const auto status = openLocked(); status != Status::success) return {status, std::nullopt};

    // The key's material is read only for an owner who has authenticated.
    const bool readSecret = parsed.controls.returnRef && authenticated;
    Statement select;
    int code = prepare(db_,
                       std::string("SELECT ") + (readSecret ? "items.secret" : "NULL") +
                           ", (SELECT value FROM attributes WHERE item = items.id AND name = 'kSecValueData' AND"
                           " kind = 3) FROM items WHERE " +
                           matchClause(parsed) + " ORDER BY items.id LIMIT 1",
                       select);
    if (code == SQLITE_OK) code = bindMatch(select.get(), parsed);
    if (code == SQLITE_OK) code = sqlite3_step(select.get());
    if (code == SQLITE_DONE) return {Status::itemNotFound, std::nullopt};
    if (code != SQLITE_ROW) return {failSqlite(code, "query"), std::nullopt};

    if (parsed.controls.returnData) {
      const auto* data = static_cast<const std::uint8_t*>(sqlite3_column_blob(select.get(), 1));
      const auto size = static_cast<std::size_t>(sqlite3_column_bytes(select.get(), 1));
      return {Status::success, ZavloKeychainItem(ZavloBytes(data, data + size))};
    }
    if (!parsed.controls.returnRef) return {Status::success, std::nullopt};
    if (!authenticated) {
      return {fail(Status::interactionNotAllowed,
                   "Keychain query: the key is used only through a context whose owner has authenticated"),
              std::nullopt};
    }
    auto key = ZavloLinuxSecureKey::fromMaterial(sqlite3_column_blob(select.get(), 0),
                                                 static_cast<std::size_t>(sqlite3_column_bytes(select.get(), 0)),
                                                 parsed.controls.context);
    if (key == nullptr) {
      return {fail(Status::decode, "Keychain " + path_ + ": a stored key is not a readable P-256 key"), std::nullopt};
    }
    return {Status::success, ZavloKeychainItem(std::shared_ptr<ZavloSecureKey>(std::move(key)))};
  });
}

std::int32_t ZavloLinuxKeychain::writeLocked(const std::string& action, const std::function<int(std::string&)>& rows) {
  if (const auto status = openLocked(); status != Status::success) return status;
  Transaction transaction(db_);
  int code = transaction.begin();
  if (code != SQLITE_OK) return failSqlite(code, action);
  std::string message;
  code = rows(message);
  if (code == SQLITE_NOTFOUND) return Status::itemNotFound;
  // Described before the transaction rolls back, which would replace SQLite's message.
  if (code != SQLITE_OK) return failSqlite(code, action, message.c_str());
  if ((code = transaction.commit()) != SQLITE_OK) return failSqlite(code, action);
  return Status::success;
}

std::int32_t ZavloLinuxKeychain::add(const ZavloKeychainAttributes& attributes) {
  return locked([&]() -> std::int32_t {
    Parsed parsed;
    if (const auto malformed = parse(attributes, parsed)) return fail(Status::param, "Keychain add: " + *malformed);
    if (parsed.controls.present) return fail(Status::param, "Keychain add: an item holds no control attributes");
    if (parsed.itemClass == Key::kSecClassKey) {
      return fail(Status::param, "Keychain add: keys are made by the key store, not added");
    }
    if (const auto* data = parsed.find(Key::kSecValueData); data != nullptr && data->kind != bytesKind) {
      return fail(Status::param, "Keychain add: kSecValueData must be bytes");
    }
    std::string identity;
    appendIdentity(identity, parsed.find(Key::kSecAttrService));
    appendIdentity(identity, parsed.find(Key::kSecAttrAccount));
    return writeLocked("add",
                       [&](std::string& message) { return insertItem(db_, parsed, identity, nullptr, 0, message); });
  });
}

std::int32_t ZavloLinuxKeychain::addKey(const ZavloKeychainAttributes& attributes, const ZavloLinuxSecureKey& key) {
  return locked([&]() -> std::int32_t {
    ZavloKeychainAttributes item = attributes;
    item[Key::kSecClass] = std::string(Key::kSecClassKey);
    Parsed parsed;
    if (const auto malformed = parse(item, parsed)) return fail(Status::param, "Keychain add key: " + *malformed);
    if (parsed.controls.present) return fail(Status::param, "Keychain add key: an item holds no control attributes");
    const auto* tag = parsed.find(Key::kSecAttrApplicationTag);
    if (tag == nullptr || tag->kind != bytesKind) {
      return fail(Status::param, "Keychain add key: kSecAttrApplicationTag (bytes) is required");
    }
    std::string identity;
    appendIdentity(identity, tag);
    const auto material = key.material();
    if (material == nullptr) return fail(Status::param, "Keychain add key: the key cannot be encoded");
    return writeLocked("add key", [&](std::string& message) {
      return insertItem(db_, parsed, identity, material->data(), material->size(), message);
    });
  });
}

std::int32_t ZavloLinuxKeychain::remove(const ZavloKeychainAttributes& query) {
  return locked([&]() -> std::int32_t {
    Parsed parsed;
    if (const auto malformed = parse(query, parsed)) return fail(Status::param, "Keychain delete: " + *malformed);
    return writeLocked("delete", [&](std::string& message) { return deleteMatches(db_, parsed, message); });
  });
}
