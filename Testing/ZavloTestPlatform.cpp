#include "Testing/ZavloTestPlatform.hpp"

ZavloTestPlatform::ZavloTestPlatform()
    : scheduler_(ZavloTestScheduler::create()), mainQueue_(scheduler_->makeQueue("main")) {
  // Connections waiting for an interface look again whenever the scripted path changes.
  pathMonitors_.setPathObserver([&connections = connections_] { connections.pathChanged(); });
}

ZavloTestPlatform::~ZavloTestPlatform() { pathMonitors_.setPathObserver(nullptr); }
