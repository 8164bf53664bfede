#pragma once

#include <optional>

#include <nlohmann/json.hpp>

/// Turns result records into the dictionaries that leave the library.
class ZavloAuthResponseUtils {
 public:
  ZavloAuthResponseUtils() = delete;

  /// Encodes the record, parses the text back and returns it when it is an object.
  /// Any failure on the way (for example a field holding invalid UTF-8) yields absent.
  template <class Record>
  static std::optional<nlohmann::json> jsonObject(const Record& record) noexcept {
    try {
      const nlohmann::json encoded = record;
      return objectFromText(encoded.dump());
    } catch (...) {
      return std::nullopt;
    }
  }

  /// The fixed capabilities dictionary, built fresh on each call.
  static nlohmann::json capabilitiesDictionary();

 private:
  static std::optional<nlohmann::json> objectFromText(const std::string& text) noexcept;
};
