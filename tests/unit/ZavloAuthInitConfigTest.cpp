#include <gtest/gtest.h>

#include "Session/ZavloAuthInitConfig.hpp"

using nlohmann::json;

TEST(ZavloAuthInitConfig, RequestIdMustBeAStringAndIsSanitisedButMayBecomeEmpty) {
  EXPECT_EQ(ZavloAuthInitConfig::from({{"requestId", "  abc\n"}})->requestId(), "abc");
  EXPECT_EQ(ZavloAuthInitConfig::from({{"requestId", "<SCRIPT>x"}})->requestId(), "x");
  EXPECT_EQ(ZavloAuthInitConfig::from({{"requestId", "   "}})->requestId(), "");

  const auto number = ZavloAuthInitConfig::from({{"requestId", 123}});
  EXPECT_FALSE(number->requestId());
  EXPECT_EQ(number->configData().at("requestId"), 123);

  const json original = {{"requestId", " <script>r "}, {"other", {1, 2}}};
  EXPECT_EQ(ZavloAuthInitConfig::from(original)->configData(), original) << "kept unchanged, unsanitised";

  const auto empty = ZavloAuthInitConfig::from(json::object());
  EXPECT_FALSE(empty->requestId());
  EXPECT_EQ(empty->configData(), json::object());
  EXPECT_FALSE(empty->entityId());
}

TEST(ZavloAuthInitConfig, EntityIdAcceptsAnyTypeTrimmedAndNeverEmpty) {
  EXPECT_EQ(ZavloAuthInitConfig::from({{"entityId", 42}})->entityId(), "42");
  EXPECT_EQ(ZavloAuthInitConfig::from({{"entityId", " e1 "}})->entityId(), "e1");
  EXPECT_FALSE(ZavloAuthInitConfig::from({{"entityId", "  \n"}})->entityId());
  EXPECT_EQ(ZavloAuthInitConfig::from({{"entityId", true}})->entityId(), "true");
  EXPECT_EQ(ZavloAuthInitConfig::from({{"entityId", {{"a", 1}}}})->entityId(), R"({"a":1})");
  EXPECT_EQ(ZavloAuthInitConfig::from({{"entityId", nullptr}})->entityId(), "null");
}

TEST(ZavloAuthInitConfig, FromJsonStringAcceptsOnlyObjects) {
  for (const auto* text : {"[1,2]", "\"text\"", "", "{bad", "12", "{\"a\":\"\xff\"}"}) {
    EXPECT_EQ(ZavloAuthInitConfig::fromJsonString(text), nullptr) << text;
  }
  const auto empty = ZavloAuthInitConfig::fromJsonString("{}");
  ASSERT_NE(empty, nullptr);
  EXPECT_FALSE(empty->requestId());
  const auto config = ZavloAuthInitConfig::fromJsonString(R"({"requestId":" r1 ","entityId":7})");
  ASSERT_NE(config, nullptr);
  EXPECT_EQ(config->requestId(), "r1");
  EXPECT_EQ(config->entityId(), "7");
}
