// The cellular client's request text and response judgement, as data: request bytes
// expected for a URL, a canned answer next to the result and telemetry it must give.
#include <gtest/gtest.h>

#include "Cellular/ZavloCellularSnaClient.hpp"
#include "Cellular/ZavloChainDictionary.hpp"
#include "Cellular/ZavloHttp1Codec.hpp"
#include "Testing/ZavloTestPlatform.hpp"

using nlohmann::json;
using Client = ZavloCellularSnaClient;
namespace Http1 = ZavloHttp1Codec;

namespace {

ZavloUrl url(const char* text) {
  auto parsed = ZavloUrl::parse(text);
  EXPECT_TRUE(parsed) << text;
  return parsed.value_or(*ZavloUrl::parse("http://invalid.test/"));
}

constexpr const char* kTail =
    "\r\nAccept: text/html,application/json,application/xhtml+xml,application/xml,*/*"
    "\r\nUser-Agent: ZavloAuthenticationSDK/1.0\r\nConnection: close\r\n\r\n";

}  // namespace

TEST(ZavloHttp1Codec, RequestTextByteForByte) {
  const std::vector<std::pair<const char*, std::string>> cases = {
      {"http://h:8080/a", "GET /a HTTP/1.1\r\nHost: h:8080"},
      {"https://host/path?q=1", "GET /path?q=1 HTTP/1.1\r\nHost: host"},
      {"https://h:443/x", "GET /x HTTP/1.1\r\nHost: h:443"},  // explicit 443 is kept
      {"https://h:8443/x", "GET /x HTTP/1.1\r\nHost: h:8443"},
      {"http://h:80/x", "GET /x HTTP/1.1\r\nHost: h"},
      {"http://h", "GET / HTTP/1.1\r\nHost: h"},
      {"http://h/dir/", "GET /dir/ HTTP/1.1\r\nHost: h"},
      {"http://h/a?b=/", "GET /a/?b=/ HTTP/1.1\r\nHost: h"},             // a URL ending in "/" gives its path one
      {"http://h/a%20b?x=%20y", "GET /a b?x=%20y HTTP/1.1\r\nHost: h"},  // path decoded, query as written
      {"http://[::1]:8080/v6", "GET /v6 HTTP/1.1\r\nHost: ::1:8080"},
  };
  for (const auto& [text, head] : cases) {
    EXPECT_EQ(Http1::createHttpCommand(url(text)), head + kTail) << text;
  }
  EXPECT_FALSE(Http1::createHttpCommand(url("file:///etc/hosts"))) << "no host";
}

// The status is the three characters after "HTTP/1.1 "; the body follows the header block,
// trimmed, and one chunk holding a JSON object loses its size line.
TEST(ZavloHttp1Codec, StatusAndBodyOfAnAnswer) {
  struct Row {
    std::string response;
    std::int64_t status;
    std::optional<std::string> body;
  };
  const std::string chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
  const std::vector<Row> rows = {
      {"HTTP/1.1 302 Found\r\n", 302, std::nullopt},  // no header end, no body
      {"HTTP/1.0 200 OK\r\n\r\n  {\"snaToken\":\"x\"}\r\n", 200, R"({"snaToken":"x"})"},
      {"HTTP/1.1 2x0 OK\r\nA: b\r\n\r\n \r\n", 0, std::nullopt},
      {"HTTP/1.1 20", 0, std::nullopt},      // shorter than twelve characters
      {"HTTP/2 200 OK", 0, std::nullopt},    // positions 9 to 11 are not the status
      {"HTTP/1.1 +20 X", 20, std::nullopt},  // a sign is part of a number's text
      {"HTTP/1.1 -01 X", -1, std::nullopt},
      {"HTTP/1.1 ++2 X", 0, std::nullopt},
      {chunked + "11\r\n{\"snaToken\":\"x\"}\r\n0\r\n\r\n", 200, R"({"snaToken":"x"})"},
      {chunked + "3\r\nabc\r\n0\r\n\r\n", 200, "3\r\nabc"},  // no "{": the whole chunk text
      {chunked + "3\r\nabc", 200, "3\r\nabc"},               // no last chunk: the plain rule
      // The header name is matched in exact case only.
      {"HTTP/1.1 200 OK\r\ntransfer-encoding: chunked\r\n\r\n3\r\n{}\r\n0\r\n\r\n", 200, "3\r\n{}\r\n0"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Http1::parseHttpStatusCode(row.response), row.status) << row.response;
    EXPECT_EQ(Http1::getResponseBody(row.response), row.body) << row.response;
  }
}

TEST(ZavloHttp1Codec, RedirectTargets) {
  const auto base = url("https://h/a");
  const auto target = [&](const char* response) -> std::string {
    const auto redirect = Http1::parseRedirect(base, response);
    if (!redirect) return "<none>";
    EXPECT_FALSE(redirect->cookies);
    return redirect->url ? redirect->url->absoluteString() : "<no url>";
  };
  EXPECT_EQ(target("HTTP/1.1 302 Found\r\nLocation: /next?x=1\r\n\r\n"), "https://h/next?x=1");
  EXPECT_EQ(target("HTTP/1.1 302 Found\r\nlocation: http://op.test:8080/b\r\n\r\n"), "http://op.test:8080/b");
  EXPECT_EQ(target("HTTP/1.1 302 Found\r\nLocation: next\r\n\r\n"), "https://h/next");
  EXPECT_EQ(target("HTTP/1.1 302 Found\r\nLocation: http://o.test/a b?c d\r\n\r\n"), "http://o.test/a+b?c+d");
  EXPECT_EQ(target("HTTP/1.1 302 Found\r\n\r\n"), "<none>");
  EXPECT_EQ(target("HTTP/1.1 302 Found\r\nLocation: /x"), "<none>") << "no line break after the value";
  EXPECT_EQ(target("HTTP/1.1 302 Found\r\nLocation: /x\nX: y\r\n"), "<none>") << "a bare LF ends the value";
  EXPECT_EQ(target("HTTP/1.1 302 Found\r\nLocation: http://h:99999/\r\n\r\n"), "<none>") << "port out of range";
  EXPECT_FALSE(Http1::parseRedirect(url("file:///x"), "HTTP/1.1 302 X\r\nLocation: /y\r\n\r\n"));

  // A reference that names a host is not resolved, though it has no scheme; nor is a URL
  // with a scheme, though it has no host: both are followed as they are, and the next hop
  // refuses them.
  const auto followed = [&](const char* response) {
    auto redirect = Http1::parseRedirect(base, response);
    EXPECT_TRUE(redirect && redirect->url) << response;
    return redirect && redirect->url ? *redirect->url : base;
  };
  const auto networkPath = followed("HTTP/1.1 302 Found\r\nLocation: //other.test/p?q=1\r\n\r\n");
  EXPECT_EQ(networkPath.absoluteString(), "//other.test/p?q=1");
  EXPECT_EQ(networkPath.scheme(), "");
  EXPECT_EQ(networkPath.host(), "other.test");
  const auto hostless = followed("HTTP/1.1 302 Found\r\nLocation: http://\r\n\r\n");
  EXPECT_EQ(hostless.absoluteString(), "http://");
  EXPECT_EQ(hostless.scheme(), "http");
  EXPECT_EQ(hostless.host(), "");
}

// libcurl's URL API parses and resolves; what it would refuse or repair, the client judges
// as a URL with a scheme and no host, or a host and no scheme.
TEST(ZavloUrl, SchemesStayAsWrittenAndAUrlMayLackItsHostOrItsScheme) {
  const auto upper = url("HTTPS://Op.Test:8443/a?b=1");
  EXPECT_EQ(upper.scheme(), "HTTPS");
  EXPECT_EQ(upper.host(), "Op.Test");
  EXPECT_EQ(upper.port(), 8443);
  EXPECT_EQ(upper.absoluteString(), "HTTPS://Op.Test:8443/a?b=1");
  const auto resolved = ZavloUrl::resolve(url("HtTp://op.test/a/b"), "../c");
  ASSERT_TRUE(resolved);
  EXPECT_EQ(resolved->scheme(), "HtTp");
  EXPECT_EQ(resolved->absoluteString(), "HtTp://op.test/c");

  for (const auto* text : {"http://", "https://:443/", "http://user@/x", "http:///path", "http:x", "http:/x"}) {
    const auto parsed = ZavloUrl::parse(text);
    ASSERT_TRUE(parsed) << text;
    EXPECT_EQ(parsed->scheme(), "http" + std::string(text[4] == 's' ? "s" : "")) << text;
    EXPECT_EQ(parsed->host(), "") << text;
    EXPECT_EQ(parsed->absoluteString(), text);
  }
  const auto networkPath = ZavloUrl::parse("//op.test:8080/a%20b?c");
  ASSERT_TRUE(networkPath);
  EXPECT_EQ(networkPath->scheme(), "");
  EXPECT_EQ(networkPath->host(), "op.test");
  EXPECT_EQ(networkPath->port(), 8080);
  EXPECT_EQ(networkPath->decodedPath(), "/a b");
  EXPECT_EQ(networkPath->query(), "c");

  for (const auto* text : {"", "/relative", "op.test/path", "://op.test/", "http://op test/", "//op test/"}) {
    EXPECT_FALSE(ZavloUrl::parse(text)) << text;
  }
}

// libcurl's own rule takes "1http" or "+a" for a scheme; RFC 3986 wants a letter first. Such
// text is neither a URL nor a reference, and resolving it used to splice the base's scheme
// over its first characters ("HTTPp://evil.test/x").
TEST(ZavloUrl, ASchemeStartsWithALetter) {
  const auto base = url("HTTP://op.test/a");
  for (const auto* text : {"1http://evil.test/x", "1HTTP://evil.test/", "+a://evil.test/", "-x://h/", "1http:x"}) {
    EXPECT_FALSE(ZavloUrl::parse(text)) << text;
    EXPECT_FALSE(ZavloUrl::resolve(base, text)) << text;
  }
  EXPECT_FALSE(Http1::parseRedirect(base, "HTTP/1.1 302 Found\r\nLocation: 1http://evil.test/x\r\n\r\n"));
  const auto letterFirst = ZavloUrl::parse("h1+.-://op.test/");
  ASSERT_TRUE(letterFirst);
  EXPECT_EQ(letterFirst->scheme(), "h1+.-");
  EXPECT_EQ(ZavloUrl::resolve(base, "x1:y")->absoluteString(), "x1:y") << "a reference with a scheme is its target";
}

// A chain resolves each redirect against the URL the one before resolved to; that URL must
// act as its own text would, also where libcurl's parts and text disagree (a host it
// decoded from escapes reads back as another address, and its copy of a handle drops an
// IPv6 zone).
TEST(ZavloUrl, AResolvedUrlResolvesAsItsTextWould) {
  const auto base = url("http://op.test/a/b?c=d");
  for (const auto* first : {"../x/y?z", "//%343/p", "//op.test:81/%41/q", "?only", "//[fe80::1%25eth0]/p"}) {
    const auto resolved = ZavloUrl::resolve(base, first);
    ASSERT_TRUE(resolved) << first;
    const auto reread = url(resolved->absoluteString().c_str());
    for (const auto* next : {"n", ".", "?q", "#f", "/abs"}) {
      const auto viaResolved = ZavloUrl::resolve(*resolved, next);
      const auto viaText = ZavloUrl::resolve(reread, next);
      ASSERT_TRUE(viaResolved && viaText) << first << " then " << next;
      EXPECT_EQ(viaResolved->absoluteString(), viaText->absoluteString()) << first << " then " << next;
      EXPECT_EQ(viaResolved->host(), viaText->host()) << first << " then " << next;
    }
  }
}

// A reference that is a plain absolute path (a chain's usual Location) is resolved without
// libcurl: it must give what libcurl gives, parts and text, also against a URL that was
// itself resolved that way.
TEST(ZavloUrl, APlainPathResolvesAsLibcurlWould) {
  struct Row {
    const char* base;
    const char* reference;
    const char* absolute;
    const char* host;
    std::optional<std::uint16_t> port;
    const char* path;
    std::optional<std::string> query;
  };
  const std::vector<Row> rows = {
      {"http://127.0.0.1:8080/chain/4/sna", "/chain/3/sna", "http://127.0.0.1:8080/chain/3/sna", "127.0.0.1", 8080,
       "/chain/3/sna", std::nullopt},
      {"HTTP://Op.Test/a?b#c", "/x?y=1&z=/?", "HTTP://Op.Test/x?y=1&z=/?", "Op.Test", std::nullopt, "/x", "y=1&z=/?"},
      {"https://user:pw@op.test:443/a", "/b", "https://user:pw@op.test:443/b", "op.test", 443, "/b", std::nullopt},
      {"http://op.test:0080/a", "/b", "http://op.test:80/b", "op.test", 80, "/b", std::nullopt},
      {"http://[::1]:81", "/v6", "http://[::1]:81/v6", "::1", 81, "/v6", std::nullopt},
      {"http://h/a", "/a//b/", "http://h/a//b/", "h", std::nullopt, "/a//b/", std::nullopt},
      {"http://h/a", "/p/./q/../r", "http://h/p/r", "h", std::nullopt, "/p/r", std::nullopt},
      {"http://h/a", "/p?", "http://h/p", "h", std::nullopt, "/p", ""},
      {"http://h/a", "/p#f", "http://h/p#f", "h", std::nullopt, "/p", std::nullopt},
      {"http://h/a", "/%41", "http://h/%41", "h", std::nullopt, "/%41", std::nullopt},
      {"http://h/a", "/a:b@c!$'()*+,;=~", "http://h/a:b@c!$'()*+,;=~", "h", std::nullopt, "/a:b@c!$'()*+,;=~",
       std::nullopt},
  };
  for (const auto& row : rows) {
    // Twice: against the parsed base, then against what the first resolution gave.
    auto base = url(row.base);
    for (int round = 0; round < 2; ++round) {
      const auto resolved = ZavloUrl::resolve(base, row.reference);
      ASSERT_TRUE(resolved) << row.base << " + " << row.reference;
      EXPECT_EQ(resolved->absoluteString(), row.absolute) << row.base << " + " << row.reference;
      EXPECT_EQ(resolved->scheme(), base.scheme()) << row.reference;
      EXPECT_EQ(resolved->host(), row.host) << row.reference;
      EXPECT_EQ(resolved->port(), row.port) << row.reference;
      EXPECT_EQ(resolved->encodedPath(), row.path) << row.reference;
      EXPECT_EQ(resolved->query(), row.query) << row.reference;
      base = *resolved;
    }
  }
}

TEST(ZavloChainDictionary, ErrorWordsOrTheStatusWithTheBodysMembers) {
  const std::vector<std::pair<ZavloChainOutcome, json>> rows = {
      {ZavloNetworkError::connectionCantBeCreated("t"),
       {{"error", "SNA_CONNECTION_FAILED"}, {"error_description", "t"}}},
      {ZavloNetworkError::connectionFailed("c"), {{"error", "SNA_CONNECTION_FAILED"}, {"error_description", "c"}}},
      {ZavloNetworkError::invalidRedirectURL("r"), {{"error", "SNA_INVALID_REDIRECT"}, {"error_description", "r"}}},
      {ZavloNetworkError::other("o"), {{"error", "SNA_CELLULAR_REQUEST_FAILED"}, {"error_description", "o"}}},
      {ZavloNetworkError::tooManyRedirects(),
       {{"error", "SNA_TOO_MANY_REDIRECTS"}, {"error_description", "Too many redirects"}}},
      {ZavloChainAbandoned{}, {{"error", "sdk_error"}, {"error_description", "Unable to carry on"}}},
      {ZavloConnectionResponse{200, R"({"snaToken":"x"})"}, {{"httpStatusCode", 200}, {"snaToken", "x"}}},
      {ZavloConnectionResponse{200, R"({"httpStatusCode":"fake"})"}, {{"httpStatusCode", "fake"}}},  // body wins
      {ZavloConnectionResponse{404, "[1,2]"}, {{"httpStatusCode", 404}}},
      {ZavloConnectionResponse{500, "not json"}, {{"httpStatusCode", 500}}},
      {ZavloConnectionResponse{204, std::nullopt}, {{"httpStatusCode", 204}}},
  };
  for (const auto& [outcome, dictionary] : rows) EXPECT_EQ(ZavloChainDictionary::of(outcome), dictionary);
}

namespace {

struct Judged {
  std::vector<ZavloConnectionResult> results;
  std::vector<std::shared_ptr<ZavloAuthEventLog>> events;
};

Judged judge(const char* requestUrl, std::string response, const std::optional<ZavloConnectionError>& error = {}) {
  ZavloTestPlatform platform;
  Judged judged;
  auto client =
      Client::create(platform, [&](const Client::HopEvent& event) { judged.events.push_back(event.toEventLog()); });
  client->processResponse(url(requestUrl), std::vector<std::uint8_t>(response.begin(), response.end()), error,
                          [&](ZavloConnectionResult result) { judged.results.push_back(std::move(result)); });
  return judged;
}

json dictionaryOf(const ZavloConnectionResult& result) {
  if (const auto* error = std::get_if<ZavloNetworkError>(&result)) return ZavloChainDictionary::of(*error);
  if (const auto* ok = std::get_if<ZavloDataOK>(&result)) return {{"dataOK", ZavloChainDictionary::of(ok->response)}};
  if (const auto* err = std::get_if<ZavloDataErr>(&result)) {
    return {{"dataErr", ZavloChainDictionary::of(err->response)}};
  }
  const auto& redirect = std::get<ZavloRedirectResult>(result);
  return {{"follow", redirect.url ? redirect.url->absoluteString() : ""}};
}

}  // namespace

// Each row: an answer, the hop's result, and the hop event's responseUrl and responseBody.
// Bytes that are not UTF-8 are read one character each, so that every answer decodes.
TEST(ZavloCellularSnaClientResponse, StatusTableWithHopEvents) {
  struct Row {
    std::string response;
    json result;
    std::string responseUrl;
    std::string responseBody;
  };
  const auto ok = [](json dictionary) { return json{{"dataOK", std::move(dictionary)}}; };
  const auto err = [](json dictionary) { return json{{"dataErr", std::move(dictionary)}}; };
  const auto follow = [](const char* target) { return json{{"follow", target}}; };
  const auto unexpected = [](int status) {
    return json{{"error", "SNA_CELLULAR_REQUEST_FAILED"},
                {"error_description", "Unexpected HTTP Status " + std::to_string(status)}};
  };
  const std::string hop = "http://op.test/start";
  const std::vector<Row> rows = {
      {"HTTP/1.1 200 OK\r\n\r\n{\"snaToken\":\"x\"}", ok({{"httpStatusCode", 200}, {"snaToken", "x"}}), hop,
       R"({"snaToken":"x"})"},
      {"HTTP/1.1 200 OK\r\n\r\n{\"snaToken\":\"\u00e9\"}", ok({{"httpStatusCode", 200}, {"snaToken", "\u00e9"}}), hop,
       "{\"snaToken\":\"\u00e9\"}"},  // UTF-8 is kept as it is
      {"HTTP/1.1 202 Accepted\r\n\r\n", ok({{"httpStatusCode", 202}}), hop, ""},
      {"HTTP/1.1 204 No Content\r\n\r\n{\"ignored\":1}", ok({{"httpStatusCode", 204}}), hop, ""},
      {"HTTP/1.1 302 Found\r\nLocation: /next\r\n\r\nmoved", follow("http://op.test/next"), "http://op.test/next",
       "moved"},
      {"HTTP/1.1 302 Found\r\nLocation: /b\r\n\r\nd\xE9j\xE0 \xFF", follow("http://op.test/b"), "http://op.test/b",
       "d\u00e9j\u00e0 \u00ff"},
      {"HTTP/1.1 308 Permanent\r\nLocation: https://b.test/\r\n\r\n", follow("https://b.test/"), "https://b.test/", ""},
      {"HTTP/1.1 302 Found\r\n\r\n",
       {{"error", "SNA_INVALID_REDIRECT"}, {"error_description", "Invalid URL - unable to parse redirect"}},
       "",
       ""},
      {"HTTP/1.1 404 Not Found\r\n\r\n", unexpected(404), hop, ""},
      {"HTTP/1.1 404 Not Found\r\n\r\n{\"reason\":\"gone\"}", err({{"httpStatusCode", 404}, {"reason", "gone"}}), hop,
       R"({"reason":"gone"})"},
      {"HTTP/1.1 403 Forbidden\r\n\r\n{\"reason\":\"\xC0 bient\xF4t\"}",
       err({{"httpStatusCode", 403}, {"reason", "\u00c0 bient\u00f4t"}}), hop, "{\"reason\":\"\u00c0 bient\u00f4t\"}"},
      {"HTTP/1.1 511 Auth\r\n\r\n{}", err({{"httpStatusCode", 511}}), hop, "{}"},
      {"HTTP/1.1 452 X\r\n\r\n{}", unexpected(452), hop, ""},
      {"HTTP/1.1 203 X\r\n\r\n{}", unexpected(203), hop, ""},
      {"HTTP/1.1 304 X\r\n\r\n", unexpected(304), hop, ""},
      {"garbage that is long", unexpected(0), hop, ""},
  };
  for (const auto& row : rows) {
    const auto judged = judge(hop.c_str(), row.response);
    ASSERT_EQ(judged.results.size(), 1U) << row.response;
    EXPECT_EQ(dictionaryOf(judged.results[0]), row.result) << row.response;
    const bool invalidRedirect = row.result.contains("error") && row.result["error"] == "SNA_INVALID_REDIRECT";
    if (invalidRedirect) {
      EXPECT_TRUE(judged.events.empty()) << "an unparsable redirect sends no hop event";
      continue;
    }
    ASSERT_EQ(judged.events.size(), 1U) << row.response;
    const auto& event = *judged.events[0];
    EXPECT_EQ(event.eventName, "SNA_HOP");
    EXPECT_EQ(event.authProvider, "NATIVE_SNA");
    EXPECT_FALSE(event.status);
    EXPECT_FALSE(event.entityId);
    const auto& meta = *event.metaData;
    EXPECT_EQ(meta.at("requestUrl"), hop);
    EXPECT_EQ(meta.at("responseUrl"), row.responseUrl) << row.response;
    EXPECT_EQ(meta.at("responseBody"), row.responseBody) << row.response;
    EXPECT_EQ(meta.at("requestBody"), "");
    EXPECT_EQ(meta.at("httpCode"), Http1::parseHttpStatusCode(row.response));
    EXPECT_EQ(meta.at("sdkVersion"), "1.1.1");
    EXPECT_EQ(meta.size(), 6U);
  }
}

TEST(ZavloCellularSnaClientResponse, ReceiveErrorsAndCorruptAnswersFailWithDifferentTexts) {
  const auto failed = judge("http://op.test/", "", ZavloConnectionError{104, "Connection reset by peer"});
  ASSERT_EQ(failed.results.size(), 1U);
  EXPECT_EQ(dictionaryOf(failed.results[0]),
            (json{{"error", "SNA_CELLULAR_REQUEST_FAILED"}, {"error_description", "Connection reset by peer"}}));
  ASSERT_EQ(failed.events.size(), 1U);
  EXPECT_EQ(failed.events[0]->status, "FAILURE");
  EXPECT_EQ(failed.events[0]->metaData->at("failureReason"), "Connection reset by peer");
  EXPECT_EQ(failed.events[0]->metaData->at("httpCode"), 0);
  EXPECT_EQ(failed.events[0]->metaData->size(), 7U);

  const auto corrupt = judge("http://op.test/", "");
  ASSERT_EQ(corrupt.results.size(), 1U);
  EXPECT_EQ(dictionaryOf(corrupt.results[0]).at("error_description"), "Response has no data or corrupt");
  ASSERT_EQ(corrupt.events.size(), 1U);
  EXPECT_EQ(corrupt.events[0]->failureReason, "Response has no data or is corrupt");
}
