// The process-wide platform defaults to the Linux one; it lives here so that Platform/
// itself stays purely abstract.
#include "Platform/ZavloPlatform.hpp"

#include <mutex>

#include "Platform/Linux/ZavloLinuxPlatform.hpp"

namespace {

struct ProcessPlatform {
  std::mutex mutex;
  std::shared_ptr<ZavloPlatform> platform;
  bool used = false;
};

ProcessPlatform& processPlatform() {
  static auto* state = new ProcessPlatform();  // never destroyed: shared objects outlive statics
  return *state;
}

}  // namespace

ZavloPlatform& ZavloPlatform::current() {
  auto& state = processPlatform();
  std::lock_guard lock(state.mutex);
  if (!state.platform) state.platform = std::make_shared<ZavloLinuxPlatform>();
  state.used = true;
  return *state.platform;
}

bool ZavloPlatform::install(std::shared_ptr<ZavloPlatform> platform) {
  auto& state = processPlatform();
  std::lock_guard lock(state.mutex);
  if (state.used || !platform) return false;
  state.platform = std::move(platform);
  return true;
}
