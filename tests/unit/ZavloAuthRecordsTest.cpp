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

// Optionals are omitted, never null; numbers stay numbers, texts texts, empty texts kept.
TEST(ZavloAuthResponseUtils, EachRecordBecomesExactlyItsDictionary) {
  using Utils = ZavloAuthResponseUtils;
  const struct {
    const char* what;
    std::optional<json> actual;
    json expected;
  } cases[] = {
      {"a start without a token",
       Utils::jsonObject(ZavloSnaStartResponse{"SUCCESS", 302, std::nullopt}),
       {{"status", "SUCCESS"}, {"httpStatusCode", 302}}},
      {"a start with a token",
       Utils::jsonObject(ZavloSnaStartResponse{"SUCCESS", 200, "tok"}),
       {{"status", "SUCCESS"}, {"httpStatusCode", 200}, {"snaToken", "tok"}}},
      {"an init with empty texts",
       Utils::jsonObject(ZavloAuthInitSuccessResponse{"SUCCESS", "200", "", ""}),
       {{"status", "SUCCESS"}, {"statusCode", "200"}, {"mcc", ""}, {"mnc", ""}}},
      {"an exception without a code",
       Utils::jsonObject(ZavloAuthException::failure(std::nullopt, "m")),
       {{"status", "FAILURE"}, {"errorMessage", "m"}}},
      {"an enrolment without attestation",
       Utils::jsonObject(ZavloDeviceBindingEnrollResponse{"SUCCESS", "k", "pk", "ES256", {}}),
       {{"status", "SUCCESS"}, {"keyId", "k"}, {"publicKey", "pk"}, {"algorithm", "ES256"}}},
      {"an enrolment with an empty attestation",
       Utils::jsonObject(ZavloDeviceBindingEnrollResponse{"SUCCESS", "k", "pk", "ES256", ""}),
       {{"status", "SUCCESS"}, {"keyId", "k"}, {"publicKey", "pk"}, {"algorithm", "ES256"}, {"attestation", ""}}},
      {"a state without a key",
       Utils::jsonObject(ZavloDeviceBindingStateResponse{"SUCCESS", "NOT_ENROLLED", {}}),
       {{"status", "SUCCESS"}, {"state", "NOT_ENROLLED"}}},
      {"a signature",
       Utils::jsonObject(ZavloDeviceBindingSignResponse{"SUCCESS", "k", "sig", "ES256"}),
       {{"status", "SUCCESS"}, {"keyId", "k"}, {"signature", "sig"}, {"algorithm", "ES256"}}},
  };
  for (const auto& c : cases) {
    ASSERT_TRUE(c.actual) << c.what;
    EXPECT_EQ(*c.actual, c.expected) << c.what;  // json equality tells 302 from "302"
  }
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
  EXPECT_EQ(ZavloAuthResponseUtils::capabilitiesDictionary(),
            json::parse(R"({"status":"SUCCESS","sdkVersion":"1.1.1","platform":"ios","bridgeVersion":2,
                            "factors":["SNA","DEVICE_BINDING"],
                            "supportedMethods":["initAuth","startAuth","initSNA","startSNA","getDeviceBindingState",
                                                "enrollDeviceBinding","signDeviceBindingChallenge","getCapabilities"]})"));
}
