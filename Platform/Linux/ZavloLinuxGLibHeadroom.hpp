#pragma once

#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>

/// What GLib would find missing. GLib ends the process when it cannot make a wakeup
/// descriptor or a thread, and a library must not end its host: a part about to use GLib
/// (a private D-Bus connection, its worker, its calls) tries first what GLib will need.
enum class ZavloGLibShortage { none, descriptors, thread };

inline ZavloGLibShortage zavloGLibShortage() {
  // A main context, a connection, its worker's and its calls' wakeups, with room to spare.
  std::array<int, 8> descriptors{};
  descriptors.fill(-1);
  bool enough = true;
  for (auto& descriptor : descriptors) {
    descriptor = eventfd(0, EFD_CLOEXEC);
    if (descriptor < 0) {
      enough = false;
      break;
    }
  }
  for (const int descriptor : descriptors) {
    if (descriptor >= 0) close(descriptor);
  }
  if (!enough) return ZavloGLibShortage::descriptors;
  pthread_t thread{};
  if (pthread_create(
          &thread, nullptr, [](void*) -> void* { return nullptr; }, nullptr) != 0) {
    return ZavloGLibShortage::thread;
  }
  pthread_join(thread, nullptr);
  return ZavloGLibShortage::none;
}
