#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "Telemetry/ZavloAuthEventLog.hpp"
#include "Platform/ZavloHttpSession.hpp"

/// Why a telemetry post failed: six cases, some with a payload.
class ZavloAuthHttpError {
 public:
  enum class Kind { invalidURL, encodingError, networkError, httpError, decodingError, invalidResponse };

  struct InvalidURL {
    std::string url;
  };
  struct EncodingError {
    ZavloCodingError error;
  };
  struct NetworkError {
    ZavloHttpTransportError error;
  };
  struct HttpError {
    int statusCode = 0;
    std::optional<std::vector<std::uint8_t>> data;  ///< the body as received
  };
  struct DecodingError {
    ZavloCodingError error;
  };
  struct InvalidResponse {};

  using Payload = std::variant<InvalidURL, EncodingError, NetworkError, HttpError, DecodingError, InvalidResponse>;

  static ZavloAuthHttpError invalidURL(std::string url) { return ZavloAuthHttpError(InvalidURL{std::move(url)}); }
  static ZavloAuthHttpError encodingError(ZavloCodingError error) {
    return ZavloAuthHttpError(EncodingError{std::move(error)});
  }
  static ZavloAuthHttpError networkError(ZavloHttpTransportError error) {
    return ZavloAuthHttpError(NetworkError{std::move(error)});
  }
  static ZavloAuthHttpError httpError(int statusCode, std::optional<std::vector<std::uint8_t>> data) {
    return ZavloAuthHttpError(HttpError{statusCode, std::move(data)});
  }
  static ZavloAuthHttpError decodingError(ZavloCodingError error) {
    return ZavloAuthHttpError(DecodingError{std::move(error)});
  }
  static ZavloAuthHttpError invalidResponse() { return ZavloAuthHttpError(InvalidResponse{}); }

  [[nodiscard]] Kind kind() const noexcept { return static_cast<Kind>(payload_.index()); }
  [[nodiscard]] const Payload& payload() const noexcept { return payload_; }
  /// The payload of one case, or null for any other case.
  template <class Case>
  [[nodiscard]] const Case* as() const noexcept {
    return std::get_if<Case>(&payload_);
  }

  /// The one description this error supplies, e.g. "Invalid URL: ..." or "HTTP 404: not found".
  [[nodiscard]] std::string errorDescription() const;

 private:
  explicit ZavloAuthHttpError(Payload payload) : payload_(std::move(payload)) {}

  Payload payload_;
};
