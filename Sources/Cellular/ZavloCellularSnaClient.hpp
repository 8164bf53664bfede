#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Cellular/ZavloConnectionResult.hpp"
#include "Platform/ZavloConnection.hpp"
#include "Platform/ZavloPlatform.hpp"
#include "Telemetry/ZavloAuthEventLog.hpp"

/// One silent network authentication chain, by hand: a GET per hop over a connection
/// that may only use the cellular interface, redirects followed with a fresh connection
/// each time, one outcome at the end. The HTTP/1.1 of a hop is ZavloHttp1Codec's; the
/// outcome's dictionary form is ZavloChainDictionary's.
///
/// Threading: open() may be called from any thread; everything after it (connection
/// events, timers, the response handler, the completion) runs on the main queue. The
/// completion is called at most once, whatever arrives late.
class ZavloCellularSnaClient : public std::enable_shared_from_this<ZavloCellularSnaClient> {
 public:
  using Completion = std::function<void(ZavloChainOutcome)>;
  using ResponseHandler = std::function<void(ZavloConnectionResult)>;
  /// What one hop reports to telemetry, as the hop saw it: the event log is built from it
  /// by whoever sends it (toEventLog()), off the queue that runs the chain.
  struct HopEvent {
    std::optional<std::string> requestId;
    std::string requestUrl;
    std::string responseUrl;
    std::int64_t httpCode = 0;
    std::string responseBody;
    std::optional<std::string> failure;
    std::chrono::system_clock::time_point at;
    /// The "SNA_HOP" event of the native provider, stamped with `at`.
    [[nodiscard]] std::shared_ptr<ZavloAuthEventLog> toEventLog() const;
  };
  /// Where the per-hop telemetry goes (fire and forget), on the main queue: hand it over.
  using EventSink = std::function<void(HopEvent)>;

  static std::shared_ptr<ZavloCellularSnaClient> create(ZavloPlatform& platform, EventSink sendEvent);

  /// What one hop did and when, for diagnostics (the command-line host's -v trace, the
  /// demo's waterfall).
  struct HopTrace {
    std::string url;
    std::optional<std::chrono::microseconds> connectTime;  ///< absent: never became ready
    std::int64_t status = 0;                               ///< 0: no HTTP status was read
    std::optional<std::string> redirect;                   ///< the next hop's URL
    std::optional<std::string> failure;                    ///< why the hop failed, if it did
    std::chrono::steady_clock::time_point started{};       ///< when the hop's connection was made
    /// From ready until the connection reported the request sent; absent when it did not.
    std::optional<std::chrono::microseconds> requestTime;
    /// From then (or from ready, if the send was never reported) until the answer was read.
    std::optional<std::chrono::microseconds> responseTime;
  };
  using HopObserver = std::function<void(const HopTrace&)>;

  /// Per-hop time-out in seconds; the flow sets 10.0 before open().
  double CONNECTION_TIME_OUT = 7.0;
  /// Told about every hop that got an answer or a receive error; set before open().
  HopObserver hopObserver;

  /// Starts the chain at url; completion receives how it ended.
  void open(const ZavloUrl& url, std::optional<std::string> requestId, Completion completion);
  /// Ends a chain still running as a failed hop ("Connection cancelled") and stops its
  /// connection and timer; callable from any thread, does nothing once the chain has ended.
  void cancel();

  /// Judges the bytes of one hop's single receive and reports the hop's telemetry.
  void processResponse(const ZavloUrl& requestUrl, const std::vector<std::uint8_t>& data,
                       const std::optional<ZavloConnectionError>& error, const ResponseHandler& completion);

 private:
  ZavloCellularSnaClient(ZavloPlatform& platform, EventSink sendEvent);

  // The steps of one hop, in the order they run.
  /// Opens the connection for one hop and, once ready, sends the request.
  void activateConnectionForDataFetch(const ZavloUrl& url, std::shared_ptr<const ResponseHandler> completion);
  /// A cellular-only connection, stored as the current one; null for an empty host or a
  /// scheme that does not begin with "http" as written (so "HTTPS" makes none).
  std::shared_ptr<ZavloConnection> createConnection(const std::string& scheme, const std::string& host,
                                                    std::optional<std::int64_t> port,
                                                    ZavloConnectionParameters::IpVersion ipVersion);
  /// What the callbacks of one hop share, made once per hop rather than copied into each.
  struct Hop {
    ZavloUrl url;
    std::vector<std::uint8_t> request;
    std::shared_ptr<const ResponseHandler> completion;  // never null
    std::optional<std::int64_t> port;
  };
  /// ipv6Fallback: a failure starts the second try (any IP version) instead of ending the hop.
  ZavloConnection::StateHandler createConnectionUpdateHandler(std::shared_ptr<const Hop> hop, bool ipv6Fallback);
  void connectionReady(const std::shared_ptr<const Hop>& hop);
  void fallBackFromIpv6(const std::shared_ptr<const Hop>& hop);
  void sendAndReceiveWithBody(const std::shared_ptr<const Hop>& hop);
  void createTimer();
  void fireTimer();
  void cleanUp();

  /// Shared, not copied: every hop holds it.
  [[nodiscard]] std::shared_ptr<const ResponseHandler> checkResponseHandler() const;
  void setCheckResponseHandler(ResponseHandler handler);
  ResponseHandler makeResponseHandler(Completion completion);
  void sendHopEvent(const ZavloUrl& requestUrl, const std::string& responseUrl, std::int64_t httpCode,
                    const std::string& responseBody, const std::optional<std::string>& failure);
  void deliver(const ResponseHandler& completion, ZavloConnectionResult result);
  void traceHop(const ZavloUrl& url, std::int64_t status, std::optional<std::string> redirect,
                std::optional<std::string> failure) const;

  ZavloPlatform& platform_;
  EventSink sendEvent_;
  std::shared_ptr<ZavloConnection> connection_;
  std::shared_ptr<ZavloTimer> timer_;
  std::optional<std::string> requestId_;
  mutable std::mutex accessQueue_;  // "com.zavlo.cellular.sna.manager": guards the handler only
  std::shared_ptr<const ResponseHandler> checkResponseHandler_;  // null, or holding a handler
  bool finished_ = false;                                        // the completion has been called; main queue only
  std::chrono::steady_clock::time_point hopStarted_;
  std::optional<std::chrono::microseconds> connectTime_;
  std::optional<std::chrono::steady_clock::time_point> requestSent_;
};
