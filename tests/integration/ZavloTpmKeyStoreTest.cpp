// The TPM key store on a TPM of the test's own (swtpm): what the TPM holds, what the key
// file holds, and how the store answers another TPM, a damaged blob, a wrong secret, the
// TPM's lockout and a TPM that goes away. tpm2-tools look at the keys from outside.
#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/obj_mac.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Platform/Linux/Keys/ZavloLinuxFileKeyStore.hpp"
#include "Platform/Linux/Keys/ZavloLinuxTpmProtection.hpp"
#include "Platform/Linux/ZavloLinuxPlatformServices.hpp"
#include "Testing/Network/ZavloSwtpm.hpp"
#include "Testing/ZavloTestKeyStore.hpp"
#include "ZavloEs256.hpp"
#include "ZavloKeyStoreSecrets.hpp"

namespace {

using Failure = ZavloKeyStoreFailure;

const std::string kSecret = "correct horse battery staple";
const ZavloBytes kTag = zavloBytes("in.zavlo.authsdk.devicebinding.T1");
const ZavloBytes kChallenge = zavloBytes("3f9a1c7e-challenge");

class ZavloTpmKeyStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const auto why = ZavloSwtpm::toolsUnavailable()) GTEST_SKIP() << *why;
    ASSERT_TRUE(tpm.running()) << "swtpm did not start";
  }

  // A store on the TPM over the test's key file.
  [[nodiscard]] std::unique_ptr<ZavloLinuxFileKeyStore> store() const {
    return std::make_unique<ZavloLinuxFileKeyStore>(std::make_shared<ZavloLinuxKeyFile>(path()),
                                                    std::make_shared<ZavloLinuxTpmProtection>(tpm.tcti()),
                                                    std::make_shared<ZavloLinuxSealedProtection>());
  }
  [[nodiscard]] std::string path() const { return (tpm.folder() / "keychain.db").string(); }
  [[nodiscard]] ZavloLinuxKeyRecord record(const ZavloBytes& tag = kTag) const {
    return ZavloLinuxKeyFile(path()).find(tag).value().value();
  }
  // Runs a tpm2-tools program and answers its output; a failure fails the test. The tools
  // leave their objects loaded, and swtpm holds three: they are flushed after each.
  std::string tool(const std::vector<std::string>& arguments) const {
    const auto result = tpm.tool(arguments);
    EXPECT_EQ(result.exitStatus, 0) << arguments.front() << ": " << result.standardError;
    EXPECT_EQ(tpm.tool({"tpm2_flushcontext", "-t"}).exitStatus, 0);
    return result.standardOutput;
  }
  template <class T>
  static std::optional<Failure> failureOf(const ZavloKeyStoreResult<T>& result) {
    return result ? std::nullopt : std::optional(result.error().failure);
  }

  ZavloSwtpm tpm;
};

TEST_F(ZavloTpmKeyStoreTest, TheKeyIsAFixedSigningKeyOfTheTpmUnderItsStorageKey) {
  // Without an SRK the store makes the standard primary, which tpm2-tools make again; with
  // one (RSA here, unlike that primary) the key loads only under the SRK.
  const std::string storage = "fixedtpm|fixedparent|sensitivedataorigin|userwithauth|noda|restricted|decrypt";
  struct Case {
    const char* name;
    std::vector<std::string> srk;
    std::string parent;
  } cases[] = {
      {"standard primary", {}, "primary.ctx"},
      {"persistent SRK",
       {"tpm2_createprimary", "-C", "o", "-G", "rsa2048:aes128cfb", "-a", storage, "-c"},
       "0x81000001"},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.name);
    ASSERT_TRUE(tpm.restartEmpty());
    const auto file = [&](const char* name) { return (tpm.folder() / name).string(); };
    if (!test.srk.empty()) {
      auto make = test.srk;
      make.push_back(file("srk.ctx"));
      tool(make);
      tool({"tpm2_evictcontrol", "-C", "o", "-c", file("srk.ctx"), "0x81000001"});
    }
    std::filesystem::remove(path());
    ASSERT_TRUE(store()->createKey(kTag, ZavloTestOwnerProof(kSecret)));
    const auto wrapped = ZavloLinuxTpmProtection::unwrap(record().blob);
    ASSERT_TRUE(wrapped);
    std::ofstream(file("key.pub"), std::ios::binary)
        .write(reinterpret_cast<const char*>(wrapped->publicArea.data()),
               static_cast<std::streamsize>(wrapped->publicArea.size()));
    std::ofstream(file("key.priv"), std::ios::binary)
        .write(reinterpret_cast<const char*>(wrapped->privateArea.data()),
               static_cast<std::streamsize>(wrapped->privateArea.size()));
    const std::string parent = test.srk.empty() ? file(test.parent.c_str()) : test.parent;
    if (test.srk.empty()) {
      tool({"tpm2_createprimary", "-C", "o", "-G", "ecc256:aes128cfb", "-g", "sha256", "-a", storage, "-c", parent});
    }
    tool({"tpm2_load", "-C", parent, "-u", file("key.pub"), "-r", file("key.priv"), "-c", file("key.ctx")});
    const auto shown = tool({"tpm2_readpublic", "-c", file("key.ctx")});
    EXPECT_NE(shown.find("value: fixedtpm|fixedparent|sensitivedataorigin|userwithauth|sign\n"), std::string::npos)
        << shown;
    EXPECT_NE(shown.find("curve-id:\n  value: NIST p256"), std::string::npos) << shown;
  }
}

TEST_F(ZavloTpmKeyStoreTest, TheKeyFileHoldsNoPrivateKey) {
  std::vector<ZavloBytes> points;
  {
    const auto keys = store();
    for (const auto* tag : {"one", "two"})
      points.push_back(keys->createKey(zavloBytes(tag), ZavloTestOwnerProof(kSecret)).value().publicKey);
  }
  EXPECT_TRUE(zavloPrivateKeysInStore(path()).empty());
  // No 32 bytes anywhere in the file are the scalar of an enrolled key.
  std::ifstream in(path(), std::ios::binary);
  const ZavloBytes bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  ASSERT_GT(bytes.size(), 32U);
  const std::unique_ptr<EC_GROUP, decltype(&EC_GROUP_free)> group(EC_GROUP_new_by_curve_name(NID_X9_62_prime256v1),
                                                                  EC_GROUP_free);
  const std::unique_ptr<EC_POINT, decltype(&EC_POINT_free)> point(EC_POINT_new(group.get()), EC_POINT_free);
  const std::unique_ptr<BIGNUM, decltype(&BN_free)> scalar(BN_new(), BN_free);
  const std::unique_ptr<BN_CTX, decltype(&BN_CTX_free)> context(BN_CTX_new(), BN_CTX_free);
  std::size_t tried = 0;
  for (std::size_t offset = 0; offset + 32 <= bytes.size(); ++offset) {
    BN_bin2bn(bytes.data() + offset, 32, scalar.get());
    if (BN_is_zero(scalar.get()) || BN_cmp(scalar.get(), EC_GROUP_get0_order(group.get())) >= 0) continue;
    ++tried;
    ZavloBytes encoded(65);
    EC_POINT_mul(group.get(), point.get(), scalar.get(), nullptr, nullptr, context.get());
    EC_POINT_point2oct(group.get(), point.get(), POINT_CONVERSION_UNCOMPRESSED, encoded.data(), encoded.size(),
                       context.get());
    for (const auto& enrolled : points) ASSERT_NE(encoded, enrolled) << "a private key at offset " << offset;
  }
  EXPECT_GT(tried, 0U);
}

TEST_F(ZavloTpmKeyStoreTest, ABlobThisTpmCannotUseIsDamagedAndStays) {
  // Each arrangement changes the key's blob in the file, or the TPM under it.
  const auto rewrite = [this](ZavloBytes blob) {
    auto changed = record();
    changed.blob = std::move(blob);
    ASSERT_TRUE(ZavloLinuxKeyFile(path()).replace(record(), changed));
  };
  struct Case {
    const char* name;
    std::function<void()> arrange;
  } cases[] = {
      {"another TPM", [this] { ASSERT_TRUE(tpm.restartEmpty()); }},
      {"private part altered",
       [&] {
         auto blob = record().blob;
         blob.back() ^= 1;
         rewrite(blob);
       }},
      {"truncated",
       [&] {
         auto blob = record().blob;
         blob.pop_back();
         rewrite(blob);
       }},
      {"unknown version",
       [&] {
         auto blob = record().blob;
         blob[0] = 2;
         rewrite(blob);
       }},
      {"another key's blob", [&] { rewrite(record(zavloBytes("other")).blob); }},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.name);
    std::filesystem::remove(path());
    {
      const auto keys = store();
      ASSERT_TRUE(keys->createKey(kTag, ZavloTestOwnerProof(kSecret)));
      ASSERT_TRUE(keys->createKey(zavloBytes("other"), ZavloTestOwnerProof(kSecret)));
    }
    test.arrange();
    const auto keys = store();
    const auto signature = keys->sign(kTag, kChallenge, ZavloTestOwnerProof(kSecret));
    EXPECT_EQ(failureOf(signature), Failure::damaged) << (signature ? "" : signature.error().description);
    EXPECT_TRUE(keys->findKey(kTag).value().has_value());
  }
}

TEST_F(ZavloTpmKeyStoreTest, WrongSecretsAreRefusedUntilTheTpmLocksEveryoneOut) {
  constexpr int kMaxTries = 2;
  tool({"tpm2_dictionarylockout", "-s", "-n", std::to_string(kMaxTries), "-t", "1000", "-l", "1000"});
  const auto keys = store();
  const auto point = keys->createKey(kTag, ZavloTestOwnerProof(kSecret)).value().publicKey;
  const auto signature = keys->sign(kTag, kChallenge, ZavloTestOwnerProof(kSecret));
  ASSERT_TRUE(signature);
  EXPECT_TRUE(zavloVerifyEs256(point, kChallenge, signature.value()));
  // No secret at all is answered before the TPM, and costs no try.
  EXPECT_EQ(failureOf(keys->createKey(zavloBytes("none"), ZavloTestOwnerProof())), Failure::noOwnerSecret);
  for (int attempt = 0; attempt <= kMaxTries; ++attempt) {
    EXPECT_EQ(failureOf(keys->sign(kTag, kChallenge, ZavloTestOwnerProof())), Failure::noOwnerSecret);
  }
  for (int attempt = 0; attempt < kMaxTries; ++attempt) {
    EXPECT_EQ(failureOf(keys->sign(kTag, kChallenge, ZavloTestOwnerProof(kSecret + "!"))), Failure::ownerRefused);
  }
  for (const auto& secret : {kSecret + "!", kSecret}) {
    EXPECT_EQ(failureOf(keys->sign(kTag, kChallenge, ZavloTestOwnerProof(secret))), Failure::lockedOut);
  }
  EXPECT_TRUE(keys->findKey(kTag).value().has_value());
}

TEST_F(ZavloTpmKeyStoreTest, ATpmThatGoesAwayIsUnavailableUntilItIsBack) {
  const auto keys = store();
  const auto point = keys->createKey(kTag, ZavloTestOwnerProof(kSecret)).value().publicKey;
  tpm.stop();
  EXPECT_EQ(failureOf(keys->sign(kTag, kChallenge, ZavloTestOwnerProof(kSecret))), Failure::unavailable);
  EXPECT_EQ(failureOf(keys->createKey(zavloBytes("while away"), ZavloTestOwnerProof(kSecret))), Failure::unavailable);
  ASSERT_TRUE(tpm.start());
  const auto signature = keys->sign(kTag, kChallenge, ZavloTestOwnerProof(kSecret));
  ASSERT_TRUE(signature) << signature.error().description;
  EXPECT_TRUE(zavloVerifyEs256(point, kChallenge, signature.value()));
}

TEST_F(ZavloTpmKeyStoreTest, CallersOnManyThreadsTakeTurnsOnTheTpm) {
  const auto keys = store();
  const auto point = keys->createKey(kTag, ZavloTestOwnerProof(kSecret)).value().publicKey;
  std::atomic<int> verified = 0;
  std::vector<std::thread> callers;
  for (int caller = 0; caller < 4; ++caller) {
    callers.emplace_back([&] {
      for (int round = 0; round < 3; ++round) {
        const auto signature = keys->sign(kTag, kChallenge, ZavloTestOwnerProof(kSecret));
        if (signature && zavloVerifyEs256(point, kChallenge, signature.value())) ++verified;
      }
    });
  }
  for (auto& caller : callers) caller.join();
  EXPECT_EQ(verified, 12);
}

TEST_F(ZavloTpmKeyStoreTest, TheFactoryMakesTpmKeysWhereATpmIsNamed) {
  std::vector<std::string> traced;
  ZavloLinuxKeyStoreSettings settings{.path = path(),
                                      .file = {.trace = [&traced](const std::string& line) { traced.push_back(line); }},
                                      .tpm = tpm.tcti()};
  auto named = zavloLinuxKeyStoreFactory(settings);
  EXPECT_EQ(named.description, "TPM 2.0 (" + tpm.tcti() + "), key file " + path());
  const auto created = named.store->createKey(kTag, ZavloTestOwnerProof(kSecret));
  ASSERT_TRUE(created) << created.error().description;
  EXPECT_EQ(created.value().location, (ZavloKeyLocation{"tpm", true}));
  tpm.stop();
  EXPECT_FALSE(named.store->sign(kTag, kChallenge, ZavloTestOwnerProof(kSecret)));
  ASSERT_FALSE(traced.empty());
  EXPECT_EQ(traced.back().rfind("TPM: Esys_", 0), 0U) << traced.back();
  named.store.reset();
  if (std::filesystem::exists("/dev/tpmrm0")) GTEST_SKIP() << "this machine has a TPM: the default would use it";
  settings.tpm.reset();
  const auto unnamed = zavloLinuxKeyStoreFactory(settings);
  EXPECT_EQ(unnamed.description, "keys sealed under the owner's secret, key file " + path());
}

}  // namespace
