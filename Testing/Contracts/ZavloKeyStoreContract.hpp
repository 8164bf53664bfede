#pragma once

// The key store contract: what device binding relies on from every ZavloKeyStore. Keys are
// found by their exact tag bytes and sign only for the secret their owner gave when they
// were made; a refusal deletes nothing; a tag in use is refused; deleting is final; one
// domain-state record per key id. A host with a store of its own instantiates it with a
// factory, a fresh store for each test:
//
//   struct MyFactory {
//     static std::optional<std::string> unavailable();  // why the store cannot run here
//     ZavloKeyStore& keyStore();
//     std::string ownerSecret();                        // the secret that unlocks its keys
//     // Checks a signature the store's keys made against the key's X9.63 point.
//     static bool verify(const ZavloBytes& point, std::span<const std::uint8_t> message,
//                        const ZavloBytes& signature);
//   };
//   INSTANTIATE_TYPED_TEST_SUITE_P(My, ZavloKeyStoreContract, ::testing::Types<MyFactory>);
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/ZavloKeyStore.hpp"
#include "Platform/ZavloOwnerAuthentication.hpp"
#include "Testing/ZavloTestKeyStore.hpp"

template <class Factory>
class ZavloKeyStoreContract : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const auto why = Factory::unavailable()) GTEST_SKIP() << *why;
  }

  ZavloKeyStore& store() { return factory.keyStore(); }
  ZavloTestOwnerProof owner() { return ZavloTestOwnerProof(factory.ownerSecret()); }

  // The failure of a call that should have failed, or nothing when it succeeded.
  template <class T>
  static std::optional<ZavloKeyStoreFailure> failureOf(const ZavloKeyStoreResult<T>& result) {
    if (result) return std::nullopt;
    return result.error().failure;
  }

  bool signsAndVerifies(const ZavloBytes& tag, const ZavloBytes& point, const ZavloBytes& message) {
    const auto signature = store().sign(tag, message, owner());
    if (!signature) {
      ADD_FAILURE() << signature.error().description;
      return false;
    }
    EXPECT_LE(signature.value().size(), 72U);
    return Factory::verify(point, message, signature.value());
  }

  Factory factory;
};

TYPED_TEST_SUITE_P(ZavloKeyStoreContract);

TYPED_TEST_P(ZavloKeyStoreContract, KeysSignOnlyForTheSecretTheyWereMadeWith) {
  using Failure = ZavloKeyStoreFailure;
  auto& store = this->store();
  const auto tag = zavloBytes("in.zavlo.authsdk.devicebinding.A1B2");
  const auto created = store.createKey(tag, this->owner());
  ASSERT_TRUE(created) << created.error().description;
  const auto point = created.value().publicKey;
  ASSERT_EQ(point.size(), 65U);
  EXPECT_EQ(point[0], 0x04);
  const auto found = store.findKey(tag);
  ASSERT_TRUE(found && found.value());
  EXPECT_EQ(*found.value(), created.value().location);

  for (const auto& message : {zavloBytes("  challenge \xE2\x9C\x93  "), ZavloBytes{}}) {
    EXPECT_TRUE(this->signsAndVerifies(tag, point, message));
  }
  const auto signature = store.sign(tag, zavloBytes("c"), this->owner());
  ASSERT_TRUE(signature);
  EXPECT_FALSE(TypeParam::verify(point, zavloBytes("another challenge"), signature.value()));

  // Another secret, or none, signs nothing and deletes nothing.
  const auto wrong = store.sign(tag, zavloBytes("c"), ZavloTestOwnerProof(this->factory.ownerSecret() + "x"));
  EXPECT_EQ(this->failureOf(wrong), Failure::ownerRefused);
  const auto none = this->failureOf(store.sign(tag, zavloBytes("c"), ZavloTestOwnerProof()));
  EXPECT_TRUE(none == Failure::noOwnerSecret || none == Failure::ownerRefused);
  EXPECT_TRUE(this->signsAndVerifies(tag, point, zavloBytes("still mine")));

  // Another key has another point, which does not verify this key's signatures.
  const auto other = store.createKey(zavloBytes("other"), this->owner());
  ASSERT_TRUE(other);
  EXPECT_NE(other.value().publicKey, point);
  EXPECT_FALSE(TypeParam::verify(other.value().publicKey, zavloBytes("c"), signature.value()));
}

TYPED_TEST_P(ZavloKeyStoreContract, TagsAreExactBytesAndATagInUseIsRefused) {
  using Failure = ZavloKeyStoreFailure;
  auto& store = this->store();
  const auto tag = zavloBytes(std::string("tag\0one", 7));
  const auto created = store.createKey(tag, this->owner());
  ASSERT_TRUE(created);
  EXPECT_EQ(this->failureOf(store.createKey(tag, this->owner())), Failure::duplicate);
  EXPECT_TRUE(this->signsAndVerifies(tag, created.value().publicKey, zavloBytes("the first key stays")));

  for (const auto& near : {zavloBytes("tag"), zavloBytes(std::string("tag\0one ", 8)), zavloBytes("TAG")}) {
    const auto found = store.findKey(near);
    ASSERT_TRUE(found);
    EXPECT_FALSE(found.value().has_value());
    EXPECT_EQ(this->failureOf(store.sign(near, zavloBytes("c"), this->owner())), Failure::notFound);
  }

  const auto deleted = store.deleteKey(tag);
  ASSERT_TRUE(deleted);
  EXPECT_TRUE(deleted.value());
  const auto again = store.deleteKey(tag);
  ASSERT_TRUE(again);
  EXPECT_FALSE(again.value());
  EXPECT_FALSE(store.findKey(tag).value().has_value());
  EXPECT_EQ(this->failureOf(store.sign(tag, zavloBytes("c"), this->owner())), Failure::notFound);
  const auto remade = store.createKey(tag, this->owner());
  ASSERT_TRUE(remade) << "a deleted tag is free again";
  EXPECT_NE(remade.value().publicKey, created.value().publicKey);
}

TYPED_TEST_P(ZavloKeyStoreContract, OneDomainStateRecordPerKeyId) {
  auto& store = this->store();
  const std::vector<std::string> ids = {"k1", "k2", std::string("nul\0id", 6), std::string(1000, 'x'), "\u00e9 OR 1=1"};
  for (const auto& id : ids) {
    const auto absent = store.domainState(id);
    ASSERT_TRUE(absent);
    EXPECT_FALSE(absent.value().has_value());
  }
  for (std::size_t i = 0; i < ids.size(); ++i) {
    ASSERT_TRUE(store.setDomainState(ids[i], ZavloBytes(i + 1, static_cast<std::uint8_t>(i))));
  }
  ASSERT_TRUE(store.setDomainState("k1", zavloBytes("replaced")));
  ASSERT_TRUE(store.setDomainState("k2", std::nullopt));
  ASSERT_TRUE(store.setDomainState("k2", std::nullopt)) << "removing what is not there is no failure";
  EXPECT_EQ(store.domainState("k1").value(), zavloBytes("replaced"));
  EXPECT_FALSE(store.domainState("k2").value().has_value());
  for (std::size_t i = 2; i < ids.size(); ++i) {
    EXPECT_EQ(store.domainState(ids[i]).value(), ZavloBytes(i + 1, static_cast<std::uint8_t>(i)));
  }
  EXPECT_FALSE(store.domainState("k").value().has_value());
}

REGISTER_TYPED_TEST_SUITE_P(ZavloKeyStoreContract, KeysSignOnlyForTheSecretTheyWereMadeWith,
                            TagsAreExactBytesAndATagInUseIsRefused, OneDomainStateRecordPerKeyId);
