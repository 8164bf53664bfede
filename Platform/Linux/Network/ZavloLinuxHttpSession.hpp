#pragma once

#include <memory>
#include <mutex>
#include <thread>

#include "Platform/ZavloHttpSession.hpp"

/// The HTTP session of the Linux platform: libcurl's multi interface driven by one worker
/// thread per session. The multi handle keeps a connection cache, so posts to the same
/// host reuse connections (at most six transfers run at a time; more tasks wait their turn).
/// HTTPS verifies the peer against the system trust store. libcurl keeps no response
/// cache, so every request goes to the server.
///
/// Threading contract: as ZavloHttpSession; every completion runs on the worker thread.
/// invalidateAndCancel (and the destructor) join the worker after it has completed every
/// outstanding task with `cancelled`; called from the worker itself (inside a completion)
/// they only mark the session invalid and the worker finishes on its own.
class ZavloLinuxHttpSession final : public ZavloHttpSession {
 public:
  /// Throws std::runtime_error when libcurl or the worker thread cannot be set up.
  explicit ZavloLinuxHttpSession(ZavloHttpSessionConfiguration configuration);
  ~ZavloLinuxHttpSession() override;

  void post(ZavloHttpRequest request, Completion completion) override;
  void invalidateAndCancel() override;
  bool waitForOutstandingTasks(std::chrono::milliseconds timeout) override;

  /// Largest response body kept; a longer one fails the task rather than exhaust memory.
  static constexpr std::size_t kMaximumResponseSize = std::size_t{8} * 1024 * 1024;
  /// Transfers run at once, one per connection a host gets; later tasks wait in order on
  /// the worker (libcurl's own queue of transfers waiting for a connection drains slowly).
  static constexpr std::size_t kMaximumActiveTransfers = 6;

 private:
  struct Shared;
  struct Transfer;
  static void run(const std::shared_ptr<Shared>& shared);

  // Shared with the worker, which may outlive this object when the session is destroyed
  // from inside one of its own completions.
  std::shared_ptr<Shared> shared_;
  std::mutex joinMutex_;
  std::thread worker_;
};
