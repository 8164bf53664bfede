#pragma once

#include <asio.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "Platform/Linux/Network/ZavloLinuxLinkDns.hpp"

struct ares_channeldata;
struct ares_addrinfo;

/// One host name looked up with c-ares over one link: the given servers only, every query
/// socket bound to the link (SO_BINDTODEVICE) before it sends, no hosts file, no search
/// domains, nothing from the system's resolver configuration. Driven by an io_context: c-ares's
/// sockets are watched as Asio descriptors and its time-outs run on a timer. Internal to the
/// connections (it brings Asio).
///
/// I/O thread only. The completion runs on the io_context, never inside start(); destroying
/// the lookup cancels it, and its completion is then never called.
class ZavloLinuxLinkLookup final : public std::enable_shared_from_this<ZavloLinuxLinkLookup> {
 public:
  enum class Family { v4, v6, any };
  struct Result {
    int status = 0;  ///< an ARES_* status; ARES_SUCCESS when any address came
    std::vector<asio::ip::address> v4;
    std::vector<asio::ip::address> v6;
    std::chrono::seconds v4Ttl{0};  ///< the least time to live of the v4 answer and its aliases
    std::chrono::seconds v6Ttl{0};
  };
  using Completion = std::function<void(Result)>;

  static std::shared_ptr<ZavloLinuxLinkLookup> start(asio::io_context& io, const std::string& interfaceName,
                                                     const std::vector<ZavloLinuxNameServer>& servers,
                                                     const std::string& host, Family family, Completion completion);
  ~ZavloLinuxLinkLookup();
  ZavloLinuxLinkLookup(const ZavloLinuxLinkLookup&) = delete;
  ZavloLinuxLinkLookup& operator=(const ZavloLinuxLinkLookup&) = delete;

  /// Whether a status means that the link's servers could not be reached (time-out, port
  /// unreachable), which another path may cure.
  static bool serversUnreachable(int status);
  /// Whether the servers answered: with addresses, or that the name has none of the family
  /// asked for.
  static bool answered(int status);
  static std::string describe(int status);

 private:
  struct Watch;
  ZavloLinuxLinkLookup(asio::io_context& io, std::string interfaceName, Completion completion);
  void begin(const std::vector<ZavloLinuxNameServer>& servers, const std::string& host, Family family);
  void finishLater(int status);
  void finish();
  void watchSocket(int fd, bool read, bool write);
  void arm(int fd, const std::shared_ptr<Watch>& watch);
  void socketReady(int fd, const std::shared_ptr<Watch>& watch, bool read);
  void armTimer();

  static void socketState(void* data, int fd, int readable, int writable);
  static int configureSocket(int fd, int type, void* data);
  static void answered(void* arg, int status, int timeouts, ares_addrinfo* result);

  asio::io_context& io_;
  const std::string interfaceName_;
  Completion completion_;
  ares_channeldata* channel_ = nullptr;
  std::unordered_map<int, std::shared_ptr<Watch>> watches_;
  asio::steady_timer timer_;
  Result result_;
};
