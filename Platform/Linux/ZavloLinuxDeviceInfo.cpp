#include "Platform/Linux/ZavloLinuxDeviceInfo.hpp"

#include <sys/utsname.h>

namespace {

std::string kernelRelease() {
  utsname name{};
  if (uname(&name) != 0) return "unknown";
  return name.release;
}

}  // namespace

ZavloLinuxDeviceInfo::ZavloLinuxDeviceInfo(std::optional<std::string> hostApplicationVersion)
    : hostVersion_(std::move(hostApplicationVersion)), osVersion_(kernelRelease()) {}
