#include "Platform/Linux/Network/ZavloLinuxModems.hpp"

#include <algorithm>
#include <system_error>
#include <utility>

// ::LinuxModems defines it when linked; otherwise it stays null and there are no modems.
#pragma weak zavloLinuxModemWatcherFactory

ZavloLinuxModems::Subscription::Subscription(Subscription&& other) noexcept
    : owner_(std::move(other.owner_)), id_(std::exchange(other.id_, 0)) {}

ZavloLinuxModems::Subscription& ZavloLinuxModems::Subscription::operator=(Subscription&& other) noexcept {
  if (this != &other) {
    reset();
    owner_ = std::move(other.owner_);
    id_ = std::exchange(other.id_, 0);
  }
  return *this;
}

void ZavloLinuxModems::Subscription::reset() {
  if (const auto owner = owner_.lock(); owner && id_ != 0) owner->unsubscribe(id_);
  owner_.reset();
  id_ = 0;
}

ZavloLinuxModems::ZavloLinuxModems(std::optional<std::string> busAddress) : busAddress_(std::move(busAddress)) {}

// The watcher goes first: once it has stopped, nothing publishes any more.
ZavloLinuxModems::~ZavloLinuxModems() { watcher_.reset(); }

bool ZavloLinuxModems::supported() noexcept { return &zavloLinuxModemWatcherFactory != nullptr; }

void ZavloLinuxModems::start() const {
  std::call_once(started_, [this] {
    startedAt_ = std::chrono::steady_clock::now();
    if (!supported()) {
      publish({.reached = false, .detail = "this program links no ModemManager support", .modems = {}});
      return;
    }
    try {
      watcher_ = zavloLinuxModemWatcherFactory(busAddress_,
                                               [this](ZavloLinuxModemReading reading) { publish(std::move(reading)); });
    } catch (const std::system_error& error) {
      publish(
          {.reached = false, .detail = std::string("no thread to reach ModemManager: ") + error.what(), .modems = {}});
    }
  });
}

bool ZavloLinuxModems::hasFirstReading() const {
  std::lock_guard lock(mutex_);
  return hasFirstReading_;
}

std::chrono::steady_clock::time_point ZavloLinuxModems::firstReadingDeadline() const {
  start();
  return startedAt_ + kFirstReadingLimit;
}

bool ZavloLinuxModems::waitForFirstReading() const {
  const auto deadline = firstReadingDeadline();
  std::unique_lock lock(mutex_);
  return firstReadingArrived_.wait_until(lock, deadline, [this] { return hasFirstReading_; });
}

ZavloLinuxModemReading ZavloLinuxModems::reading() const {
  start();
  std::lock_guard lock(mutex_);
  return reading_;
}

bool ZavloLinuxModems::isConnectedBearerInterface(const std::string& interfaceName) const {
  start();
  std::lock_guard lock(mutex_);
  return std::any_of(reading_.modems.begin(), reading_.modems.end(), [&](const ZavloLinuxModem& modem) {
    return std::any_of(modem.bearers.begin(), modem.bearers.end(), [&](const ZavloLinuxBearer& bearer) {
      return bearer.connected && bearer.interfaceName == interfaceName;
    });
  });
}

std::vector<std::string> ZavloLinuxModems::dnsServers(const std::string& interfaceName) const {
  start();
  std::vector<std::string> servers;
  std::lock_guard lock(mutex_);
  for (const auto& modem : reading_.modems) {
    for (const auto& bearer : modem.bearers) {
      if (!bearer.connected || bearer.interfaceName != interfaceName) continue;
      for (const auto& server : bearer.dnsServers) {
        if (std::find(servers.begin(), servers.end(), server) == servers.end()) servers.push_back(server);
      }
    }
  }
  return servers;
}

ZavloLinuxModems::Subscription ZavloLinuxModems::subscribe(std::function<void()> onChange) {
  std::lock_guard lock(subscriberMutex_);
  const auto id = nextSubscriber_++;
  subscribers_.emplace(id, std::move(onChange));
  return {weak_from_this(), id};
}

void ZavloLinuxModems::unsubscribe(std::uint64_t id) {
  std::function<void()> dropped;  // released outside the lock
  std::lock_guard lock(subscriberMutex_);
  if (const auto found = subscribers_.find(id); found != subscribers_.end()) {
    dropped = std::move(found->second);
    subscribers_.erase(found);
  }
}

void ZavloLinuxModems::publish(ZavloLinuxModemReading reading) const {
  bool changed = false;
  {
    std::lock_guard lock(mutex_);
    changed = !hasFirstReading_ || reading != reading_;
    reading_ = std::move(reading);
    hasFirstReading_ = true;
  }
  firstReadingArrived_.notify_all();
  if (!changed) return;
  std::lock_guard lock(subscriberMutex_);
  for (const auto& [id, onChange] : subscribers_) onChange();
}
