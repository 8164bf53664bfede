#pragma once

#include <memory>
#include <string>
#include <thread>

#include "Platform/Linux/Loop/ZavloLinuxRunLoop.hpp"

/// A private serial queue: a run loop on a thread of its own, stopped and joined on
/// destruction (work still queued then is dropped).
class ZavloLinuxSerialQueue final : public ZavloQueue {
 public:
  explicit ZavloLinuxSerialQueue(std::string label);
  ~ZavloLinuxSerialQueue() override;

  void post(Work work) override { loop_->post(std::move(work)); }
  std::shared_ptr<ZavloTimer> postAfter(Duration delay, Work work) override {
    return loop_->postAfter(delay, std::move(work));
  }
  [[nodiscard]] bool isCurrent() const override { return loop_->isCurrent(); }
  [[nodiscard]] const std::string& label() const noexcept { return label_; }

 private:
  std::string label_;
  // Shared with the thread, which may outlive this object when the queue is destroyed
  // by its own work.
  std::shared_ptr<ZavloLinuxRunLoop> loop_ = std::make_shared<ZavloLinuxRunLoop>();
  std::thread thread_;
};
