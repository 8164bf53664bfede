#include "Platform/Linux/Loop/ZavloLinuxSerialQueue.hpp"

#include <pthread.h>

#include <utility>

ZavloLinuxSerialQueue::ZavloLinuxSerialQueue(std::string label) : label_(std::move(label)) {
  // Thread names are limited to 15 characters; the tail of the label is the telling part.
  auto name = label_.size() > 15 ? label_.substr(label_.size() - 15) : label_;
  thread_ = std::thread([loop = loop_, name = std::move(name)] {
    pthread_setname_np(pthread_self(), name.c_str());
    loop->run();
  });
}

ZavloLinuxSerialQueue::~ZavloLinuxSerialQueue() {
  loop_->stop();
  if (thread_.get_id() == std::this_thread::get_id()) {
    // Destroyed by its own work: the thread ends once that item returns.
    thread_.detach();
  } else {
    thread_.join();
  }
}
