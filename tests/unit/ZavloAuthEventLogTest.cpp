#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "Telemetry/ZavloAuthEventLog.hpp"
#include "Testing/ZavloTestPlatform.hpp"

using nlohmann::json;

TEST(ZavloAuthEventLog, FreshRecordHasOnlyIdentityAndTimestamp) {
  const ZavloAuthEventLog event;
  const auto dictionary = event.toDictionary();
  EXPECT_EQ(dictionary.size(), 2U);
  EXPECT_EQ(dictionary.at("txnid"), event.txnid());
  ASSERT_TRUE(event.timestamp);
  EXPECT_EQ(dictionary.at("timestamp"), *event.timestamp);
}

TEST(ZavloAuthEventLog, TransactionIdsAreUniqueUpperCaseVersion4Uuids) {
  const std::regex uuid("^[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}$");
  std::set<std::string> seen;
  for (int i = 0; i < 2000; ++i) {
    const ZavloAuthEventLog event;
    ASSERT_TRUE(std::regex_match(event.txnid(), uuid)) << event.txnid();
    seen.insert(event.txnid());
  }
  EXPECT_EQ(seen.size(), 2000U);
}

TEST(ZavloAuthEventLog, TimestampOfAGivenTime) {
  using namespace std::chrono;
  const std::vector<std::pair<sys_seconds, const char*>> rows = {
      {sys_days{1970y / 1 / 1}, "1970-01-01T00:00:00Z"},
      {sys_days{2024y / 5 / 1} + 9h + 30min, "2024-05-01T09:30:00Z"},
      {sys_days{2000y / 2 / 29} + 23h + 59min + 59s, "2000-02-29T23:59:59Z"},
      {sys_days{1999y / 12 / 31} + 10h + 1min + 2s, "1999-12-31T10:01:02Z"},
  };
  for (const auto& [at, text] : rows) {
    EXPECT_EQ(ZavloAuthEventLog::makeTimestamp(at + 999ms), text);  // to whole seconds
  }
}

TEST(ZavloAuthEventLog, TimestampIsUtcInternetDateTimeToWholeSeconds) {
  const auto timestamp = ZavloAuthEventLog::makeTimestamp();
  ASSERT_EQ(timestamp.size(), 20U) << timestamp;
  EXPECT_TRUE(std::regex_match(timestamp, std::regex(R"(^\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}Z$)"))) << timestamp;
  // Close to now: compare against the C library's own UTC rendering.
  const auto now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  char expectedDay[16];
  std::strftime(expectedDay, sizeof expectedDay, "%Y-%m-%d", &utc);
  EXPECT_EQ(timestamp.substr(0, 10), expectedDay);
}

TEST(ZavloAuthEventLog, DictionaryFormKeepsEmptyStringsAndNestsMetadata) {
  ZavloAuthEventLog event;
  event.requestId = "";
  event.eventName = "INIT_AUTH";
  event.metaData = json::object({{"sdkVersion", "1.1.1"}, {"n", 3}});
  EXPECT_EQ(event.toDictionary(), (json{{"txnid", event.txnid()},
                                        {"timestamp", *event.timestamp},
                                        {"requestId", ""},
                                        {"eventName", "INIT_AUTH"},
                                        {"metaData", {{"sdkVersion", "1.1.1"}, {"n", 3}}}}));

  event.metaData = json::object();
  EXPECT_EQ(event.toDictionary().at("metaData"), json::object());
  const auto coded = event.encode();
  ASSERT_TRUE(coded);
  EXPECT_EQ(coded->at("metaData"), "{}");
}

TEST(ZavloAuthEventLog, CodedFormRoundTripsWithMetadataAsText) {
  ZavloAuthEventLog event;
  event.entityId = "e1";
  event.status = "FAILURE";
  event.failureReason = "no path";
  event.metaData = json::object({{"errorCode", ""}, {"nested", {{"a", json::array({1, 2})}}}});
  const auto coded = event.encode();
  ASSERT_TRUE(coded);
  ASSERT_TRUE(coded->at("metaData").is_string());
  EXPECT_FALSE(coded->contains("token"));

  const auto decoded = ZavloAuthEventLog::decode(*coded);
  ASSERT_TRUE(decoded) << decoded.error().description;
  EXPECT_EQ((*decoded)->txnid(), event.txnid());
  EXPECT_EQ((*decoded)->toDictionary(), event.toDictionary());
}

TEST(ZavloAuthEventLog, EncodingLeavesOutNonObjectMetadataAndFailsOnInvalidText) {
  ZavloAuthEventLog event;
  event.metaData = json::array({1, 2});
  const auto coded = event.encode();
  ASSERT_TRUE(coded);
  EXPECT_FALSE(coded->contains("metaData"));

  event.metaData = json::object({{"bad", "\xff"}});
  EXPECT_FALSE(event.encode());
}

TEST(ZavloAuthEventLog, DecodingFailsWithAClearErrorOnBadInput) {
  const auto missingId = ZavloAuthEventLog::decode(json{{"eventName", "X"}});
  ASSERT_FALSE(missingId);
  EXPECT_NE(missingId.error().description.find("txnid"), std::string::npos);

  EXPECT_FALSE(ZavloAuthEventLog::decode(json{{"txnid", "T"}, {"metaData", "{not json"}}));
  EXPECT_FALSE(ZavloAuthEventLog::decode(json{{"txnid", 5}}));
  EXPECT_FALSE(ZavloAuthEventLog::decode(json{{"txnid", "T"}, {"status", true}}));
  EXPECT_FALSE(ZavloAuthEventLog::decode(json{{"txnid", "T"}, {"metaData", json::object()}}));
  EXPECT_FALSE(ZavloAuthEventLog::decode(json::array()));

  const auto arrayText = ZavloAuthEventLog::decode(json{{"txnid", "T"}, {"metaData", "[1,2]"}});
  ASSERT_TRUE(arrayText);
  EXPECT_FALSE((*arrayText)->metaData);
  EXPECT_EQ((*arrayText)->txnid(), "T");
  EXPECT_FALSE((*arrayText)->timestamp);  // decoded as coded, not regenerated
}

TEST(ZavloAuthEventLog, DeviceMetadataHasExactlyFourKeys) {
  ZavloTestPlatform platform;
  platform.testDeviceInfo().setHostApplicationVersion("4.2");
  platform.testDeviceInfo().setOperatingSystemVersion("17.4.1");
  EXPECT_EQ(ZavloAuthEventLog::createDeviceMetadata(platform.deviceInfo()),
            (json{{"clientAppVersion", "4.2"}, {"sdkVersion", "1.1.1"}, {"deviceType", "iOS"}, {"os", "17.4.1"}}));

  platform.testDeviceInfo().setHostApplicationVersion(std::nullopt);
  EXPECT_EQ(ZavloAuthEventLog::createDeviceMetadata(platform.deviceInfo()).at("clientAppVersion"), "unknown");
}
