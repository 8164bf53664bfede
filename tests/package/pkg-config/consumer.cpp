// Built with only `pkg-config --cflags --libs zavlo-auth`: the C++ library's capabilities.
#include <iostream>

#include "Operations/ZavloAuthenticationOperations.hpp"

int main() {
  const auto capabilities = ZavloAuthenticationOperations::capabilities();
  std::cout << capabilities.dump() << '\n';
  return capabilities.value("status", "") == "SUCCESS" ? 0 : 1;
}
