#pragma once

#include "Platform/Linux/Loop/ZavloLinuxRunLoop.hpp"
#include "Platform/ZavloQueue.hpp"

// GLib's own declarations, so that this header needs no GLib include path.
typedef struct _GMainContext GMainContext;  // NOLINT(bugprone-reserved-identifier): GLib's name
typedef struct _GSource GSource;            // NOLINT(bugprone-reserved-identifier): GLib's name

/// A main queue on a GLib main context, for hosts whose main thread runs a GLib (GTK)
/// main loop: the library's completions, connection events and timers then run on that
/// thread, between the host's own events. Give it to ZavloLinuxPlatform::Options::mainQueue.
///
/// All work goes through one source of the queue's own, attached to the context at the
/// default priority: ready at once while work waits, otherwise at the earliest timer's
/// deadline. Each dispatch runs one item, so the host's events interleave with a burst
/// of completions. The source does not recurse: a nested main loop run by a work item
/// runs no other work of this queue until that item returns.
///
/// Threading contract: as ZavloQueue; whoever iterates the context (normally the thread
/// that owns it) runs the work. Construction and destruction may happen on any thread;
/// work still waiting at destruction never runs, and the queue may be destroyed by its
/// own work. A work item that throws is reported to the exception handler (by default one
/// line on standard error, as the Linux run loop does) and the context goes on.
class ZavloGLibMainQueue final : public ZavloQueue {
 public:
  using ExceptionHandler = ZavloLinuxRunLoop::ExceptionHandler;

  /// On the calling thread's default context (the global default context unless a
  /// thread-default one was pushed).
  ZavloGLibMainQueue();
  /// On the given context, which the queue keeps a reference to.
  explicit ZavloGLibMainQueue(GMainContext* context);
  ~ZavloGLibMainQueue() override;

  void post(Work work) override;
  std::shared_ptr<ZavloTimer> postAfter(Duration delay, Work work) override;
  [[nodiscard]] bool isCurrent() const override;

  /// Replaces the exception handler; the default writes one line to standard error.
  void setExceptionHandler(ExceptionHandler handler);
  /// The context the work runs on (no reference is added).
  [[nodiscard]] GMainContext* context() const noexcept { return context_; }

 private:
  struct State;
  struct Source;
  struct Timer;

  GMainContext* context_;
  GSource* source_;
  // Owned by the source, which outlives the queue while a dispatch is running.
  State* state_;
};
