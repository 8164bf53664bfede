#pragma once

#include <glib.h>

#include <algorithm>
#include <chrono>
#include <functional>

/// A GLib main context of the test's own, so that nothing else attached to the global
/// default context runs in the test (test support).
class ZavloGLibContext {
 public:
  ZavloGLibContext() : context_(g_main_context_new()) {}
  ~ZavloGLibContext() { g_main_context_unref(context_); }
  ZavloGLibContext(const ZavloGLibContext&) = delete;
  ZavloGLibContext& operator=(const ZavloGLibContext&) = delete;

  [[nodiscard]] GMainContext* get() const noexcept { return context_; }

 private:
  GMainContext* context_;
};

/// Iterates the context (nullptr: the global default) on the calling thread, as a GTK
/// main loop would, until done() holds; returns done(). Each iteration blocks until some
/// source is due. The bound is only a safety net against a test that would otherwise
/// hang: a timeout source then wakes the last wait.
inline bool zavloIterateUntil(GMainContext* context, const std::function<bool()>& done,
                              std::chrono::nanoseconds bound) {
  const auto millis = std::clamp<std::chrono::milliseconds::rep>(
      std::chrono::ceil<std::chrono::milliseconds>(bound).count(), 1, G_MAXUINT);
  bool expired = false;
  GSource* guard = g_timeout_source_new(static_cast<guint>(millis));
  g_source_set_callback(
      guard,
      [](gpointer flag) -> gboolean {
        *static_cast<bool*>(flag) = true;
        return G_SOURCE_REMOVE;
      },
      &expired, nullptr);
  g_source_attach(guard, context);
  while (!done() && !expired) g_main_context_iteration(context, TRUE);
  g_source_destroy(guard);
  g_source_unref(guard);
  return done();
}
