#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Platform/ZavloConnection.hpp"

/// The parameters of a cellular-only hop: required cellular, Wi-Fi, loopback and wired
/// Ethernet prohibited, 5 s connect time-out.
inline ZavloConnectionParameters zavloCellularParameters(
    ZavloConnectionParameters::IpVersion ipVersion = ZavloConnectionParameters::IpVersion::v4, bool tls = false) {
  ZavloConnectionParameters parameters;
  if (tls) parameters.tls = ZavloConnectionParameters::Tls{};
  parameters.tcp.connectionTimeout = std::chrono::seconds(5);
  parameters.tcp.enableFastOpen = tls;
  parameters.serviceClass = ZavloConnectionParameters::ServiceClass::responsiveData;
  parameters.requiredInterfaceType = ZavloInterfaceType::cellular;
  parameters.prohibitedInterfaceTypes = {ZavloInterfaceType::wifi, ZavloInterfaceType::loopback,
                                         ZavloInterfaceType::wiredEthernet};
  parameters.ipVersion = ipVersion;
  return parameters;
}

/// Records everything a connection reports, in order, and whether each report ran on the
/// queue given to start(). Safe to outlive the connection or be outlived.
class ZavloConnectionRecorder {
 public:
  struct Log {
    std::mutex mutex;
    std::vector<std::string> events;  ///< "preparing", "ready", "failed", "sent", "received", "cancelled"...
    std::vector<ZavloConnection::State> states;
    std::optional<ZavloConnectionError> stateError;
    std::optional<ZavloConnectionError> sendError;
    std::optional<ZavloConnectionError> receiveError;
    std::string received;
    bool receivedComplete = false;
    std::size_t receiveCalls = 0;
    std::size_t sendCalls = 0;
    bool offQueue = false;
  };

  ZavloConnectionRecorder(std::shared_ptr<ZavloConnection> connection, ZavloQueue& queue)
      : connection_(std::move(connection)), queue_(queue), log_(std::make_shared<Log>()) {
    connection_->setStateUpdateHandler(
        [log = log_, &queue](ZavloConnection::State state, const std::optional<ZavloConnectionError>& error) {
          std::lock_guard lock(log->mutex);
          if (!queue.isCurrent()) log->offQueue = true;
          log->states.push_back(state);
          log->events.push_back(name(state));
          if (error) log->stateError = error;
        });
  }

  ZavloConnection& connection() { return *connection_; }
  std::shared_ptr<ZavloConnection> shared() { return connection_; }
  void start() { connection_->start(queue_); }

  void send(const std::string& text) {
    connection_->send({text.begin(), text.end()},
                      [log = log_, &queue = queue_](const std::optional<ZavloConnectionError>& error) {
                        std::lock_guard lock(log->mutex);
                        if (!queue.isCurrent()) log->offQueue = true;
                        ++log->sendCalls;
                        log->events.emplace_back(error ? "send failed" : "sent");
                        log->sendError = error;
                      });
  }

  void receive(std::size_t minimum, std::size_t maximum) {
    connection_->receive(minimum, maximum,
                         [log = log_, &queue = queue_](std::vector<std::uint8_t> data, bool isComplete,
                                                       const std::optional<ZavloConnectionError>& error) {
                           std::lock_guard lock(log->mutex);
                           if (!queue.isCurrent()) log->offQueue = true;
                           ++log->receiveCalls;
                           log->events.emplace_back(error ? "receive failed" : "received");
                           log->received.append(data.begin(), data.end());
                           log->receivedComplete = isComplete;
                           log->receiveError = error;
                         });
  }

  template <class Read>
  auto read(Read reader) const {
    std::lock_guard lock(log_->mutex);
    return reader(*log_);
  }
  bool has(const std::string& event) const {
    return read([&](const Log& log) {
      for (const auto& e : log.events) {
        if (e == event) return true;
      }
      return false;
    });
  }
  std::vector<std::string> events() const {
    return read([](const Log& log) { return log.events; });
  }
  std::size_t receiveCalls() const {
    return read([](const Log& log) { return log.receiveCalls; });
  }
  std::string received() const {
    return read([](const Log& log) { return log.received; });
  }
  std::optional<ZavloConnectionError> stateError() const {
    return read([](const Log& log) { return log.stateError; });
  }
  std::optional<ZavloConnectionError> receiveError() const {
    return read([](const Log& log) { return log.receiveError; });
  }
  bool offQueue() const {
    return read([](const Log& log) { return log.offQueue; });
  }

  static std::string name(ZavloConnection::State state) {
    switch (state) {
      case ZavloConnection::State::setup:
        return "setup";
      case ZavloConnection::State::preparing:
        return "preparing";
      case ZavloConnection::State::waiting:
        return "waiting";
      case ZavloConnection::State::ready:
        return "ready";
      case ZavloConnection::State::failed:
        return "failed";
      case ZavloConnection::State::cancelled:
        return "cancelled";
    }
    return "?";
  }

 private:
  std::shared_ptr<ZavloConnection> connection_;
  ZavloQueue& queue_;
  std::shared_ptr<Log> log_;
};
