#pragma once

#include <string>
#include <string_view>

/// The kind of link an interface is, as the library needs to know it.
enum class ZavloInterfaceType { cellular, wifi, wiredEthernet, loopback, other };

constexpr std::string_view toString(ZavloInterfaceType type) noexcept {
  switch (type) {
    case ZavloInterfaceType::cellular:
      return "cellular";
    case ZavloInterfaceType::wifi:
      return "wifi";
    case ZavloInterfaceType::wiredEthernet:
      return "wiredEthernet";
    case ZavloInterfaceType::loopback:
      return "loopback";
    case ZavloInterfaceType::other:
      return "other";
  }
  return "other";
}

struct ZavloNetworkInterface {
  std::string name;
  ZavloInterfaceType type = ZavloInterfaceType::other;

  friend bool operator==(const ZavloNetworkInterface&, const ZavloNetworkInterface&) = default;
};
