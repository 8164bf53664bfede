// zavlo-fuzz-redirect: ZavloHttp1Codec::parseRedirect on a fuzzed hop URL and a
// fuzzed answer, and the request text the next hop would send.
//
// Input: the hop's URL, a line feed, then the answer. A first line that is no URL with a
// host leaves the answer to be judged against a fixed URL, so the answer is always
// exercised.
//
// Properties: no target without a Location header (matched as the client matches it) or
// without a host in the hop's URL; a target always has a URL and no cookies; its text
// holds no space, CR, LF or NUL, is UTF-8 when the answer, the hop's URL and its request
// are, and, when neither text has percent escapes, reads again as a URL with the same host
// and port (for a plain host name or address); the next hop's request text is one request.
#include <cstdint>
#include <string>

#include "Cellular/ZavloHttp1Codec.hpp"
#include "ZavloFuzzSupport.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto input = ZavloFuzz::asText(data, size);
  const auto lineEnd = input.find('\n');
  const auto firstLine = lineEnd == std::string_view::npos ? input : input.substr(0, lineEnd);
  const auto rest = lineEnd == std::string_view::npos ? std::string_view() : input.substr(lineEnd + 1);

  auto base = ZavloUrl::parse(firstLine);
  auto response = rest;
  if (!base || base->host().empty()) {
    base = ZavloUrl::parse("http://op.test/a/b?c=d");
    response = input;
  }
  ZAVLO_FUZZ_CHECK(base.has_value(), "the fixed hop URL parses");

  const auto redirect = ZavloHttp1Codec::parseRedirect(*base, response);
  if (response.find("ocation: ") == std::string_view::npos) {
    ZAVLO_FUZZ_CHECK(!redirect, "no target without a Location header");
  }
  if (!redirect) return 0;
  ZAVLO_FUZZ_CHECK(redirect->url.has_value(), "a target always has a URL");
  ZAVLO_FUZZ_CHECK(!redirect->cookies, "cookies are never parsed");

  const auto& target = *redirect->url;
  const auto& text = target.absoluteString();
  ZAVLO_FUZZ_CHECK(text.find_first_of(std::string_view(" \r\n\0", 4)) == std::string::npos,
                   "a target holds no space, CR, LF or NUL");
  // libcurl decodes percent escapes in a host ("%A2" becomes the byte), and a resolved
  // target's text carries the base's host so decoded. The client only resolves against a
  // hop whose request it sent, and it sends only UTF-8, so that is part of the condition.
  const auto baseRequest = ZavloHttp1Codec::createHttpCommand(*base);
  if (ZavloFuzz::isUtf8(response) && ZavloFuzz::isUtf8(base->absoluteString()) && baseRequest &&
      ZavloFuzz::isUtf8(*baseRequest)) {
    ZAVLO_FUZZ_CHECK(ZavloFuzz::isUtf8(text), "a target read from UTF-8 is UTF-8");
  }
  // libcurl decodes percent escapes in a host after it has checked and normalised it, and
  // writes the decoded bytes back into the text: "//%343" gives the host "43" while the text
  // "http://43/" reads as "0.0.0.43", and "%7F" gives a raw DEL that no URL may hold. So
  // only text without escapes must read again, with the same host and port.
  const bool escaped =
      (response.find('%') != std::string_view::npos) || (base->absoluteString().find('%') != std::string::npos);
  if (!escaped) {
    const auto again = ZavloUrl::parse(text);
    ZAVLO_FUZZ_CHECK(again.has_value(), "a target's text reads again as a URL");
    if (ZavloFuzz::isPlainHost(target.host())) {
      ZAVLO_FUZZ_CHECK(again->host() == target.host() && again->port() == target.port(),
                       "a target's text names the same host and port again");
    }
  }

  if (const auto command = ZavloHttp1Codec::createHttpCommand(target)) {
    ZAVLO_FUZZ_CHECK(ZavloFuzz::isOneRequest(*command, target.host()), "the next hop sends one request");
  }
  return 0;
}
