#include "Platform/Linux/ZavloLinuxPlatform.hpp"

ZavloLinuxPlatform::ZavloLinuxPlatform(Options options)
    : deviceInfo_(std::move(options.hostApplicationVersion)), classifier_(std::move(options.cellularInterfaces)) {}

std::shared_ptr<ZavloQueue> ZavloLinuxPlatform::makeSerialQueue(const std::string& label) {
  return std::make_shared<ZavloLinuxSerialQueue>(label);
}
