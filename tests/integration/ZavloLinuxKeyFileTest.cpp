// The key file and its sealed keys on real files and processes: the modes of the file and
// its folder, damaged and unreachable files, two processes writing at once, nothing in the
// file that signs or gives a key away, a copy elsewhere that never signs, a store of the
// first format that keeps working and loses its plain keys at the first prompt, and key ids
// that a forked child does not repeat.
#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>
#include <sched.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <mutex>
#include <random>

#include <nlohmann/json.hpp>

#include "Core/ZavloBase64.hpp"
#include "DeviceBinding/ZavloDeviceBindingManager.hpp"
#include "Graph/ZavloAuthenticationGraph.hpp"
#include "Platform/Linux/Keys/ZavloLinuxFileKeyStore.hpp"
#include "Platform/Linux/Keys/ZavloLinuxSealedProtection.hpp"
#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "Testing/ZavloTestKeyStore.hpp"
#include "ZavloEs256.hpp"
#include "ZavloKeyStoreSecrets.hpp"
#include "tools/peers/ZavloTemporaryDirectory.hpp"

namespace {

namespace fs = std::filesystem;
using Failure = ZavloKeyStoreFailure;

constexpr const char* kSecret = "correct horse battery staple";

mode_t modeOf(const fs::path& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

void executeSql(const fs::path& file, const std::string& sql) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
  sqlite3_close(db);
}

// A key file with sealed keys at a low scrypt cost, and every traced failure text.
struct Store {
  explicit Store(const fs::path& file, bool createDirectory = false)
      : file(std::make_shared<ZavloLinuxKeyFile>(
            file.string(), ZavloLinuxKeyFile::Options{createDirectory, [this](const auto& text) { trace(text); }})),
        sealed(std::make_shared<ZavloLinuxSealedProtection>(ZavloLinuxSealedProtection::Cost{10, 8, 1})),
        store(this->file, sealed, sealed) {}

  void trace(const std::string& text) {
    std::lock_guard lock(mutex);
    traces.push_back(text);
  }
  ZavloKeyStoreResult<ZavloBytes> sign(const std::string& tag, std::string_view secret = kSecret) {
    return store.sign(zavloBytes(tag), zavloBytes("challenge"), ZavloTestOwnerProof(secret));
  }
  bool signsAndVerifies(const std::string& tag, const ZavloBytes& point) {
    const auto signature = sign(tag);
    return signature && zavloVerifyEs256(point, zavloBytes("challenge"), signature.value());
  }
  std::optional<Failure> failureOf(const ZavloKeyStoreResult<ZavloBytes>& result) {
    return result ? std::nullopt : std::optional(result.error().failure);
  }

  std::mutex mutex;
  std::vector<std::string> traces;
  std::shared_ptr<ZavloLinuxKeyFile> file;
  std::shared_ptr<ZavloLinuxSealedProtection> sealed;
  ZavloLinuxFileKeyStore store;
};

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

// The public point of a 32-byte scalar, or nothing when it is no valid P-256 scalar.
std::optional<ZavloBytes> pointOf(const unsigned char* scalar, const EC_GROUP* group, BN_CTX* context) {
  const std::unique_ptr<BIGNUM, decltype(&BN_free)> number(BN_bin2bn(scalar, 32, nullptr), BN_free);
  const std::unique_ptr<EC_POINT, decltype(&EC_POINT_free)> point(EC_POINT_new(group), EC_POINT_free);
  if (!number || BN_is_zero(number.get()) || BN_cmp(number.get(), EC_GROUP_get0_order(group)) >= 0) return std::nullopt;
  if (EC_POINT_mul(group, point.get(), number.get(), nullptr, nullptr, context) != 1) return std::nullopt;
  ZavloBytes bytes(65);
  if (EC_POINT_point2oct(group, point.get(), POINT_CONVERSION_UNCOMPRESSED, bytes.data(), bytes.size(), context) !=
      65) {
    return std::nullopt;
  }
  return bytes;
}

// Whether any 32 bytes of content, at any offset, are the private scalar of one of points.
bool holdsAScalarOf(const std::string& content, const std::vector<ZavloBytes>& points) {
  const std::unique_ptr<EC_GROUP, decltype(&EC_GROUP_free)> group(EC_GROUP_new_by_curve_name(NID_X9_62_prime256v1),
                                                                  EC_GROUP_free);
  const std::unique_ptr<BN_CTX, decltype(&BN_CTX_free)> context(BN_CTX_new(), BN_CTX_free);
  const auto* bytes = reinterpret_cast<const unsigned char*>(content.data());
  for (std::size_t offset = 0; offset + 32 <= content.size(); ++offset) {
    const auto point = pointOf(bytes + offset, group.get(), context.get());
    if (point && std::find(points.begin(), points.end(), *point) != points.end()) return true;
  }
  return false;
}

// The store's own files: the file, and a journal or WAL beside it if one is there.
std::string storeFiles(const fs::path& file) {
  std::string content;
  for (const auto* suffix : {"", "-journal", "-wal"}) content += readFile(file.string() + suffix);
  return content;
}

TEST(ZavloLinuxKeyFileTest, PrivateFolderAndFileAreMadeAndKeysOutliveTheObject) {
  ZavloTemporaryDirectory base;
  const auto directory = base.path() / "keys";
  const auto file = directory / "keychain.db";
  const mode_t previousMask = umask(0);  // the modes must not depend on the caller's mask
  ZavloBytes point;
  {
    Store store(file, true);
    const auto created = store.store.createKey(zavloBytes("tag"), ZavloTestOwnerProof(kSecret));
    ASSERT_TRUE(created) << created.error().description;
    point = created.value().publicKey;
    EXPECT_EQ(created.value().location, (ZavloKeyLocation{"sealed", false}));
    ASSERT_TRUE(store.store.setDomainState("k", zavloBytes("state")));
    EXPECT_EQ(modeOf(directory), 0700U);
    EXPECT_EQ(modeOf(file), 0600U);
  }
  umask(previousMask);
  for (const auto* suffix : {"-journal", "-wal"}) EXPECT_FALSE(fs::exists(file.string() + suffix)) << suffix;

  Store reopened(file);
  EXPECT_TRUE(reopened.signsAndVerifies("tag", point));
  EXPECT_EQ(reopened.store.domainState("k").value(), zavloBytes("state"));
}

TEST(ZavloLinuxKeyFileTest, MissingSharedOrUnwritableFoldersAndDamagedFilesFailClearlyAndChangeNothing) {
  ZavloTemporaryDirectory base;
  struct Case {
    fs::path file;
    Failure failure;
    const char* because;
  };
  fs::create_directory(base.path() / "shared");
  fs::permissions(base.path() / "shared", fs::perms::all);
  std::mt19937 random(7);
  std::string noise(8192, '\0');
  for (auto& byte : noise) byte = static_cast<char>(random());
  std::ofstream(base.path() / "noise.db", std::ios::binary) << noise;
  executeSql(base.path() / "foreign.db", "CREATE TABLE notes(text TEXT); INSERT INTO notes VALUES('keep me');");
  executeSql(base.path() / "future.db", "PRAGMA user_version = 9; CREATE TABLE keys(tag BLOB);");
  const std::vector<Case> cases = {
      {base.path() / "absent" / "keychain.db", Failure::unavailable, "No such file"},
      {base.path() / "shared" / "keychain.db", Failure::unavailable, "written by others"},
      {base.path() / "noise.db", Failure::damaged, "noise.db"},
      {base.path() / "foreign.db", Failure::damaged, "known format"},
      {base.path() / "future.db", Failure::damaged, "format 9"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    const auto before = readFile(c.file);
    {
      Store store(c.file);
      const auto created = store.store.createKey(zavloBytes("tag"), ZavloTestOwnerProof(kSecret));
      ASSERT_FALSE(created);
      EXPECT_EQ(created.error().failure, c.failure);
      EXPECT_NE(created.error().description.find(c.because), std::string::npos) << created.error().description;
      EXPECT_EQ(store.store.findKey(zavloBytes("tag")).error().failure, c.failure);
      EXPECT_EQ(store.store.setDomainState("k", zavloBytes("s")).error().failure, c.failure);
      EXPECT_FALSE(store.traces.empty());
    }
    EXPECT_EQ(readFile(c.file), before);
  }
  EXPECT_FALSE(fs::exists(base.path() / "shared" / "keychain.db"));

  // Root writes anywhere: the child drops to nobody before it tries a read-only folder.
  const auto readOnly = base.path() / "read-only";
  fs::create_directory(readOnly);
  chmod(readOnly.c_str(), 0555);
  chmod(base.path().c_str(), 0711);
  const auto answer = inChild([&]() -> std::string {
    if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) return "cannot drop privileges";
    Store store(readOnly / "keychain.db");
    const auto result = store.store.setDomainState("k", zavloBytes("s"));
    return result ? "written" : result.error().description;
  });
  EXPECT_NE(answer.find("Permission denied"), std::string::npos) << answer;
}

TEST(ZavloLinuxKeyFileTest, TwoProcessesWritingAtOnceLoseNothing) {
  ZavloTemporaryDirectory base;
  const auto file = base.path() / "keychain.db";
  constexpr int kRecords = 20;
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
      for (int i = 0; i < kRecords; ++i) {
        const auto id = std::to_string(child) + "-" + std::to_string(i);
        failures += store.store.setDomainState(id, zavloBytes(id)) ? 0 : 1;
      }
      for (int i = 0; i < kKeys; ++i) {
        const auto tag = zavloBytes("key " + std::to_string(child) + "-" + std::to_string(i));
        failures += store.store.createKey(tag, ZavloTestOwnerProof(kSecret)) ? 0 : 1;
      }
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
    for (int i = 0; i < kRecords; ++i) {
      const auto id = std::to_string(child) + "-" + std::to_string(i);
      EXPECT_EQ(store.store.domainState(id).value(), zavloBytes(id));
    }
    for (int i = 0; i < kKeys; ++i) {
      EXPECT_TRUE(store.sign("key " + std::to_string(child) + "-" + std::to_string(i)));
    }
  }
}

TEST(ZavloLinuxKeyFileTest, NothingInTheFileSignsOrGivesAKeyAwayAndADeletedKeyLeavesNoBytes) {
  ZavloTemporaryDirectory base;
  const auto file = base.path() / "keychain.db";
  Store store(file);
  std::vector<ZavloBytes> points;
  for (const auto* tag : {"one", "two"}) {
    const auto created = store.store.createKey(zavloBytes(tag), ZavloTestOwnerProof(kSecret));
    ASSERT_TRUE(created);
    points.push_back(created.value().publicKey);
  }
  ASSERT_TRUE(store.store.setDomainState("one", zavloBytes("fingers")));
  ASSERT_TRUE(store.signsAndVerifies("one", points[0]));

  // Every blob of every column, and every 32-byte window of the whole file.
  EXPECT_TRUE(zavloPrivateKeysInStore(file.string()).empty());
  EXPECT_FALSE(holdsAScalarOf(storeFiles(file), points));
  const auto sealedBlob = store.file->find(zavloBytes("one")).value()->blob;
  ASSERT_FALSE(sealedBlob.empty());
  // Someone who can write the file moves a key under another key's tag: it does not open.
  ASSERT_TRUE(store.store.createKey(zavloBytes("six"), ZavloTestOwnerProof(kSecret)));
  executeSql(file,
             "UPDATE keys SET (public_key, blob) = (SELECT public_key, blob FROM keys WHERE tag = x'6f6e65')"
             " WHERE tag = x'736978'");
  EXPECT_EQ(store.failureOf(store.sign("six")), Failure::ownerRefused);
  ASSERT_TRUE(store.store.deleteKey(zavloBytes("six")).value());  // it holds one's blob now

  ASSERT_TRUE(store.store.deleteKey(zavloBytes("one")).value());
  ASSERT_TRUE(store.store.setDomainState("one", std::nullopt));
  const auto content = storeFiles(file);
  const std::string sealedBytes(sealedBlob.begin() + 6, sealedBlob.end());  // salt, nonce, sealed scalar
  EXPECT_EQ(content.find(sealedBytes), std::string::npos) << "secure_delete and no journal left behind";
  EXPECT_EQ(content.find("fingers"), std::string::npos);
  EXPECT_TRUE(store.signsAndVerifies("two", points[1]));
}

TEST(ZavloLinuxKeyFileTest, ACopyForAnotherUserOrOnAnotherMachineNeverSignsEvenWithTheSecret) {
  ZavloTemporaryDirectory base;
  ZavloBytes point;
  {
    Store store(base.path() / "keychain.db");
    const auto created = store.store.createKey(zavloBytes("tag"), ZavloTestOwnerProof(kSecret));
    ASSERT_TRUE(created);
    point = created.value().publicKey;
  }
  const auto home = base.path() / "other-home";
  fs::create_directory(home);
  fs::copy_file(base.path() / "keychain.db", home / "keychain.db");
  chmod(base.path().c_str(), 0711);
  {
    Store sameUser(home / "keychain.db");
    EXPECT_TRUE(sameUser.signsAndVerifies("tag", point)) << "the same user on the same machine";
  }
  const auto fakeMachineId = base.path() / "machine-id";
  std::ofstream(fakeMachineId) << "0123456789abcdef0123456789abcdef\n";
  struct Case {
    const char* name;
    std::function<std::string()> move;
  };
  const std::vector<Case> cases = {
      {"another user",
       [&]() -> std::string {
         if (chown(home.c_str(), 65534, 65534) != 0 || chown((home / "keychain.db").c_str(), 65534, 65534) != 0 ||
             setgid(65534) != 0 || setuid(65534) != 0) {
           return "cannot become another user";
         }
         return {};
       }},
      {"another machine",
       [&]() -> std::string {
         if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
             mount(fakeMachineId.c_str(), "/etc/machine-id", nullptr, MS_BIND, nullptr) != 0) {
           return "SKIP no mount namespace with another machine id";
         }
         return {};
       }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto answer = inChild([&]() -> std::string {
      if (auto problem = c.move(); !problem.empty()) return problem;
      Store moved(home / "keychain.db");
      const auto signature = moved.sign("tag");
      if (signature) return "signed";
      return moved.store.findKey(zavloBytes("tag")).value() ? "refused, key still there" : "refused, key gone";
    });
    if (answer.starts_with("SKIP")) {
      std::cout << c.name << ": " << answer << '\n';
      continue;
    }
    EXPECT_EQ(answer, "refused, key still there");
  }
}

TEST(ZavloLinuxKeyFileTest, AStoreOfTheFirstFormatStillSignsAndIsSealedAtTheFirstPromptWithASecret) {
  const fs::path fixture = fs::path(ZAVLO_TEST_FIXTURES) / "keychain-format1";
  const auto enrolled = nlohmann::json::parse(readFile(fixture / "enrolled.json"));
  const auto keyId = enrolled.at("keyId").get<std::string>();
  const auto tag = "in.zavlo.authsdk.devicebinding." + keyId;
  const auto spki = ZavloBase64::decode(enrolled.at("publicKey").get<std::string>()).value();
  const ZavloBytes point(spki.end() - 65, spki.end());

  ZavloTemporaryDirectory base;
  const auto file = base.path() / "keychain.db";
  for (const auto* name : {"keychain.db", "keychain.db-wal"}) fs::copy_file(fixture / name, base.path() / name);
  // The plain key, as the first format keeps it: this test knows what it looks for.
  const auto plainKeys = zavloPrivateKeysInStore(file.string());
  ASSERT_EQ(plainKeys.size(), 1U);
  ASSERT_TRUE(holdsAScalarOf(storeFiles(file), {point}));

  Store store(file);
  EXPECT_EQ(store.store.findKey(zavloBytes(tag)).value(), (ZavloKeyLocation{"plain", false}));
  EXPECT_FALSE(store.store.domainState(keyId).value()) << "finger-name digests are not carried over";
  EXPECT_FALSE(fs::exists(file.string() + "-wal"));
  // A prompt without a secret signs, and leaves the key as it was.
  EXPECT_TRUE(store.store.sign(zavloBytes(tag), zavloBytes("c"), ZavloTestOwnerProof()));
  EXPECT_EQ(store.store.findKey(zavloBytes(tag)).value()->store, "plain");

  EXPECT_TRUE(store.signsAndVerifies(tag, point));
  EXPECT_EQ(store.store.findKey(zavloBytes(tag)).value(), (ZavloKeyLocation{"sealed", false}));
  EXPECT_TRUE(zavloPrivateKeysInStore(file.string()).empty());
  const auto content = storeFiles(file);
  EXPECT_FALSE(holdsAScalarOf(content, {point}));
  EXPECT_EQ(content.find(std::string(plainKeys[0].begin(), plainKeys[0].end())), std::string::npos);

  EXPECT_TRUE(store.signsAndVerifies(tag, point)) << "sealed, it signs for the same secret";
  EXPECT_EQ(store.failureOf(store.sign(tag, "another secret")), Failure::ownerRefused);
  EXPECT_EQ(store.failureOf(store.sign(tag, "")), Failure::noOwnerSecret);
}

// Key ids come from a generator that a forked child does not share with its parent.
TEST(ZavloLinuxBindingKeyIds, TwoProcessesForkedFromOneEnrolDifferentKeyIds) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "left to the other builds: ThreadSanitizer cannot follow a child of a threaded process that "
                  "starts threads itself, as the child's owner prompt does";
#endif
  ZavloTemporaryDirectory base;
  std::ofstream(base.path() / "secret") << kSecret << '\n';
  ZavloLinuxPlatform::Options options;
  options.keyFilePath = (base.path() / "keychain.db").string();
  options.ownerAuthentication.mode = ZavloLinuxOwnerAuthentication::Mode::allow;
  options.ownerAuthentication.secretFile = (base.path() / "secret").string();
  ZavloLinuxPlatform platform(std::move(options));
  ZavloAuthenticationGraph graph(platform);
  const auto enrol = [&]() -> std::string {
    std::optional<std::string> keyId;
    graph.deviceBindingManager->enroll(std::nullopt, "T", "S", std::nullopt, std::nullopt, [&](auto result) {
      keyId = result ? result.value().keyId : "failed: " + result.error().errorMessage();
    });
    platform.runLoop().runUntil([&] { return keyId.has_value(); }, std::chrono::seconds(20));
    platform.ownerAuthentication()->waitForEvaluations();
    return keyId.value_or("no answer");
  };
  const auto before = enrol();  // the generator has run in the parent before the fork
  ASSERT_EQ(before.size(), 36U) << before;
  const auto child = inChild(enrol);
  const auto parent = enrol();
  ASSERT_EQ(child.size(), 36U) << child;
  ASSERT_EQ(parent.size(), 36U) << parent;
  EXPECT_NE(child, parent);
  EXPECT_NE(child, before);
}

}  // namespace
