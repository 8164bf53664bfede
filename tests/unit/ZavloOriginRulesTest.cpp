// The allowed-origin rules of the web bridge: which serialised origins a rule list lets in,
// which rule texts it refuses and why, the origin of a URL, and the WebKit patterns.
#include <gtest/gtest.h>

#include "Platform/ZavloOriginRules.hpp"

namespace {

ZavloOriginRules rulesOf(const std::vector<std::string>& texts) {
  std::string error;
  auto rules = ZavloOriginRules::parse(texts, &error);
  EXPECT_TRUE(rules) << error;
  return rules.value_or(ZavloOriginRules());
}

}  // namespace

TEST(ZavloOriginRules, AllowsTheOriginsItsRulesMatch) {
  struct Case {
    std::vector<std::string> rules;
    std::string origin;
    bool allowed;
  };
  const std::vector<Case> cases = {
      {{"https://a.example"}, "https://a.example", true},
      {{"HTTPS://A.Example"}, "https://a.example", true},
      {{"https://a.example"}, "HTTPS://A.EXAMPLE", true},
      {{"https://a.example"}, "https://a.example:443", true},
      {{"https://a.example:443"}, "https://a.example", true},
      {{"http://a.example"}, "http://a.example:80", true},
      {{"https://a.example"}, "https://a.example:8443", false},
      {{"https://a.example"}, "http://a.example", false},
      {{"http://a.example:8080"}, "http://a.example:8080", true},
      {{"http://a.example:8080"}, "http://a.example", false},
      {{"app://host"}, "app://host", true},
      {{"app://host"}, "app://host:443", false},
      {{"app://host:7"}, "app://host", false},
      {{"app://host:7"}, "app://host:07", true},
      {{"https://*.example.com"}, "https://a.example.com", true},
      {{"https://*.example.com"}, "https://b.a.example.com", true},
      {{"https://*.example.com"}, "https://example.com", false},
      {{"https://*.example.com"}, "https://notexample.com", false},
      {{"https://*.example.com"}, "https://a.example.com:444", false},
      {{"http://127.0.0.1:8080"}, "http://127.0.0.1:8080", true},
      {{"http://127.0.0.1"}, "http://127.1", false},
      {{"http://[::1]:8080"}, "http://[0:0::1]:8080", true},
      {{"http://[2001:DB8::1]"}, "http://[2001:db8:0:0:0:0:0:1]", true},
      {{"http://[::ffff:1.2.3.4]"}, "http://[::ffff:102:304]", true},
      {{"https://a.example"}, "https://a.example.", false},
      {{"https://a.example"}, "https://a.example/", false},
      {{"https://a.example"}, "https://u@a.example", false},
      {{"https://a.example"}, "null", false},
      {{"*"}, "null", true},
      {{"*"}, "not an origin \n", true},
      {{"https://a.example", "*"}, "http://b.example", true},
      {{"https://a.example", "https://*.b.example"}, "https://c.b.example", true},
      {{}, "https://a.example", false},
  };
  for (const auto& [rules, origin, allowed] : cases) {
    const auto parsed = ZavloOriginRules::parse(rules);
    EXPECT_EQ(parsed && parsed->allows(origin), allowed) << (rules.empty() ? "" : rules.front()) << " " << origin;
  }
  EXPECT_FALSE(ZavloOriginRules().allows("https://a.example"));
  EXPECT_TRUE(ZavloOriginRules().ownPageOnly());
  EXPECT_FALSE(rulesOf({}).ownPageOnly());
}

TEST(ZavloOriginRules, RefusesTheFirstTextThatIsNoRuleAndSaysWhy) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"https://a.example/path", "a rule has no path"},
      {"https://a.example/", "a rule has no path"},
      {"https://a.example\\", "a rule has no path"},
      {"https://a.example?q", "a rule has no query"},
      {"https://a.example#f", "a rule has no fragment"},
      {"https://u:p@a.example", "a rule has no user information"},
      {"https://", "a rule names a host"},
      {"https://:443", "a rule names a host"},
      {"a.example", "a rule is \"*\" or scheme://host[:port]"},
      {"", "a rule is \"*\" or scheme://host[:port]"},
      {"1http://a", "a scheme is a letter"},
      {"ht_tp://a", "a scheme is a letter"},
      {"https://a.example:0", "a port is a number from 1 to 65535"},
      {"https://a.example:65536", "a port is a number from 1 to 65535"},
      {"https://a.example:", "a port is a number from 1 to 65535"},
      {"https://a.example:+1", "a port is a number from 1 to 65535"},
      {"https://a.example:99999999999999999999", "a port is a number from 1 to 65535"},
      {" https://a.example", "white space or control"},
      {"https://a.example\t", "white space or control"},
      {"https://b\xC3\xBC.example", "a rule is ASCII"},
      {"https://a.*.example", "a wildcard stands only as"},
      {"https://*a.example", "a wildcard stands only as"},
      {"*://a.example", "a scheme is a letter"},
      {"https://*.", "a rule names a host"},
      {"https://*.1.2.3.4", "a wildcard never stands before an address"},
      {"https://*.[::1]", "a wildcard never stands before an address"},
      {"https://a.example.", "does not end with a dot"},
      {"https://a..example", "no empty label"},
      {"https://a%2e.example", "a host name holds only"},
      {"http://127.1", "an IPv4 address is four decimal numbers"},
      {"http://a.0x1f", "an IPv4 address is four decimal numbers"},
      {"http://01.2.3.4", "an IPv4 address is four decimal numbers"},
      {"http://1.2.3.256", "an IPv4 address is four decimal numbers"},
      {"http://::1", "an IPv6 address is written in brackets"},
      {"http://[::1", "an IPv6 address is eight"},
      {"http://[1::2::3]", "an IPv6 address is eight"},
      {"http://[1::2::]", "an IPv6 address is eight"},
      {"http://[fe80::1%25eth0]", "an IPv6 address is eight"},
      {"http://[1:2:3:4:5:6:7]", "an IPv6 address is eight"},
      {"http://[::1]x", "only a port follows the host"},
  };
  for (const auto& [text, reason] : cases) {
    std::string error;
    EXPECT_FALSE(ZavloOriginRules::parse({"https://ok.example", text, "also bad"}, &error)) << text;
    EXPECT_NE(error.find(reason), std::string::npos) << text << ": " << error;
  }
  std::string error;
  EXPECT_FALSE(ZavloOriginRules::parse({"*", "https://a.example/path", "x"}, &error));
  EXPECT_EQ(error, R"(not an origin rule: "https://a.example/path" (a rule has no path))");
  EXPECT_FALSE(ZavloOriginRules::parse({"a\n\"b"}, &error));
  EXPECT_EQ(error.substr(0, 30), R"(not an origin rule: "a\x0A\"b")");
}

TEST(ZavloOriginRules, SerialisesTheOriginOfAUrlAsBrowsersDo) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"HTTPS://A.Example:443/x?y#z", "https://a.example"},
      {"http://127.0.0.1:8080/p", "http://127.0.0.1:8080"},
      {"http://a.example:80", "http://a.example"},
      {"https://a.example:80", "https://a.example:80"},
      {"https://user:pw@a.example/", "https://a.example"},
      {"https://a@b@c.example?x", "https://c.example"},
      {"http://[0:0:0:0:0:0:0:1]:8080/", "http://[::1]:8080"},
      {"http://[1:0:0:2:0:0:0:3]", "http://[1:0:0:2::3]"},
      {"http://[1:0:0:2:0:0:3:4]", "http://[1::2:0:0:3:4]"},
      {"http://[1:0:2:3:4:5:6:7]", "http://[1:0:2:3:4:5:6:7]"},
      {"app://host:7/x", "app://host:7"},
      {"blob:https://a.example/6f1c", "https://a.example"},
      {"blob:app://host/6f1c", "null"},
      {"about:blank", "null"},
      {"data:text/html,<p>", "null"},
      {"file:///etc/hosts", "null"},
      {"file://server/share", "null"},
      {"javascript://a.example/%0Aalert(1)", "null"},
      {"https:a.example", "null"},
      {"https:///a.example", "null"},
      {"https://a.example\\@b.example/", "null"},
      {"https://a b.example/", "null"},
      {"https://%61.example/", "null"},
      {"https://a.example.:443/", "null"},
      {"https://a.example:0/", "null"},
      {"", "null"},
      {"://", "null"},
  };
  for (const auto& [url, origin] : cases) EXPECT_EQ(ZavloOriginRules::originOf(url), origin) << url;

  const auto own = ZavloOriginRules::sameOriginAs("https://A.example:443/login?x");
  EXPECT_EQ(own.texts(), std::vector<std::string>{"https://a.example"});
  EXPECT_TRUE(own.allows("https://a.example") && own.allows("https://a.example:443"));
  EXPECT_FALSE(own.allows("https://b.a.example") || own.allows("http://a.example"));
  for (const auto* opaque : {"about:blank", "data:,x", "file:///x"}) {
    const auto none = ZavloOriginRules::sameOriginAs(opaque);
    EXPECT_TRUE(!none.ownPageOnly() && none.texts().empty() && !none.allows("null")) << opaque;
  }
}

TEST(ZavloOriginRules, GivesWebKitPatternsThatNeverReadAsEveryPageByMistake) {
  using Patterns = std::vector<std::string>;
  const std::vector<std::pair<std::vector<std::string>, Patterns>> cases = {
      {{"https://A.example:8443", "https://a.example"}, {"https://a.example/*"}},
      {{"https://*.Example.com", "http://[::1]:8080"}, {"https://*.example.com/*", "http://[::1]/*"}},
      {{"https://a.example", "*"}, {}},
      {{}, {"zavlo-none://none/*"}},
  };
  for (const auto& [rules, patterns] : cases) EXPECT_EQ(rulesOf(rules).uriPatterns(), patterns);
  EXPECT_EQ(ZavloOriginRules().uriPatterns(), Patterns{"zavlo-none://none/*"});
  EXPECT_EQ(ZavloOriginRules::sameOriginAs("about:blank").uriPatterns(), Patterns{"zavlo-none://none/*"});
}
