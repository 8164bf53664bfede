#include "Cellular/ZavloHttp1Codec.hpp"

#include <charconv>

#include "Core/ZavloAuthValidationUtils.hpp"

namespace {

constexpr std::string_view kHeaderEnd = "\r\n\r\n";

bool startsWith(std::string_view text, std::string_view prefix) { return text.substr(0, prefix.size()) == prefix; }

}  // namespace

std::optional<std::string> ZavloHttp1Codec::createHttpCommand(const ZavloUrl& url) {
  if (url.host().empty() || url.scheme().empty()) return std::nullopt;
  if (!url.decodedPath()) return std::nullopt;
  std::string_view path = *url.decodedPath();
  const auto& absolute = url.absoluteString();
  const std::string_view slash =
      !absolute.empty() && absolute.back() == '/' && !path.empty() && path.back() != '/' ? "/" : "";
  if (path.empty()) path = "/";

  constexpr std::string_view kHeaders =
      "\r\nAccept: text/html,application/json,application/xhtml+xml,application/xml,*/*"
      "\r\nUser-Agent: ZavloAuthenticationSDK/1.0"
      "\r\nConnection: close\r\n\r\n";
  const auto& query = url.query();
  // Built in one allocation: the longest port is six characters with its colon.
  std::string command;
  command.reserve(4 + path.size() + slash.size() + (query ? query->size() + 1 : 0) + 17 + url.host().size() + 6 +
                  kHeaders.size());
  command.append("GET ").append(path).append(slash);
  if (query) command.append("?").append(*query);
  command.append(" HTTP/1.1\r\nHost: ").append(url.host());
  const auto& scheme = url.scheme();
  // An https URL naming port 443 fails the first test and passes the second, so it keeps
  // ":443"; intended.
  const auto port = url.port();
  if (port && ((startsWith(scheme, "https") && *port != 443) || (startsWith(scheme, "http") && *port != 80))) {
    command.append(":").append(std::to_string(*port));
  }
  command.append(kHeaders);
  return command;
}

std::string ZavloHttp1Codec::decodeResponse(const std::vector<std::uint8_t>& data) {
  std::string text(data.begin(), data.end());
  if (ZavloAuthValidationUtils::isWellFormedUtf8(text)) return text;
  text.clear();
  for (const std::uint8_t byte : data) {
    if (byte < 0x80) {
      text += static_cast<char>(byte);
    } else {
      text += static_cast<char>(0xC0 | (byte >> 6));
      text += static_cast<char>(0x80 | (byte & 0x3F));
    }
  }
  return text;
}

std::int64_t ZavloHttp1Codec::parseHttpStatusCode(std::string_view response) {
  if (response.size() < 12) return 0;
  auto digits = response.substr(9, 3);
  // A leading sign is part of a decimal integer's text.
  if (digits.front() == '+') digits.remove_prefix(1);
  std::int64_t status = 0;
  const auto* end = digits.data() + digits.size();
  const auto [parsedTo, error] = std::from_chars(digits.data(), end, status);
  if (error != std::errc() || parsedTo != end || digits.empty() || digits.front() == '+') return 0;
  return status;
}

bool ZavloHttp1Codec::isRedirectStatus(std::int64_t status) {
  return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

std::optional<std::string> ZavloHttp1Codec::getResponseBody(std::string_view response) {
  const auto headerEnd = response.find(kHeaderEnd);
  if (headerEnd == std::string_view::npos) return std::nullopt;
  const auto bodyStart = headerEnd + kHeaderEnd.size();
  if (response.find("Transfer-Encoding: chunked") != std::string_view::npos) {
    // Deliberately narrow: one chunk holding a JSON object, its size line dropped by
    // starting at the first "{".
    const auto terminator = response.find("\r\n0\r\n", bodyStart);
    if (terminator != std::string_view::npos) {
      auto chunk = response.substr(bodyStart, terminator - bodyStart);
      if (const auto brace = chunk.find('{'); brace != std::string_view::npos) chunk.remove_prefix(brace);
      return std::string(chunk);
    }
  }
  const auto rest = ZavloAuthValidationUtils::trimWhitespaceAndNewlines(response.substr(bodyStart));
  if (rest.empty()) return std::nullopt;
  return std::string(rest);
}

std::optional<ZavloRedirectResult> ZavloHttp1Codec::parseRedirect(const ZavloUrl& requestUrl,
                                                                  std::string_view response) {
  if (requestUrl.host().empty()) return std::nullopt;
  // Without its "L" the header name matches "Location" and "location" alike. The value
  // runs to the first line break, which must be CR LF.
  constexpr std::string_view kName = "ocation: ";
  std::optional<std::string> value;
  for (auto at = response.find(kName); at != std::string_view::npos; at = response.find(kName, at + 1)) {
    const auto start = at + kName.size();
    const auto lineEnd = response.find_first_of("\r\n", start);
    if (lineEnd != std::string_view::npos && response.substr(lineEnd, 2) == "\r\n") {
      value = std::string(response.substr(start, lineEnd - start));
      break;
    }
  }
  if (!value) return std::nullopt;
  for (auto& c : *value) {
    if (c == ' ') c = '+';
  }
  auto url = ZavloUrl::parse(*value);
  if (!url || url->host().empty()) url = ZavloUrl::resolve(requestUrl, *value);
  if (!url) return std::nullopt;
  return ZavloRedirectResult{std::move(url), std::nullopt};
}
