#pragma once

#include <string_view>

/// The two outcome words carried by every record, exception and event.
namespace ZavloAuthStatus {
inline constexpr std::string_view success = "SUCCESS";
inline constexpr std::string_view failure = "FAILURE";
}  // namespace ZavloAuthStatus
