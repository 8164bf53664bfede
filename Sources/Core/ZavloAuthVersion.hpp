#pragma once

#include <string_view>

/// The library's version as it reports itself (capabilities, event metadata, user agent).
inline constexpr std::string_view ZavloAuthSDKVersion = "1.1.1";

/// Version constants published beside the classes.
extern const double ZavloAuthenticationSDKVersionNumber;
extern const char ZavloAuthenticationSDKVersionString[];
