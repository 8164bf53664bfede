#include "Testing/ZavloTestPathMonitor.hpp"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

struct ZavloTestPathMonitorController::MonitorState {
  // Guarded by the core's mutex.
  ZavloPathMonitor::UpdateHandler handler;
  std::shared_ptr<ZavloQueue> queue;
  bool started = false;
  bool cancelled = false;
  std::thread::id callingThread;  // the thread running the handler, while it runs
};

struct ZavloTestPathMonitorController::Core {
  using UpdateHandler = ZavloPathMonitor::UpdateHandler;

  mutable std::mutex mutex;
  std::condition_variable idle;
  ZavloNetworkPath current = satisfiedPath({{"wwan0", ZavloInterfaceType::cellular}});
  StartMode mode = StartMode::deliverCurrentPath;
  std::function<void()> observer;
  std::vector<std::weak_ptr<MonitorState>> started;
  std::size_t createdCount = 0;
  std::size_t startedCount = 0;
  std::size_t cancelledCount = 0;

  // Posts one delivery; whether the monitor may still receive it is decided when it runs.
  static void post(const std::shared_ptr<Core>& core, const std::shared_ptr<MonitorState>& state,
                   const std::shared_ptr<ZavloQueue>& queue, ZavloNetworkPath path) {
    queue->post([core, weak = std::weak_ptr<MonitorState>(state), path = std::move(path)] {
      UpdateHandler handler;
      std::shared_ptr<MonitorState> live;
      {
        std::lock_guard lock(core->mutex);
        live = weak.lock();
        if (!live || live->cancelled || !live->handler) return;
        handler = live->handler;
        live->callingThread = std::this_thread::get_id();
      }
      // As the real monitor does: a cancel() on another thread waits for this call.
      const auto ended = [&] {
        handler = nullptr;
        {
          std::lock_guard lock(core->mutex);
          live->callingThread = {};
        }
        core->idle.notify_all();
      };
      try {
        handler(path);
      } catch (...) {
        ended();
        throw;
      }
      ended();
    });
  }
};

class ZavloTestPathMonitorController::Monitor final : public ZavloPathMonitor {
 public:
  explicit Monitor(std::shared_ptr<Core> core) : core_(std::move(core)), state_(std::make_shared<MonitorState>()) {}

  void setPathUpdateHandler(UpdateHandler handler) override {
    std::lock_guard lock(core_->mutex);
    if (!state_->cancelled) state_->handler = std::move(handler);
  }

  void start(std::shared_ptr<ZavloQueue> queue) override {
    ZavloNetworkPath first;
    bool deliver = false;
    {
      std::lock_guard lock(core_->mutex);
      if (state_->started || state_->cancelled || !queue) return;
      state_->started = true;
      state_->queue = queue;
      core_->started.push_back(state_);
      ++core_->startedCount;
      deliver = core_->mode == StartMode::deliverCurrentPath;
      first = core_->current;
    }
    if (deliver) Core::post(core_, state_, queue, std::move(first));
  }

  ~Monitor() override { cancel(); }

  void cancel() override {
    UpdateHandler dropped;
    std::shared_ptr<ZavloQueue> droppedQueue;
    std::unique_lock lock(core_->mutex);
    if (!state_->cancelled) {
      state_->cancelled = true;
      ++core_->cancelledCount;
    }
    dropped.swap(state_->handler);
    droppedQueue.swap(state_->queue);
    core_->idle.wait(lock, [this] {
      return state_->callingThread == std::thread::id{} || state_->callingThread == std::this_thread::get_id();
    });
  }

 private:
  std::shared_ptr<Core> core_;
  std::shared_ptr<MonitorState> state_;
};

ZavloTestPathMonitorController::ZavloTestPathMonitorController() : core_(std::make_shared<Core>()) {}

void ZavloTestPathMonitorController::setCurrentPath(const ZavloNetworkPath& path) {
  std::vector<std::pair<std::shared_ptr<MonitorState>, std::shared_ptr<ZavloQueue>>> targets;
  std::function<void()> observer;
  {
    std::lock_guard lock(core_->mutex);
    core_->current = path;
    std::erase_if(core_->started, [](const auto& weak) { return weak.expired(); });
    for (const auto& weak : core_->started) {
      if (auto state = weak.lock(); state && !state->cancelled) targets.emplace_back(state, state->queue);
    }
    observer = core_->observer;
  }
  for (const auto& [state, queue] : targets) Core::post(core_, state, queue, path);
  if (observer) observer();
}

void ZavloTestPathMonitorController::setPathObserver(std::function<void()> observer) {
  std::lock_guard lock(core_->mutex);
  core_->observer = std::move(observer);
}

ZavloNetworkPath ZavloTestPathMonitorController::currentPath() const {
  std::lock_guard lock(core_->mutex);
  return core_->current;
}

void ZavloTestPathMonitorController::setStartMode(StartMode mode) {
  std::lock_guard lock(core_->mutex);
  core_->mode = mode;
}

std::size_t ZavloTestPathMonitorController::createdCount() const {
  std::lock_guard lock(core_->mutex);
  return core_->createdCount;
}

std::size_t ZavloTestPathMonitorController::startedCount() const {
  std::lock_guard lock(core_->mutex);
  return core_->startedCount;
}

std::size_t ZavloTestPathMonitorController::liveCount() const {
  std::lock_guard lock(core_->mutex);
  return static_cast<std::size_t>(std::count_if(core_->started.begin(), core_->started.end(), [](const auto& weak) {
    const auto state = weak.lock();
    return state && !state->cancelled;
  }));
}

std::size_t ZavloTestPathMonitorController::cancelledCount() const {
  std::lock_guard lock(core_->mutex);
  return core_->cancelledCount;
}

std::shared_ptr<ZavloPathMonitor> ZavloTestPathMonitorController::makeMonitor() {
  {
    std::lock_guard lock(core_->mutex);
    ++core_->createdCount;
  }
  return std::make_shared<Monitor>(core_);
}

ZavloNetworkPath ZavloTestPathMonitorController::satisfiedPath(std::vector<ZavloNetworkInterface> interfaces) {
  ZavloNetworkPath path;
  path.status = ZavloNetworkPath::Status::satisfied;
  path.availableInterfaces = std::move(interfaces);
  return path;
}
