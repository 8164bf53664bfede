// The secure-keys contract, run on every key store of ZavloKeyStoreFactories: keys are
// made as device binding makes them, published as X9.63 points, and sign only for an
// owner who has authenticated. Signatures are checked by OpenSSL against the point.
#include <gtest/gtest.h>

#include "ZavloKeyStoreFactories.hpp"
#include "ZavloKeyStoreItems.hpp"

namespace {

using namespace ZavloKeyStoreItems;
namespace Status = ZavloKeychainStatus;
constexpr std::uint64_t kBindingFlags = 0x40004018;  // private key usage + or + passcode + current biometrics
constexpr auto kEs256 = ZavloSecureKeys::kSecKeyAlgorithmECDSASignatureMessageX962SHA256;

template <class Factory>
class ZavloSecureKeysContractTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const auto why = Factory::unavailable()) GTEST_SKIP() << *why;
  }

  Factory factory;
  ZavloSecureKeys& keys() { return factory.secureKeys(); }

  ZavloBytes point(const ZavloSecureKey& key) {
    const auto publicKey = keys().copyPublicKey(key);
    if (publicKey == nullptr) return {};
    auto point = keys().copyExternalRepresentation(*publicKey);
    return point ? point.value() : ZavloBytes{};
  }
  std::shared_ptr<ZavloSecureKey> load(const ZavloBytes& tag) {
    auto answer = factory.keychain().copyMatching(keyReference(tag, factory.ownerContext(true)));
    if (answer.status != Status::success || !answer.item) return nullptr;
    return std::get<std::shared_ptr<ZavloSecureKey>>(*answer.item);
  }
};

TYPED_TEST_SUITE(ZavloSecureKeysContractTest, ZavloKeyStoreFactories);

TYPED_TEST(ZavloSecureKeysContractTest, PermanentKeySignsForAnAuthenticatedOwnerAndVerifiesAgainstItsPoint) {
  auto& keys = this->keys();
  const auto access = keys.createAccessControl(Key::kSecAttrAccessibleWhenUnlockedThisDeviceOnly, kBindingFlags);
  ASSERT_TRUE(access);
  EXPECT_EQ(access.value()->protection, Key::kSecAttrAccessibleWhenUnlockedThisDeviceOnly);
  EXPECT_EQ(access.value()->flags, kBindingFlags);

  const auto tag = zavloBytes("in.zavlo.authsdk.devicebinding.A1B2");
  const auto created = keys.createRandomKey(keyAttributes(tag, access.value()));
  ASSERT_TRUE(created) << created.error().description;
  const auto point = this->point(*created.value());
  ASSERT_EQ(point.size(), 65u);
  EXPECT_EQ(point[0], 0x04);

  const auto key = this->load(tag);
  ASSERT_NE(key, nullptr);
  EXPECT_EQ(this->point(*key), point);
  for (const auto& message : {zavloBytes("  challenge \xE2\x9C\x93  "), ZavloBytes{}}) {
    const auto signature = keys.createSignature(*key, kEs256, message);
    ASSERT_TRUE(signature) << signature.error().description;
    EXPECT_LE(signature.value().size(), 72u);
    EXPECT_TRUE(TypeParam::verify(point, message, signature.value()));
    EXPECT_FALSE(TypeParam::verify(point, zavloBytes("another challenge"), signature.value()));
  }

  // Another key has another point, which does not verify this key's signatures.
  const auto other = keys.createRandomKey(keyAttributes(zavloBytes("other"), access.value()));
  ASSERT_TRUE(other);
  const auto signature = keys.createSignature(*key, kEs256, zavloBytes("c"));
  ASSERT_TRUE(signature);
  EXPECT_NE(this->point(*other.value()), point);
  EXPECT_FALSE(TypeParam::verify(this->point(*other.value()), zavloBytes("c"), signature.value()));
}

TYPED_TEST(ZavloSecureKeysContractTest, UnauthenticatedUseAndMalformedRequestsAreRefused) {
  auto& keys = this->keys();
  const auto tag = zavloBytes("tag");
  const auto created = keys.createRandomKey(keyAttributes(tag));
  ASSERT_TRUE(created);
  const auto unauthenticated = keys.createSignature(*created.value(), kEs256, zavloBytes("c"));
  ASSERT_FALSE(unauthenticated);
  EXPECT_EQ(unauthenticated.error().code, Status::interactionNotAllowed);

  const auto key = this->load(tag);
  ASSERT_NE(key, nullptr);
  const auto digestAlgorithm = keys.createSignature(*key, "kSecKeyAlgorithmECDSASignatureDigestX962SHA256", {});
  ASSERT_FALSE(digestAlgorithm);
  EXPECT_EQ(digestAlgorithm.error().code, Status::param);

  // A second key with a tag in use is refused; the first stays and still signs.
  const auto duplicate = keys.createRandomKey(keyAttributes(tag));
  ASSERT_FALSE(duplicate);
  EXPECT_EQ(duplicate.error().code, Status::duplicateItem);
  ASSERT_NE(this->load(tag), nullptr);
  EXPECT_EQ(this->point(*this->load(tag)), this->point(*created.value()));

  // A key that is not permanent stays out of the keychain.
  ASSERT_TRUE(keys.createRandomKey(keyAttributes(zavloBytes("ephemeral"), nullptr, false)));
  EXPECT_EQ(this->factory.keychain().copyMatching(keyExists(zavloBytes("ephemeral"))).status, Status::itemNotFound);

  auto wrongSize = keyAttributes(zavloBytes("t2"));
  wrongSize[Key::kSecAttrKeySizeInBits] = std::int64_t{384};
  auto untagged = keyAttributes(zavloBytes("t3"));
  untagged[Key::kSecPrivateKeyAttrs] =
      std::make_shared<const ZavloKeychainAttributes>(ZavloKeychainAttributes{{Key::kSecAttrIsPermanent, true}});
  for (const auto& attributes :
       {wrongSize, untagged,
        with(keyAttributes(zavloBytes("t4")), Key::kSecAttrKeyType, std::string("kSecAttrKeyTypeRSA"))}) {
    const auto refused = keys.createRandomKey(attributes);
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().code, Status::param);
    EXPECT_FALSE(refused.error().description.empty());
  }
  const auto badAccess = keys.createAccessControl("kSecAttrAccessibleSometimes", kBindingFlags);
  ASSERT_FALSE(badAccess);
  EXPECT_EQ(badAccess.error().code, Status::param);
}

}  // namespace
