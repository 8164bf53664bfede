#pragma once

#include <functional>
#include <mutex>

/// Lets a caller stop work it started, such as a silent authentication chain: the work
/// installs how it stops, the caller cancels.
///
/// Threading contract: every method may be called from any thread. The stopper runs on
/// the thread that cancels, or, when the work installs it after the cancel, on the thread
/// that installs it; it runs at most once.
class ZavloCancellation {
 public:
  /// Stops the work once; later calls do nothing.
  void cancel();
  [[nodiscard]] bool isCancelled() const;
  /// How the work stops; runs at once when the cancel came first.
  void onCancel(std::function<void()> stop);

 private:
  mutable std::mutex mutex_;
  bool cancelled_ = false;
  std::function<void()> stop_;
};
