#include "Platform/Linux/ZavloLinuxPlatform.hpp"

#include "Platform/Linux/ZavloLinuxPathMonitor.hpp"
#include "Platform/Linux/ZavloLinuxHttpSession.hpp"

ZavloLinuxPlatform::ZavloLinuxPlatform(Options options)
    : deviceInfo_(std::move(options.hostApplicationVersion)),
      classifier_(std::move(options.cellularInterfaces)),
      connections_(classifier_) {}

std::shared_ptr<ZavloQueue> ZavloLinuxPlatform::makeSerialQueue(const std::string& label) {
  return std::make_shared<ZavloLinuxSerialQueue>(label);
}

std::shared_ptr<ZavloPathMonitor> ZavloLinuxPlatform::makePathMonitor() {
  return std::make_shared<ZavloLinuxPathMonitor>(classifier_);
}

std::shared_ptr<ZavloHttpSession> ZavloLinuxPlatform::makeHttpSession(
    const ZavloHttpSessionConfiguration& configuration) {
  return std::make_shared<ZavloLinuxHttpSession>(configuration);
}
