#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/ZavloNetworkInterface.hpp"
#include "Platform/ZavloQueue.hpp"

/// How a connection may be made.
struct ZavloConnectionParameters {
  enum class ServiceClass { bestEffort, background, interactiveVideo, interactiveVoice, responsiveData, signaling };
  enum class IpVersion { any, v4, v6 };

  struct Tcp {
    std::chrono::seconds connectionTimeout{0};  ///< 0: the system's own
    bool enableKeepalive = false;
    bool enableFastOpen = false;
  };
  struct Tls {
    /// Extra trust anchors (PEM) beside the system trust store; tests add their own CA.
    std::vector<std::string> additionalTrustAnchorsPem;
  };

  std::optional<Tls> tls;  ///< absent: plain TCP
  Tcp tcp;
  ServiceClass serviceClass = ServiceClass::bestEffort;
  std::optional<ZavloInterfaceType> requiredInterfaceType;
  std::vector<ZavloInterfaceType> prohibitedInterfaceTypes;
  bool prohibitExpensivePaths = false;
  IpVersion ipVersion = IpVersion::any;
};

/// An error reported by a connection; description is a whole sentence for people.
struct ZavloConnectionError {
  int code = 0;  ///< errno-style where the system gave one
  std::string localizedDescription;

  friend bool operator==(const ZavloConnectionError&, const ZavloConnectionError&) = default;
};

/// One outgoing TCP or TLS connection to host:port.
///
/// Threading contract: the operations may be called from any thread. Every handler and
/// completion runs on the queue given to start(), never inline in the call that caused
/// it. After cancel() the state handler receives `cancelled` once and nothing else;
/// outstanding send and receive completions are dropped (cancel() before start() is
/// reported once started). The connection keeps itself alive while started and not yet
/// failed or cancelled.
///
/// States: preparing, then ready, failed or waiting. Waiting (with the error that stopped
/// it) means that another path may cure what happened: no allowed interface is usable, or
/// the peer refused or could not be reached. A waiting connection never fails by itself:
/// when the network changes it reports preparing and tries again; the caller's time-out
/// or cancel() ends it. Everything else fails at once. Sends and receives made before
/// ready wait for it; after failed they complete with the failure. Once ready, errors come
/// only through the send and receive completions; the state stays ready.
///
/// Interfaces: a connection whose parameters require an interface type uses only an
/// interface of that type, and never one of a prohibited type, whatever the routes
/// prefer. When no interface present is allowed it reports preparing, then waiting with
/// ENETUNREACH and "No usable cellular interface" (the required type's name; "network"
/// when only prohibitions apply). The rules are those of Platform/ZavloInterfaceRules.hpp.
class ZavloConnection {
 public:
  enum class State { setup, preparing, waiting, ready, failed, cancelled };
  using StateHandler = std::function<void(State, const std::optional<ZavloConnectionError>&)>;
  using SendCompletion = std::function<void(const std::optional<ZavloConnectionError>&)>;
  /// data (possibly empty), whether the peer finished sending, and an error if any.
  using ReceiveCompletion =
      std::function<void(std::vector<std::uint8_t> data, bool isComplete, const std::optional<ZavloConnectionError>&)>;

  ZavloConnection() = default;
  ZavloConnection(const ZavloConnection&) = delete;
  ZavloConnection& operator=(const ZavloConnection&) = delete;
  virtual ~ZavloConnection() = default;

  virtual void setStateUpdateHandler(StateHandler handler) = 0;
  virtual void start(ZavloQueue& queue) = 0;
  /// Sends one complete message; the completion reports when it was handed to the system.
  virtual void send(std::vector<std::uint8_t> content, SendCompletion completion) = 0;
  /// One read of at least minimumIncompleteLength (unless the peer finished or failed)
  /// and at most maximumLength bytes. isComplete: the peer has finished sending (later
  /// receives get no data and isComplete). A minimum of 0 counts as 1; a maximum of 0
  /// fails with EINVAL.
  virtual void receive(std::size_t minimumIncompleteLength, std::size_t maximumLength,
                       ReceiveCompletion completion) = 0;
  virtual void cancel() = 0;
};
