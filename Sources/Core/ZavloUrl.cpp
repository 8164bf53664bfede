#include "Core/ZavloUrl.hpp"

#include <curl/curl.h>

#include <memory>

namespace {

struct UrlHandleDeleter {
  void operator()(CURLU* handle) const noexcept { curl_url_cleanup(handle); }
};
using UrlHandle = std::unique_ptr<CURLU, UrlHandleDeleter>;

// Any scheme is accepted (ftp must parse to be rejected by the caller, not by us);
// spaces are never allowed, as in a strict URL parser.
constexpr unsigned kParseFlags = CURLU_NON_SUPPORT_SCHEME;

std::optional<std::string> part(CURLU* handle, CURLUPart which, unsigned flags = 0) {
  char* value = nullptr;
  if (curl_url_get(handle, which, &value, flags) != CURLUE_OK || value == nullptr) return std::nullopt;
  std::string text(value);
  curl_free(value);
  return text;
}

}  // namespace

std::optional<ZavloUrl> ZavloUrl::fromHandle(void* opaque, std::string absolute) {
  auto* handle = static_cast<CURLU*>(opaque);
  ZavloUrl url;
  url.absolute_ = std::move(absolute);
  auto scheme = part(handle, CURLUPART_SCHEME);
  if (!scheme) return std::nullopt;
  url.scheme_ = std::move(*scheme);
  url.host_ = part(handle, CURLUPART_HOST).value_or("");
  if (url.host_.size() >= 2 && url.host_.front() == '[' && url.host_.back() == ']') {
    url.host_ = url.host_.substr(1, url.host_.size() - 2);
  }
  if (auto port = part(handle, CURLUPART_PORT)) url.port_ = static_cast<std::uint16_t>(std::stoul(*port));
  url.encodedPath_ = part(handle, CURLUPART_PATH).value_or("");
  url.decodedPath_ = part(handle, CURLUPART_PATH, CURLU_URLDECODE);
  url.query_ = part(handle, CURLUPART_QUERY);
  return url;
}

std::optional<ZavloUrl> ZavloUrl::parse(std::string_view text) {
  UrlHandle handle(curl_url());
  if (!handle) return std::nullopt;
  const std::string input(text);
  if (input.find('\0') != std::string::npos) return std::nullopt;
  if (curl_url_set(handle.get(), CURLUPART_URL, input.c_str(), kParseFlags) != CURLUE_OK) return std::nullopt;
  return fromHandle(handle.get(), input);
}

std::optional<ZavloUrl> ZavloUrl::resolve(const ZavloUrl& base, std::string_view reference) {
  UrlHandle handle(curl_url());
  const std::string input(reference);
  if (!handle || input.find('\0') != std::string::npos) return std::nullopt;
  if (curl_url_set(handle.get(), CURLUPART_URL, base.absolute_.c_str(), kParseFlags) != CURLUE_OK) return std::nullopt;
  // Setting a URL on a handle that holds one resolves it as a reference against it.
  if (curl_url_set(handle.get(), CURLUPART_URL, input.c_str(), kParseFlags) != CURLUE_OK) return std::nullopt;
  auto absolute = part(handle.get(), CURLUPART_URL);
  if (!absolute) return std::nullopt;
  return fromHandle(handle.get(), std::move(*absolute));
}
