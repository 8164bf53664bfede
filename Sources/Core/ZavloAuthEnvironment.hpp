#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

/// The environment a host runs against; it chooses the tracking endpoint.
class ZavloAuthEnvironment {
 public:
  enum Value : std::int64_t { development = 0, production = 1 };

  constexpr ZavloAuthEnvironment(Value value) noexcept : value_(value) {}  // NOLINT(google-explicit-constructor)

  /// development for 0, production for 1, absent for anything else.
  static constexpr std::optional<ZavloAuthEnvironment> fromRawValue(std::int64_t raw) noexcept {
    if (raw == development) return ZavloAuthEnvironment(development);
    if (raw == production) return ZavloAuthEnvironment(production);
    return std::nullopt;
  }
  static constexpr std::array<ZavloAuthEnvironment, 2> allCases() noexcept { return {development, production}; }

  [[nodiscard]] constexpr std::int64_t rawValue() const noexcept { return value_; }
  [[nodiscard]] constexpr std::string_view description() const noexcept {
    return value_ == development ? "DEVELOPMENT" : "PRODUCTION";
  }
  [[nodiscard]] constexpr bool isDebugMode() const noexcept { return value_ == development; }
  constexpr operator Value() const noexcept { return value_; }  // NOLINT(google-explicit-constructor)

 private:
  Value value_;
};

template <>
struct std::hash<ZavloAuthEnvironment> {
  std::size_t operator()(ZavloAuthEnvironment environment) const noexcept {
    return std::hash<std::int64_t>{}(environment.rawValue());
  }
};
