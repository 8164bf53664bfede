#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Cellular/ZavloConnectionResult.hpp"
#include "Core/ZavloUrl.hpp"

/// The HTTP/1.1 of one hop, as little of it as the operators' redirect chains need: the
/// request text of a GET, and the status, body and Location of the one answer read back.
namespace ZavloHttp1Codec {

/// The request text of a hop; absent for a URL without host or scheme.
std::optional<std::string> createHttpCommand(const ZavloUrl& url);
/// The answer's bytes as text: UTF-8 when they are, otherwise one character per byte
/// (8-bit ASCII), so every answer decodes; held as UTF-8 either way.
std::string decodeResponse(const std::vector<std::uint8_t>& data);
/// The three characters after "HTTP/1.1 " as a number; 0 when they are not one.
std::int64_t parseHttpStatusCode(std::string_view response);
/// 301, 302, 303, 307 and 308: the statuses whose Location the chain follows.
bool isRedirectStatus(std::int64_t status);
/// The body after the header block; a single chunk holding a JSON object is unwrapped.
std::optional<std::string> getResponseBody(std::string_view response);
/// The Location target, spaces turned into "+", relative references resolved.
std::optional<ZavloRedirectResult> parseRedirect(const ZavloUrl& requestUrl, std::string_view response);

}  // namespace ZavloHttp1Codec
