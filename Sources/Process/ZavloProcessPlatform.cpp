// The process-wide platform: the one the host installs, else the default of the platform
// library linked.
#include "Platform/ZavloPlatform.hpp"

#include <mutex>

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
  if (!state.platform) state.platform = zavloMakeDefaultPlatform();
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
