#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Platform/ZavloHttpSession.hpp"
#include "Platform/ZavloQueue.hpp"

class ZavloTestScheduler;

/// One request a test session received, and what became of it.
struct ZavloTestHttpExchange {
  enum class State { pending, answered, cancelled, timedOut };

  std::size_t session = 0;  ///< index of the session, in order of creation
  ZavloHttpSessionConfiguration configuration;
  ZavloHttpRequest request;
  State state = State::pending;

  [[nodiscard]] std::string bodyText() const { return {request.body.begin(), request.body.end()}; }
  /// The value of the first header with this name (ASCII case-insensitive).
  [[nodiscard]] std::optional<std::string> header(const std::string& name) const;
};

/// The HTTP sessions of a test platform: records every request of every session it made
/// and lets the test answer each one with a status and body, a transport error, or nothing
/// at all (no response, which the caller sees as an invalid response).
///
/// A request nobody answers fails with `timedOut` once the virtual clock passes its idle
/// time-out (the request's, else the session's) or the session's resource time-out,
/// whichever comes first. Invalidating or destroying a session cancels its pending
/// requests at once, on the calling thread.
///
/// Threading contract: callable from any thread. A completion runs on the thread that
/// answers, cancels or moves the virtual clock, outside every lock, never inside post().
class ZavloTestHttp {
 public:
  explicit ZavloTestHttp(const std::shared_ptr<ZavloTestScheduler>& scheduler);
  ~ZavloTestHttp();
  ZavloTestHttp(const ZavloTestHttp&) = delete;
  ZavloTestHttp& operator=(const ZavloTestHttp&) = delete;

  /// What ZavloTestPlatform::makeHttpSession returns.
  std::shared_ptr<ZavloHttpSession> makeSession(const ZavloHttpSessionConfiguration& configuration);

  [[nodiscard]] std::size_t sessionCount() const;
  /// Sessions made and not yet invalidated (or destroyed).
  [[nodiscard]] std::size_t liveSessionCount() const;
  /// Every request so far, in arrival order (a copy).
  [[nodiscard]] std::vector<ZavloTestHttpExchange> exchanges() const;
  [[nodiscard]] std::size_t requestCount() const;
  [[nodiscard]] std::size_t pendingCount() const;

  /// Answers request index with an HTTP response. False (and nothing happens) unless that
  /// request is pending.
  bool respond(std::size_t index, int statusCode, std::optional<std::string> body = std::nullopt);
  /// Fails request index with a transport error.
  bool fail(std::size_t index, ZavloHttpTransportError error);
  /// Completes request index with neither response nor error.
  bool respondWithNothing(std::size_t index);
  /// Completes request index with any outcome.
  bool complete(std::size_t index, ZavloHttpTaskOutcome outcome);

 private:
  struct State;
  class Session;
  std::shared_ptr<State> state_;
};
