// zavlo-fuzz-response-body: ZavloHttp1Codec::getResponseBody on arbitrary bytes.
//
// Properties, each judged by this file's own reading of the rule: no body without the
// blank line that ends the header block; with the chunked header and a last-chunk line,
// the body is the text before that line from its first "{" on (all of it without one);
// otherwise it is the rest of the answer trimmed of Unicode white space, absent when
// nothing is left. A body of a UTF-8 answer is UTF-8.
#include <cstdint>
#include <string>

#include "Cellular/ZavloHttp1Codec.hpp"
#include "ZavloFuzzSupport.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto response = ZavloFuzz::asText(data, size);
  const auto body = ZavloHttp1Codec::getResponseBody(response);
  const auto headerEnd = response.find("\r\n\r\n");
  if (headerEnd == std::string_view::npos) {
    ZAVLO_FUZZ_CHECK(!body, "no body without the end of the header block");
    return 0;
  }
  const auto after = response.substr(headerEnd + 4);
  const auto lastChunk = after.find("\r\n0\r\n");
  if (response.find("Transfer-Encoding: chunked") != std::string_view::npos && lastChunk != std::string_view::npos) {
    ZAVLO_FUZZ_CHECK(body.has_value(), "a chunked answer with its last chunk always has a body");
    const auto chunk = after.substr(0, lastChunk);
    ZAVLO_FUZZ_CHECK(chunk.ends_with(*body), "the body ends where the last chunk begins");
    const auto dropped = chunk.substr(0, chunk.size() - body->size());
    ZAVLO_FUZZ_CHECK(dropped.find('{') == std::string_view::npos, "nothing from the first brace on is dropped");
    ZAVLO_FUZZ_CHECK(dropped.empty() || body->starts_with('{'), "only what precedes the first brace is dropped");
  } else {
    const auto expected = ZavloFuzz::trimWhiteSpace(after);
    if (expected.empty()) {
      ZAVLO_FUZZ_CHECK(!body, "a blank rest is no body");
    } else {
      ZAVLO_FUZZ_CHECK(body && *body == expected, "the body is the rest of the answer, trimmed");
    }
  }
  if (body && ZavloFuzz::isUtf8(response)) {
    ZAVLO_FUZZ_CHECK(ZavloFuzz::isUtf8(*body), "a UTF-8 answer has a UTF-8 body");
  }
  return 0;
}
