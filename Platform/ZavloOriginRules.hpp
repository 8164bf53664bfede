#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Which documents may reach the web bridge: the allowed-origin rules a host gives at
/// setup, read as mobile web views read theirs.
///
/// A rule is "*" (every origin, opaque ones included) or "scheme://host[:port]":
/// - scheme and host compare without regard to ASCII case; an IPv6 host is written in
///   brackets; the host may be an IP address, a name, or "*." and a name, which matches the
///   subdomains of that name at any depth, never the name itself (and never an address);
/// - a missing port is the scheme's default, 80 for http and 443 for https, so
///   "https://a.example" and "https://a.example:443" are one rule; other schemes need a port
///   to match a port;
/// - nothing else: no user, path, query, fragment, wildcard elsewhere, empty host, or port
///   outside 1..65535; a name only of letters, digits, "-", "_" and "."; no blank, control
///   or non-ASCII character (a name is written in its xn-- form, as browsers serialise it);
///   no host ending in a dot (to a browser "a.example." is another origin than "a.example",
///   which only "*" allows); an IPv4 address only as four decimal numbers (browsers write
///   "127.1" as "127.0.0.1").
///
/// An origin, as a document has one ("scheme://host[:port]", the serialisation browsers
/// give `location.origin`), is allowed when any rule matches it; "null" and anything that is
/// not such a serialisation only by "*".
///
/// Default constructed, the object means "no rules were given": the host's own page only,
/// which each web view knows for itself (see ZavloWebView); allows() is then false.
class ZavloOriginRules {
 public:
  ZavloOriginRules() = default;

  /// The rules in the order given; absent, with the reason in *error (naming the rule),
  /// when one is not a rule. An empty list is valid and allows nothing.
  static std::optional<ZavloOriginRules> parse(const std::vector<std::string>& rules, std::string* error = nullptr);
  /// The one rule that allows exactly the origin of url; a list that allows nothing when url
  /// has no such origin (about:blank, data:, a file).
  static ZavloOriginRules sameOriginAs(std::string_view url);
  /// The origin of an absolute URL, serialised as browsers do: scheme and host lowercased,
  /// user information dropped, an IPv6 address in its shortest form, the port left out when
  /// it is the scheme's default; a blob URL has the origin of the http(s) URL inside. "null"
  /// when it has none (about:, data:, file:, javascript:, no "//host"), and also when its
  /// host is not written as browsers serialise it (an escape, a non-ASCII name, "127.1", a
  /// trailing dot, a backslash): never an origin the browser's might differ from.
  static std::string originOf(std::string_view url);

  /// True when no rules were given (default constructed).
  [[nodiscard]] bool ownPageOnly() const noexcept { return ownPageOnly_; }
  /// Whether a document of this serialised origin may reach the bridge.
  [[nodiscard]] bool allows(std::string_view origin) const;
  /// Patterns for a WebKit user script's allow list ("scheme://host/*", "scheme://*.host/*")
  /// that cover every allowed origin: ports are not part of those patterns, and "*.host"
  /// also matches host itself, so they cover more, and the page side checks again with
  /// allows(). Empty, which WebKit reads as every page, only when a rule is "*". Rules that
  /// allow nothing, and a default-constructed object (whose page only the web view knows:
  /// it asks sameOriginAs(page) for its patterns), give the one pattern
  /// "zavlo-none://none/*", which matches no page, so that no list is empty by mistake.
  [[nodiscard]] std::vector<std::string> uriPatterns() const;
  /// The rules as given, for traces.
  [[nodiscard]] const std::vector<std::string>& texts() const noexcept { return texts_; }

 private:
  struct Rule {
    bool any = false;  // "*"
    std::string scheme;
    std::string host;  // lowercased; without the "*." of a subdomain rule; an IPv6 one in brackets, shortest form
    bool subdomains = false;
    std::uint16_t port = 0;  // the scheme's default when none was given; 0: it has none either
  };

  bool ownPageOnly_ = true;
  std::vector<Rule> rules_;
  std::vector<std::string> texts_;
};
