#pragma once

// The keychain and secure-keys contracts: what device binding relies on from a key store.
// Passwords are found and deleted by every attribute of a query, duplicates and malformed
// calls change nothing, keys are found by their tag bytes and come back, and sign, only
// for an owner who has authenticated; a private key never leaves as bytes. A host
// instantiates both with a factory per store, a fresh store for each test:
//
//   struct MyFactory {
//     static std::optional<std::string> unavailable();  // why the store cannot run here
//     ZavloKeychain& keychain();
//     ZavloSecureKeys& secureKeys();                    // over the same store
//     std::shared_ptr<ZavloOwnerAuthenticationContext> ownerContext(bool authenticated);
//     // Checks a signature the store's keys made against the key's X9.63 point.
//     static bool verify(const ZavloBytes& point, const ZavloBytes& message, const ZavloBytes& signature);
//   };
//   INSTANTIATE_TYPED_TEST_SUITE_P(My, ZavloKeychainContract, ::testing::Types<MyFactory>);
//   INSTANTIATE_TYPED_TEST_SUITE_P(My, ZavloSecureKeysContract, ::testing::Types<MyFactory>);
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <variant>

#include "Platform/ZavloKeychain.hpp"
#include "Platform/ZavloSecureKeys.hpp"
#include "Testing/Contracts/ZavloKeyStoreItems.hpp"

template <class Factory>
class ZavloKeyStoreContract : public ::testing::Test {
 protected:
  using Answer = std::variant<std::int32_t, ZavloBytes>;

  void SetUp() override {
    if (const auto why = Factory::unavailable()) GTEST_SKIP() << *why;
  }

  ZavloKeychain& keychain() { return factory.keychain(); }
  ZavloSecureKeys& keys() { return factory.secureKeys(); }

  // The stored data of a generic password, or the status that answered instead.
  Answer data(const std::string& service, const std::string& account) {
    using namespace ZavloKeyStoreItems;
    auto answer = keychain().copyMatching(with(password(service, account), Key::kSecReturnData, true));
    if (answer.status != ZavloKeychainStatus::success) return answer.status;
    if (!answer.item || !std::holds_alternative<ZavloBytes>(*answer.item)) return std::int32_t{1};
    return std::get<ZavloBytes>(*answer.item);
  }

  ZavloBytes point(const ZavloSecureKey& key) {
    const auto publicKey = keys().copyPublicKey(key);
    if (publicKey == nullptr) return {};
    auto point = keys().copyExternalRepresentation(*publicKey);
    return point ? point.value() : ZavloBytes{};
  }

  // The key of this tag as an authenticated owner gets it, or null.
  std::shared_ptr<ZavloSecureKey> load(const ZavloBytes& tag) {
    auto answer = keychain().copyMatching(ZavloKeyStoreItems::keyReference(tag, factory.ownerContext(true)));
    if (answer.status != ZavloKeychainStatus::success || !answer.item) return nullptr;
    return std::get<std::shared_ptr<ZavloSecureKey>>(*answer.item);
  }

  Factory factory;
};

template <class Factory>
class ZavloKeychainContract : public ZavloKeyStoreContract<Factory> {};
template <class Factory>
class ZavloSecureKeysContract : public ZavloKeyStoreContract<Factory> {};

TYPED_TEST_SUITE_P(ZavloKeychainContract);

TYPED_TEST_P(ZavloKeychainContract, PasswordsAreFoundAndDeletedByEveryAttributeOfTheQuery) {
  using namespace ZavloKeyStoreItems;
  namespace Status = ZavloKeychainStatus;
  using Answer = typename TestFixture::Answer;
  auto& keychain = this->keychain();
  ASSERT_EQ(keychain.add(password("service", "alice", ZavloBytes{1, 2, 3})), Status::success);
  ASSERT_EQ(keychain.add(password("service", "bob", ZavloBytes{})), Status::success);

  EXPECT_EQ(this->data("service", "alice"), Answer(ZavloBytes{1, 2, 3}));
  EXPECT_EQ(this->data("service", "bob"), Answer(ZavloBytes{}));
  const auto exists = keychain.copyMatching(password("service", "alice"));
  EXPECT_EQ(exists.status, Status::success);
  EXPECT_FALSE(exists.item.has_value());  // nothing asked for, nothing returned

  // Every query attribute must match, with its type: a text is not the same bytes.
  EXPECT_EQ(this->data("service", "carol"), Answer(Status::itemNotFound));
  EXPECT_EQ(keychain.copyMatching(with(password("service", "alice"), Key::kSecAttrAccount, zavloBytes("alice"))).status,
            Status::itemNotFound);
  EXPECT_EQ(keychain
                .copyMatching(with(password("service", "alice"), Key::kSecAttrAccessible,
                                   std::string(Key::kSecAttrAccessibleAfterFirstUnlockThisDeviceOnly)))
                .status,
            Status::itemNotFound);

  EXPECT_EQ(keychain.remove(password("service", "alice")), Status::success);
  EXPECT_EQ(this->data("service", "alice"), Answer(Status::itemNotFound));
  EXPECT_EQ(keychain.remove(password("service", "alice")), Status::itemNotFound);
  EXPECT_EQ(this->data("service", "bob"), Answer(ZavloBytes{}));

  // A delete removes every match.
  ASSERT_EQ(keychain.add(password("service", "alice", ZavloBytes{4})), Status::success);
  ASSERT_EQ(keychain.add(password("other", "alice", ZavloBytes{5})), Status::success);
  EXPECT_EQ(keychain.remove({{Key::kSecClass, std::string(Key::kSecClassGenericPassword)},
                             {Key::kSecAttrService, std::string("service")}}),
            Status::success);
  EXPECT_EQ(this->data("service", "alice"), Answer(Status::itemNotFound));
  EXPECT_EQ(this->data("service", "bob"), Answer(Status::itemNotFound));
  EXPECT_EQ(this->data("other", "alice"), Answer(ZavloBytes{5}));
}

TYPED_TEST_P(ZavloKeychainContract, DuplicatesAndMalformedCallsAreRefusedAndChangeNothing) {
  using namespace ZavloKeyStoreItems;
  namespace Status = ZavloKeychainStatus;
  using Answer = typename TestFixture::Answer;
  auto& keychain = this->keychain();
  ASSERT_EQ(keychain.add(password("service", "alice", ZavloBytes{1})), Status::success);
  EXPECT_EQ(keychain.add(password("service", "alice", ZavloBytes{2})), Status::duplicateItem);
  EXPECT_EQ(this->data("service", "alice"), Answer(ZavloBytes{1}));
  EXPECT_EQ(keychain.add(password("other", "alice", ZavloBytes{2})), Status::success);

  auto classless = password("service", "alice");
  classless.erase(Key::kSecClass);
  EXPECT_EQ(keychain.add(with(classless, Key::kSecValueData, ZavloBytes{3})), Status::param);
  EXPECT_EQ(keychain.copyMatching(classless).status, Status::param);
  EXPECT_EQ(keychain.remove(classless), Status::param);
  EXPECT_EQ(this->data("service", "alice"), Answer(ZavloBytes{1}));
}

TYPED_TEST_P(ZavloKeychainContract, KeysAreFoundByTheirTagBytesAndComeBackOnlyToAnAuthenticatedOwner) {
  using namespace ZavloKeyStoreItems;
  namespace Status = ZavloKeychainStatus;
  auto& keychain = this->keychain();
  const auto tag = zavloBytes("tag.one");
  ASSERT_TRUE(this->keys().createRandomKey(keyAttributes(tag)));

  EXPECT_EQ(keychain.copyMatching(keyExists(tag)).status, Status::success);
  EXPECT_EQ(keychain.copyMatching(keyExists(zavloBytes("tag.two"))).status, Status::itemNotFound);
  EXPECT_EQ(keychain.copyMatching(with(keyExists(tag), Key::kSecAttrApplicationTag, std::string("tag.one"))).status,
            Status::itemNotFound);

  EXPECT_EQ(keychain.copyMatching(keyReference(tag, nullptr)).status, Status::interactionNotAllowed);
  const auto refused = keychain.copyMatching(keyReference(tag, this->factory.ownerContext(false)));
  EXPECT_EQ(refused.status, Status::interactionNotAllowed);
  EXPECT_FALSE(refused.item.has_value());
  const auto granted = keychain.copyMatching(keyReference(tag, this->factory.ownerContext(true)));
  ASSERT_EQ(granted.status, Status::success);
  ASSERT_TRUE(granted.item.has_value());
  ASSERT_TRUE(std::holds_alternative<std::shared_ptr<ZavloSecureKey>>(*granted.item));
  EXPECT_NE(std::get<std::shared_ptr<ZavloSecureKey>>(*granted.item), nullptr);

  // A private key is never handed out as bytes.
  const auto asData = keychain.copyMatching(with(key(tag), Key::kSecReturnData, true));
  EXPECT_EQ(asData.status, Status::param);
  EXPECT_FALSE(asData.item.has_value());

  EXPECT_EQ(keychain.remove(key(tag)), Status::success);
  EXPECT_EQ(keychain.copyMatching(keyExists(tag)).status, Status::itemNotFound);
  EXPECT_EQ(keychain.remove(key(tag)), Status::itemNotFound);
}

REGISTER_TYPED_TEST_SUITE_P(ZavloKeychainContract, PasswordsAreFoundAndDeletedByEveryAttributeOfTheQuery,
                            DuplicatesAndMalformedCallsAreRefusedAndChangeNothing,
                            KeysAreFoundByTheirTagBytesAndComeBackOnlyToAnAuthenticatedOwner);

TYPED_TEST_SUITE_P(ZavloSecureKeysContract);

TYPED_TEST_P(ZavloSecureKeysContract, PermanentKeySignsForAnAuthenticatedOwnerAndVerifiesAgainstItsPoint) {
  using namespace ZavloKeyStoreItems;
  constexpr std::uint64_t kBindingFlags = 0x40004018;  // private key usage + or + passcode + current biometrics
  constexpr auto kEs256 = ZavloSecureKeys::kSecKeyAlgorithmECDSASignatureMessageX962SHA256;
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

TYPED_TEST_P(ZavloSecureKeysContract, UnauthenticatedUseAndMalformedRequestsAreRefused) {
  using namespace ZavloKeyStoreItems;
  namespace Status = ZavloKeychainStatus;
  constexpr std::uint64_t kBindingFlags = 0x40004018;
  constexpr auto kEs256 = ZavloSecureKeys::kSecKeyAlgorithmECDSASignatureMessageX962SHA256;
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
  EXPECT_EQ(this->keychain().copyMatching(keyExists(zavloBytes("ephemeral"))).status, Status::itemNotFound);

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

REGISTER_TYPED_TEST_SUITE_P(ZavloSecureKeysContract, PermanentKeySignsForAnAuthenticatedOwnerAndVerifiesAgainstItsPoint,
                            UnauthenticatedUseAndMalformedRequestsAreRefused);
