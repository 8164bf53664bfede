#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

/// One request as it arrived on the wire.
struct ZavloHttpTestRequest {
  std::string method;
  std::string target;
  std::vector<std::pair<std::string, std::string>> headers;  ///< in arrival order
  std::string body;
  std::size_t connection = 0;  ///< which accepted connection carried it (0, 1, ...)

  /// First header of that name, compared without regard to ASCII case.
  [[nodiscard]] std::optional<std::string> header(const std::string& name) const;
};

/// What the server sends back. raw, when set, goes out verbatim instead of a response
/// built from the other fields.
struct ZavloHttpTestReply {
  int status = 200;
  std::string reason = "OK";
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
  std::optional<std::string> raw;
  bool close = false;  ///< close the connection after sending

  static ZavloHttpTestReply text(int status, std::string body, std::string reason = "Status") {
    ZavloHttpTestReply reply;
    reply.status = status;
    reply.reason = std::move(reason);
    reply.headers = {{"Content-Type", "text/plain"}};
    reply.body = std::move(body);
    return reply;
  }
};

/// An HTTP/1.1 server on 127.0.0.1 and an ephemeral port, run by one thread over plain
/// sockets: keep-alive, Content-Length bodies, "Expect: 100-continue". Every request is
/// recorded; the responder decides the reply, or holds the request (nullopt) until the
/// test answers it, or forever.
class ZavloHttpTestServer {
 public:
  using Responder = std::function<std::optional<ZavloHttpTestReply>(const ZavloHttpTestRequest&)>;

  /// Answers every request with 200 and an empty JSON object.
  ZavloHttpTestServer();
  explicit ZavloHttpTestServer(Responder responder);
  ~ZavloHttpTestServer();
  ZavloHttpTestServer(const ZavloHttpTestServer&) = delete;
  ZavloHttpTestServer& operator=(const ZavloHttpTestServer&) = delete;

  /// A responder that never answers (connections stay open until the server stops).
  static Responder neverAnswer();

  [[nodiscard]] std::uint16_t port() const noexcept { return port_; }
  /// "http://127.0.0.1:PORT" + path.
  [[nodiscard]] std::string url(const std::string& path = "/") const;

  [[nodiscard]] std::vector<ZavloHttpTestRequest> requests() const;
  [[nodiscard]] std::size_t requestCount() const;
  [[nodiscard]] std::size_t connectionCount() const;
  /// The most connections that were open at the same time.
  [[nodiscard]] std::size_t peakOpenConnections() const;
  /// Waits until at least count requests have arrived; false at the timeout.
  bool waitForRequests(std::size_t count, std::chrono::milliseconds timeout) const;
  /// Answers a held request. False when index is unknown or was already answered.
  bool answer(std::size_t index, ZavloHttpTestReply reply);

 private:
  struct Connection;
  void run();
  void serve(Connection& connection);
  void wake() const;

  Responder responder_;
  int listener_ = -1;
  int wakeFd_ = -1;
  std::uint16_t port_ = 0;
  mutable std::mutex mutex_;
  mutable std::condition_variable arrived_;
  std::vector<ZavloHttpTestRequest> requests_;
  std::vector<bool> answered_;
  struct Outgoing {
    std::size_t connection;
    std::string bytes;
    bool close;
  };
  std::vector<Outgoing> outbox_;  // replies given by answer(), sent by the server's thread
  std::size_t connections_ = 0;
  std::size_t peakOpen_ = 0;
  bool stopping_ = false;
  std::thread thread_;
};
