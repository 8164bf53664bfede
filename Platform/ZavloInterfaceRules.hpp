#pragma once

#include <algorithm>
#include <cerrno>
#include <string>

#include "Platform/ZavloConnection.hpp"
#include "Platform/ZavloNetworkInterface.hpp"

// The interface rules of ZavloConnectionParameters, in one place so that every platform,
// the test one included, decides and reports them alike.

/// Whether the parameters restrict interfaces at all; without restrictions the system's
/// routing decides.
inline bool zavloRestrictsInterfaces(const ZavloConnectionParameters& parameters) noexcept {
  return parameters.requiredInterfaceType.has_value() || !parameters.prohibitedInterfaceTypes.empty();
}

/// Whether a connection with these parameters may use an interface of this type: never a
/// prohibited type, and only the required type when one is required.
inline bool zavloInterfaceAllowed(ZavloInterfaceType type, const ZavloConnectionParameters& parameters) noexcept {
  const auto& prohibited = parameters.prohibitedInterfaceTypes;
  if (std::find(prohibited.begin(), prohibited.end(), type) != prohibited.end()) return false;
  return !parameters.requiredInterfaceType || *parameters.requiredInterfaceType == type;
}

/// What a connection for which no present interface is allowed waits with.
inline ZavloConnectionError zavloNoUsableInterfaceError(const ZavloConnectionParameters& parameters) {
  const char* name = "network";
  switch (parameters.requiredInterfaceType.value_or(ZavloInterfaceType::other)) {
    case ZavloInterfaceType::cellular:
      name = "cellular";
      break;
    case ZavloInterfaceType::wifi:
      name = "Wi-Fi";
      break;
    case ZavloInterfaceType::wiredEthernet:
      name = "wired Ethernet";
      break;
    case ZavloInterfaceType::loopback:
      name = "loopback";
      break;
    case ZavloInterfaceType::other:
      break;
  }
  return {ENETUNREACH, std::string("No usable ") + name + " interface"};
}
