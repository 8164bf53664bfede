#include "Platform/ZavloOriginRules.hpp"

#include <algorithm>
#include <array>

namespace {

// What uriPatterns() gives for rules that allow nothing: WebKit reads an empty list as
// every page, so the list holds one pattern that no page a host can load matches.
constexpr std::string_view kNoPagePattern = "zavlo-none://none/*";

// The reasons a text is not a rule (or not an origin), as parse() names them.
constexpr const char* kNotRuleShape = "a rule is \"*\" or scheme://host[:port]";
constexpr const char* kBadScheme = "a scheme is a letter, then letters, digits, \"+\", \"-\" or \".\"";
constexpr const char* kBlank = "a rule has no white space or control characters";
constexpr const char* kNotAscii = "a rule is ASCII: a name in its xn-- form";
constexpr const char* kUserInfo = "a rule has no user information";
constexpr const char* kPath = "a rule has no path";
constexpr const char* kQuery = "a rule has no query";
constexpr const char* kFragment = "a rule has no fragment";
constexpr const char* kNoHost = "a rule names a host";
constexpr const char* kBadPort = "a port is a number from 1 to 65535";
constexpr const char* kAfterHost = "only a port follows the host";
constexpr const char* kWildcard = "a wildcard stands only as \"*.\" before a name";
constexpr const char* kWildcardAddress = "a wildcard never stands before an address";
constexpr const char* kBadName = "a host name holds only letters, digits, \"-\", \"_\" and \".\"";
constexpr const char* kUnbracketed = "an IPv6 address is written in brackets";
constexpr const char* kEmptyLabel = "a host name has no empty label";
constexpr const char* kTrailingDot = "a host name does not end with a dot";
constexpr const char* kBadIpv4 = "an IPv4 address is four decimal numbers from 0 to 255, without leading zeros";
constexpr const char* kBadIpv6 =
    "an IPv6 address is eight hexadecimal groups or fewer around one \"::\", without a zone";

bool isAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isHex(char c) { return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }
char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

std::string lowered(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(), lower);
  return out;
}

bool isDecimal(std::string_view text) { return !text.empty() && std::all_of(text.begin(), text.end(), isDigit); }

// The scheme's default port; 0 when it has none.
std::uint16_t defaultPort(std::string_view scheme) {
  if (scheme == "http") return 80;
  if (scheme == "https") return 443;
  return 0;
}

// An origin's parts, lowercased, the host in the form browsers serialise it.
struct Parts {
  std::string scheme;
  std::string host;  // a name, a dotted IPv4 address, or a bracketed IPv6 one
  bool subdomains = false;
  std::uint16_t port = 0;  // the scheme's default when none was written; 0: none at all
};

const char* readScheme(std::string_view text, Parts& parts) {
  if (text.empty() || !isAlpha(text.front())) return kBadScheme;
  for (const char c : text) {
    if (!isAlpha(c) && !isDigit(c) && c != '+' && c != '-' && c != '.') return kBadScheme;
  }
  parts.scheme = lowered(text);
  return nullptr;
}

const char* readPort(std::string_view text, std::uint16_t& port) {
  if (!isDecimal(text)) return kBadPort;
  std::uint32_t value = 0;
  for (const char c : text) {
    value = value * 10 + static_cast<std::uint32_t>(c - '0');
    if (value > 65535) return kBadPort;
  }
  if (value == 0) return kBadPort;
  port = static_cast<std::uint16_t>(value);
  return nullptr;
}

// Dotted decimal as browsers write an address: four numbers 0..255, no leading zero. The
// other forms they read ("127.1", "0x7f.1", "0177.0.0.1") they write this way, so neither a
// rule nor an origin holds one.
bool isIpv4(std::string_view text, std::array<std::uint8_t, 4>* bytes = nullptr) {
  for (std::size_t i = 0; i < 4; ++i) {
    const auto dot = text.find('.');
    if ((dot == std::string_view::npos) != (i == 3)) return false;
    const auto number = text.substr(0, dot);
    if (!isDecimal(number) || number.size() > 3 || (number.size() > 1 && number.front() == '0')) return false;
    int value = 0;
    for (const char c : number) value = value * 10 + (c - '0');
    if (value > 255) return false;
    if (bytes != nullptr) (*bytes)[i] = static_cast<std::uint8_t>(value);
    text.remove_prefix(dot == std::string_view::npos ? text.size() : dot + 1);
  }
  return true;
}

// Browsers read a host whose last label is a number ("1", "0x1f", "0x") as an IPv4 address.
bool endsInNumber(std::string_view host) {
  const auto last = host.substr(host.rfind('.') + 1);
  if (isDecimal(last)) return true;
  return last.size() >= 2 && last[0] == '0' && lower(last[1]) == 'x' &&
         std::all_of(last.begin() + 2, last.end(), isHex);
}

// The groups of one side of "::"; a dotted IPv4 tail, two groups, only where allowed.
bool readGroups(std::string_view text, bool ipv4Tail, std::vector<std::uint16_t>& groups) {
  if (text.empty()) return true;
  for (;;) {
    const auto colon = text.find(':');
    const auto group = text.substr(0, colon);
    if (ipv4Tail && colon == std::string_view::npos && group.find('.') != std::string_view::npos) {
      std::array<std::uint8_t, 4> bytes{};
      if (!isIpv4(group, &bytes)) return false;
      groups.push_back(static_cast<std::uint16_t>((bytes[0] << 8) | bytes[1]));
      groups.push_back(static_cast<std::uint16_t>((bytes[2] << 8) | bytes[3]));
      return true;
    }
    if (group.empty() || group.size() > 4 || !std::all_of(group.begin(), group.end(), isHex)) return false;
    unsigned value = 0;
    for (const char c : group) value = value * 16 + static_cast<unsigned>(isDigit(c) ? c - '0' : lower(c) - 'a' + 10);
    groups.push_back(static_cast<std::uint16_t>(value));
    if (colon == std::string_view::npos) return true;
    text.remove_prefix(colon + 1);
  }
}

// text, without its brackets, written again as browsers serialise an address: lower-case
// hexadecimal without leading zeros, the first longest run of two or more zero groups as "::".
const char* readIpv6(std::string_view text, std::string& host) {
  // A second "::" leaves an empty group on one side, which readGroups refuses.
  const auto gap = text.find("::");
  std::vector<std::uint16_t> head;
  std::vector<std::uint16_t> tail;
  if (gap == std::string_view::npos) {
    if (!readGroups(text, true, head) || head.size() != 8) return kBadIpv6;
  } else if (!readGroups(text.substr(0, gap), false, head) || !readGroups(text.substr(gap + 2), true, tail) ||
             head.size() + tail.size() > 7) {
    return kBadIpv6;
  }
  std::array<std::uint16_t, 8> groups{};
  std::copy(head.begin(), head.end(), groups.begin());
  std::copy(tail.begin(), tail.end(), groups.end() - static_cast<std::ptrdiff_t>(tail.size()));
  std::size_t runStart = 8;
  std::size_t runLength = 1;
  for (std::size_t i = 0; i < 8;) {
    std::size_t end = i;
    while (end < 8 && groups[end] == 0) ++end;
    if (end - i > runLength) {
      runStart = i;
      runLength = end - i;
    }
    i = end == i ? i + 1 : end;
  }
  static constexpr std::string_view kHex = "0123456789abcdef";
  host = "[";
  for (std::size_t i = 0; i < 8;) {
    if (i == runStart) {
      host += i == 0 ? "::" : ":";
      i += runLength;
      continue;
    }
    std::string digits;
    for (std::uint16_t value = groups[i]; value != 0 || digits.empty();
         value = static_cast<std::uint16_t>(value >> 4)) {
      digits.insert(digits.begin(), kHex[value & 0xF]);
    }
    host += digits;
    if (++i < 8) host += ':';
  }
  host += ']';
  return nullptr;
}

const char* readHost(std::string_view text, bool wildcard, Parts& parts) {
  if (text.starts_with('[')) {
    if (!text.ends_with(']')) return kBadIpv6;
    return readIpv6(text.substr(1, text.size() - 2), parts.host);
  }
  if (wildcard && text.starts_with("*.")) {
    parts.subdomains = true;
    text.remove_prefix(2);
  }
  if (text.find('*') != std::string_view::npos) return kWildcard;
  if (text.empty()) return kNoHost;
  for (const char c : text) {
    if (!isAlpha(c) && !isDigit(c) && c != '-' && c != '_' && c != '.') return kBadName;
  }
  // A name with a trailing dot is another origin to a browser ("a.example." is not
  // "a.example"): a rule may not have one, and only "*" allows such an origin.
  if (text.ends_with('.')) return kTrailingDot;
  if (text.starts_with('.') || text.find("..") != std::string_view::npos) return kEmptyLabel;
  if (endsInNumber(text)) {
    if (parts.subdomains) return kWildcardAddress;
    if (!isIpv4(text)) return kBadIpv4;
  }
  parts.host = lowered(text);
  return nullptr;
}

// "host[:port]" after the user information has been set aside.
const char* readHostPort(std::string_view text, bool wildcard, Parts& parts) {
  if (wildcard && text.starts_with("*.[")) return kWildcardAddress;
  std::size_t hostEnd = text.size();
  if (text.starts_with('[')) {
    const auto close = text.find(']');
    if (close == std::string_view::npos) return kBadIpv6;
    hostEnd = close + 1;
    if (hostEnd < text.size() && text[hostEnd] != ':') return kAfterHost;
  } else if (const auto colon = text.find(':'); colon != std::string_view::npos) {
    if (text.find(':', colon + 1) != std::string_view::npos) return kUnbracketed;
    hostEnd = colon;
  }
  if (const char* failure = readHost(text.substr(0, hostEnd), wildcard, parts)) return failure;
  parts.port = defaultPort(parts.scheme);
  if (hostEnd == text.size()) return nullptr;
  std::uint16_t port = 0;
  if (const char* failure = readPort(text.substr(hostEnd + 1), port)) return failure;
  parts.port = port;
  return nullptr;
}

// Why text is not "scheme://host[:port]" and nothing more (a rule when wildcard is true,
// a serialised origin otherwise); null when it is one, its parts then in parts.
const char* readOrigin(std::string_view text, bool wildcard, Parts& parts) {
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte <= 0x20 || byte == 0x7F) return kBlank;
    if (byte >= 0x80) return kNotAscii;
  }
  const auto separator = text.find("://");
  if (separator == std::string_view::npos) return kNotRuleShape;
  if (const char* failure = readScheme(text.substr(0, separator), parts)) return failure;
  const auto authority = text.substr(separator + 3);
  // A backslash ends the host in an http URL: a rule holding one would not mean what it says.
  const auto end = authority.find_first_of("/\\?#");
  if (end != std::string_view::npos) {
    const char c = authority[end];
    return c == '?' ? kQuery : c == '#' ? kFragment : kPath;
  }
  if (authority.find('@') != std::string_view::npos) return kUserInfo;
  if (authority.empty()) return kNoHost;
  return readHostPort(authority, wildcard, parts);
}

// The text quoted for an error message, anything unprintable escaped, so that a rule from a
// configuration file cannot break the line of a log.
std::string quoted(std::string_view text) {
  static constexpr std::string_view kHex = "0123456789ABCDEF";
  std::string out = "\"";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (byte < 0x20 || byte >= 0x7F) {
      out += "\\x";
      out += kHex[byte >> 4];
      out += kHex[byte & 0xF];
    } else {
      out += c;
    }
  }
  return out + "\"";
}

std::string serialised(const Parts& parts) {
  std::string origin = parts.scheme + "://" + parts.host;
  if (parts.port != 0 && parts.port != defaultPort(parts.scheme)) origin += ":" + std::to_string(parts.port);
  return origin;
}

// The origin of a URL with a scheme and an authority; absent when it has none, or when its
// host is not written as browsers serialise it (they would decode, convert or repair it
// first: an escape, a non-ASCII name, "127.1"), so that the origin given is never one the
// browser's is not.
std::optional<Parts> originParts(std::string_view url) {
  const auto colon = url.find(':');
  if (colon == std::string_view::npos) return std::nullopt;
  Parts parts;
  if (readScheme(url.substr(0, colon), parts) != nullptr) return std::nullopt;
  // Documents of these schemes have an opaque origin, whatever follows the colon.
  for (const std::string_view opaque : {"file", "data", "javascript", "about", "blob"}) {
    if (parts.scheme == opaque) return std::nullopt;
  }
  auto rest = url.substr(colon + 1);
  if (!rest.starts_with("//")) return std::nullopt;
  rest.remove_prefix(2);
  auto authority = rest.substr(0, rest.find_first_of("/?#"));
  // Before the user information goes: in "https://a.example\@b.example/" a browser reads
  // the host a.example and the path "\@b.example/".
  if (authority.find('\\') != std::string_view::npos) return std::nullopt;
  if (const auto at = authority.rfind('@'); at != std::string_view::npos) authority.remove_prefix(at + 1);
  // The authority alone, read as an origin.
  const std::string origin = parts.scheme + "://" + std::string(authority);
  Parts read;
  if (readOrigin(origin, false, read) != nullptr) return std::nullopt;
  return read;
}

}  // namespace

std::optional<ZavloOriginRules> ZavloOriginRules::parse(const std::vector<std::string>& rules, std::string* error) {
  ZavloOriginRules parsed;
  parsed.ownPageOnly_ = false;
  for (const auto& text : rules) {
    Rule rule;
    if (text == "*") {
      rule.any = true;
    } else {
      Parts parts;
      if (const char* failure = readOrigin(text, true, parts)) {
        if (error != nullptr) *error = "not an origin rule: " + quoted(text) + " (" + failure + ")";
        return std::nullopt;
      }
      rule.scheme = std::move(parts.scheme);
      rule.host = std::move(parts.host);
      rule.subdomains = parts.subdomains;
      rule.port = parts.port;
    }
    parsed.rules_.push_back(std::move(rule));
    parsed.texts_.push_back(text);
  }
  return parsed;
}

ZavloOriginRules ZavloOriginRules::sameOriginAs(std::string_view url) {
  const auto origin = originOf(url);
  if (origin != "null") {
    if (auto rules = parse({origin})) return std::move(*rules);
  }
  ZavloOriginRules none;
  none.ownPageOnly_ = false;
  return none;
}

std::string ZavloOriginRules::originOf(std::string_view url) {
  // A blob URL's document has the origin of the page that made it.
  if (url.size() >= 5 && lowered(url.substr(0, 5)) == "blob:") {
    const auto inner = originParts(url.substr(5));
    return inner && defaultPort(inner->scheme) != 0 ? serialised(*inner) : "null";
  }
  const auto parts = originParts(url);
  return parts ? serialised(*parts) : "null";
}

bool ZavloOriginRules::allows(std::string_view origin) const {
  if (std::any_of(rules_.begin(), rules_.end(), [](const Rule& rule) { return rule.any; })) return true;
  Parts parts;
  if (readOrigin(origin, false, parts) != nullptr) return false;
  return std::any_of(rules_.begin(), rules_.end(), [&](const Rule& rule) {
    if (rule.scheme != parts.scheme || rule.port != parts.port) return false;
    if (!rule.subdomains) return rule.host == parts.host;
    // No address matches: a subdomain rule's name never ends in a number as an IPv4
    // address does, and an IPv6 one, written again in hexadecimal, holds no dot.
    return parts.host.size() > rule.host.size() + 1 && parts.host.ends_with(rule.host) &&
           parts.host[parts.host.size() - rule.host.size() - 1] == '.';
  });
}

std::vector<std::string> ZavloOriginRules::uriPatterns() const {
  if (rules_.empty()) return {std::string(kNoPagePattern)};
  std::vector<std::string> patterns;
  for (const auto& rule : rules_) {
    if (rule.any) return {};
    auto pattern = rule.scheme + "://" + (rule.subdomains ? "*." : "") + rule.host + "/*";
    if (std::find(patterns.begin(), patterns.end(), pattern) == patterns.end()) patterns.push_back(std::move(pattern));
  }
  return patterns;
}
