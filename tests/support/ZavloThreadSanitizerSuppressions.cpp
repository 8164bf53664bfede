// ThreadSanitizer suppressions built into the integration tests.
#if defined(__SANITIZE_THREAD__)

// GLib (Debian's, not instrumented) hands memory between a caller and its D-Bus worker
// thread under its own futex-based locks, which ThreadSanitizer cannot see: a block
// allocated on one thread and freed or reused on the other then looks like a race. Only
// races with an access made inside GLib are excused; our own code calls no GLib code that
// calls back, so its accesses are still checked.
extern "C" const char* __tsan_default_suppressions() {
  return "race:libglib-2.0.so.0\n"
         "race:libgio-2.0.so.0\n";
}

#endif
