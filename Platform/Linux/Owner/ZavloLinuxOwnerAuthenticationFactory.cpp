// Owner authentication as ZavloLinuxPlatform makes it.
#include "Platform/Linux/Owner/ZavloLinuxOwnerAuthentication.hpp"
#include "Platform/Linux/ZavloLinuxPlatformServices.hpp"

namespace {

ZavloLinuxOwnerAuthenticationService makeOwnerAuthentication(ZavloLinuxOwnerAuthentication::Options options) {
  auto authentication = std::make_shared<ZavloLinuxOwnerAuthentication>(std::move(options));
  auto makeContext = [authentication]() -> std::shared_ptr<ZavloOwnerAuthenticationContext> {
    return authentication->makeContext();
  };
  return {authentication, std::move(makeContext)};
}

}  // namespace

extern "C" const ZavloLinuxOwnerAuthenticationFactory zavloLinuxOwnerAuthenticationFactory = &makeOwnerAuthentication;
