#pragma once

// What the fuzz targets share: a check that stops the run with a message, and judges of
// their own (UTF-8, the callback text a page receives) written apart from the library's,
// so that a fault in the library cannot hide itself by agreeing with its own helpers.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "Core/ZavloJsonDepth.hpp"

/// A property that must hold: on failure the message goes to standard error and the
/// process traps, so that libFuzzer keeps the input as a crash.
#define ZAVLO_FUZZ_CHECK(condition, message)                                                         \
  do {                                                                                               \
    if (!(condition)) {                                                                              \
      std::fprintf(stderr, "zavlo-fuzz: %s:%d: %s (%s)\n", __FILE__, __LINE__, message, #condition); \
      __builtin_trap();                                                                              \
    }                                                                                                \
  } while (false)

namespace ZavloFuzz {

inline std::string_view asText(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

/// Well-formed UTF-8 by the table of Unicode's chapter 3 (well-formed byte sequences):
/// second-byte ranges per lead byte, so overlong forms, surrogates and values past
/// U+10FFFF all fail.
inline bool isUtf8(std::string_view text) {
  std::size_t i = 0;
  const auto at = [&](std::size_t k) { return static_cast<std::uint8_t>(text[k]); };
  const auto inRange = [&](std::size_t k, std::uint8_t low, std::uint8_t high) {
    return k < text.size() && at(k) >= low && at(k) <= high;
  };
  while (i < text.size()) {
    const std::uint8_t b = at(i);
    if (b <= 0x7F) {
      i += 1;
    } else if (b >= 0xC2 && b <= 0xDF) {
      if (!inRange(i + 1, 0x80, 0xBF)) return false;
      i += 2;
    } else if (b >= 0xE0 && b <= 0xEF) {
      const std::uint8_t low = b == 0xE0 ? 0xA0 : 0x80;
      const std::uint8_t high = b == 0xED ? 0x9F : 0xBF;
      if (!inRange(i + 1, low, high) || !inRange(i + 2, 0x80, 0xBF)) return false;
      i += 3;
    } else if (b >= 0xF0 && b <= 0xF4) {
      const std::uint8_t low = b == 0xF0 ? 0x90 : 0x80;
      const std::uint8_t high = b == 0xF4 ? 0x8F : 0xBF;
      if (!inRange(i + 1, low, high) || !inRange(i + 2, 0x80, 0xBF) || !inRange(i + 3, 0x80, 0xBF)) return false;
      i += 4;
    } else {
      return false;
    }
  }
  return true;
}

/// The length of the one well-formed sequence text starts with (0 when it starts with
/// none), and its code point in out.
inline std::size_t frontCodePoint(std::string_view text, char32_t& out) {
  for (std::size_t length = 1; length <= 4 && length <= text.size(); ++length) {
    const auto piece = text.substr(0, length);
    if (!isUtf8(piece)) continue;
    const auto lead = static_cast<std::uint8_t>(piece[0]);
    char32_t value = length == 1 ? lead : length == 2 ? (lead & 0x1F) : length == 3 ? (lead & 0x0F) : (lead & 0x07);
    for (std::size_t k = 1; k < length; ++k) value = (value << 6) | (static_cast<std::uint8_t>(piece[k]) & 0x3F);
    out = value;
    return length;
  }
  return 0;
}

/// Unicode's White_Space property.
inline bool isUnicodeWhiteSpace(char32_t c) {
  return (c >= 0x09 && c <= 0x0D) || c == 0x20 || c == 0x85 || c == 0xA0 || c == 0x1680 ||
         (c >= 0x2000 && c <= 0x200A) || c == 0x2028 || c == 0x2029 || c == 0x202F || c == 0x205F || c == 0x3000;
}

/// text without the white space at either end; bytes that are not UTF-8 stop the trim.
inline std::string_view trimWhiteSpace(std::string_view text) {
  char32_t c = 0;
  for (;;) {
    const std::size_t length = frontCodePoint(text, c);
    if (length == 0 || !isUnicodeWhiteSpace(c)) break;
    text.remove_prefix(length);
  }
  for (;;) {
    std::size_t length = 0;
    for (std::size_t k = 1; k <= 4 && k <= text.size(); ++k) {
      if (frontCodePoint(text.substr(text.size() - k), c) == k) {
        length = k;
        break;
      }
    }
    if (length == 0 || !isUnicodeWhiteSpace(c)) break;
    text.remove_suffix(length);
  }
  return text;
}

/// Page messages arrive parsed with a nesting limit (the Linux web views refuse deeper
/// text), and configuration texts get the same one; deeper values are refused here too.
inline constexpr int kMaxJsonDepth = 256;

/// The part of text nlohmann's reader takes: it ends the text at a NUL byte outside a
/// string (and refuses one inside), so for text that parses this is what was parsed.
inline std::string_view parsedPart(std::string_view text) { return text.substr(0, text.find('\0')); }

/// JSON text parsed as a page's message would be: absent when it is not JSON or nests
/// deeper than kMaxJsonDepth, counted as the parser counts (one below the values).
inline std::optional<nlohmann::json> parseBounded(std::string_view text) {
  if (ZavloJsonDepth::exceeds(parsedPart(text), std::size_t{kMaxJsonDepth} + 1, ZavloJsonDepth::Levels::values)) {
    return std::nullopt;
  }
  auto parsed = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (parsed.is_discarded()) return std::nullopt;
  return parsed;
}

/// Whether the strict serialiser takes value, judged here without calling it: finite
/// numbers, well-formed UTF-8 in every string and key, no binary or discarded value.
inline bool isStrictJson(const nlohmann::json& value) {
  std::vector<const nlohmann::json*> pending{&value};
  while (!pending.empty()) {
    const auto* current = pending.back();
    pending.pop_back();
    switch (current->type()) {
      case nlohmann::json::value_t::number_float: {
        const double number = current->get<double>();
        if (number != number || number - number != 0.0) return false;  // NaN or infinite
        break;
      }
      case nlohmann::json::value_t::string:
        if (!isUtf8(current->get_ref<const std::string&>())) return false;
        break;
      case nlohmann::json::value_t::binary:
      case nlohmann::json::value_t::discarded:
        return false;
      case nlohmann::json::value_t::object:
        for (const auto& [key, element] : current->items()) {
          if (!isUtf8(key)) return false;
          pending.push_back(&element);
        }
        break;
      case nlohmann::json::value_t::array:
        for (const auto& element : *current) pending.push_back(&element);
        break;
      default:
        break;
    }
  }
  return true;
}

/// The request text of one hop has exactly its five header lines and the blank line:
/// no line break of any kind other than those CR LF pairs, whatever the URL held, so
/// nothing a URL carries can add a header or a second request.
inline bool isOneRequest(std::string_view command, std::string_view host) {
  std::vector<std::string_view> lines;
  for (;;) {
    const auto end = command.find("\r\n");
    if (end == std::string_view::npos) break;
    lines.push_back(command.substr(0, end));
    command.remove_prefix(end + 2);
  }
  if (!command.empty() || lines.size() != 6 || !lines[5].empty()) return false;
  for (const auto line : lines) {
    if (line.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos) return false;
  }
  return lines[0].starts_with("GET /") && lines[0].ends_with(" HTTP/1.1") &&
         lines[1].starts_with(std::string("Host: ") + std::string(host)) && lines[4] == "Connection: close";
}

/// A host as DNS names and IP literals write it: letters, digits, "-", "." and, for IPv6,
/// ":". libcurl keeps other hosts (a "%", say) percent-encoded in one direction only, so
/// only these are expected to read back the same from a URL's text.
inline bool isPlainHost(std::string_view host) {
  if (host.empty()) return false;
  for (const char c : host) {
    const bool plain =
        (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' || c == ':';
    if (!plain) return false;
  }
  return true;
}

/// A plain ASCII JavaScript identifier: letters, digits, "_" and "$", no digit first.
inline bool isPlainIdentifier(std::string_view name) {
  if (name.empty()) return false;
  for (std::size_t i = 0; i < name.size(); ++i) {
    const char c = name[i];
    const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == '$';
    const bool digit = c >= '0' && c <= '9';
    if (!letter && !(digit && i > 0)) return false;
  }
  return true;
}

/// A callback text taken apart: the function's name and the JSON text its one string
/// argument holds.
struct CallbackCall {
  std::string name;
  std::string argument;
};

/// Reads script as NAME("LITERAL") and nothing else, or explains why it is not one.
/// The literal may hold only what both a JavaScript string literal and a JSON string
/// read alike: no raw line break or other control character (U+2028 and U+2029 are
/// allowed raw in both since ECMAScript 2019, and the call text keeps them as JSON does), no quote or backslash
/// unescaped, and only the escapes \" \\ \/ \b \f \n \r \t \uXXXX. It must close exactly before the final ")".
inline std::optional<CallbackCall> readCallback(std::string_view script, std::string& why) {
  const auto open = script.find('(');
  if (open == std::string_view::npos) {
    why = "no opening parenthesis";
    return std::nullopt;
  }
  CallbackCall call;
  call.name = std::string(script.substr(0, open));
  if (!isPlainIdentifier(call.name)) {
    why = "the callee is not a plain identifier";
    return std::nullopt;
  }
  if (!isUtf8(script)) {
    why = "the text is not UTF-8";
    return std::nullopt;
  }
  std::size_t i = open + 1;
  if (i >= script.size() || script[i] != '"') {
    why = "the argument does not start with a double quote";
    return std::nullopt;
  }
  ++i;
  const auto hex = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  std::string literal = "\"";
  for (;;) {
    if (i >= script.size()) {
      why = "the literal is not closed";
      return std::nullopt;
    }
    const char c = script[i];
    const auto byte = static_cast<std::uint8_t>(c);
    if (c == '"') break;
    if (byte < 0x20) {
      why = "a raw control character or line break inside the literal";
      return std::nullopt;
    }
    if (c == '\\') {
      if (i + 1 >= script.size()) {
        why = "a backslash at the end";
        return std::nullopt;
      }
      const char escaped = script[i + 1];
      if (escaped == 'u') {
        if (i + 6 > script.size() || hex(script[i + 2]) < 0 || hex(script[i + 3]) < 0 || hex(script[i + 4]) < 0 ||
            hex(script[i + 5]) < 0) {
          why = "a \\u escape without four hexadecimal digits";
          return std::nullopt;
        }
        literal.append(script.substr(i, 6));
        i += 6;
        continue;
      }
      if (std::string_view("\"\\/bfnrt").find(escaped) == std::string_view::npos) {
        why = "an escape that JSON and JavaScript do not read alike";
        return std::nullopt;
      }
      literal.append(script.substr(i, 2));
      i += 2;
      continue;
    }
    literal.push_back(c);
    ++i;
  }
  // i is at the closing quote: exactly ")" must follow, and nothing after it.
  if (script.substr(i) != "\")") {
    why = "the literal does not end exactly before the final parenthesis";
    return std::nullopt;
  }
  literal.push_back('"');
  const auto decoded = nlohmann::json::parse(literal, nullptr, /*allow_exceptions=*/false);
  if (!decoded.is_string()) {
    why = "the literal does not read as a JSON string";
    return std::nullopt;
  }
  call.argument = decoded.get<std::string>();
  return call;
}

/// readCallback, trapping with the reason when script is not a callback text.
inline CallbackCall requireCallback(std::string_view script) {
  std::string why;
  auto call = readCallback(script, why);
  if (!call) {
    std::fprintf(stderr, "zavlo-fuzz: not a callback text (%s): %.*s\n", why.c_str(),
                 static_cast<int>(std::min<std::size_t>(script.size(), 2000)), script.data());
    __builtin_trap();
  }
  return *call;
}

}  // namespace ZavloFuzz
