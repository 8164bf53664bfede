#pragma once

#include <asio.hpp>
#include <asio/thread_pool.hpp>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "Platform/Linux/Loop/ZavloLinuxRunLoop.hpp"
#include "Platform/Linux/Network/ZavloLinuxInterfaces.hpp"
#include "Platform/Linux/Network/ZavloLinuxLinkDns.hpp"
#include "Platform/Linux/Network/ZavloLinuxModems.hpp"
#include "Platform/ZavloConnection.hpp"

// The network core under the Linux connections: the I/O thread, the interface list they
// share and the watch on the kernel's network changes. Only the connections include this
// (it brings Asio); hosts reach it through ZavloLinuxConnectionService.

/// An io_context whose services its owner can shut down: handlers still queued when the
/// I/O thread stops are then destroyed at once, releasing the connections they hold,
/// instead of living as long as the last connection keeps the context.
class ZavloIoContext final : public asio::io_context {
 public:
  ZavloIoContext() : asio::io_context(1) {}
  using asio::io_context::shutdown;
};

/// What the connections of one service share: the I/O thread (a thread of the service's
/// own, or the thread of the run loop it runs on), the interface list, and the cellular
/// links' name servers and answers.
struct ZavloLinuxNetworkCore : std::enable_shared_from_this<ZavloLinuxNetworkCore> {
  // On an I/O thread of its own, started on first use.
  ZavloLinuxNetworkCore(ZavloLinuxInterfaceClassifier interfaceClassifier, ZavloLinuxLinkDnsOptions linkDns)
      : ownIo(std::make_shared<ZavloIoContext>()),
        io(ownIo),
        classifier(std::move(interfaceClassifier)),
        dnsSources(zavloLinkDnsSources(std::move(linkDns))) {}
  // On a run loop: its thread is the I/O thread.
  ZavloLinuxNetworkCore(ZavloLinuxInterfaceClassifier interfaceClassifier, ZavloLinuxLinkDnsOptions linkDns,
                        ZavloLinuxRunLoop& runLoop)
      : io(runLoop.ioContext()),
        loop(&runLoop),
        classifier(std::move(interfaceClassifier)),
        dnsSources(zavloLinkDnsSources(std::move(linkDns))) {}

  // Runs work on the I/O thread, starting it on first use; false once stopped.
  template <class Work>
  bool post(Work&& work) {
    if (loop != nullptr) {
      if (stopped) return false;
      asio::post(*io, std::forward<Work>(work));
      return true;
    }
    std::lock_guard lock(mutex);
    if (stopped) return false;
    if (!thread.joinable()) {
      guard.emplace(asio::make_work_guard(*io));
      thread = std::thread([this] { io->run(); });
    }
    asio::post(*io, std::forward<Work>(work));
    return true;
  }

  void stop();

  // I/O thread only: only it lists interfaces, so that the list comes from its namespace.
  const std::vector<ZavloLinuxInterface>& interfaces();

  // Any thread: whether the list interfaces() would hand out now has an interface for one of
  // the allowed families; nothing when that list is too old and must be made again first.
  std::optional<bool> recentListHasBinding(const ZavloConnectionParameters& parameters, bool useV4, bool useV6);

  // I/O thread only. retry runs once, on the next change of the network; a key waits for
  // one change at a time.
  void waitForPathChange(const void* key, std::function<void()> retry) {
    pathWaiters[key] = std::move(retry);
    watchPaths();
  }
  void stopWaitingForPathChange(const void* key) { pathWaiters.erase(key); }

  // I/O thread only. The name servers of a link, from the first source that knows any
  // (empty when none does); found runs on the I/O thread, at once when no source has to be
  // asked over D-Bus. What was found is kept until the network changes.
  void findLinkServers(const std::string& interfaceName, unsigned interfaceIndex,
                       std::function<void(const ZavloLinuxLinkServers&)> found);

  const std::shared_ptr<ZavloIoContext> ownIo;  // without a run loop
  const std::shared_ptr<asio::io_context> io;
  ZavloLinuxRunLoop* const loop = nullptr;
  const ZavloLinuxInterfaceClassifier classifier;
  const std::vector<ZavloLinuxLinkDnsSource> dnsSources;

  std::mutex mutex;
  std::atomic<bool> stopped{false};  // written under mutex; read anywhere
  std::optional<asio::executor_work_guard<asio::io_context::executor_type>> guard;
  std::thread thread;

  // Written by the I/O thread under interfaceMutex; read without it there, with it elsewhere.
  std::mutex interfaceMutex;
  std::vector<ZavloLinuxInterface> interfaceList;
  std::optional<std::chrono::steady_clock::time_point> listedAt;
  // Connections started and neither failed nor cancelled keep themselves alive here.
  std::unordered_set<std::shared_ptr<ZavloConnection>> keptAlive;
  // Closes a kept connection's socket (defined with the connection).
  static void closeTransport(ZavloConnection& connection);
  // I/O thread only: answers of the cellular links' name servers, forgotten when the
  // network changes.
  ZavloLinuxNameCache names;

 private:
  // Subscribes, once, to the kernel's link, address and route changes in the I/O thread's
  // namespace, and to ModemManager's bearers. Without it waiting connections wait until
  // cancelled.
  void watchPaths();
  void readPathChanges();
  void settlePathChange();
  void pathChanged();
  void stopAskingForServers();

  // I/O thread only; destroyed before io.
  std::unordered_map<const void*, std::function<void()>> pathWaiters;
  std::optional<asio::posix::stream_descriptor> pathWatch;
  bool pathWatchUnavailable = false;
  asio::steady_timer pathSettle{*io};
  bool pathSettling = false;
  std::unordered_map<std::string, ZavloLinuxLinkServers> linkServers;
  // Asks the D-Bus sources; started on first use by the I/O thread, so it shares its namespace.
  std::optional<asio::thread_pool> dnsAsker;
  // Set on the I/O thread with the kernel's watch; stop() resets it once that thread is
  // gone, after which nothing more is posted from it.
  ZavloLinuxModems::Subscription modemWatch;
};
