// A minimal host on Linux: asks the process-wide native wrapper for its capabilities.
// Exits non-zero if it does not answer as expected.
#include <iostream>

#include "Native/ZavloAuthenticationNativeWrapper.hpp"

int main() {
  const auto capabilities = ZavloAuthenticationNativeWrapper::shared().getCapabilities();
  std::cout << capabilities.dump() << '\n';
  return capabilities.value("sdkVersion", "") == "1.1.1" ? 0 : 1;
}
