#include "Core/ZavloUrl.hpp"

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <memory>

namespace {

struct UrlHandleDeleter {
  void operator()(CURLU* handle) const noexcept { curl_url_cleanup(handle); }
};
using UrlHandle = std::unique_ptr<CURLU, UrlHandleDeleter>;

// Whether a handle made from this text may stand for it when a reference is resolved. Not
// with percent escapes: libcurl may write a host it decoded into the text, which then reads
// back as another one, and its copy of a handle drops an IPv6 zone ("[fe80::1%25eth0]").
bool readsBack(std::string_view text) { return text.find('%') == std::string_view::npos; }

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

// The scheme as written (RFC 3986: a letter, then letters, digits, "+", "-", "."), if the
// text begins with one and its colon. libcurl reports schemes in lower case only.
std::optional<std::string_view> schemeOf(std::string_view text) {
  const auto colon = text.find(':');
  if (colon == std::string_view::npos || colon == 0) return std::nullopt;
  const auto scheme = text.substr(0, colon);
  if (std::isalpha(static_cast<unsigned char>(scheme.front())) == 0) return std::nullopt;
  for (const char c : scheme) {
    if (std::isalnum(static_cast<unsigned char>(c)) == 0 && c != '+' && c != '-' && c != '.') return std::nullopt;
  }
  return scheme;
}

// Whether what follows a scheme's colon names a host: an authority ("//" up to the path,
// query or fragment) with something left once user information and port are set aside.
// libcurl refuses an empty one, or takes the path for the host ("http:///x" as host "x").
bool namesHost(std::string_view hierarchy) {
  if (!hierarchy.starts_with("//")) return false;
  auto authority = hierarchy.substr(2, hierarchy.find_first_of("/?#", 2) - 2);
  if (const auto at = authority.rfind('@'); at != std::string_view::npos) authority.remove_prefix(at + 1);
  if (authority.starts_with('[')) return true;  // an IP literal, judged by libcurl
  return authority.find(':') != 0 && !authority.empty();
}

// A reference libcurl resolves by putting it after the base's authority, unchanged: an
// absolute path, then maybe a query, of characters it neither escapes nor decodes, with no
// dot segment to remove, no fragment and no empty query.
bool isPlainAbsolutePath(std::string_view reference) {
  if (reference.size() < 1 || reference[0] != '/' || reference.starts_with("//")) return false;
  const auto queryAt = reference.find('?');
  if (queryAt + 1 == reference.size()) return false;
  for (const char c : reference) {
    if (std::isalnum(static_cast<unsigned char>(c)) == 0 &&
        std::string_view("-._~!$&'()*+,;=:@/?").find(c) == std::string_view::npos) {
      return false;
    }
  }
  const auto path = reference.substr(0, queryAt);
  return path.find("/./") == std::string_view::npos && path.find("/../") == std::string_view::npos &&
         !path.ends_with("/.") && !path.ends_with("/..");
}

// "://host:port" of libcurl's text of a URL, or nothing.
std::string originOf(CURLU* handle) {
  const auto text = part(handle, CURLUPART_URL);
  if (!text) return {};
  const auto start = text->find("://");
  if (start == std::string::npos) return {};
  const auto pathStart = text->find('/', start + 3);
  if (pathStart == std::string::npos) return {};
  return text->substr(start, pathStart - start);
}

}  // namespace

ZavloUrl ZavloUrl::fromHandle(void* opaque, std::string absolute) {
  auto* handle = static_cast<CURLU*>(opaque);
  ZavloUrl url;
  url.absolute_ = std::move(absolute);
  // No scheme: libcurl's is lowered, and callers keep the one as written.
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
  const std::string input(text);
  if (input.find('\0') != std::string::npos) return std::nullopt;
  UrlHandle handle(curl_url());
  if (!handle) return std::nullopt;
  if (input.starts_with("//")) {
    // libcurl reads only URLs with a scheme: this one is read with a stand-in, then dropped.
    const std::string withScheme = "http:" + input;
    if (curl_url_set(handle.get(), CURLUPART_URL, withScheme.c_str(), kParseFlags) != CURLUE_OK) return std::nullopt;
    return fromHandle(handle.get(), input);  // its scheme stays empty
  }
  const auto scheme = schemeOf(input);
  // libcurl also takes a scheme that starts with a digit or a sign ("1http://x"), which
  // RFC 3986 does not: such text is no URL.
  if (!scheme) return std::nullopt;
  if (!namesHost(std::string_view(input).substr(scheme->size() + 1))) {
    ZavloUrl url;
    url.absolute_ = input;
    url.scheme_ = *scheme;
    return url;
  }
  if (curl_url_set(handle.get(), CURLUPART_URL, input.c_str(), kParseFlags) != CURLUE_OK) return std::nullopt;
  auto url = fromHandle(handle.get(), input);
  url.scheme_ = *scheme;
  if (readsBack(input)) url.parsed_ = std::shared_ptr<CURLU>(std::move(handle));
  return url;
}

std::optional<ZavloUrl> ZavloUrl::resolve(const ZavloUrl& base, std::string_view reference) {
  const std::string input(reference);
  if (input.find('\0') != std::string::npos) return std::nullopt;
  if (schemeOf(input)) return parse(input);  // RFC 3986, 5.2.2: the reference is the target
  if (base.scheme_.empty()) return std::nullopt;
  if (!base.host_.empty() && (base.origin_ || base.parsed_) && isPlainAbsolutePath(input)) {
    auto origin = base.origin_;
    if (!origin) {
      if (auto found = originOf(static_cast<CURLU*>(base.parsed_.get())); !found.empty()) {
        origin = std::make_shared<const std::string>(std::move(found));
      }
    }
    if (origin) {
      ZavloUrl url;
      url.absolute_.reserve(base.scheme_.size() + origin->size() + input.size());
      url.absolute_.append(base.scheme_).append(*origin).append(input);
      url.scheme_ = base.scheme_;
      url.host_ = base.host_;
      url.port_ = base.port_;
      const auto queryAt = input.find('?');
      url.encodedPath_ = input.substr(0, queryAt);
      url.decodedPath_ = url.encodedPath_;  // nothing escaped
      if (queryAt != std::string::npos) url.query_ = input.substr(queryAt + 1);
      url.origin_ = std::move(origin);
      return url;
    }
  }
  UrlHandle handle(base.parsed_ ? curl_url_dup(static_cast<CURLU*>(base.parsed_.get())) : curl_url());
  if (!handle) return std::nullopt;
  if (!base.parsed_ && curl_url_set(handle.get(), CURLUPART_URL, base.absolute_.c_str(), kParseFlags) != CURLUE_OK) {
    return std::nullopt;
  }
  // Setting a URL on a handle that holds one resolves it as a reference against it.
  if (curl_url_set(handle.get(), CURLUPART_URL, input.c_str(), kParseFlags) != CURLUE_OK) return std::nullopt;
  auto absolute = part(handle.get(), CURLUPART_URL);
  if (!absolute) return std::nullopt;
  // libcurl reads a reference such as "1http://x" as absolute by its own looser rule; its
  // result then does not start with the base's scheme, and the text is no reference.
  if (absolute->size() <= base.scheme_.size() || (*absolute)[base.scheme_.size()] != ':' ||
      !std::equal(base.scheme_.begin(), base.scheme_.end(), absolute->begin(), [](char a, char b) {
        return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
      })) {
    return std::nullopt;
  }
  // The base's scheme as written, in the text too (libcurl writes it in lower case).
  absolute->replace(0, base.scheme_.size(), base.scheme_);
  const bool keep = readsBack(base.absolute_) && readsBack(input) && readsBack(*absolute);
  auto url = fromHandle(handle.get(), std::move(*absolute));
  url.scheme_ = base.scheme_;
  if (keep) url.parsed_ = std::shared_ptr<CURLU>(std::move(handle));
  return url;
}
