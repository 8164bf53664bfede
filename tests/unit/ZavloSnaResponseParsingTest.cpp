// The cellular client's request text and response judgement, as data: request bytes
// expected for a URL, a canned answer next to the result and telemetry it must give.
#include <gtest/gtest.h>

#include "Cellular/ZavloCellularSnaClient.hpp"
#include "Testing/ZavloTestPlatform.hpp"

using nlohmann::json;
using Client = ZavloCellularSnaClient;

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

TEST(ZavloCellularSnaClientRequest, RequestTextByteForByte) {
  const std::vector<std::pair<const char*, std::string>> cases = {
      {"http://h:8080/a", "GET /a HTTP/1.1\r\nHost: h:8080"},
      {"https://host/path?q=1", "GET /path?q=1 HTTP/1.1\r\nHost: host"},
      {"https://h:443/x", "GET /x HTTP/1.1\r\nHost: h:443"},  // explicit 443 is kept
      {"https://h:8443/x", "GET /x HTTP/1.1\r\nHost: h:8443"},
      {"http://h:80/x", "GET /x HTTP/1.1\r\nHost: h"},
      {"http://h", "GET / HTTP/1.1\r\nHost: h"},
      {"http://h/dir/", "GET /dir/ HTTP/1.1\r\nHost: h"},
      {"http://h/a%20b?x=%20y", "GET /a b?x=%20y HTTP/1.1\r\nHost: h"},  // path decoded, query as written
      {"http://[::1]:8080/v6", "GET /v6 HTTP/1.1\r\nHost: ::1:8080"},
  };
  for (const auto& [text, head] : cases) {
    EXPECT_EQ(Client::createHttpCommand(url(text)), head + kTail) << text;
  }
  EXPECT_FALSE(Client::createHttpCommand(url("file:///etc/hosts"))) << "no host";
}

TEST(ZavloCellularSnaClientResponse, StatusCodeComesFromTheThreeCharactersAfterTheVersion) {
  EXPECT_EQ(Client::parseHttpStatusCode("HTTP/1.1 302 Found\r\n"), 302);
  EXPECT_EQ(Client::parseHttpStatusCode("HTTP/1.0 200 OK"), 200);
  EXPECT_EQ(Client::parseHttpStatusCode("HTTP/1.1 2x0 OK"), 0);
  EXPECT_EQ(Client::parseHttpStatusCode("HTTP/1.1 20"), 0) << "shorter than twelve characters";
  EXPECT_EQ(Client::parseHttpStatusCode("HTTP/2 200 OK"), 0) << "positions 9 to 11 are not the status";
  EXPECT_EQ(Client::parseHttpStatusCode("HTTP/1.1 +20 X"), 20);
  EXPECT_EQ(Client::parseHttpStatusCode("HTTP/1.1 -01 X"), -1);
  EXPECT_EQ(Client::parseHttpStatusCode("HTTP/1.1 ++2 X"), 0);
}

TEST(ZavloCellularSnaClientResponse, BodyExtraction) {
  EXPECT_EQ(Client::getResponseBody("HTTP/1.1 200 OK\r\n\r\n  {\"snaToken\":\"x\"}\r\n"), R"({"snaToken":"x"})");
  EXPECT_FALSE(Client::getResponseBody("HTTP/1.1 200 OK\r\nA: b\r\n\r\n \r\n"));
  EXPECT_FALSE(Client::getResponseBody("HTTP/1.1 200 OK\r\nA: b\r\n"));
  // One chunk holding a JSON object: the size line is dropped.
  EXPECT_EQ(Client::getResponseBody("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
                                    "11\r\n{\"snaToken\":\"x\"}\r\n0\r\n\r\n"),
            R"({"snaToken":"x"})");
  // Without a "{" the whole chunk text is the body, size line included.
  EXPECT_EQ(Client::getResponseBody("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n"),
            "3\r\nabc");
  // Without the terminating chunk the plain rule applies.
  EXPECT_EQ(Client::getResponseBody("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc"), "3\r\nabc");
  // The header name is matched in exact case only.
  EXPECT_EQ(Client::getResponseBody("HTTP/1.1 200 OK\r\ntransfer-encoding: chunked\r\n\r\n3\r\n{}\r\n0\r\n\r\n"),
            "3\r\n{}\r\n0");
}

TEST(ZavloCellularSnaClientResponse, RedirectTargets) {
  const auto base = url("https://h/a");
  const auto target = [&](const char* response) -> std::string {
    const auto redirect = Client::parseRedirect(base, response);
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
  EXPECT_FALSE(Client::parseRedirect(url("file:///x"), "HTTP/1.1 302 X\r\nLocation: /y\r\n\r\n"));

  // A reference that names a host is not resolved, though it has no scheme; nor is a URL
  // with a scheme, though it has no host: both are followed as they are, and the next hop
  // refuses them.
  const auto followed = [&](const char* response) {
    auto redirect = Client::parseRedirect(base, response);
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
  EXPECT_FALSE(Client::parseRedirect(base, "HTTP/1.1 302 Found\r\nLocation: 1http://evil.test/x\r\n\r\n"));
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

TEST(ZavloCellularSnaClientResponse, DictionariesForErrorsAndFinalAnswers) {
  EXPECT_EQ(Client::convertNetworkErrorToDictionary(ZavloNetworkError::connectionCantBeCreated("t")),
            (json{{"error", "SNA_CONNECTION_FAILED"}, {"error_description", "t"}}));
  EXPECT_EQ(Client::convertNetworkErrorToDictionary(ZavloNetworkError::connectionFailed("c")).at("error"),
            "SNA_CONNECTION_FAILED");
  EXPECT_EQ(Client::convertNetworkErrorToDictionary(ZavloNetworkError::invalidRedirectURL("r")).at("error"),
            "SNA_INVALID_REDIRECT");
  EXPECT_EQ(Client::convertNetworkErrorToDictionary(ZavloNetworkError::other("o")).at("error"),
            "SNA_CELLULAR_REQUEST_FAILED");
  EXPECT_EQ(Client::convertNetworkErrorToDictionary(ZavloNetworkError::tooManyRedirects()),
            (json{{"error", "SNA_TOO_MANY_REDIRECTS"}, {"error_description", "Too many redirects"}}));

  EXPECT_EQ(Client::convertConnectionResponseToDictionary({200, R"({"snaToken":"x"})"}),
            (json{{"httpStatusCode", 200}, {"snaToken", "x"}}));
  EXPECT_EQ(Client::convertConnectionResponseToDictionary({200, R"({"httpStatusCode":"fake"})"}),
            (json{{"httpStatusCode", "fake"}}))
      << "the body wins a clash";
  EXPECT_EQ(Client::convertConnectionResponseToDictionary({404, "[1,2]"}), (json{{"httpStatusCode", 404}}));
  EXPECT_EQ(Client::convertConnectionResponseToDictionary({500, "not json"}), (json{{"httpStatusCode", 500}}));
  EXPECT_EQ(Client::convertConnectionResponseToDictionary({204, std::nullopt}), (json{{"httpStatusCode", 204}}));
}

namespace {

struct Judged {
  std::vector<ZavloConnectionResult> results;
  std::vector<std::shared_ptr<ZavloAuthEventLog>> events;
};

Judged judge(const char* requestUrl, std::string response, const std::optional<ZavloConnectionError>& error = {}) {
  ZavloTestPlatform platform;
  Judged judged;
  auto client = Client::create(platform, [&](auto event) { judged.events.push_back(std::move(event)); });
  client->processResponse(url(requestUrl), std::vector<std::uint8_t>(response.begin(), response.end()), error,
                          [&](ZavloConnectionResult result) { judged.results.push_back(std::move(result)); });
  return judged;
}

json dictionaryOf(const ZavloConnectionResult& result) {
  if (const auto* error = std::get_if<ZavloNetworkError>(&result))
    return Client::convertNetworkErrorToDictionary(*error);
  if (const auto* ok = std::get_if<ZavloDataOK>(&result)) {
    return {{"dataOK", Client::convertConnectionResponseToDictionary(ok->response)}};
  }
  if (const auto* err = std::get_if<ZavloDataErr>(&result)) {
    return {{"dataErr", Client::convertConnectionResponseToDictionary(err->response)}};
  }
  const auto& redirect = std::get<ZavloRedirectResult>(result);
  return {{"follow", redirect.url ? redirect.url->absoluteString() : ""}};
}

}  // namespace

TEST(ZavloCellularSnaClientResponse, StatusTableWithHopEvents) {
  struct Row {
    std::string response;
    json result;
    std::string responseUrl;
    std::string responseBody;
  };
  const std::string hop = "http://op.test/start";
  const std::vector<Row> rows = {
      {"HTTP/1.1 200 OK\r\n\r\n{\"snaToken\":\"x\"}",
       {{"dataOK", {{"httpStatusCode", 200}, {"snaToken", "x"}}}},
       hop,
       R"({"snaToken":"x"})"},
      {"HTTP/1.1 202 Accepted\r\n\r\n", {{"dataOK", {{"httpStatusCode", 202}}}}, hop, ""},
      {"HTTP/1.1 204 No Content\r\n\r\n{\"ignored\":1}", {{"dataOK", {{"httpStatusCode", 204}}}}, hop, ""},
      {"HTTP/1.1 302 Found\r\nLocation: /next\r\n\r\nmoved",
       {{"follow", "http://op.test/next"}},
       "http://op.test/next",
       "moved"},
      {"HTTP/1.1 308 Permanent\r\nLocation: https://b.test/\r\n\r\n",
       {{"follow", "https://b.test/"}},
       "https://b.test/",
       ""},
      {"HTTP/1.1 302 Found\r\n\r\n",
       {{"error", "SNA_INVALID_REDIRECT"}, {"error_description", "Invalid URL - unable to parse redirect"}},
       "",
       ""},
      {"HTTP/1.1 404 Not Found\r\n\r\n",
       {{"error", "SNA_CELLULAR_REQUEST_FAILED"}, {"error_description", "Unexpected HTTP Status 404"}},
       hop,
       ""},
      {"HTTP/1.1 404 Not Found\r\n\r\n{\"reason\":\"gone\"}",
       {{"dataErr", {{"httpStatusCode", 404}, {"reason", "gone"}}}},
       hop,
       R"({"reason":"gone"})"},
      {"HTTP/1.1 511 Auth\r\n\r\n{}", {{"dataErr", {{"httpStatusCode", 511}}}}, hop, "{}"},
      {"HTTP/1.1 452 X\r\n\r\n{}",
       {{"error", "SNA_CELLULAR_REQUEST_FAILED"}, {"error_description", "Unexpected HTTP Status 452"}},
       hop,
       ""},
      {"HTTP/1.1 203 X\r\n\r\n{}",
       {{"error", "SNA_CELLULAR_REQUEST_FAILED"}, {"error_description", "Unexpected HTTP Status 203"}},
       hop,
       ""},
      {"HTTP/1.1 304 X\r\n\r\n",
       {{"error", "SNA_CELLULAR_REQUEST_FAILED"}, {"error_description", "Unexpected HTTP Status 304"}},
       hop,
       ""},
      {"garbage that is long",
       {{"error", "SNA_CELLULAR_REQUEST_FAILED"}, {"error_description", "Unexpected HTTP Status 0"}},
       hop,
       ""},
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
    EXPECT_EQ(meta.at("httpCode"), Client::parseHttpStatusCode(row.response));
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

TEST(ZavloCellularSnaClientResponse, BytesThatAreNotUtf8AreReadOneCharacterEach) {
  // Not UTF-8, so each byte is the character of that number: the redirect is followed and
  // its page reaches the hop event as UTF-8 text.
  const auto redirect = judge("http://op.test/a", "HTTP/1.1 302 Found\r\nLocation: /b\r\n\r\nd\xE9j\xE0 \xFF");
  ASSERT_EQ(redirect.results.size(), 1U);
  EXPECT_EQ(dictionaryOf(redirect.results[0]), (json{{"follow", "http://op.test/b"}}));
  ASSERT_EQ(redirect.events.size(), 1U);
  EXPECT_EQ(redirect.events[0]->metaData->at("responseBody"), "d\u00e9j\u00e0 \u00ff");

  const auto refused = judge("http://op.test/a", "HTTP/1.1 403 Forbidden\r\n\r\n{\"reason\":\"\xC0 bient\xF4t\"}");
  ASSERT_EQ(refused.results.size(), 1U);
  EXPECT_EQ(dictionaryOf(refused.results[0]),
            (json{{"dataErr", {{"httpStatusCode", 403}, {"reason", "\u00c0 bient\u00f4t"}}}}));

  // Valid UTF-8 is kept as it is, not read byte by byte.
  const auto utf8 = judge("http://op.test/a", "HTTP/1.1 200 OK\r\n\r\n{\"snaToken\":\"\u00e9\"}");
  ASSERT_EQ(utf8.results.size(), 1U);
  EXPECT_EQ(dictionaryOf(utf8.results[0]), (json{{"dataOK", {{"httpStatusCode", 200}, {"snaToken", "\u00e9"}}}}));
}
