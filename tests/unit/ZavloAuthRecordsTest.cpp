#include <gtest/gtest.h>

#include "Core/ZavloAuthEnvironment.hpp"
#include "Core/ZavloAuthException.hpp"
#include "Core/ZavloAuthInitSuccessResponse.hpp"
#include "Core/ZavloAuthResponseUtils.hpp"
#include "Core/ZavloDeviceBindingEnrollResponse.hpp"
#include "Core/ZavloDeviceBindingSignResponse.hpp"
#include "Core/ZavloDeviceBindingStateResponse.hpp"
#include "Core/ZavloSnaStartResponse.hpp"

using nlohmann::json;

namespace {

std::set<std::string> keysOf(const json& object) {
  std::set<std::string> keys;
  for (const auto& [key, value] : object.items()) keys.insert(key);
  return keys;
}

}  // namespace

TEST(ZavloAuthResponseUtils, OptionalsAreOmittedNeverNull) {
  const auto withoutToken = ZavloAuthResponseUtils::jsonObject(ZavloSnaStartResponse{"SUCCESS", 200, std::nullopt});
  ASSERT_TRUE(withoutToken);
  EXPECT_EQ(keysOf(*withoutToken), (std::set<std::string>{"status", "httpStatusCode"}));

  const auto withToken = ZavloAuthResponseUtils::jsonObject(ZavloSnaStartResponse{"SUCCESS", 200, "tok"});
  ASSERT_TRUE(withToken);
  EXPECT_EQ(withToken->at("snaToken"), "tok");

  const auto exception = ZavloAuthResponseUtils::jsonObject(ZavloAuthException::failure(std::nullopt, "m"));
  ASSERT_TRUE(exception);
  EXPECT_EQ(*exception, (json{{"status", "FAILURE"}, {"errorMessage", "m"}}));

  const auto enroll =
      ZavloAuthResponseUtils::jsonObject(ZavloDeviceBindingEnrollResponse{"SUCCESS", "k", "pk", "ES256", {}});
  ASSERT_TRUE(enroll);
  EXPECT_EQ(enroll->size(), 4U);
  EXPECT_FALSE(enroll->contains("attestation"));

  const auto state = ZavloAuthResponseUtils::jsonObject(ZavloDeviceBindingStateResponse{"SUCCESS", "NOT_ENROLLED", {}});
  ASSERT_TRUE(state);
  EXPECT_EQ(keysOf(*state), (std::set<std::string>{"status", "state"}));

  const auto sign = ZavloAuthResponseUtils::jsonObject(ZavloDeviceBindingSignResponse{"SUCCESS", "k", "sig", "ES256"});
  ASSERT_TRUE(sign);
  EXPECT_EQ(keysOf(*sign), (std::set<std::string>{"status", "keyId", "signature", "algorithm"}));
}

TEST(ZavloAuthResponseUtils, KeepsNumberAndStringTypingAndEmptyStrings) {
  const auto sna = ZavloAuthResponseUtils::jsonObject(ZavloSnaStartResponse{"SUCCESS", 302, std::nullopt});
  ASSERT_TRUE(sna);
  EXPECT_TRUE(sna->at("httpStatusCode").is_number_integer());
  EXPECT_EQ(sna->at("httpStatusCode"), 302);

  const auto init = ZavloAuthResponseUtils::jsonObject(ZavloAuthInitSuccessResponse{"SUCCESS", "200", "", ""});
  ASSERT_TRUE(init);
  EXPECT_EQ(*init, (json{{"status", "SUCCESS"}, {"statusCode", "200"}, {"mcc", ""}, {"mnc", ""}}));
  EXPECT_TRUE(init->at("statusCode").is_string());

  const auto enroll =
      ZavloAuthResponseUtils::jsonObject(ZavloDeviceBindingEnrollResponse{"SUCCESS", "k", "pk", "ES256", ""});
  ASSERT_TRUE(enroll);
  EXPECT_EQ(enroll->at("attestation"), "");
}

TEST(ZavloAuthResponseUtils, ConversionFailureYieldsAbsentInsteadOfThrowing) {
  // A field that is not valid UTF-8 cannot be serialised as JSON text.
  EXPECT_FALSE(ZavloAuthResponseUtils::jsonObject(ZavloSnaStartResponse{"SUCCESS", 200, std::string("\xff\xfe")}));
  EXPECT_FALSE(ZavloAuthResponseUtils::jsonObject(ZavloAuthException::failure("E", "bad \xc3")));
}

TEST(ZavloAuthRecords, DecodingIsStrictAboutKeysAndTypes) {
  EXPECT_EQ(json::parse(R"({"status":"SUCCESS","httpStatusCode":204})").get<ZavloSnaStartResponse>(),
            (ZavloSnaStartResponse{"SUCCESS", 204, std::nullopt}));
  // A number given as text, or a fraction, is not an integer status.
  EXPECT_ANY_THROW(json::parse(R"({"status":"SUCCESS","httpStatusCode":"204"})").get<ZavloSnaStartResponse>());
  EXPECT_ANY_THROW(json::parse(R"({"status":"SUCCESS","httpStatusCode":204.5})").get<ZavloSnaStartResponse>());
  // Missing required keys fail; missing optionals do not.
  EXPECT_ANY_THROW(json::parse(R"({"status":"SUCCESS"})").get<ZavloDeviceBindingSignResponse>());
  EXPECT_ANY_THROW(json::parse(R"({"statusCode":"200","mcc":"","mnc":""})").get<ZavloAuthInitSuccessResponse>());

  const auto exception = json::parse(R"({"status":"FAILURE","errorMessage":"m"})").get<ZavloAuthException>();
  EXPECT_EQ(exception, ZavloAuthException::failure(std::nullopt, "m"));
  EXPECT_ANY_THROW(json::parse(R"({"status":"FAILURE","errorCode":7,"errorMessage":"m"})").get<ZavloAuthException>());
}

TEST(ZavloAuthEnvironment, RawValuesDescriptionsAndDebugMode) {
  EXPECT_FALSE(ZavloAuthEnvironment::fromRawValue(2));
  EXPECT_FALSE(ZavloAuthEnvironment::fromRawValue(-1));
  const auto development = ZavloAuthEnvironment::fromRawValue(0);
  ASSERT_TRUE(development);
  EXPECT_EQ(*development, ZavloAuthEnvironment::development);
  EXPECT_EQ(development->description(), "DEVELOPMENT");
  EXPECT_TRUE(development->isDebugMode());

  const ZavloAuthEnvironment production = ZavloAuthEnvironment::production;
  EXPECT_EQ(production.rawValue(), 1);
  EXPECT_EQ(production.description(), "PRODUCTION");
  EXPECT_FALSE(production.isDebugMode());

  const auto all = ZavloAuthEnvironment::allCases();
  ASSERT_EQ(all.size(), 2U);
  EXPECT_EQ(all[0], ZavloAuthEnvironment::development);
  EXPECT_EQ(all[1], ZavloAuthEnvironment::production);
}

TEST(ZavloAuthResponseUtils, CapabilitiesDictionary) {
  const auto capabilities = ZavloAuthResponseUtils::capabilitiesDictionary();
  EXPECT_EQ(capabilities, ZavloAuthResponseUtils::capabilitiesDictionary());
  EXPECT_EQ(capabilities.size(), 6U);
  EXPECT_EQ(capabilities.at("status"), "SUCCESS");
  EXPECT_EQ(capabilities.at("sdkVersion"), "1.1.1");
  EXPECT_EQ(capabilities.at("platform"), "ios");
  EXPECT_TRUE(capabilities.at("bridgeVersion").is_number_integer());
  EXPECT_EQ(capabilities.at("bridgeVersion"), 2);
  EXPECT_EQ(capabilities.at("factors"), json::parse(R"(["SNA","DEVICE_BINDING"])"));
  EXPECT_EQ(capabilities.at("supportedMethods"),
            json::parse(R"(["initAuth","startAuth","initSNA","startSNA","getDeviceBindingState",
                            "enrollDeviceBinding","signDeviceBindingChallenge","getCapabilities"])"));
}
