// The keychain contract, run on every key store of ZavloKeyStoreFactories, so that a
// double cannot drift from the Linux keychain: what device binding relies on.
#include <gtest/gtest.h>

#include "ZavloKeyStoreFactories.hpp"
#include "ZavloKeyStoreItems.hpp"

namespace {

using namespace ZavloKeyStoreItems;
namespace Status = ZavloKeychainStatus;

template <class Factory>
class ZavloKeychainContractTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const auto why = Factory::unavailable()) GTEST_SKIP() << *why;
  }

  Factory factory;
  ZavloKeychain& keychain() { return factory.keychain(); }

  // The stored data of a generic password, or the status that answered instead.
  std::variant<std::int32_t, ZavloBytes> data(const std::string& service, const std::string& account) {
    auto answer = keychain().copyMatching(with(password(service, account), Key::kSecReturnData, true));
    if (answer.status != Status::success) return answer.status;
    if (!answer.item || !std::holds_alternative<ZavloBytes>(*answer.item)) return std::int32_t{1};
    return std::get<ZavloBytes>(*answer.item);
  }
};

TYPED_TEST_SUITE(ZavloKeychainContractTest, ZavloKeyStoreFactories);

using Answer = std::variant<std::int32_t, ZavloBytes>;

TYPED_TEST(ZavloKeychainContractTest, PasswordsAreFoundAndDeletedByEveryAttributeOfTheQuery) {
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

TYPED_TEST(ZavloKeychainContractTest, DuplicatesAndMalformedCallsAreRefusedAndChangeNothing) {
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

TYPED_TEST(ZavloKeychainContractTest, KeysAreFoundByTheirTagBytesAndComeBackOnlyToAnAuthenticatedOwner) {
  auto& keychain = this->keychain();
  const auto tag = zavloBytes("tag.one");
  ASSERT_TRUE(this->factory.secureKeys().createRandomKey(keyAttributes(tag)));

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

}  // namespace
