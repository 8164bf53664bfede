#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "Core/ZavloResult.hpp"

class ZavloDeviceInfo;

/// Why an event could not be encoded to or decoded from its coded form.
struct ZavloCodingError {
  std::string description;
};

/// The one telemetry record. Created empty (fresh txnid and timestamp), filled field by
/// field by its creator, shared by reference like the event it stands for.
class ZavloAuthEventLog {
 public:
  ZavloAuthEventLog();

  [[nodiscard]] const std::string& txnid() const noexcept { return txnid_; }

  std::optional<std::string> entityId;
  std::optional<std::string> timestamp;
  std::optional<std::string> requestId;
  std::optional<std::string> authProvider;
  std::optional<std::string> authType;
  std::optional<std::string> eventName;
  std::optional<std::string> failureReason;
  std::optional<std::string> status;
  std::optional<std::string> userHandle;
  std::optional<std::string> token;
  std::optional<nlohmann::json> metaData;  ///< an object when present

  /// The body that is posted: absent fields have no key, "metaData" is a nested object.
  [[nodiscard]] nlohmann::json toDictionary() const;

  /// The coded form: like the dictionary form, but "metaData" travels as embedded JSON
  /// text. Fails when the metadata cannot be serialised (for example invalid UTF-8).
  [[nodiscard]] ZavloResult<nlohmann::json, ZavloCodingError> encode() const;

  /// Mirror of encode(): "txnid" is required, "metaData" text must parse as JSON (a
  /// non-object leaves it absent), every present field must have the right type.
  static ZavloResult<std::shared_ptr<ZavloAuthEventLog>, ZavloCodingError> decode(const nlohmann::json& coded);

  /// The four device keys every event's metadata starts from.
  static nlohmann::json createDeviceMetadata(const ZavloDeviceInfo& deviceInfo);
  /// Same, from the process-wide platform.
  static nlohmann::json createDeviceMetadata();

  /// A version 4 UUID, upper-case canonical text (36 characters).
  static std::string makeTransactionId();
  /// The current time as internet date-time in UTC to whole seconds, e.g. 2024-05-01T09:30:00Z.
  static std::string makeTimestamp();
  /// The same for a given time.
  static std::string makeTimestamp(std::chrono::system_clock::time_point at);

 private:
  explicit ZavloAuthEventLog(std::string txnid);

  std::string txnid_;
};
