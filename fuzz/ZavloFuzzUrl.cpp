// zavlo-fuzz-url: ZavloUrl::parse and ZavloUrl::resolve, and the request text a hop sends
// for the URLs they give.
//
// Input: a base URL, a line feed, then a reference (no line feed: the whole input is one
// URL, resolved against a fixed base).
//
// Properties: a parsed URL keeps the caller's text; its scheme is the text's own, as
// written, up to the first ":" (empty only for "//host..."); a NUL byte is never part of a
// URL. A reference with a scheme resolves to what it parses to; any other resolves with
// its base's scheme as written and, when neither text has percent escapes, reads again as
// a URL with the same host and port (for a plain host name or address). A resolved URL,
// used as a base, resolves references exactly as the URL read from its text does. A request
// text exists only for a URL with a scheme and a host, and is one request.
#include <cstdint>
#include <string>

#include "Cellular/ZavloHttp1Codec.hpp"
#include "ZavloFuzzSupport.hpp"

namespace {

// RFC 3986: a letter, then letters, digits, "+", "-" or "." up to the ":".
bool startsWithScheme(std::string_view text) {
  const auto colon = text.find(':');
  if (colon == std::string_view::npos || colon == 0) return false;
  for (std::size_t i = 0; i < colon; ++i) {
    const char c = text[i];
    const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    const bool other = (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
    if (!letter && !(i > 0 && other)) return false;
  }
  return true;
}

void checkRequest(const ZavloUrl& url) {
  const auto command = ZavloHttp1Codec::createHttpCommand(url);
  if (url.scheme().empty() || url.host().empty()) ZAVLO_FUZZ_CHECK(!command, "no request without scheme and host");
  if (command) ZAVLO_FUZZ_CHECK(ZavloFuzz::isOneRequest(*command, url.host()), "a hop sends one request");
}

void checkParsed(std::string_view text, const std::optional<ZavloUrl>& url) {
  if (text.find('\0') != std::string_view::npos) ZAVLO_FUZZ_CHECK(!url, "no URL holds a NUL byte");
  if (!url) return;
  ZAVLO_FUZZ_CHECK(url->absoluteString() == text, "a parsed URL keeps the caller's text");
  if (url->scheme().empty()) {
    ZAVLO_FUZZ_CHECK(text.starts_with("//"), "only a network-path reference has no scheme");
  } else {
    ZAVLO_FUZZ_CHECK(startsWithScheme(text) && text.substr(0, text.find(':')) == url->scheme(),
                     "the scheme is the text's own, as written");
  }
  checkRequest(*url);
}

bool same(const std::optional<ZavloUrl>& a, const std::optional<ZavloUrl>& b) {
  if (!a || !b) return a.has_value() == b.has_value();
  return a->absoluteString() == b->absoluteString() && a->scheme() == b->scheme() && a->host() == b->host() &&
         a->port() == b->port() && a->encodedPath() == b->encodedPath() && a->decodedPath() == b->decodedPath() &&
         a->query() == b->query();
}

// A resolved URL keeps what libcurl made of it for the next resolution; that must resolve
// exactly as the URL read again from its text, which is what a chain's next hop did before.
void checkResolvesAsItsText(const ZavloUrl& resolved, std::string_view reference) {
  const auto reread = ZavloUrl::parse(resolved.absoluteString());
  if (!reread) return;
  for (const std::string_view next : {reference, std::string_view(""), std::string_view("?"), std::string_view("#"),
                                      std::string_view("."), std::string_view("../x?y#z"), std::string_view("//h/")}) {
    ZAVLO_FUZZ_CHECK(same(ZavloUrl::resolve(resolved, next), ZavloUrl::resolve(*reread, next)),
                     "a resolved URL resolves as its text would");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto input = ZavloFuzz::asText(data, size);
  const auto lineEnd = input.find('\n');
  const auto baseText =
      lineEnd == std::string_view::npos ? std::string_view("https://op.test/a/b;p?q#f") : input.substr(0, lineEnd);
  const auto reference = lineEnd == std::string_view::npos ? input : input.substr(lineEnd + 1);

  const auto base = ZavloUrl::parse(baseText);
  checkParsed(baseText, base);
  const auto parsedReference = ZavloUrl::parse(reference);
  checkParsed(reference, parsedReference);
  if (!base) return 0;

  const auto resolved = ZavloUrl::resolve(*base, reference);
  if (reference.find('\0') != std::string_view::npos) ZAVLO_FUZZ_CHECK(!resolved, "no URL holds a NUL byte");
  if (startsWithScheme(reference)) {
    ZAVLO_FUZZ_CHECK(resolved.has_value() == parsedReference.has_value(), "a URL with a scheme is its own target");
    if (resolved) ZAVLO_FUZZ_CHECK(resolved->absoluteString() == reference, "a URL with a scheme is its own target");
    return 0;
  }
  if (!resolved) return 0;
  ZAVLO_FUZZ_CHECK(!base->scheme().empty(), "only a base with a scheme resolves a reference");
  ZAVLO_FUZZ_CHECK(resolved->scheme() == base->scheme(), "a reference takes its base's scheme as written");
  ZAVLO_FUZZ_CHECK(resolved->absoluteString().starts_with(base->scheme() + ":"), "the text starts with that scheme");
  // libcurl decodes percent escapes in a host after it has checked and normalised it, and
  // writes the decoded bytes back into the text: "//%343" gives the host "43" while the text
  // "https://43/" reads as "0.0.0.43", and "%7F" gives a raw DEL that no URL may hold. So
  // only text without escapes must read again, with the same host and port.
  const bool escaped =
      (baseText.find('%') != std::string_view::npos) || (reference.find('%') != std::string_view::npos);
  if (!escaped) {
    const auto again = ZavloUrl::parse(resolved->absoluteString());
    ZAVLO_FUZZ_CHECK(again.has_value(), "a resolved URL reads again");
    if (ZavloFuzz::isPlainHost(resolved->host())) {
      ZAVLO_FUZZ_CHECK(again->host() == resolved->host() && again->port() == resolved->port(),
                       "a resolved URL names the same host and port again");
    }
  }
  checkResolvesAsItsText(*resolved, reference);
  checkRequest(*resolved);
  return 0;
}
