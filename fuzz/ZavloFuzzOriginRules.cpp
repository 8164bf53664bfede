// zavlo-fuzz-origin-rules: ZavloOriginRules against a reference matcher written here apart
// from it, plainly: split the text with find, lowercase it, compare.
//
// Input: a rule, a line feed, then an origin (no line feed: the whole input is both).
//
// Properties: the library and the reference agree on whether the rule is one and on
// whether it allows the origin; a rule that reads as an origin allows itself; its WebKit
// pattern is "scheme://host/*", none for "*". The whole input read as a URL has an origin
// that is "null" or one the reference reads and writes the same, that is its own origin
// and that sameOriginAs allows. An origin the reference reads is its own origin as the
// reference writes it (unless its scheme gives documents an opaque one), also with the
// rule's text put before it as user information.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "Platform/ZavloOriginRules.hpp"
#include "ZavloFuzzSupport.hpp"

namespace {

const std::string kLetters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
const std::string kDigits = "0123456789";
const std::string kHexDigits = "0123456789abcdefABCDEF";

bool allIn(const std::string& text, const std::string& alphabet) {
  return std::all_of(text.begin(), text.end(), [&](char c) { return alphabet.find(c) != std::string::npos; });
}

std::string toLower(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + ('a' - 'A'));
  }
  return text;
}

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> pieces;
  std::size_t start = 0;
  for (;;) {
    const auto at = text.find(separator, start);
    pieces.push_back(text.substr(start, at == std::string::npos ? std::string::npos : at - start));
    if (at == std::string::npos) return pieces;
    start = at + 1;
  }
}

// 0..255 in decimal, no leading zero.
bool isByte(const std::string& text) {
  return !text.empty() && text.size() <= 3 && allIn(text, kDigits) && (text.size() == 1 || text[0] != '0') &&
         std::stoi(text) <= 255;
}

// The eight groups of an IPv6 address: a dotted tail turned into two groups, "::" expanded
// into the zero groups it stands for.
std::optional<std::vector<unsigned>> ipv6Groups(std::string text) {
  const auto lastColon = text.rfind(':');
  if (lastColon == std::string::npos) return std::nullopt;
  const auto tail = text.substr(lastColon + 1);
  if (tail.find('.') != std::string::npos) {
    const auto bytes = split(tail, '.');
    if (bytes.size() != 4 || !std::all_of(bytes.begin(), bytes.end(), isByte)) return std::nullopt;
    char groups[16];
    std::snprintf(groups, sizeof groups, "%x:%x", std::stoi(bytes[0]) * 256 + std::stoi(bytes[1]),
                  std::stoi(bytes[2]) * 256 + std::stoi(bytes[3]));
    text = text.substr(0, lastColon + 1) + groups;
  }
  std::vector<std::string> pieces;
  const auto gap = text.find("::");
  if (gap == std::string::npos) {
    pieces = split(text, ':');
    if (pieces.size() != 8) return std::nullopt;
  } else {
    if (text.find("::", gap + 1) != std::string::npos) return std::nullopt;
    const auto left = text.substr(0, gap);
    const auto right = text.substr(gap + 2);
    const auto leftPieces = left.empty() ? std::vector<std::string>{} : split(left, ':');
    const auto rightPieces = right.empty() ? std::vector<std::string>{} : split(right, ':');
    if (leftPieces.size() + rightPieces.size() > 7) return std::nullopt;
    pieces = leftPieces;
    pieces.insert(pieces.end(), 8 - leftPieces.size() - rightPieces.size(), "0");
    pieces.insert(pieces.end(), rightPieces.begin(), rightPieces.end());
  }
  std::vector<unsigned> groups;
  for (const auto& piece : pieces) {
    if (piece.empty() || piece.size() > 4 || !allIn(piece, kHexDigits)) return std::nullopt;
    groups.push_back(static_cast<unsigned>(std::stoul(piece, nullptr, 16)));
  }
  return groups;
}

struct Reference {
  bool any = false;
  std::string scheme;
  bool wildcard = false;
  std::vector<std::string> labels;  // a name's or an IPv4 address's, lowercased
  std::vector<unsigned> ipv6;       // the eight groups of an IPv6 address
  long port = 0;                    // the scheme's default when none is written; 0: none
};

// text as a rule (a wildcard allowed) or as a serialised origin.
std::optional<Reference> readOrigin(const std::string& text, bool rule) {
  Reference parsed;
  if (rule && text == "*") {
    parsed.any = true;
    return parsed;
  }
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte <= 32 || byte >= 127) return std::nullopt;
  }
  const auto separator = text.find("://");
  if (separator == std::string::npos) return std::nullopt;
  parsed.scheme = toLower(text.substr(0, separator));
  if (parsed.scheme.empty() || kLetters.find(parsed.scheme[0]) == std::string::npos ||
      !allIn(parsed.scheme, kLetters + kDigits + "+-.")) {
    return std::nullopt;
  }
  const auto rest = text.substr(separator + 3);
  if (rest.find_first_of("/\\?#@") != std::string::npos) return std::nullopt;
  std::string host = rest;
  std::optional<std::string> port;
  if (!rest.empty() && rest[0] == '[') {
    const auto close = rest.find(']');
    if (close == std::string::npos) return std::nullopt;
    const auto after = rest.substr(close + 1);
    if (!after.empty()) {
      if (after[0] != ':') return std::nullopt;
      port = after.substr(1);
    }
    auto groups = ipv6Groups(rest.substr(1, close - 1));
    if (!groups) return std::nullopt;
    parsed.ipv6 = *groups;
  } else {
    const auto colons = std::count(rest.begin(), rest.end(), ':');
    if (colons > 1) return std::nullopt;
    if (colons == 1) {
      host = rest.substr(0, rest.find(':'));
      port = rest.substr(rest.find(':') + 1);
    }
    if (rule && host.size() >= 2 && host[0] == '*' && host[1] == '.') {
      parsed.wildcard = true;
      host = host.substr(2);
    }
    parsed.labels = split(toLower(host), '.');
    for (const auto& label : parsed.labels) {
      if (label.empty() || !allIn(label, kLetters + kDigits + "-_")) return std::nullopt;
    }
    const auto& last = parsed.labels.back();
    const bool number = allIn(last, kDigits) ||
                        (last.size() >= 2 && last[0] == '0' && last[1] == 'x' && allIn(last.substr(2), kHexDigits));
    if (number && (parsed.wildcard || parsed.labels.size() != 4 ||
                   !std::all_of(parsed.labels.begin(), parsed.labels.end(), isByte))) {
      return std::nullopt;
    }
  }
  if (port) {
    if (port->empty() || !allIn(*port, kDigits)) return std::nullopt;
    const auto significant = port->substr(std::min(port->find_first_not_of('0'), port->size()));
    if (significant.empty() || significant.size() > 5 || std::stol(significant) > 65535) return std::nullopt;
    parsed.port = std::stol(significant);
  } else {
    parsed.port = parsed.scheme == "http" ? 80 : parsed.scheme == "https" ? 443 : 0;
  }
  return parsed;
}

bool allows(const Reference& rule, const std::string& originText) {
  if (rule.any) return true;
  const auto origin = readOrigin(originText, false);
  if (!origin || origin->scheme != rule.scheme || origin->port != rule.port) return false;
  if (!rule.ipv6.empty() || !origin->ipv6.empty()) return rule.ipv6 == origin->ipv6;
  if (!rule.wildcard) return rule.labels == origin->labels;
  return origin->labels.size() > rule.labels.size() &&
         std::equal(rule.labels.rbegin(), rule.labels.rend(), origin->labels.rbegin());
}

// An origin as browsers write it: lower case, no default port, an IPv6 address in
// hexadecimal without leading zeros and its first longest run of two or more zero groups
// as "::" (found here by looking for the longest ":0:...:0:" in ":g1:...:g8:").
std::string serialise(const Reference& origin) {
  std::string host;
  if (!origin.ipv6.empty()) {
    std::string framed = ":";
    for (const unsigned group : origin.ipv6) {
      char text[8];
      std::snprintf(text, sizeof text, "%x:", group);
      framed += text;
    }
    for (std::size_t length = 8; length >= 2; --length) {
      std::string run = ":";
      for (std::size_t k = 0; k < length; ++k) run += "0:";
      if (const auto at = framed.find(run); at != std::string::npos) {
        framed.replace(at, run.size(), "::");
        break;
      }
    }
    if (!framed.starts_with("::")) framed.erase(0, 1);
    if (!framed.ends_with("::")) framed.pop_back();
    host = "[" + framed + "]";
  } else {
    for (const auto& label : origin.labels) host += (host.empty() ? "" : ".") + label;
  }
  const long defaultPort = origin.scheme == "http" ? 80 : origin.scheme == "https" ? 443 : 0;
  const auto port = origin.port != 0 && origin.port != defaultPort ? ":" + std::to_string(origin.port) : "";
  return origin.scheme + "://" + host + port;
}

bool hasOpaqueOrigin(const std::string& scheme) {
  return scheme == "file" || scheme == "data" || scheme == "javascript" || scheme == "about" || scheme == "blob";
}

// Properties of originOf for any text.
void checkOriginOf(const std::string& url) {
  const auto origin = ZavloOriginRules::originOf(url);
  if (origin == "null") return;
  const auto reference = readOrigin(origin, false);
  ZAVLO_FUZZ_CHECK(reference.has_value(), "originOf gives a serialised origin");
  ZAVLO_FUZZ_CHECK(serialise(*reference) == origin, "originOf serialises as browsers do");
  ZAVLO_FUZZ_CHECK(ZavloOriginRules::originOf(origin) == origin, "an origin is its own origin");
  ZAVLO_FUZZ_CHECK(ZavloOriginRules::sameOriginAs(url).allows(origin), "the same origin is allowed");
}

// originOf of an origin the reference reads, bare and behind user information (which
// ends at the last "@"; a backslash before it would end the host in a browser).
void checkOriginOf(const std::string& originText, const std::string& user) {
  const auto reference = readOrigin(originText, false);
  if (!reference) return;
  const auto expected = hasOpaqueOrigin(reference->scheme) ? "null" : serialise(*reference);
  ZAVLO_FUZZ_CHECK(ZavloOriginRules::originOf(originText) == expected, "the origin of an origin is itself");
  if (user.find_first_of("/?#") != std::string::npos) return;
  const auto url = originText.substr(0, originText.find("://") + 3) + user + "@" +
                   originText.substr(originText.find("://") + 3) + "/x?y#z";
  const bool backslash = user.find('\\') != std::string::npos;
  ZAVLO_FUZZ_CHECK(ZavloOriginRules::originOf(url) == (backslash ? "null" : expected),
                   "user information is not part of an origin");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input(ZavloFuzz::asText(data, size));
  const auto lineEnd = input.find('\n');
  const auto ruleText = input.substr(0, lineEnd);
  const auto origin = lineEnd == std::string::npos ? input : input.substr(lineEnd + 1);

  const auto rules = ZavloOriginRules::parse({ruleText});
  const auto reference = readOrigin(ruleText, true);
  ZAVLO_FUZZ_CHECK(rules.has_value() == reference.has_value(), "library and reference agree on the rule");
  if (rules) {
    ZAVLO_FUZZ_CHECK(rules->allows(origin) == allows(*reference, origin), "library and reference agree on the origin");
    if (readOrigin(ruleText, false)) ZAVLO_FUZZ_CHECK(rules->allows(ruleText), "a rule allows its own origin");
    const auto patterns = rules->uriPatterns();
    if (reference->any) {
      ZAVLO_FUZZ_CHECK(patterns.empty(), "every page for \"*\"");
    } else {
      ZAVLO_FUZZ_CHECK(patterns.size() == 1, "one pattern a rule");
      if (reference->ipv6.empty()) {
        std::string host = reference->wildcard ? "*" : "";
        for (const auto& label : reference->labels) host += (host.empty() ? "" : ".") + label;
        ZAVLO_FUZZ_CHECK(patterns[0] == reference->scheme + "://" + host + "/*",
                         "the pattern is scheme://host/*, without a port");
      } else {
        ZAVLO_FUZZ_CHECK(patterns[0].starts_with(reference->scheme + "://[") && patterns[0].ends_with("]/*"),
                         "an IPv6 pattern is scheme://[address]/*, without a port");
      }
    }
  }
  checkOriginOf(input);
  checkOriginOf(origin, ruleText);
  return 0;
}
