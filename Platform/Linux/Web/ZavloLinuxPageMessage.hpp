#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

#include <nlohmann/json.hpp>

/// Turns the JSON text of a message a page posted into the body the bridge receives: the
/// one door through which page input enters, shared by every Linux web view.
///
/// Absent for text that is not JSON (a page can only post values) and for values nested
/// deeper than kMaxPageMessageDepth, which the library would otherwise walk recursively.
/// An escaped lone surrogate, which a JavaScript string may hold but UTF-8 cannot, reads
/// as U+FFFD so that the rest of the message still arrives.
std::optional<nlohmann::json> zavloParsePageMessage(std::string_view text);

inline constexpr std::size_t kMaxPageMessageDepth = 256;
