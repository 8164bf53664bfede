// The Linux key store on real files and processes: the modes of its file and directory,
// keys outliving the object, two processes writing at once, damaged and unreachable
// files, a write failing half-way, and private key bytes never showing in a failure text.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <functional>
#include <iterator>
#include <mutex>
#include <random>
#include <thread>

#include "Platform/Linux/Keys/ZavloLinuxKeychain.hpp"
#include "Platform/Linux/Keys/ZavloLinuxSecureKeys.hpp"
#include "Testing/Contracts/ZavloKeyStoreItems.hpp"
#include "tools/peers/ZavloTemporaryDirectory.hpp"
#include "ZavloEs256.hpp"
#include "ZavloFixedOwnerContext.hpp"

namespace {

using namespace ZavloKeyStoreItems;
namespace Status = ZavloKeychainStatus;
namespace fs = std::filesystem;
constexpr auto kEs256 = ZavloSecureKeys::kSecKeyAlgorithmECDSASignatureMessageX962SHA256;

mode_t modeOf(const fs::path& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

void writeFile(const fs::path& path, const std::string& content) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

void executeSql(const fs::path& file, const std::string& sql) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
  sqlite3_close(db);
}

// A keychain and its keys on one file, with every traced failure text.
struct Store {
  explicit Store(const fs::path& file, bool createDirectory = false)
      : keychain(std::make_shared<ZavloLinuxKeychain>(
            file.string(), ZavloLinuxKeychain::Options{createDirectory, [this](const auto& text) { trace(text); }})),
        keys(keychain) {}

  void trace(const std::string& text) {
    std::lock_guard lock(tracesMutex);
    traces.push_back(text);
  }
  std::shared_ptr<ZavloSecureKey> load(const ZavloBytes& tag) {
    auto answer = keychain->copyMatching(keyReference(tag, std::make_shared<ZavloFixedOwnerContext>(true)));
    return answer.status == Status::success ? std::get<std::shared_ptr<ZavloSecureKey>>(*answer.item) : nullptr;
  }
  ZavloBytes point(const ZavloSecureKey& key) {
    return keys.copyExternalRepresentation(*keys.copyPublicKey(key)).value();
  }
  bool signsAndVerifies(const ZavloBytes& tag) {
    const auto key = load(tag);
    if (key == nullptr) return false;
    const auto signature = keys.createSignature(*key, kEs256, zavloBytes("challenge"));
    return signature && zavloVerifyEs256(point(*key), zavloBytes("challenge"), signature.value());
  }
  std::int32_t status() {
    const auto failure = keychain->lastFailure();
    return failure ? failure->status : Status::success;
  }
  std::string description() {
    const auto failure = keychain->lastFailure();
    return failure ? failure->description : "";
  }

  std::mutex tracesMutex;
  std::vector<std::string> traces;
  std::shared_ptr<ZavloLinuxKeychain> keychain;
  ZavloLinuxSecureKeys keys;
};

ZavloBytes dataOf(ZavloKeychain& keychain, const std::string& service, const std::string& account) {
  auto answer = keychain.copyMatching(with(password(service, account), Key::kSecReturnData, true));
  return answer.status == Status::success ? std::get<ZavloBytes>(*answer.item) : ZavloBytes{0xEE};
}

// Runs body in a child process and answers what it returned; the child never returns.
std::string inChild(const std::function<std::string()>& body) {
  int channel[2];
  if (pipe(channel) != 0) return "pipe failed";
  const pid_t pid = fork();
  if (pid == 0) {
    close(channel[0]);
    const auto text = body();
    (void)!write(channel[1], text.data(), text.size());
    _exit(0);
  }
  close(channel[1]);
  std::string text;
  char buffer[256];
  for (ssize_t n; (n = read(channel[0], buffer, sizeof buffer)) > 0;) text.append(buffer, static_cast<std::size_t>(n));
  close(channel[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? text : "child crashed";
}

TEST(ZavloLinuxKeyStoreTest, PrivateDirectoryAndFileAreMadeAndKeysOutliveTheObject) {
  ZavloTemporaryDirectory base;
  const auto directory = base.path() / "keys";
  const auto file = directory / "keychain.db";
  const auto tag = zavloBytes("tag");
  const mode_t previousMask = umask(0);  // the modes must not depend on the caller's mask
  ZavloBytes point;
  {
    Store store(file, true);
    const auto created = store.keys.createRandomKey(keyAttributes(tag));
    ASSERT_TRUE(created) << created.error().description;
    point = store.point(*created.value());
    ASSERT_EQ(store.keychain->add(password("service", "alice", ZavloBytes{7})), Status::success);
    EXPECT_EQ(modeOf(directory), 0700u);
    for (const auto* suffix : {"", "-wal", "-shm"}) {
      if (fs::exists(file.string() + suffix)) {
        EXPECT_EQ(modeOf(file.string() + suffix), 0600u) << suffix;
      }
    }
  }
  umask(previousMask);

  Store reopened(file);
  const auto key = reopened.load(tag);
  ASSERT_NE(key, nullptr);
  EXPECT_EQ(reopened.point(*key), point);
  EXPECT_TRUE(reopened.signsAndVerifies(tag));
  EXPECT_EQ(dataOf(*reopened.keychain, "service", "alice"), ZavloBytes{7});
}

TEST(ZavloLinuxKeyStoreTest, MissingUnwritableOrSharedDirectoriesFailClearly) {
  ZavloTemporaryDirectory base;
  Store missing(base.path() / "absent" / "keychain.db");
  EXPECT_EQ(missing.keychain->add(password("service", "alice", ZavloBytes{1})), Status::notAvailable);
  EXPECT_EQ(missing.keychain->copyMatching(password("service", "alice")).status, Status::notAvailable);
  const auto key = missing.keys.createRandomKey(keyAttributes(zavloBytes("tag")));
  ASSERT_FALSE(key);
  EXPECT_EQ(key.error().code, Status::notAvailable);
  EXPECT_NE(missing.description().find("absent"), std::string::npos) << missing.description();
  EXPECT_NE(missing.description().find("No such file"), std::string::npos) << missing.description();
  // Only the last level is ever made.
  Store deep(base.path() / "a" / "b" / "keychain.db", true);
  EXPECT_EQ(deep.keychain->remove(password("service", "alice")), Status::notAvailable);
  EXPECT_FALSE(fs::exists(base.path() / "a"));

  fs::create_directory(base.path() / "shared");
  fs::permissions(base.path() / "shared", fs::perms::all);
  Store shared(base.path() / "shared" / "keychain.db");
  EXPECT_EQ(shared.keychain->add(password("service", "alice", ZavloBytes{1})), Status::notAvailable);
  EXPECT_NE(shared.description().find("written by others"), std::string::npos) << shared.description();
  EXPECT_FALSE(fs::exists(base.path() / "shared" / "keychain.db"));

  // Root writes anywhere: the child drops to nobody before it tries.
  const auto readOnly = base.path() / "read-only";
  fs::create_directory(readOnly);
  chmod(readOnly.c_str(), 0555);
  chmod(base.path().c_str(), 0711);
  const auto answer = inChild([&]() -> std::string {
    if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) return "cannot drop privileges";
    Store store(readOnly / "keychain.db");
    return std::to_string(store.keychain->add(password("service", "alice", ZavloBytes{1}))) + " " + store.description();
  });
  EXPECT_EQ(answer.rfind(std::to_string(Status::notAvailable) + " ", 0), 0u) << answer;
  EXPECT_NE(answer.find("Permission denied"), std::string::npos) << answer;
  EXPECT_FALSE(fs::exists(readOnly / "keychain.db"));
}

TEST(ZavloLinuxKeyStoreTest, DamagedOrForeignFilesFailClearlyAndAreLeftAsTheyWere) {
  ZavloTemporaryDirectory base;
  const auto truncated = base.path() / "truncated.db";
  {
    Store store(truncated);
    for (int i = 0; i < 60; ++i) {
      ASSERT_EQ(store.keychain->add(password("service", "account" + std::to_string(i), ZavloBytes(200, 0xAB))), 0);
    }
  }
  std::mt19937 random(7);
  std::string noise(8192, '\0');
  for (auto& byte : noise) byte = static_cast<char>(random());
  // One page in the middle overwritten: the items asked for below may all lie elsewhere.
  auto content = readFile(truncated);
  content.replace(content.size() / 4096 / 2 * 4096, 4096, noise.substr(0, 4096));
  writeFile(base.path() / "overwritten.db", content);
  fs::resize_file(truncated, fs::file_size(truncated) / 2);
  writeFile(base.path() / "noise.db", noise);
  executeSql(base.path() / "foreign.db", "CREATE TABLE notes(text TEXT); INSERT INTO notes VALUES('keep me');");

  for (const auto* name : {"truncated.db", "overwritten.db", "noise.db", "foreign.db"}) {
    SCOPED_TRACE(name);
    const auto file = base.path() / name;
    const auto before = readFile(file);
    {
      Store store(file);
      EXPECT_EQ(store.keychain->copyMatching(password("service", "account1")).status, Status::decode);
      EXPECT_EQ(store.keychain->add(password("service", "new", ZavloBytes{1})), Status::decode);
      EXPECT_EQ(store.keychain->remove(password("service", "account1")), Status::decode);
      EXPECT_FALSE(store.keys.createRandomKey(keyAttributes(zavloBytes("tag"))));
      EXPECT_EQ(store.status(), Status::decode);
      EXPECT_NE(store.description().find(file.string()), std::string::npos) << store.description();
      EXPECT_FALSE(store.traces.empty());
    }
    EXPECT_EQ(readFile(file), before);
  }
}

TEST(ZavloLinuxKeyStoreTest, TwoProcessesWritingAtOnceLoseNothing) {
  ZavloTemporaryDirectory base;
  const auto file = base.path() / "keychain.db";
  constexpr int kPasswords = 25;
  constexpr int kKeys = 3;
  int start[2];
  ASSERT_EQ(pipe(start), 0);
  std::vector<pid_t> children;
  for (int child = 0; child < 2; ++child) {
    const pid_t pid = fork();
    if (pid == 0) {
      close(start[1]);
      char ignored;
      (void)!read(start[0], &ignored, 1);  // returns when the parent closes its end: both go at once
      Store store(file);                   // both make the file and its tables at once, too
      int failures = 0;
      for (int i = 0; i < kPasswords; ++i) {
        const auto data = ZavloBytes{static_cast<std::uint8_t>(child), static_cast<std::uint8_t>(i)};
        failures += store.keychain->add(password("service", std::to_string(child) + "-" + std::to_string(i), data));
      }
      for (int i = 0; i < kKeys; ++i) {
        failures +=
            store.keys.createRandomKey(keyAttributes(zavloBytes(std::to_string(child) + "-" + std::to_string(i)))) ? 0
                                                                                                                   : 1;
      }
      if (failures != 0) fprintf(stderr, "child %d: %s\n", child, store.description().c_str());
      _exit(failures == 0 ? 0 : 1);
    }
    ASSERT_GT(pid, 0);
    children.push_back(pid);
  }
  close(start[0]);
  close(start[1]);
  for (const auto pid : children) {
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }

  Store store(file);
  for (int child = 0; child < 2; ++child) {
    for (int i = 0; i < kPasswords; ++i) {
      EXPECT_EQ(dataOf(*store.keychain, "service", std::to_string(child) + "-" + std::to_string(i)),
                (ZavloBytes{static_cast<std::uint8_t>(child), static_cast<std::uint8_t>(i)}));
    }
    for (int i = 0; i < kKeys; ++i) {
      EXPECT_TRUE(store.signsAndVerifies(zavloBytes(std::to_string(child) + "-" + std::to_string(i))));
    }
  }
}

TEST(ZavloLinuxKeyStoreTest, ThreadsSharingOneObjectLoseNothing) {
  ZavloTemporaryDirectory base;
  Store store(base.path() / "keychain.db");
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&, thread] {
      const auto name = std::to_string(thread);
      for (int i = 0; i < 10; ++i) {
        const auto account = name + "-" + std::to_string(i);
        if (store.keychain->add(password("service", account, zavloBytes(account))) != 0) ++failures;
        if (dataOf(*store.keychain, "service", account) != zavloBytes(account)) ++failures;
      }
      if (!store.keys.createRandomKey(keyAttributes(zavloBytes(name))) || !store.signsAndVerifies(zavloBytes(name))) {
        ++failures;
      }
      if (store.keychain->remove(password("service", name + "-0")) != 0) ++failures;
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(store.keychain->copyMatching(password("service", "3-9")).status, Status::success);
  EXPECT_EQ(store.keychain->copyMatching(password("service", "3-0")).status, Status::itemNotFound);
}

TEST(ZavloLinuxKeyStoreTest, AWriteFailingHalfWayChangesNothing) {
  ZavloTemporaryDirectory base;
  const auto file = base.path() / "keychain.db";
  Store store(file);
  ASSERT_EQ(store.keychain->add(password("service", "alice", ZavloBytes{1})), Status::success);
  ASSERT_EQ(store.keychain->add(with(password("service", "bob", ZavloBytes{2}), "poison", std::string("x"))), 0);
  ASSERT_TRUE(store.keys.createRandomKey(keyAttributes(zavloBytes("tag"))));
  // Below the keychain, rows named "poison" can no longer be written or deleted.
  executeSql(file,
             "CREATE TRIGGER refuse_insert BEFORE INSERT ON attributes WHEN NEW.name = 'poison'"
             " BEGIN SELECT RAISE(ABORT, 'refused by the test'); END;"
             "CREATE TRIGGER refuse_delete BEFORE DELETE ON attributes WHEN OLD.name = 'poison'"
             " BEGIN SELECT RAISE(ABORT, 'refused by the test'); END;");

  // The item row goes in before the refused attribute row; none of it may stay.
  EXPECT_EQ(store.keychain->add(with(password("service", "carol", ZavloBytes{3}), "poison", std::string("x"))),
            Status::io);
  EXPECT_NE(store.description().find("refused by the test"), std::string::npos) << store.description();
  EXPECT_EQ(store.keychain->add(password("service", "carol", ZavloBytes{4})), Status::success);  // no half item
  // alice is deleted before bob refuses; alice must come back.
  EXPECT_EQ(store.keychain->remove({{Key::kSecClass, std::string(Key::kSecClassGenericPassword)},
                                    {Key::kSecAttrService, std::string("service")}}),
            Status::io);
  EXPECT_EQ(dataOf(*store.keychain, "service", "alice"), ZavloBytes{1});
  EXPECT_EQ(dataOf(*store.keychain, "service", "bob"), ZavloBytes{2});
  EXPECT_EQ(dataOf(*store.keychain, "service", "carol"), ZavloBytes{4});
  EXPECT_TRUE(store.signsAndVerifies(zavloBytes("tag")));
}

std::string hex(const ZavloBytes& bytes, bool upper) {
  std::string text;
  for (const auto byte : bytes) {
    char pair[3];
    std::snprintf(pair, sizeof pair, upper ? "%02X" : "%02x", byte);
    text += pair;
  }
  return text;
}

TEST(ZavloLinuxKeyStoreTest, PrivateKeyBytesShowInNoFailureTextAndAreWipedOnDelete) {
  ZavloTemporaryDirectory base;
  const auto file = base.path() / "keychain.db";
  const auto tag = zavloBytes("tag");
  ZavloBytes scalar(32);
  {
    Store store(file);
    const auto created = store.keys.createRandomKey(keyAttributes(tag));
    ASSERT_TRUE(created);
    ASSERT_TRUE(store.keys.createRandomKey(keyAttributes(zavloBytes("stays"))));  // its page is not emptied

    // The stored private key, straight from the file, and its scalar.
    ZavloBytes der;
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
    sqlite3_stmt* select = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(db, "SELECT secret FROM items WHERE class = 'kSecClassKey' ORDER BY id", -1, &select,
                                 nullptr),
              0);
    ASSERT_EQ(sqlite3_step(select), SQLITE_ROW);
    const auto* blob = static_cast<const std::uint8_t*>(sqlite3_column_blob(select, 0));
    der.assign(blob, blob + sqlite3_column_bytes(select, 0));
    sqlite3_finalize(select);
    sqlite3_close(db);
    const unsigned char* cursor = der.data();
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> stored(
        d2i_PrivateKey(EVP_PKEY_EC, nullptr, &cursor, static_cast<long>(der.size())), EVP_PKEY_free);
    ASSERT_NE(stored, nullptr);
    BIGNUM* secret = nullptr;
    ASSERT_EQ(EVP_PKEY_get_bn_param(stored.get(), OSSL_PKEY_PARAM_PRIV_KEY, &secret), 1);
    ASSERT_EQ(BN_bn2binpad(secret, scalar.data(), 32), 32);
    BN_clear_free(secret);
    ZavloBytes storedPoint(65);
    std::size_t length = 0;
    ASSERT_EQ(EVP_PKEY_get_octet_string_param(stored.get(), OSSL_PKEY_PARAM_ENCODED_PUBLIC_KEY, storedPoint.data(),
                                              storedPoint.size(), &length),
              1);
    ASSERT_EQ(storedPoint, store.point(*created.value()));  // these really are the key's bytes

    std::vector<std::string> texts;
    const auto collect = [&](const auto& result) {
      if (!result) texts.push_back(result.error().description);
    };
    collect(store.keys.createRandomKey(keyAttributes(tag)));
    collect(store.keys.createSignature(*created.value(), kEs256, zavloBytes("c")));
    collect(store.keys.createSignature(*store.load(tag), "kSecKeyAlgorithmECDSASignatureDigestX962SHA256", {}));
    EXPECT_EQ(store.keychain->copyMatching(with(key(tag), Key::kSecReturnData, true)).status, Status::param);
    EXPECT_EQ(store.keychain->copyMatching(keyReference(tag, nullptr)).status, Status::interactionNotAllowed);
    texts.insert(texts.end(), store.traces.begin(), store.traces.end());
    ASSERT_GE(texts.size(), 5u);
    for (const auto& text : texts) {
      for (const auto* bytes : {&der, &scalar}) {
        for (const auto& form : {std::string(bytes->begin(), bytes->end()), hex(*bytes, false), hex(*bytes, true)}) {
          EXPECT_EQ(text.find(form), std::string::npos) << text;
        }
      }
    }

    // Deleted key material is overwritten in the file, not merely unlinked from the tree.
    ASSERT_EQ(store.keychain->remove(key(tag)), Status::success);
  }
  const auto content = readFile(file);
  EXPECT_EQ(content.find(std::string(scalar.begin(), scalar.end())), std::string::npos);
}

}  // namespace
