#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

/// One bearer (a packet data connection) of a modem, as ModemManager reports it.
struct ZavloLinuxBearer {
  std::string path;
  std::string interfaceName;  ///< the network link that carries its data; "" where not told
  bool connected = false;
  /// The name servers of its IPv4 configuration (dns1..dns3), then of its IPv6 one.
  std::vector<std::string> dnsServers;

  friend bool operator==(const ZavloLinuxBearer&, const ZavloLinuxBearer&) = default;
};

/// One modem, as ModemManager reports it. Texts are empty where it does not tell.
struct ZavloLinuxModem {
  std::string path;
  std::string operatorCode;  ///< MCC and MNC of the network it is registered on
  std::string operatorName;
  std::string registrationState;  ///< ModemManager's nickname: "home", "roaming", "searching", ...
  unsigned signalQuality = 0;     ///< percent
  bool signalRecent = false;
  std::vector<std::string> accessTechnologies;  ///< nicknames of the technologies in use: "lte", "5gnr", ...
  std::string simPath;                          ///< the active SIM, which carries the data
  std::optional<unsigned> simSlot;              ///< its slot (from 1) on a modem with several
  std::vector<ZavloLinuxBearer> bearers;

  friend bool operator==(const ZavloLinuxModem&, const ZavloLinuxModem&) = default;
};

/// What one reading of ModemManager found.
struct ZavloLinuxModemReading {
  bool reached = false;                 ///< ModemManager answered
  std::string detail;                   ///< why it was not reached
  std::vector<ZavloLinuxModem> modems;  ///< by object path

  friend bool operator==(const ZavloLinuxModemReading&, const ZavloLinuxModemReading&) = default;
};

/// Reads ModemManager on a thread of its own and hands each reading to publish, first
/// once at start (reached or not), then whenever ModemManager tells of a change. Made by
/// the ZavloAuthenticationSDK::LinuxModems target (GIO), so that the core links no GIO.
class ZavloLinuxModemWatcher {
 public:
  using Publish = std::function<void(ZavloLinuxModemReading)>;

  ZavloLinuxModemWatcher() = default;
  ZavloLinuxModemWatcher(const ZavloLinuxModemWatcher&) = delete;
  ZavloLinuxModemWatcher& operator=(const ZavloLinuxModemWatcher&) = delete;
  /// Stops the thread; publish is not running and never called once this returns.
  virtual ~ZavloLinuxModemWatcher() = default;
};

/// Starts a watcher on the bus at busAddress (the system bus when absent); may throw
/// std::system_error when no thread can be started.
using ZavloLinuxModemWatcherFactory = std::unique_ptr<ZavloLinuxModemWatcher> (*)(
    const std::optional<std::string>& busAddress, ZavloLinuxModemWatcher::Publish publish);

/// Defined by ::LinuxModems when linked (with --undefined, so that a static link keeps it).
extern "C" {
extern const ZavloLinuxModemWatcherFactory zavloLinuxModemWatcherFactory;
}

/// The modems of ModemManager, as last read: which links are connected bearers (the
/// interface classification counts them cellular) and the name servers each bearer
/// was given. Without ModemManager (no bus, no such name, or ::LinuxModems not linked)
/// every reading is empty and nothing else happens.
///
/// Threading: every member may be called from any thread. The watcher starts on the
/// first call of start() or of a query, on a thread of its own; queries never wait for
/// D-Bus, they answer from the latest reading. Never calls ModemManager's methods, only
/// reads, and never starts it by bus activation.
class ZavloLinuxModems : public std::enable_shared_from_this<ZavloLinuxModems> {
 public:
  /// Undoes a subscribe() when destroyed or reset: onChange is then not running and never
  /// called again.
  class Subscription {
   public:
    Subscription() = default;
    Subscription(Subscription&& other) noexcept;
    Subscription& operator=(Subscription&& other) noexcept;
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;
    ~Subscription() { reset(); }
    void reset();

   private:
    friend class ZavloLinuxModems;
    Subscription(std::weak_ptr<ZavloLinuxModems> owner, std::uint64_t id) : owner_(std::move(owner)), id_(id) {}
    std::weak_ptr<ZavloLinuxModems> owner_;
    std::uint64_t id_ = 0;
  };

  /// How long after the start the first users (a listing of interfaces, a path monitor's
  /// first path) wait, in all, for the first reading, so that a modem present at start is
  /// seen at once: a slow or hung daemon costs no more than this, once.
  static constexpr std::chrono::milliseconds kFirstReadingLimit{500};

  /// busAddress: a D-Bus address; absent for the system bus.
  explicit ZavloLinuxModems(std::optional<std::string> busAddress = std::nullopt);
  ~ZavloLinuxModems();
  ZavloLinuxModems(const ZavloLinuxModems&) = delete;
  ZavloLinuxModems& operator=(const ZavloLinuxModems&) = delete;

  /// Whether ModemManager can be reached from this program at all (::LinuxModems linked).
  static bool supported() noexcept;

  /// Starts the watcher, once; returns at once. Queries start it too: starting is invisible
  /// to callers, so they are const.
  void start() const;
  [[nodiscard]] bool hasFirstReading() const;
  /// Starts; the moment until which the first reading is waited for.
  [[nodiscard]] std::chrono::steady_clock::time_point firstReadingDeadline() const;
  /// Starts, then waits for the first reading until firstReadingDeadline(); whether there is one.
  bool waitForFirstReading() const;

  [[nodiscard]] ZavloLinuxModemReading reading() const;
  /// Whether a connected bearer of a modem carries its data over this link.
  [[nodiscard]] bool isConnectedBearerInterface(const std::string& interfaceName) const;
  /// The name servers of the connected bearers on this link, without repeats, in the
  /// bearers' order (IPv4 ones first); empty for any other link.
  [[nodiscard]] std::vector<std::string> dnsServers(const std::string& interfaceName) const;

  /// onChange runs on the watcher's thread after the first reading and after each one
  /// that differs from the one before. Keep it short; it must not subscribe or unsubscribe.
  [[nodiscard]] Subscription subscribe(std::function<void()> onChange);

 private:
  void publish(ZavloLinuxModemReading reading) const;
  void unsubscribe(std::uint64_t id);

  const std::optional<std::string> busAddress_;
  mutable std::once_flag started_;
  mutable std::chrono::steady_clock::time_point startedAt_;  // set once, under started_
  mutable std::unique_ptr<ZavloLinuxModemWatcher> watcher_;

  mutable std::mutex mutex_;  // the reading
  mutable std::condition_variable firstReadingArrived_;
  mutable bool hasFirstReading_ = false;
  mutable ZavloLinuxModemReading reading_;

  mutable std::mutex subscriberMutex_;  // held while onChange handlers run
  std::map<std::uint64_t, std::function<void()>> subscribers_;
  std::uint64_t nextSubscriber_ = 1;
};
