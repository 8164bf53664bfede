// Binding keys in a PKCS#11 token (SoftHSM2 in a folder of the test's own): what the
// token-backed key store adds to the keychain contract. The token is checked from outside
// with OpenSC's pkcs11-tool, zavlo-auth is driven as a black box, and the failures a
// real token produces (a wrong PIN, a missing module or token, a token pulled out) must
// end in clear answers.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <filesystem>

#include "Core/ZavloBase64.hpp"
#include "Platform/Linux/Keys/ZavloLinuxKeychain.hpp"
#include "Testing/Contracts/ZavloKeyStoreItems.hpp"
#include "Testing/Network/ZavloProcess.hpp"
#include "ZavloEs256.hpp"
#include "ZavloSoftHsmKeyStoreFactory.hpp"

namespace {

using namespace ZavloKeyStoreItems;
namespace Status = ZavloKeychainStatus;
constexpr auto kEs256 = ZavloSecureKeys::kSecKeyAlgorithmECDSASignatureMessageX962SHA256;

class ZavloKeyToken : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const auto why = ZavloSoftHsm::unavailable()) GTEST_SKIP() << *why;
    ASSERT_TRUE(hsm_.initialised());
  }

  ZavloSoftHsm hsm_;
};

TEST_F(ZavloKeyToken, AReplacedOrPulledKeyNoLongerSignsAndAWrongPinIsOfferedOnlyOnce) {
  // A refused PIN is not tried again (a real card counts the tries and locks). First, as
  // the login is the whole process's once any session has it.
  ZavloLinuxPkcs11Token wrongPin(hsm_.uri("pin-value=0000"));
  const auto refused = wrongPin.find(std::nullopt, false);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().status, ZavloLinuxPkcs11Token::authFailed);
  EXPECT_NE(refused.error().description.find("CKR_PIN_INCORRECT"), std::string::npos);
  EXPECT_EQ(refused.error().description.find("0000"), std::string::npos) << "the PIN is never shown";
  const auto again = wrongPin.find(std::nullopt, false);
  ASSERT_FALSE(again);
  EXPECT_NE(again.error().description.find("not offered again"), std::string::npos) << again.error().description;

  const auto token = std::make_shared<ZavloLinuxPkcs11Token>(hsm_.uri());
  ZavloLinuxTokenKeychain keychain(
      token, std::make_shared<ZavloLinuxKeychain>((hsm_.tokens().parent_path() / "kc.db").string()));
  ZavloLinuxTokenSecureKeys keys(token);

  const auto tag = zavloBytes("tag");
  ASSERT_TRUE(keys.createRandomKey(keyAttributes(tag)));
  auto loaded = keychain.copyMatching(keyReference(tag, std::make_shared<ZavloFixedOwnerContext>(true)));
  ASSERT_EQ(loaded.status, Status::success);
  const auto loadedKey = std::get<std::shared_ptr<ZavloSecureKey>>(*loaded.item);
  ASSERT_TRUE(keys.createSignature(*loadedKey, kEs256, zavloBytes("before")));

  // Made again under the same tag (by another user of the token): the loaded key does not
  // sign with the new one, whose public key nobody enrolled.
  {
    ZavloLinuxTokenKeychain other(
        std::make_shared<ZavloLinuxPkcs11Token>(hsm_.uri()),
        std::make_shared<ZavloLinuxKeychain>((hsm_.tokens().parent_path() / "kc2.db").string()));
    ZavloLinuxTokenSecureKeys otherKeys(std::make_shared<ZavloLinuxPkcs11Token>(hsm_.uri()));
    ASSERT_EQ(other.remove(key(tag)), Status::success);
    ASSERT_TRUE(otherKeys.createRandomKey(keyAttributes(tag)));
  }
  const auto replaced = keys.createSignature(*loadedKey, kEs256, zavloBytes("replaced"));
  ASSERT_FALSE(replaced);
  EXPECT_EQ(replaced.error().code, Status::itemNotFound) << replaced.error().description;

  // Pulled out: the key cannot sign and cannot be found, and nothing crashes. (SoftHSM2
  // keeps the slot and answers as an empty token; a process started now finds no token,
  // which the command-line test below checks.)
  ASSERT_EQ(hsm_.removeToken().exitStatus, 0);
  const auto orphan = keys.createSignature(*loadedKey, kEs256, zavloBytes("after"));
  ASSERT_FALSE(orphan);
  EXPECT_TRUE(orphan.error().code == Status::notAvailable || orphan.error().code == Status::itemNotFound)
      << orphan.error().code << " " << orphan.error().description;
  EXPECT_NE(keychain.copyMatching(keyExists(tag)).status, Status::success);
}

#ifdef ZAVLO_AUTH_BINARY
class ZavloKeyTokenCli : public ZavloKeyToken {
 protected:
  [[nodiscard]] std::string keychainFile() const { return (hsm_.tokens().parent_path() / "keychain.db").string(); }

  ZavloProcessResult run(const std::string& uri, const std::vector<std::string>& arguments) const {
    std::vector<std::string> command{"/usr/bin/env"};
    for (const auto& variable : hsm_.environment()) command.push_back(variable);
    for (const auto& argument :
         {std::string(ZAVLO_AUTH_BINARY), std::string("--keystore"), uri, std::string("--keychain"), keychainFile(),
          std::string("--owner-auth"), std::string("allow")}) {
      command.push_back(argument);
    }
    command.insert(command.end(), arguments.begin(), arguments.end());
    return zavloRunProcess(command);
  }

  static nlohmann::json line(const ZavloProcessResult& run) {
    return nlohmann::json::parse(run.standardOutput, nullptr, false);
  }
  static std::string signConfig(const std::string& keyId, const std::string& challenge) {
    return nlohmann::json{{"allowedKeyIds", {keyId}}, {"challenge", challenge}}.dump();
  }
};

TEST_F(ZavloKeyTokenCli, EnrolAndSignInTheTokenVerifyWithOpenSslAndTheKeyNeverLeavesIt) {
  const auto enrolled = run(hsm_.uri(), {"binding", "enroll"});
  ASSERT_EQ(enrolled.exitStatus, 0) << enrolled.standardOutput << enrolled.standardError;
  const std::string keyId = line(enrolled).at("keyId");
  const auto spki = ZavloBase64::decode(line(enrolled).at("publicKey").get<std::string>()).value_or(ZavloBytes{});
  ASSERT_EQ(spki.size(), 91U);

  // Another process signs: the key is in the token, not in the first process's memory.
  const auto signed_ = run(hsm_.uri(), {"binding", "sign", "--config", signConfig(keyId, "token challenge")});
  ASSERT_EQ(signed_.exitStatus, 0) << signed_.standardOutput << signed_.standardError;
  const auto signature = ZavloBase64::decode(line(signed_).at("signature").get<std::string>()).value_or(ZavloBytes{});
  EXPECT_TRUE(zavloVerifyEs256(ZavloBytes(spki.end() - 65, spki.end()), zavloBytes("token challenge"), signature));
  EXPECT_EQ(line(run(hsm_.uri(), {"binding", "state", keyId})).at("state"), "ENROLLED");

  // The keychain file holds no key; the token holds it, sensitive and never extractable.
  const auto tag = zavloBytes("in.zavlo.authsdk.devicebinding." + keyId);
  EXPECT_EQ(ZavloLinuxKeychain(keychainFile()).copyMatching(keyExists(tag)).status, Status::itemNotFound);
  if (!std::filesystem::exists("/usr/bin/pkcs11-tool")) GTEST_SKIP() << "OpenSC's pkcs11-tool is not installed";
  const auto listed = zavloRunProcess({"/usr/bin/env", hsm_.environment().front(), "/usr/bin/pkcs11-tool", "--module",
                                       ZavloSoftHsm::kModule, "--token-label", hsm_.label(), "--login", "--pin",
                                       ZavloSoftHsm::kPin, "--list-objects"});
  ASSERT_EQ(listed.exitStatus, 0) << listed.standardError;
  const auto privateObject = listed.standardOutput.find("Private Key Object; EC");
  ASSERT_NE(privateObject, std::string::npos) << listed.standardOutput;
  const auto privatePart = listed.standardOutput.substr(privateObject);
  EXPECT_NE(privatePart.find("label:      in.zavlo.authsdk.devicebinding." + keyId), std::string::npos);
  EXPECT_NE(privatePart.find("Usage:      sign\n"), std::string::npos) << privatePart;
  EXPECT_NE(privatePart.find("Access:     sensitive, always sensitive, never extractable"), std::string::npos)
      << privatePart;
}

TEST_F(ZavloKeyTokenCli, AWrongPinAMissingModuleOrTokenAndAPulledTokenEndInClearAnswers) {
  struct Case {
    std::string uri;
    std::string why;
  };
  const std::string module = std::string("module-path=") + ZavloSoftHsm::kModule;
  for (const auto& [uri, why] : {
           Case{hsm_.uri("pin-value=0000"), "CKR_PIN_INCORRECT"},
           Case{"pkcs11:token=zavlo?module-path=/nonexistent/libmissing.so&pin-value=4711", "cannot be loaded"},
           Case{"pkcs11:token=absent?" + module + "&pin-value=4711", "no token present matches the URI"},
       }) {
    const auto enrolled = run(uri, {"binding", "enroll"});
    EXPECT_EQ(enrolled.exitStatus, 1) << uri << enrolled.standardError;
    EXPECT_EQ(line(enrolled).value("errorCode", ""), "DEVICE_BINDING_ENROLL_FAILED") << uri;
    EXPECT_NE(enrolled.standardError.find(why), std::string::npos) << enrolled.standardError;
    EXPECT_EQ(enrolled.standardError.find("=0000"), std::string::npos) << "the PIN is never shown";
  }

  const auto enrolled = run(hsm_.uri(), {"binding", "enroll"});
  ASSERT_EQ(enrolled.exitStatus, 0) << enrolled.standardError;
  const std::string keyId = line(enrolled).at("keyId");
  ASSERT_EQ(hsm_.removeToken().exitStatus, 0);
  const auto signed_ = run(hsm_.uri(), {"binding", "sign", "--config", signConfig(keyId, "c")});
  EXPECT_EQ(signed_.exitStatus, 1);
  EXPECT_EQ(line(signed_).value("errorCode", ""), "DEVICE_BINDING_NOT_ENROLLED") << signed_.standardOutput;
  EXPECT_NE(signed_.standardError.find("no token present matches the URI"), std::string::npos) << signed_.standardError;

  // A URI that cannot be used is a usage error before anything runs.
  EXPECT_EQ(run("pkcs11:token=zavlo?pin-source=|/bin/echo", {"binding", "state", keyId}).exitStatus, 2);
}
#endif

}  // namespace
