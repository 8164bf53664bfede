#include "Telemetry/ZavloAuthEventLog.hpp"

#include <array>
#include <chrono>
#include <cstdio>
#include <random>

#include "Core/ZavloAuthVersion.hpp"
#include "Core/ZavloJsonCoding.hpp"
#include "Core/ZavloUuid.hpp"
#include "Platform/ZavloDeviceInfo.hpp"
#include "Platform/ZavloPlatform.hpp"

namespace {

using OptionalField = std::optional<std::string> ZavloAuthEventLog::*;

// Key order of the optional text fields, shared by every form of the record.
constexpr std::array<std::pair<const char*, OptionalField>, 10> kOptionalFields{{
    {"entityId", &ZavloAuthEventLog::entityId},
    {"timestamp", &ZavloAuthEventLog::timestamp},
    {"requestId", &ZavloAuthEventLog::requestId},
    {"authProvider", &ZavloAuthEventLog::authProvider},
    {"authType", &ZavloAuthEventLog::authType},
    {"eventName", &ZavloAuthEventLog::eventName},
    {"failureReason", &ZavloAuthEventLog::failureReason},
    {"status", &ZavloAuthEventLog::status},
    {"userHandle", &ZavloAuthEventLog::userHandle},
    {"token", &ZavloAuthEventLog::token},
}};

nlohmann::json withoutMetaData(const ZavloAuthEventLog& event) {
  nlohmann::json dictionary = nlohmann::json::object();
  dictionary["txnid"] = event.txnid();
  for (const auto& [key, field] : kOptionalFields) ZavloJsonCoding::putOptional(dictionary, key, event.*field);
  return dictionary;
}

}  // namespace

ZavloAuthEventLog::ZavloAuthEventLog() : ZavloAuthEventLog(makeTransactionId()) { timestamp = makeTimestamp(); }

ZavloAuthEventLog::ZavloAuthEventLog(std::string txnid) : txnid_(std::move(txnid)) {}

nlohmann::json ZavloAuthEventLog::toDictionary() const {
  auto dictionary = withoutMetaData(*this);
  if (metaData) dictionary["metaData"] = *metaData;
  return dictionary;
}

ZavloResult<nlohmann::json, ZavloCodingError> ZavloAuthEventLog::encode() const {
  auto coded = withoutMetaData(*this);
  if (metaData) {
    std::string text;
    try {
      text = metaData->dump();  // strict: invalid UTF-8 throws
    } catch (const nlohmann::json::exception& error) {
      return zavloFailure(ZavloCodingError{std::string("metaData is not serialisable: ") + error.what()});
    }
    // Only an object travels; anything else is left out on purpose.
    if (nlohmann::json::parse(text, nullptr, false).is_object()) coded["metaData"] = std::move(text);
  }
  return coded;
}

ZavloResult<std::shared_ptr<ZavloAuthEventLog>, ZavloCodingError> ZavloAuthEventLog::decode(
    const nlohmann::json& coded) {
  try {
    std::shared_ptr<ZavloAuthEventLog> event(new ZavloAuthEventLog(ZavloJsonCoding::requireString(coded, "txnid")));
    for (const auto& [key, field] : kOptionalFields) (*event).*field = ZavloJsonCoding::optionalString(coded, key);
    if (auto text = ZavloJsonCoding::optionalString(coded, "metaData")) {
      auto parsed = nlohmann::json::parse(*text, nullptr, /*allow_exceptions=*/false);
      if (parsed.is_discarded()) return zavloFailure(ZavloCodingError{"metaData is not valid JSON text"});
      if (parsed.is_object()) event->metaData = std::move(parsed);
    }
    return event;
  } catch (const ZavloJsonCoding::DecodingError& error) {
    return zavloFailure(ZavloCodingError{error.what()});
  }
}

nlohmann::json ZavloAuthEventLog::createDeviceMetadata(const ZavloDeviceInfo& deviceInfo) {
  return {
      {"clientAppVersion", deviceInfo.hostApplicationVersion().value_or("unknown")},
      {"sdkVersion", ZavloAuthSDKVersion},
      {"deviceType", "iOS"},
      {"os", deviceInfo.operatingSystemVersion()},
  };
}

std::string ZavloAuthEventLog::makeTransactionId() {
  // Uniqueness, not secrecy, is what a transaction id needs: a per-thread generator
  // seeded from the system's entropy source is enough and keeps event creation cheap.
  thread_local std::mt19937_64 generator = [] {
    std::random_device entropy;
    std::seed_seq seed{entropy(), entropy(), entropy(), entropy(), entropy(), entropy(), entropy(), entropy()};
    return std::mt19937_64(seed);
  }();
  std::array<std::uint8_t, 16> bytes{};
  for (std::size_t i = 0; i < bytes.size(); i += 8) {
    const auto word = generator();
    for (std::size_t b = 0; b < 8; ++b) bytes[i + b] = static_cast<std::uint8_t>(word >> (8 * b));
  }
  return zavloRandomUuidText(bytes);
}

std::string ZavloAuthEventLog::makeTimestamp() { return makeTimestamp(std::chrono::system_clock::now()); }

std::string ZavloAuthEventLog::makeTimestamp(std::chrono::system_clock::time_point at) {
  using namespace std::chrono;
  const auto now = floor<seconds>(at);
  const auto day = floor<days>(now);
  const year_month_day date{day};
  const hh_mm_ss time{now - day};
  const int year = static_cast<int>(date.year());
  if (year < 0 || year > 9999) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%04d-%02u-%02uT%02ld:%02ld:%02ldZ", year,
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                  static_cast<long>(time.hours().count()), static_cast<long>(time.minutes().count()),
                  static_cast<long>(time.seconds().count()));
    return text.data();
  }
  // Digit by digit: every event is stamped, and formatted printing costs many times more.
  std::string text = "0000-00-00T00:00:00Z";
  const auto put = [&text](std::size_t at, long value, int digits) {
    for (auto i = static_cast<std::size_t>(digits); i-- > 0; value /= 10)
      text[at + i] = static_cast<char>('0' + value % 10);
  };
  put(0, year, 4);
  put(5, static_cast<unsigned>(date.month()), 2);
  put(8, static_cast<unsigned>(date.day()), 2);
  put(11, static_cast<long>(time.hours().count()), 2);
  put(14, static_cast<long>(time.minutes().count()), 2);
  put(17, static_cast<long>(time.seconds().count()), 2);
  return text;
}
