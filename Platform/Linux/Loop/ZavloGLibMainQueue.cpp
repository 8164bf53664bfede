#include "Platform/Linux/Loop/ZavloGLibMainQueue.hpp"
#include "Platform/Linux/Loop/ZavloLinuxTimerWork.hpp"

#include <glib.h>

#include <atomic>
#include <deque>
#include <mutex>
#include <new>
#include <queue>
#include <thread>
#include <utility>
#include <vector>

struct ZavloGLibMainQueue::Timer final : ZavloLinuxTimerWork {};

struct ZavloGLibMainQueue::State {
  struct Scheduled {
    gint64 deadline;  // GLib monotonic time, microseconds
    std::uint64_t sequence;
    std::shared_ptr<Timer> timer;
    bool operator>(const Scheduled& other) const {
      return deadline != other.deadline ? deadline > other.deadline : sequence > other.sequence;
    }
  };

  GSource* source = nullptr;  // the owner; never a reference
  std::mutex mutex;
  std::deque<Work> ready;
  std::priority_queue<Scheduled, std::vector<Scheduled>, std::greater<>> timers;
  std::uint64_t sequence = 0;
  gint64 armedAt = -1;
  bool closed = false;
  std::atomic<std::thread::id> runningThread{};
  ExceptionHandler exceptionHandler = ZavloLinuxRunLoop::reportToStandardError;

  // Tells the source when it is next due. Called under the lock, so that two posters
  // cannot leave an older time armed; the context is only woken when the time changes.
  void rearm() {
    gint64 at = -1;
    if (!ready.empty()) {
      at = 0;
    } else if (!timers.empty()) {
      at = timers.top().deadline;
    }
    if (at != armedAt) {
      armedAt = at;
      g_source_set_ready_time(source, at);
    }
  }

  // The next item to run: due timers before plain work posted after them, as on the run
  // loop, so that deadline order stays fair.
  Work next() {
    std::lock_guard lock(mutex);
    Work work;
    if (closed) return work;
    const gint64 now = g_get_monotonic_time();
    while (!work && !timers.empty() && timers.top().deadline <= now) {
      auto timer = timers.top().timer;
      timers.pop();
      work = timer->take();  // empty when cancelled
    }
    if (!work && !ready.empty()) {
      work = std::move(ready.front());
      ready.pop_front();
    }
    rearm();
    return work;
  }

  // An exception must not unwind into GLib, which is C: the dispatch would be left
  // half done and the process would end.
  void run(Work& work) noexcept {
    const auto previous = runningThread.exchange(std::this_thread::get_id());
    try {
      work();
    } catch (...) {
      ExceptionHandler handler;
      {
        std::lock_guard lock(mutex);
        handler = exceptionHandler;
      }
      try {
        handler(std::current_exception());
      } catch (...) {
        ZavloLinuxRunLoop::reportToStandardError(std::current_exception());
      }
    }
    work = nullptr;  // captures go while the item still counts as running, as on the run loop
    runningThread.store(previous);
  }
};

struct ZavloGLibMainQueue::Source {
  GSource base;
  State* state;

  static gboolean dispatch(GSource* base, GSourceFunc, gpointer) {
    // GLib holds a reference to the source during the dispatch, so the state outlives an
    // item that destroys the queue.
    auto& state = *reinterpret_cast<Source*>(base)->state;
    if (auto work = state.next()) state.run(work);
    return G_SOURCE_CONTINUE;
  }
  static void finalize(GSource* base) { delete reinterpret_cast<Source*>(base)->state; }

  // No prepare or check: the ready time alone says when the source is due.
  static inline GSourceFuncs funcs = {nullptr, nullptr, &dispatch, &finalize, nullptr, nullptr};
};

ZavloGLibMainQueue::ZavloGLibMainQueue() : ZavloGLibMainQueue(nullptr) {}

ZavloGLibMainQueue::ZavloGLibMainQueue(GMainContext* context)
    : context_(context ? g_main_context_ref(context) : g_main_context_ref_thread_default()),
      source_(g_source_new(&Source::funcs, sizeof(Source))),
      state_(new State) {
  auto* source = reinterpret_cast<Source*>(source_);
  source->state = state_;
  state_->source = source_;
  g_source_set_priority(source_, G_PRIORITY_DEFAULT);
  g_source_set_can_recurse(source_, FALSE);
  g_source_set_name(source_, "zavlo main queue");
  g_source_attach(source_, context_);
}

ZavloGLibMainQueue::~ZavloGLibMainQueue() {
  std::deque<Work> dropped;
  decltype(State::timers) droppedTimers;
  {
    std::lock_guard lock(state_->mutex);
    state_->closed = true;
    dropped.swap(state_->ready);
    droppedTimers.swap(state_->timers);
  }
  g_source_destroy(source_);
  g_source_unref(source_);  // the state goes with the source, now or after a running dispatch
  g_main_context_unref(context_);
  // The dropped work's captures are released here, outside every lock, timers' too even
  // when their owners keep the timer objects.
  for (; !droppedTimers.empty(); droppedTimers.pop()) droppedTimers.top().timer->cancel();
}

void ZavloGLibMainQueue::post(Work work) {
  std::lock_guard lock(state_->mutex);
  state_->ready.push_back(std::move(work));
  state_->rearm();
}

std::shared_ptr<ZavloTimer> ZavloGLibMainQueue::postAfter(Duration delay, Work work) {
  auto timer = std::make_shared<Timer>();
  timer->work = std::move(work);
  const auto micros = std::chrono::ceil<std::chrono::microseconds>(std::max(delay, Duration::zero())).count();
  std::lock_guard lock(state_->mutex);
  state_->timers.push({g_get_monotonic_time() + micros, state_->sequence++, timer});
  state_->rearm();
  return timer;
}

bool ZavloGLibMainQueue::isCurrent() const { return state_->runningThread.load() == std::this_thread::get_id(); }

void ZavloGLibMainQueue::setExceptionHandler(ExceptionHandler handler) {
  std::lock_guard lock(state_->mutex);
  state_->exceptionHandler = handler ? std::move(handler) : ExceptionHandler(ZavloLinuxRunLoop::reportToStandardError);
}
