#include "Telemetry/ZavloAuthHttpError.hpp"

#include <nlohmann/json.hpp>

namespace {

// The body as text when it is well-formed UTF-8; the JSON library's strict serialiser is
// the validator, so that no second UTF-8 decoder lives in the code base.
std::optional<std::string> utf8Text(const std::vector<std::uint8_t>& data) {
  std::string text(data.begin(), data.end());
  try {
    (void)nlohmann::json(text).dump();
  } catch (const nlohmann::json::exception&) {
    return std::nullopt;
  }
  return text;
}

struct Describe {
  std::string operator()(const ZavloAuthHttpError::InvalidURL& error) const { return "Invalid URL: " + error.url; }
  std::string operator()(const ZavloAuthHttpError::EncodingError& error) const {
    return "Encoding failed: " + error.error.description;
  }
  std::string operator()(const ZavloAuthHttpError::NetworkError& error) const {
    return "Network error: " + error.error.localizedDescription;
  }
  std::string operator()(const ZavloAuthHttpError::HttpError& error) const {
    if (error.data) {
      if (auto text = utf8Text(*error.data)) return "HTTP " + std::to_string(error.statusCode) + ": " + *text;
    }
    return "HTTP error: " + std::to_string(error.statusCode);
  }
  std::string operator()(const ZavloAuthHttpError::DecodingError& error) const {
    return "Decoding failed: " + error.error.description;
  }
  std::string operator()(const ZavloAuthHttpError::InvalidResponse&) const { return "Invalid response"; }
};

}  // namespace

std::string ZavloAuthHttpError::errorDescription() const { return std::visit(Describe{}, payload_); }
