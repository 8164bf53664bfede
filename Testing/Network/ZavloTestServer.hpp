#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tools/peers/ZavloTestCertificates.hpp"

/// How a test server treats one accepted connection.
struct ZavloTestServerReply {
  enum class Action {
    answer,       ///< send the segments, then close
    neverAnswer,  ///< read the request, then hold the connection open until the server stops
    closeAtOnce,  ///< close right after accepting, reading nothing
    reset,        ///< read the request, then reset the connection (SO_LINGER 0)
  };

  Action action = Action::answer;
  std::vector<std::string> segments;   ///< written one by one, each in a TCP segment of its own
  std::chrono::milliseconds pause{0};  ///< between segments
  /// Written one by one (over TLS each in records of its own) but held back by TCP_CORK
  /// and released together, so that the client finds all of them waiting at once.
  bool inOneFlight = false;

  /// How an answer ends once its segments are written.
  enum class Ending {
    close,     ///< an orderly close
    reset,     ///< a reset (SO_LINGER 0), as a peer that crashes or aborts mid-answer
    holdOpen,  ///< nothing more: the connection stays open until the server stops
  };
  Ending ending = Ending::close;
  /// Before a reset or a hold, so that the client has read what came before.
  std::chrono::milliseconds pauseBeforeEnding{0};

  static ZavloTestServerReply answer(std::string bytes);
  static ZavloTestServerReply split(std::vector<std::string> segments, std::chrono::milliseconds pause);
  static ZavloTestServerReply together(std::vector<std::string> writes);
  static ZavloTestServerReply neverAnswer();
  static ZavloTestServerReply closeAtOnce();
  static ZavloTestServerReply reset();
  /// The segments (pause between them), then the pause again, then that ending.
  static ZavloTestServerReply answerThen(std::vector<std::string> segments, Ending ending,
                                         std::chrono::milliseconds pause = std::chrono::milliseconds(0));
};

/// A scripted raw TCP (or TLS) server on a loopback address and an ephemeral port, run on
/// a thread of its own (test support). It serves one connection at a time: it reads the
/// request head (up to an empty line, or whatever came within two seconds), then acts as
/// the reply says. Its sockets live in the network namespace of the thread that made it.
class ZavloTestServer {
 public:
  struct Options {
    /// "::1" for IPv6, or any local address; "localhost": 127.0.0.1 and, where this machine
    /// has it, ::1 on the same port (a client tries "localhost" over IPv6 first).
    std::string address = "127.0.0.1";
    std::uint16_t port = 0;  ///< 0: an ephemeral port
    std::optional<ZavloTestTlsIdentity> tls;
  };

  explicit ZavloTestServer(ZavloTestServerReply reply) : ZavloTestServer(std::move(reply), Options{}) {}
  ZavloTestServer(ZavloTestServerReply reply, Options options);
  ~ZavloTestServer();
  ZavloTestServer(const ZavloTestServer&) = delete;
  ZavloTestServer& operator=(const ZavloTestServer&) = delete;

  /// Whether this machine can listen on ::1.
  static bool ipv6LoopbackAvailable();

  [[nodiscard]] std::uint16_t port() const noexcept { return port_; }
  [[nodiscard]] const std::string& address() const noexcept { return address_; }
  void setReply(ZavloTestServerReply reply);

  [[nodiscard]] std::size_t acceptedCount() const;
  /// What each served connection sent before the server acted, oldest first.
  [[nodiscard]] std::vector<std::string> requests() const;
  /// TLS: handshakes that resumed a session, that failed, and the server names (SNI) seen.
  [[nodiscard]] std::size_t resumedHandshakes() const;
  [[nodiscard]] std::size_t failedHandshakes() const;
  [[nodiscard]] std::vector<std::string> serverNames() const;
  /// Waits (bounded) until count connections have been served.
  bool waitForServed(std::size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;

 private:
  struct Tls;
  void run();
  void serve(int socket);

  std::string address_;
  std::uint16_t port_ = 0;
  int listener_ = -1;
  int listener6_ = -1;  // ::1 beside 127.0.0.1 for "localhost"
  int wake_ = -1;
  std::unique_ptr<Tls> tls_;
  std::thread thread_;

  mutable std::mutex mutex_;
  ZavloTestServerReply reply_;
  std::size_t accepted_ = 0;
  std::size_t served_ = 0;
  std::vector<std::string> requests_;
  std::size_t resumed_ = 0;
  std::size_t failed_ = 0;
  std::vector<std::string> serverNames_;
  std::vector<int> heldOpen_;
  std::vector<void*> heldOpenTls_;  // SSL objects of connections held open
};
