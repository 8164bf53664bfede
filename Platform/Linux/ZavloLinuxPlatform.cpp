#include "Platform/Linux/ZavloLinuxPlatform.hpp"

ZavloLinuxPlatform::ZavloLinuxPlatform(Options options) : deviceInfo_(std::move(options.hostApplicationVersion)) {}

std::shared_ptr<ZavloQueue> ZavloLinuxPlatform::makeSerialQueue(const std::string& label) {
  return std::make_shared<ZavloLinuxSerialQueue>(label);
}
