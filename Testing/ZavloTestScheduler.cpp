#include "Testing/ZavloTestScheduler.hpp"

#include <algorithm>
#include <atomic>
#include <utility>

struct ZavloTestScheduler::QueueState {
  std::string label;
  std::atomic<bool> alive{true};
};

namespace {
thread_local const void* tCurrentQueue = nullptr;
}

class ZavloTestScheduler::TestTimer final : public ZavloTimer {
 public:
  using Work = ZavloQueue::Work;
  explicit TestTimer(Work work) : work_(std::move(work)) {}
  void cancel() override {
    Work dropped;
    std::lock_guard lock(mutex_);
    dropped.swap(work_);
  }
  Work take() {
    std::lock_guard lock(mutex_);
    return std::exchange(work_, nullptr);
  }
  [[nodiscard]] bool live() const {
    std::lock_guard lock(mutex_);
    return static_cast<bool>(work_);
  }

 private:
  mutable std::mutex mutex_;
  Work work_;
};

struct ZavloTestScheduler::Item {
  Duration deadline;
  std::uint64_t sequence;
  std::shared_ptr<QueueState> queue;
  std::shared_ptr<TestTimer> timer;
  // Heap order: the earliest deadline first, then the earliest posted.
  bool operator<(const Item& other) const {
    return deadline != other.deadline ? deadline > other.deadline : sequence > other.sequence;
  }
};

class ZavloTestScheduler::TestQueue final : public ZavloQueue {
 public:
  TestQueue(std::shared_ptr<ZavloTestScheduler> scheduler, std::string label)
      : scheduler_(std::move(scheduler)), state_(std::make_shared<QueueState>()) {
    state_->label = std::move(label);
  }
  ~TestQueue() override { state_->alive = false; }

  void post(Work work) override {
    scheduler_->enqueue(state_, Duration::zero(), std::make_shared<TestTimer>(std::move(work)));
  }
  std::shared_ptr<ZavloTimer> postAfter(Duration delay, Work work) override {
    auto timer = std::make_shared<TestTimer>(std::move(work));
    scheduler_->enqueue(state_, std::max(delay, Duration::zero()), timer);
    return timer;
  }
  [[nodiscard]] bool isCurrent() const override { return tCurrentQueue == state_.get(); }

 private:
  std::shared_ptr<ZavloTestScheduler> scheduler_;
  std::shared_ptr<QueueState> state_;
};

std::shared_ptr<ZavloTestScheduler> ZavloTestScheduler::create() {
  return std::shared_ptr<ZavloTestScheduler>(new ZavloTestScheduler());
}

ZavloTestScheduler::Duration ZavloTestScheduler::now() const {
  std::lock_guard lock(mutex_);
  return now_;
}

std::shared_ptr<ZavloQueue> ZavloTestScheduler::makeQueue(std::string label) {
  return std::make_shared<TestQueue>(shared_from_this(), std::move(label));
}

void ZavloTestScheduler::enqueue(const std::shared_ptr<QueueState>& queue, Duration delay,
                                 const std::shared_ptr<TestTimer>& timer) {
  std::lock_guard lock(mutex_);
  heap_.push_back({now_ + delay, sequence_++, queue, timer});
  std::push_heap(heap_.begin(), heap_.end());
}

bool ZavloTestScheduler::runOne(Duration limit, bool& ran) {
  ran = false;
  Item item{};
  {
    std::lock_guard lock(mutex_);
    if (heap_.empty() || heap_.front().deadline > limit) return false;
    std::pop_heap(heap_.begin(), heap_.end());
    item = std::move(heap_.back());
    heap_.pop_back();
    now_ = std::max(now_, item.deadline);
  }
  if (!item.queue->alive) return true;
  if (auto work = item.timer->take()) {
    ran = true;
    // A throwing item reaches the test, with isCurrent() as it was before the item.
    struct Restore {
      const void* previous;
      ~Restore() { tCurrentQueue = previous; }
    } restore{std::exchange(tCurrentQueue, item.queue.get())};
    work();
  }
  return true;
}

std::size_t ZavloTestScheduler::runUntilIdle() {
  std::size_t count = 0;
  for (bool ran = false; runOne(now(), ran);) count += ran ? 1 : 0;
  return count;
}

std::size_t ZavloTestScheduler::advanceBy(Duration delta) {
  const auto target = now() + std::max(delta, Duration::zero());
  std::size_t count = 0;
  for (bool ran = false; runOne(target, ran);) count += ran ? 1 : 0;
  std::lock_guard lock(mutex_);
  now_ = target;
  return count;
}

std::size_t ZavloTestScheduler::pendingCount() const {
  std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(std::count_if(
      heap_.begin(), heap_.end(), [](const Item& item) { return item.queue->alive && item.timer->live(); }));
}
