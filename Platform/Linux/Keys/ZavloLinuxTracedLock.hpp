#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

/// Runs body with mutex held and hands the trace body left in pending to sink once the
/// mutex is released: a trace sink may call the same object again.
template <class Body>
auto zavloLockedThenTraced(std::mutex& mutex, std::optional<std::string>& pending,
                           const std::function<void(const std::string&)>& sink, Body&& body) {
  std::optional<std::string> trace;
  auto result = [&] {
    std::lock_guard lock(mutex);
    auto answer = std::forward<Body>(body)();
    trace = std::exchange(pending, std::nullopt);
    return answer;
  }();
  if (trace && sink) sink(*trace);
  return result;
}
