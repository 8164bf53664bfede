// Binding keys in a PKCS#11 token (SoftHSM2 in a folder of the test's own): what the
// token store adds to the key store contract. The owner's PIN unlocks one operation and
// no login outlives it, which a session of the test's own in the same process sees (PKCS#11
// keeps the login per process); OpenSC's pkcs11-tool checks from outside that the key
// never leaves the token; a module in front of SoftHSM2 counts wrong PINs as a card does.
#include <gtest/gtest.h>
#include <p11-kit/p11-kit.h>
#include <p11-kit/pkcs11.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <memory>
#include <stdexcept>

#include "Platform/Linux/Keys/ZavloLinuxTokenKeyStore.hpp"
#include "Testing/Network/ZavloProcess.hpp"
#include "Testing/Network/ZavloSoftHsm.hpp"
#include "ZavloKeyStoreFactories.hpp"

namespace {

using Failure = ZavloKeyStoreFailure;
const auto kMessage = zavloBytes("challenge");

// The token through a session of this process that the store does not own.
class TokenView {
 public:
  explicit TokenView(const ZavloSoftHsm& hsm) : module_(p11_kit_module_load(ZavloSoftHsm::kModule, 0)) {
    if (module_ == nullptr || p11_kit_module_initialize(module_) != CKR_OK) throw std::runtime_error("no module");
    std::vector<CK_SLOT_ID> slots(8);
    CK_ULONG count = slots.size();
    module_->C_GetSlotList(CK_TRUE, slots.data(), &count);
    for (CK_ULONG index = 0; index < count; ++index) {
      CK_TOKEN_INFO info{};
      if (module_->C_GetTokenInfo(slots[index], &info) != CKR_OK ||
          std::string(reinterpret_cast<const char*>(info.label), hsm.label().size()) != hsm.label() ||
          module_->C_OpenSession(slots[index], CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session_) !=
              CKR_OK) {
        continue;
      }
      return;
    }
    throw std::runtime_error("no token " + hsm.label());
  }
  TokenView(const TokenView&) = delete;
  TokenView& operator=(const TokenView&) = delete;
  ~TokenView() {
    module_->C_CloseSession(session_);
    p11_kit_module_finalize(module_);
    p11_kit_module_release(module_);
  }

  bool loggedIn() {
    CK_SESSION_INFO info{};
    return module_->C_GetSessionInfo(session_, &info) == CKR_OK && info.state == CKS_RW_USER_FUNCTIONS;
  }
  CK_RV login() {
    std::string pin = ZavloSoftHsm::kPin;
    return module_->C_Login(session_, CKU_USER, reinterpret_cast<CK_UTF8CHAR*>(pin.data()), pin.size());
  }
  // The private objects with this id, counted while logged in.
  std::size_t privateKeys(ZavloBytes id) {
    login();
    CK_OBJECT_CLASS privateClass = CKO_PRIVATE_KEY;
    std::array<CK_ATTRIBUTE, 2> match{
        {{CKA_CLASS, &privateClass, sizeof privateClass}, {CKA_ID, id.data(), id.size()}}};
    std::array<CK_OBJECT_HANDLE, 8> found{};
    CK_ULONG count = 0;
    module_->C_FindObjectsInit(session_, match.data(), match.size());
    module_->C_FindObjects(session_, found.data(), found.size(), &count);
    module_->C_FindObjectsFinal(session_);
    module_->C_Logout(session_);
    return count;
  }
  // A key of another application, labelled unlike its id, whose public object is gone.
  void addForeignPrivateKey(ZavloBytes id) {
    login();
    static const CK_BYTE kP256[] = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
    CK_BBOOL yes = CK_TRUE;
    char label[] = "another application";
    std::array<CK_ATTRIBUTE, 3> publicTemplate{{{CKA_TOKEN, &yes, 1},
                                                {CKA_EC_PARAMS, const_cast<CK_BYTE*>(kP256), sizeof kP256},
                                                {CKA_ID, id.data(), id.size()}}};
    std::array<CK_ATTRIBUTE, 5> privateTemplate{{{CKA_TOKEN, &yes, 1},
                                                 {CKA_PRIVATE, &yes, 1},
                                                 {CKA_SIGN, &yes, 1},
                                                 {CKA_ID, id.data(), id.size()},
                                                 {CKA_LABEL, label, sizeof label - 1}}};
    CK_MECHANISM mechanism{CKM_EC_KEY_PAIR_GEN, nullptr, 0};
    CK_OBJECT_HANDLE publicKey = 0;
    CK_OBJECT_HANDLE privateKey = 0;
    ASSERT_EQ(module_->C_GenerateKeyPair(session_, &mechanism, publicTemplate.data(), publicTemplate.size(),
                                         privateTemplate.data(), privateTemplate.size(), &publicKey, &privateKey),
              CKR_OK);
    ASSERT_EQ(module_->C_DestroyObject(session_, publicKey), CKR_OK);
    module_->C_Logout(session_);
  }

 private:
  CK_FUNCTION_LIST* module_;
  CK_SESSION_HANDLE session_ = 0;
};

// The error of a call that failed, or nothing; no description shows a PIN.
template <class T>
std::optional<ZavloKeyStoreError> errorOf(const ZavloKeyStoreResult<T>& result) {
  if (result) return std::nullopt;
  for (const char* pin : {ZavloSoftHsm::kPin, "0000"}) {
    EXPECT_EQ(result.error().description.find(pin), std::string::npos) << result.error().description;
  }
  return result.error();
}

template <class T>
std::optional<Failure> failureOf(const ZavloKeyStoreResult<T>& result) {
  const auto error = errorOf(result);
  return error ? std::optional(error->failure) : std::nullopt;
}

class ZavloKeyToken : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const auto why = ZavloSoftHsm::unavailable()) GTEST_SKIP() << *why;
    ASSERT_TRUE(hsm_.initialised());
  }

  std::unique_ptr<ZavloLinuxTokenKeyStore> storeFor(std::string uri) {
    auto token = std::make_shared<ZavloLinuxPkcs11Token>(
        std::move(uri), ZavloLinuxPkcs11Token::Options{[this](const auto& line) { traces_.push_back(line); }});
    return std::make_unique<ZavloLinuxTokenKeyStore>(
        std::move(token), std::make_shared<ZavloLinuxKeyFile>((hsm_.tokens().parent_path() / "keys.db").string()));
  }
  [[nodiscard]] std::string countingUri() const {
    return "pkcs11:token=" + hsm_.label() + "?module-path=" + ZAVLO_PIN_LOCK_MODULE;
  }

  ZavloSoftHsm hsm_;
  std::vector<std::string> traces_;
  const ZavloBytes tag_ = zavloBytes("in.zavlo.authsdk.devicebinding.T1");
  const ZavloTestOwnerProof owner_{ZavloSoftHsm::kPin};
  const ZavloTestOwnerProof wrong_{"0000"};
  const ZavloTestOwnerProof none_{};
};

TEST_F(ZavloKeyToken, TheOwnersPinUnlocksOneOperationAndNoLoginOutlivesIt) {
  const auto store = storeFor(zavloOwnerPinUri(hsm_));
  TokenView view(hsm_);
  EXPECT_FALSE(store->pinFromUri());
  ASSERT_TRUE(store->createKey(tag_, owner_));
  EXPECT_FALSE(view.loggedIn());
  ASSERT_TRUE(store->sign(tag_, kMessage, owner_));
  EXPECT_FALSE(view.loggedIn());
  EXPECT_EQ(failureOf(store->sign(tag_, kMessage, none_)), Failure::noOwnerSecret);
  EXPECT_EQ(failureOf(store->createKey(zavloBytes("other"), none_)), Failure::noOwnerSecret);

  // A login held elsewhere in the process does not stand in for the owner's PIN.
  ASSERT_EQ(view.login(), CKR_OK);
  EXPECT_EQ(failureOf(store->sign(tag_, kMessage, wrong_)), Failure::ownerRefused);
  EXPECT_FALSE(view.loggedIn());
}

TEST_F(ZavloKeyToken, AWrongOrLockedPinDeletesNothingAndTheTokenCountsTheTries) {
  const auto store = storeFor(countingUri());
  ASSERT_TRUE(store->createKey(tag_, owner_));
  const auto other = zavloBytes("other");
  struct Step {
    bool create;
    const ZavloOwnerProof* proof;
    std::optional<Failure> failure;
    CK_RV code;
  };
  for (const auto& [create, proof, failure, code] : {
           Step{false, &wrong_, Failure::ownerRefused, CKR_PIN_INCORRECT},
           Step{false, &owner_, std::nullopt, CKR_OK},  // the key still signs, and the count starts again
           Step{false, &wrong_, Failure::ownerRefused, CKR_PIN_INCORRECT},
           Step{true, &wrong_, Failure::ownerRefused, CKR_PIN_INCORRECT},
           Step{false, &wrong_, Failure::ownerRefused, CKR_PIN_INCORRECT},
           Step{false, &owner_, Failure::lockedOut, CKR_PIN_LOCKED},  // three in a row lock it
       }) {
    const auto error = create ? errorOf(store->createKey(other, *proof)) : errorOf(store->sign(tag_, kMessage, *proof));
    EXPECT_EQ(error ? std::optional(error->failure) : std::nullopt, failure);
    EXPECT_EQ(error ? error->code : CKR_OK, code);
  }
  EXPECT_TRUE(store->findKey(tag_).value().has_value());
  EXPECT_FALSE(store->findKey(other).value().has_value());
}

TEST_F(ZavloKeyToken, APinFromTheUriNeedsNoOwnerAndAWrongOneIsOfferedOnlyOnce) {
  const auto unattended = storeFor(hsm_.uri());  // pin-source: a file
  EXPECT_TRUE(unattended->pinFromUri());
  ASSERT_TRUE(unattended->createKey(tag_, none_));
  ASSERT_TRUE(unattended->sign(tag_, kMessage, none_));
  EXPECT_EQ(std::count(traces_.begin(), traces_.end(),
                       "PKCS#11 token " + hsm_.uri() +
                           ": the token's PIN came from the URI's pin-source; the owner was not asked for it"),
            1);

  EXPECT_TRUE(storeFor(zavloOwnerPinUri(hsm_) + "&pin-value=%34%37%31%31")->sign(tag_, kMessage, none_));

  // A token counts every wrong try, and locks after a few: this one after three.
  const auto wrongPin = storeFor(countingUri() + "&pin-value=0000");
  for (int attempt = 0; attempt < 4; ++attempt) {
    const auto error = errorOf(wrongPin->sign(tag_, kMessage, owner_));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->failure, Failure::unavailable) << "the host's setting, not the owner's answer";
    EXPECT_EQ(error->code, CKR_PIN_INCORRECT);
    EXPECT_NE(error->description.find(attempt == 0 ? "CKR_PIN_INCORRECT" : "not offered again"), std::string::npos)
        << error->description;
  }
  EXPECT_TRUE(storeFor(countingUri())->sign(tag_, kMessage, owner_)) << "one wrong try reached the token";
  for (const auto& line : traces_) EXPECT_EQ(line.find("0000"), std::string::npos) << line;
}

TEST_F(ZavloKeyToken, ADeleteWithoutAPinHidesTheKeyAndTheNextLoginSweepsItsPrivateHalf) {
  const auto store = storeFor(zavloOwnerPinUri(hsm_));
  TokenView view(hsm_);
  ASSERT_TRUE(store->createKey(tag_, owner_));
  view.addForeignPrivateKey(zavloBytes("foreign"));

  ASSERT_TRUE(store->deleteKey(tag_).value());
  EXPECT_FALSE(store->findKey(tag_).value().has_value());
  EXPECT_EQ(view.privateKeys(tag_), 1U) << "no PIN, so the private half cannot be seen yet";
  EXPECT_EQ(failureOf(store->sign(tag_, kMessage, owner_)), Failure::notFound);
  EXPECT_EQ(view.privateKeys(tag_), 0U) << "the logged-in operation swept it";
  EXPECT_EQ(view.privateKeys(zavloBytes("foreign")), 1U) << "another application's key is left alone";

  // With the URI's PIN both halves go at once.
  const auto unattended = storeFor(hsm_.uri());
  ASSERT_TRUE(unattended->createKey(tag_, none_));
  ASSERT_TRUE(unattended->deleteKey(tag_).value());
  EXPECT_EQ(view.privateKeys(tag_), 0U);
}

TEST_F(ZavloKeyToken, APulledTokenNeitherSignsNorFinds) {
  const auto store = storeFor(zavloOwnerPinUri(hsm_));
  ASSERT_TRUE(store->createKey(tag_, owner_));
  // SoftHSM2 keeps the slot and its sessions, and answers as an empty token.
  ASSERT_EQ(hsm_.removeToken().exitStatus, 0);
  EXPECT_EQ(failureOf(store->sign(tag_, kMessage, owner_)), Failure::unavailable);
  EXPECT_EQ(failureOf(store->findKey(tag_)), Failure::unavailable);
}

TEST_F(ZavloKeyToken, AMissingModuleOrTokenOrAnUnusableUriFailsEveryCall) {
  struct Case {
    std::string uri;
    Failure failure;
    std::string why;
  };
  for (const auto& [uri, failure, why] : {
           Case{"pkcs11:token=zavlo?module-path=/nonexistent/libmissing.so", Failure::unavailable, "cannot be loaded"},
           Case{"pkcs11:token=absent?module-path=" + std::string(ZavloSoftHsm::kModule), Failure::unavailable,
                "no token present matches the URI"},
           Case{"pkcs11:token=absent;pin-value=0000?module-path=" + std::string(ZavloSoftHsm::kModule),
                Failure::unavailable, "no token present matches the URI"},
           Case{"pkcs11:token=zavlo?pin-source=|/bin/echo", Failure::invalidArgument, "must name a file"},
       }) {
    const auto store = storeFor(uri);
    for (const auto& error : {errorOf(store->createKey(tag_, owner_)), errorOf(store->findKey(tag_)),
                              errorOf(store->sign(tag_, kMessage, owner_)), errorOf(store->deleteKey(tag_))}) {
      ASSERT_TRUE(error) << uri;
      EXPECT_EQ(error->failure, failure) << uri;
      EXPECT_NE(error->description.find(why), std::string::npos) << error->description;
    }
  }
}

TEST_F(ZavloKeyToken, TheKeyNeverLeavesTheToken) {
  if (!std::filesystem::exists("/usr/bin/pkcs11-tool")) GTEST_SKIP() << "pkcs11-tool missing: apt-get install opensc";
  const auto store = storeFor(zavloOwnerPinUri(hsm_));
  ASSERT_TRUE(store->createKey(tag_, owner_));
  const auto listed = zavloRunProcess({"/usr/bin/env", hsm_.environment().front(), "/usr/bin/pkcs11-tool", "--module",
                                       ZavloSoftHsm::kModule, "--token-label", hsm_.label(), "--login", "--pin",
                                       ZavloSoftHsm::kPin, "--list-objects", "--type", "privkey"});
  ASSERT_EQ(listed.exitStatus, 0) << listed.standardError;
  EXPECT_NE(listed.standardOutput.find("label:      in.zavlo.authsdk.devicebinding.T1"), std::string::npos);
  EXPECT_NE(listed.standardOutput.find("Usage:      sign\n"), std::string::npos) << listed.standardOutput;
  EXPECT_NE(listed.standardOutput.find("Access:     sensitive, always sensitive, never extractable"), std::string::npos)
      << listed.standardOutput;
}

}  // namespace
