#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/ZavloConnection.hpp"
#include "Platform/ZavloNetworkInterface.hpp"

/// What a scripted connection does by itself. A step left unset waits for the test to
/// drive it through ZavloTestConnection.
struct ZavloTestConnectionScript {
  struct Answer {
    std::vector<std::uint8_t> data;
    bool isComplete = true;                     ///< the peer finishes after data
    std::optional<ZavloConnectionError> error;  ///< fails the receive instead
  };

  /// Reached after `preparing` once started (ready, waiting or failed); absent: the
  /// connection stays preparing.
  std::optional<ZavloConnection::State> stateAfterStart = ZavloConnection::State::ready;
  std::optional<ZavloConnectionError> startError;  ///< reported with waiting or failed
  bool completeSends = true;                       ///< false: sends stay pending
  std::optional<ZavloConnectionError> sendError;   ///< reported by every send
  /// What the peer sends, fed on the first receive after answerDelay of virtual time;
  /// absent: receives stay pending.
  std::optional<Answer> answer;
  ZavloQueue::Duration answerDelay{0};

  /// Ready, every send accepted, the response as the peer's whole answer: one hop.
  static ZavloTestConnectionScript answering(std::string_view response);
  /// Fails on start with this error.
  static ZavloTestConnectionScript failing(ZavloConnectionError error);
  /// Ready, every send accepted, never answers.
  static ZavloTestConnectionScript silent();
  /// Waits with this error and never becomes ready.
  static ZavloTestConnectionScript waiting(ZavloConnectionError error);
};

/// A connection the test drives. Everything it reports goes through the queue given to
/// start(), so nothing happens until the test runs that queue (runUntilIdle, advanceBy).
/// Incoming bytes behave like a TCP stream: a receive takes at most its maximum and
/// leaves the rest for the next one.
///
/// Interfaces, as on a real platform: start() picks the first interface present (in the
/// source's order) that the parameters allow. When they require or prohibit a type and no
/// present interface is allowed, the connection reports `preparing` then `waiting` with
/// ENETUNREACH "No usable cellular interface" ("network" when no type is required), and
/// waits: on each pathChanged() it looks again, and once an allowed interface is present
/// it reports `preparing` and follows its script. Without any restriction it takes the
/// first interface present, or none, and follows its script.
///
/// Threading contract: as ZavloConnection; the observers and drivers may be called from
/// any thread.
class ZavloTestConnection final : public ZavloConnection, public std::enable_shared_from_this<ZavloTestConnection> {
 public:
  struct ReceiveRequest {
    std::size_t minimumIncompleteLength;
    std::size_t maximumLength;
  };

  /// The interfaces present when a connection starts, in the order they are preferred.
  using InterfaceSource = std::function<std::vector<ZavloNetworkInterface>()>;

  ZavloTestConnection(std::string host, std::uint16_t port, ZavloConnectionParameters parameters,
                      std::optional<ZavloTestConnectionScript> script, InterfaceSource interfaces);

  void setStateUpdateHandler(StateHandler handler) override;
  void start(ZavloQueue& queue) override;
  void send(std::vector<std::uint8_t> content, SendCompletion completion) override;
  void receive(std::size_t minimumIncompleteLength, std::size_t maximumLength, ReceiveCompletion completion) override;
  void cancel() override;

  /// The interfaces present may have changed: a connection waiting for an allowed one
  /// looks again.
  void pathChanged();

  // What the code under test asked for.
  [[nodiscard]] const std::string& host() const noexcept { return host_; }
  [[nodiscard]] std::uint16_t port() const noexcept { return port_; }
  [[nodiscard]] const ZavloConnectionParameters& parameters() const noexcept { return parameters_; }
  [[nodiscard]] bool isStarted() const;
  [[nodiscard]] bool wasCancelled() const;
  [[nodiscard]] int cancelCallCount() const;
  /// Every byte handed to send(), in order.
  [[nodiscard]] std::vector<std::uint8_t> sentData() const;
  [[nodiscard]] std::string sentText() const;
  [[nodiscard]] std::size_t pendingSendCount() const;
  [[nodiscard]] std::vector<ReceiveRequest> pendingReceives() const;
  /// The states the handler has been called with so far.
  [[nodiscard]] std::vector<State> reportedStates() const;
  /// The interface start() chose; none before start(), when none was allowed, or when
  /// nothing was restricted and no interface was present.
  [[nodiscard]] std::optional<ZavloNetworkInterface> usedInterface() const;

  // Driving it; each report is posted to the connection's queue. Throws std::logic_error
  // before start().
  void moveTo(State state, const std::optional<ZavloConnectionError>& error = std::nullopt);
  /// Completes the oldest pending send; false if none was pending.
  bool completeSend(std::optional<ZavloConnectionError> error = std::nullopt);
  /// The peer sends bytes (and finishes if isComplete); pending receives take them once
  /// the connection is ready.
  void answerReceive(std::string_view bytes, bool isComplete = true);
  void answerReceive(const std::vector<std::uint8_t>& bytes, bool isComplete = true);
  /// Fails the oldest pending receive; false if none was pending.
  bool failReceive(ZavloConnectionError error);

 private:
  struct PendingSend {
    SendCompletion completion;
  };
  struct PendingReceive {
    ReceiveRequest request;
    ReceiveCompletion completion;
  };

  void requireStarted() const;  // mutex_ held
  template <class Work>
  void deliver(Work work);                              // mutex_ held
  void serveReceives();                                 // mutex_ held
  void failPending(const ZavloConnectionError& error);  // mutex_ held
  void feedScriptedAnswer();
  void followScript();

  const std::string host_;
  const std::uint16_t port_;
  const ZavloConnectionParameters parameters_;
  const std::optional<ZavloTestConnectionScript> script_;
  const InterfaceSource interfaces_;

  mutable std::mutex mutex_;
  std::optional<ZavloNetworkInterface> usedInterface_;
  StateHandler handler_;
  ZavloQueue* queue_ = nullptr;
  bool cancelled_ = false;  // read by deliveries under mutex_
  int cancelCalls_ = 0;
  State state_ = State::setup;
  std::vector<State> reported_;
  std::vector<std::uint8_t> sent_;
  std::deque<PendingSend> sends_;
  std::deque<PendingReceive> receives_;
  std::vector<std::uint8_t> inbound_;
  bool peerFinished_ = false;
  bool answerFed_ = false;
  bool waitingForInterface_ = false;
};

/// Every connection a test platform made, and the scripts they follow.
///
/// Threading contract: callable from any thread.
class ZavloTestConnections {
 public:
  /// Connections see one cellular interface, "wwan0".
  ZavloTestConnections();
  /// Connections see what interfaces returns when they start; it is called on the thread
  /// that starts them and must outlive them (hold what it reads by shared ownership).
  explicit ZavloTestConnections(ZavloTestConnection::InterfaceSource interfaces);

  /// Every later connection to host:port (and this IP version, when given) follows the
  /// script; the latest matching call wins.
  void script(const std::string& host, std::uint16_t port, ZavloTestConnectionScript script,
              std::optional<ZavloConnectionParameters::IpVersion> ipVersion = std::nullopt);
  /// Only the next matching connection follows this script; one-shot scripts are used in
  /// the order given, before any lasting script.
  void scriptNext(const std::string& host, std::uint16_t port, ZavloTestConnectionScript script,
                  std::optional<ZavloConnectionParameters::IpVersion> ipVersion = std::nullopt);

  [[nodiscard]] std::vector<std::shared_ptr<ZavloTestConnection>> all() const;
  /// The connections made to host:port, oldest first.
  [[nodiscard]] std::vector<std::shared_ptr<ZavloTestConnection>> to(const std::string& host, std::uint16_t port) const;
  /// The newest connection, or null.
  [[nodiscard]] std::shared_ptr<ZavloTestConnection> last() const;
  [[nodiscard]] std::size_t count() const;

  /// What the test platform's makeConnection does.
  std::shared_ptr<ZavloTestConnection> make(const std::string& host, std::uint16_t port,
                                            ZavloConnectionParameters parameters);
  /// Tells every connection that the interfaces present may have changed (the test
  /// platform does when its scripted path changes).
  void pathChanged();

 private:
  struct Entry {
    std::string host;
    std::uint16_t port;
    std::optional<ZavloConnectionParameters::IpVersion> ipVersion;
    ZavloTestConnectionScript script;
    [[nodiscard]] bool matches(const std::string& h, std::uint16_t p, ZavloConnectionParameters::IpVersion v) const {
      return host == h && port == p && (!ipVersion || *ipVersion == v);
    }
  };

  const ZavloTestConnection::InterfaceSource interfaces_;
  mutable std::mutex mutex_;
  std::vector<Entry> lasting_;
  std::deque<Entry> oneShot_;
  std::vector<std::shared_ptr<ZavloTestConnection>> connections_;
};
