#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// Limits shared by every request of one session.
struct ZavloHttpSessionConfiguration {
  /// Longest time without any data moving (used when a request names no interval).
  std::chrono::milliseconds requestTimeout{std::chrono::seconds(30)};
  /// Longest time a whole transfer may take, from start to the last byte.
  std::chrono::milliseconds resourceTimeout{std::chrono::seconds(60)};
  /// Never answer from a local cache; every request goes to the server.
  bool ignoresLocalCache = true;
};

/// One POST: the body is sent as given, the headers in this order after the transport's own.
struct ZavloHttpRequest {
  std::string url;
  std::vector<std::pair<std::string, std::string>> headers;
  std::vector<std::uint8_t> body;
  /// Idle time-out of this request; absent: the session's requestTimeout.
  std::optional<std::chrono::milliseconds> timeoutInterval;
};

/// Why a transfer produced no response.
struct ZavloHttpTransportError {
  enum class Code {
    cancelled,               ///< the task was cancelled (the session was invalidated)
    timedOut,                ///< idle or whole-transfer time-out
    cannotFindHost,          ///< name resolution failed
    cannotConnectToHost,     ///< refused, unreachable
    secureConnectionFailed,  ///< TLS handshake or certificate verification failed
    networkConnectionLost,   ///< the connection broke during the exchange
    unsupportedURL,          ///< a scheme or URL the transport does not handle
    other,
  };
  Code code = Code::other;
  std::string localizedDescription;

  friend bool operator==(const ZavloHttpTransportError&, const ZavloHttpTransportError&) = default;
};

/// The outcome of a task, in the shape of a URL loading system's (data, response, error):
/// a transport error, or a response (status code present for an HTTP response) with the
/// body received: an HTTP answer without body bytes has an empty body, not none.
struct ZavloHttpTaskOutcome {
  std::optional<ZavloHttpTransportError> error;
  std::optional<int> statusCode;                  ///< absent: no response, or not an HTTP one
  std::optional<std::vector<std::uint8_t>> data;  ///< absent: no response (or a test left it out)

  static ZavloHttpTaskOutcome failure(ZavloHttpTransportError::Code code, std::string description) {
    return {ZavloHttpTransportError{code, std::move(description)}, std::nullopt, std::nullopt};
  }
};

/// A session that runs POST data tasks with shared time-outs, never from a cache.
///
/// Threading contract: post, invalidateAndCancel and waitForOutstandingTasks may be called
/// from any thread. Every posted task completes exactly once. A task's completion runs on
/// the session's own reporting context (the Linux session: its worker thread; the test
/// session: the thread of the test that answers or moves the virtual clock), never inline
/// in post(), except after invalidation: a task posted then completes at once, on the
/// caller's thread, with `cancelled`. invalidateAndCancel completes every outstanding task
/// with `cancelled` before it returns (unless called from inside a completion, where it
/// cannot wait for itself); destroying the session does the same. Completions may post
/// new tasks.
class ZavloHttpSession {
 public:
  using Completion = std::function<void(ZavloHttpTaskOutcome)>;

  ZavloHttpSession() = default;
  ZavloHttpSession(const ZavloHttpSession&) = delete;
  ZavloHttpSession& operator=(const ZavloHttpSession&) = delete;
  virtual ~ZavloHttpSession() = default;

  /// Starts one POST. Returns at once.
  virtual void post(ZavloHttpRequest request, Completion completion) = 0;
  /// Cancels every outstanding task; later tasks fail at once with `cancelled`.
  virtual void invalidateAndCancel() = 0;
  /// Waits until no task is outstanding or the timeout passes; true when none is.
  /// The test session never blocks: it answers at once whether none is.
  virtual bool waitForOutstandingTasks(std::chrono::milliseconds timeout) = 0;
};

/// A header field that can go on the wire as one line: a non-empty token name, and no
/// line break or NUL in either part (a break would smuggle in another header).
constexpr bool zavloIsValidHeaderField(std::string_view name, std::string_view value) noexcept {
  if (name.empty()) return false;
  for (const char c : name) {
    if (c <= ' ' || c == ':' || c == 127) return false;
  }
  for (const char c : value) {
    if (c == '\r' || c == '\n' || c == '\0') return false;
  }
  return true;
}

/// Short English sentence for a transport error code (the transports use these texts).
constexpr std::string_view zavloDescribe(ZavloHttpTransportError::Code code) noexcept {
  using Code = ZavloHttpTransportError::Code;
  switch (code) {
    case Code::cancelled:
      return "The request was cancelled.";
    case Code::timedOut:
      return "The request timed out.";
    case Code::cannotFindHost:
      return "A server with the specified hostname could not be found.";
    case Code::cannotConnectToHost:
      return "Could not connect to the server.";
    case Code::secureConnectionFailed:
      return "A secure connection to the server could not be made.";
    case Code::networkConnectionLost:
      return "The network connection was lost.";
    case Code::unsupportedURL:
      return "The URL is not supported.";
    case Code::other:
      return "The request failed.";
  }
  return "The request failed.";
}
