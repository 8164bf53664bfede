// Linking the Linux platform makes it the process-wide default.
#include "Platform/Linux/ZavloLinuxPlatform.hpp"

std::shared_ptr<ZavloPlatform> zavloMakeDefaultPlatform() { return std::make_shared<ZavloLinuxPlatform>(); }
