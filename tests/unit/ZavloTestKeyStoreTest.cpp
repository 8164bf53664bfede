// The test platform's keychain and key store keep the contracts the device binding relies
// on: attribute matching, duplicates, and private keys only for an authenticated owner.
#include <gtest/gtest.h>

#include "Testing/ZavloTestPlatform.hpp"

namespace Key = ZavloKeychainKey;
namespace Status = ZavloKeychainStatus;
using Policy = ZavloOwnerAuthenticationPolicy;

TEST(ZavloTestKeyStore, KeychainMatchesDuplicatesAndReleasesKeysOnlyToAnAuthenticatedOwner) {
  ZavloTestPlatform platform;
  auto& keychain = platform.keychain();
  const ZavloKeychainAttributes record{{Key::kSecClass, std::string(Key::kSecClassGenericPassword)},
                                       {Key::kSecAttrService, std::string("s")},
                                       {Key::kSecAttrAccount, std::string("a")}};
  auto stored = record;
  stored.emplace(Key::kSecValueData, zavloBytes("secret"));
  EXPECT_EQ(keychain.add(stored), Status::success);
  EXPECT_EQ(keychain.add(stored), Status::duplicateItem);
  EXPECT_EQ(keychain.add({{Key::kSecAttrAccount, std::string("a")}}), Status::param) << "no class";
  auto query = record;
  query.emplace(Key::kSecReturnData, true);
  const auto found = keychain.copyMatching(query);
  ASSERT_EQ(found.status, Status::success);
  EXPECT_EQ(std::get<ZavloBytes>(*found.item), zavloBytes("secret"));

  platform.testKeychain().answer(ZavloTestKeychain::Operation::copyMatching, record, Status::io, std::nullopt, 1);
  EXPECT_EQ(keychain.copyMatching(query).status, Status::io);
  EXPECT_EQ(keychain.copyMatching(query).status, Status::success) << "the script was for one call";

  const auto tag = zavloBytes("tag");
  const ZavloKeychainAttributes keyAttributes{
      {Key::kSecAttrKeyType, std::string(Key::kSecAttrKeyTypeECSECPrimeRandom)},
      {Key::kSecAttrKeySizeInBits, std::int64_t{256}},
      {Key::kSecPrivateKeyAttrs, std::make_shared<const ZavloKeychainAttributes>(ZavloKeychainAttributes{
                                     {Key::kSecAttrIsPermanent, true}, {Key::kSecAttrApplicationTag, tag}})}};
  const auto created = platform.secureKeys().createRandomKey(keyAttributes);
  ASSERT_TRUE(created);
  EXPECT_FALSE(platform.secureKeys().createRandomKey(keyAttributes)) << "the tag is taken";
  const auto message = zavloBytes("m");
  const auto algorithm = ZavloSecureKeys::kSecKeyAlgorithmECDSASignatureMessageX962SHA256;
  EXPECT_EQ(platform.secureKeys().createSignature(*created.value(), algorithm, message).error().code,
            Status::interactionNotAllowed);

  auto context = platform.makeOwnerAuthenticationContext();
  ZavloKeychainAttributes keyQuery{
      {Key::kSecClass, std::string(Key::kSecClassKey)}, {Key::kSecAttrApplicationTag, tag}, {Key::kSecReturnRef, true}};
  EXPECT_EQ(keychain.copyMatching(keyQuery).status, Status::interactionNotAllowed) << "no context";
  keyQuery.emplace(Key::kSecUseAuthenticationContext, context);
  EXPECT_EQ(keychain.copyMatching(keyQuery).status, Status::interactionNotAllowed) << "not yet authenticated";

  bool replied = false;
  context->evaluatePolicy(Policy::deviceOwnerAuthentication, "why", [&](bool success, auto) { replied = success; });
  EXPECT_FALSE(replied) << "replies are never inline";
  platform.runUntilIdle();
  ASSERT_TRUE(replied && context->isAuthenticated());
  const auto key = std::get<std::shared_ptr<ZavloSecureKey>>(*keychain.copyMatching(keyQuery).item);
  const auto publicKey = platform.secureKeys().copyPublicKey(*key);
  const auto point = platform.secureKeys().copyExternalRepresentation(*publicKey).value();
  EXPECT_EQ(point.size(), 65U);
  const auto signature = platform.secureKeys().createSignature(*key, algorithm, message).value();
  EXPECT_TRUE(ZavloTestSecureKeys::verify(point, message, signature));
  EXPECT_FALSE(ZavloTestSecureKeys::verify(point, zavloBytes("n"), signature));
  EXPECT_FALSE(
      ZavloTestSecureKeys::verify(platform.testSecureKeys().installKey(zavloBytes("other")), message, signature));

  EXPECT_EQ(keychain.remove({{Key::kSecClass, std::string(Key::kSecClassKey)}}), Status::success);
  EXPECT_EQ(keychain.remove({{Key::kSecClass, std::string(Key::kSecClassKey)}}), Status::itemNotFound);
  EXPECT_EQ(platform.testKeychain().itemCount(), 1U);
}
