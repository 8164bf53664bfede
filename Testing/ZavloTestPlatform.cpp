#include "Testing/ZavloTestPlatform.hpp"

ZavloTestPlatform::ZavloTestPlatform()
    : scheduler_(ZavloTestScheduler::create()), mainQueue_(scheduler_->makeQueue("main")) {
  // Connections waiting for an interface look again whenever the scripted path changes.
  pathMonitors_.setPathObserver([&connections = connections_] { connections.pathChanged(); });
}

ZavloTestPlatform::~ZavloTestPlatform() { pathMonitors_.setPathObserver(nullptr); }

void ZavloTestPlatform::fillRandom(std::span<std::uint8_t> bytes) {
  std::lock_guard lock(randomMutex_);
  for (auto& byte : bytes) {
    // SplitMix64 of a counter: spread well, and the same stream in every run.
    std::uint64_t z = (++randomCounter_) * 0x9E3779B97F4A7C15ULL;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    byte = static_cast<std::uint8_t>(z ^ (z >> 31));
  }
}
