// A minimal host: asks the library for its capabilities and runs one task on the test
// platform's virtual clock. Exits non-zero if either does not behave.
#include <iostream>

#include "Core/ZavloAuthResponseUtils.hpp"
#include "Testing/ZavloTestPlatform.hpp"

int main() {
  const auto capabilities = ZavloAuthResponseUtils::capabilitiesDictionary();
  std::cout << capabilities.dump() << '\n';

  ZavloTestPlatform platform;
  bool ran = false;
  platform.mainQueue().postAfter(std::chrono::seconds(2), [&] { ran = true; });
  platform.advanceBy(std::chrono::seconds(2));
  return capabilities.value("sdkVersion", "") == "1.1.1" && ran ? 0 : 1;
}
