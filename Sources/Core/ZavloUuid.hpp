#pragma once

#include <array>
#include <cstdint>
#include <string>

/// The canonical upper-case text (8-4-4-4-12) of a random (version 4) UUID made of these
/// 16 random bytes; the version and variant bits are set here.
std::string zavloRandomUuidText(std::array<std::uint8_t, 16> bytes);
