#include "Testing/Network/ZavloNetworkNamespace.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "Testing/Network/ZavloProcess.hpp"

namespace {

constexpr std::string_view kDirectory = "/run/netns";
constexpr std::string_view kPrefix = "zavlo-ns-";

// The paths a signal handler must unmount: fixed storage, claimed and released atomically,
// because a handler may neither allocate nor lock.
enum SlotState : int { kFree, kClaiming, kActive };
struct Slot {
  std::atomic<int> state{kFree};
  std::array<char, 160> path{};
};
std::array<Slot, 32> gSlots;
constexpr std::array<int, 4> kSignals{SIGINT, SIGTERM, SIGHUP, SIGQUIT};
std::array<struct sigaction, kSignals.size()> gPrevious{};
std::atomic<unsigned> gSequence{0};

std::system_error osError(const std::string& what) {
  return {errno, std::generic_category(), "network namespace: " + what};
}

void removeMounted(const char* path) noexcept {
  umount2(path, MNT_DETACH);
  unlink(path);
}

extern "C" void removeOnSignal(int signal) {
  for (auto& slot : gSlots) {
    int active = kActive;
    if (slot.state.compare_exchange_strong(active, kFree)) removeMounted(slot.path.data());
  }
  for (std::size_t i = 0; i < kSignals.size(); ++i) {
    if (kSignals[i] == signal) sigaction(signal, &gPrevious[i], nullptr);
  }
  // Blocked while this handler runs; delivered with the previous disposition once it returns.
  raise(signal);
}

void installSignalHandlers() {
  static std::once_flag once;
  std::call_once(once, [] {
    struct sigaction action {};
    action.sa_handler = removeOnSignal;
    sigemptyset(&action.sa_mask);
    for (std::size_t i = 0; i < kSignals.size(); ++i) {
      sigaction(kSignals[i], nullptr, &gPrevious[i]);
      // An ignored signal stays ignored (background jobs ignore SIGINT): it ends nothing to clean up after.
      if (gPrevious[i].sa_handler != SIG_IGN) sigaction(kSignals[i], &action, nullptr);
    }
  });
}

int claimSlot(const std::string& path) {
  if (path.size() >= Slot{}.path.size()) return -1;
  for (std::size_t i = 0; i < gSlots.size(); ++i) {
    int expected = kFree;
    if (gSlots[i].state.compare_exchange_strong(expected, kClaiming)) {
      std::memcpy(gSlots[i].path.data(), path.c_str(), path.size() + 1);
      gSlots[i].state.store(kActive);
      return static_cast<int>(i);
    }
  }
  return -1;
}

// True when this call (not a signal handler) took the slot back and must remove the path itself.
bool releaseSlot(int slot) {
  if (slot < 0) return true;
  int active = kActive;
  return gSlots[static_cast<std::size_t>(slot)].state.compare_exchange_strong(active, kFree);
}

// Namespaces of runs that were killed outright (SIGKILL leaves no chance to clean up).
void removeLeftovers() {
  DIR* directory = opendir(std::string(kDirectory).c_str());
  if (directory == nullptr) return;
  while (const dirent* entry = readdir(directory)) {
    const std::string_view name = entry->d_name;
    if (!name.starts_with(kPrefix)) continue;
    const auto digits = name.substr(kPrefix.size());
    pid_t pid = 0;
    const auto parsed = std::from_chars(digits.data(), digits.data() + digits.size(), pid);
    if (parsed.ec != std::errc() || pid <= 0 || pid == getpid()) continue;
    if (kill(pid, 0) != 0 && errno == ESRCH) removeMounted((std::string(kDirectory) + "/" + std::string(name)).c_str());
  }
  closedir(directory);
}

void bringLoopbackUp() {
  const int probe = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (probe < 0) throw osError("socket");
  ifreq request{};
  std::memcpy(request.ifr_name, "lo", 3);
  bool up = ioctl(probe, SIOCGIFFLAGS, &request) == 0;
  if (up) {
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    up = ioctl(probe, SIOCSIFFLAGS, &request) == 0;
  }
  const int error = errno;
  close(probe);
  if (!up) {
    errno = error;
    throw osError("loopback up");
  }
}

}  // namespace

ZavloNetworkNamespace::ZavloNetworkNamespace(std::string_view label) {
  installSignalHandlers();
  removeLeftovers();
  name_ = std::string(kPrefix) + std::to_string(getpid()) + "-" + std::to_string(gSequence.fetch_add(1)) + "-" +
          std::string(label);
  path_ = std::string(kDirectory) + "/" + name_;
  if (mkdir(std::string(kDirectory).c_str(), 0755) != 0 && errno != EEXIST) throw osError("mkdir " + path_);
  const int placeholder = open(path_.c_str(), O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0);
  if (placeholder < 0) throw osError("create " + path_);
  close(placeholder);
  slot_ = claimSlot(path_);

  // unshare() moves only the calling thread, so a short-lived thread makes the namespace and
  // pins it with a bind mount.
  std::exception_ptr failure;
  std::thread([&] {
    try {
      if (unshare(CLONE_NEWNET) != 0) throw osError("unshare");
      if (mount("/proc/thread-self/ns/net", path_.c_str(), "none", MS_BIND, nullptr) != 0) {
        throw osError("bind mount " + path_);
      }
      bringLoopbackUp();
    } catch (...) {
      failure = std::current_exception();
    }
  }).join();
  if (!failure) {
    fd_ = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) failure = std::make_exception_ptr(osError("open " + path_));
  }
  if (failure) {
    if (releaseSlot(slot_)) removeMounted(path_.c_str());
    std::rethrow_exception(failure);
  }
}

ZavloNetworkNamespace::~ZavloNetworkNamespace() {
  close(fd_);
  if (releaseSlot(slot_)) removeMounted(path_.c_str());
}

void ZavloNetworkNamespace::runOnThread(const std::function<void()>& fn) const {
  std::exception_ptr failure;
  std::thread([&] {
    try {
      if (setns(fd_, CLONE_NEWNET) != 0) throw osError("enter " + name_);
      fn();
    } catch (...) {
      failure = std::current_exception();
    }
  }).join();
  if (failure) std::rethrow_exception(failure);
}

ZavloNetworkNamespace::Entered ZavloNetworkNamespace::enter() const {
  const int original = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
  if (original < 0) throw osError("open the current namespace");
  if (setns(fd_, CLONE_NEWNET) != 0) {
    const auto error = osError("enter " + name_);
    close(original);
    throw error;
  }
  return Entered(original);
}

ZavloNetworkNamespace::Entered::~Entered() {
  if (original_ < 0) return;
  setns(original_, CLONE_NEWNET);
  close(original_);
}

std::unique_ptr<ZavloNetworkNamespace> ZavloNetworkNamespace::create(std::string& whyNot, std::string_view label) {
  if (geteuid() != 0) {
    whyNot = "making a network namespace needs root";
    return nullptr;
  }
  if (access("/usr/sbin/ip", X_OK) != 0 && access("/sbin/ip", X_OK) != 0 && access("/usr/bin/ip", X_OK) != 0) {
    whyNot = "the ip tool (iproute2) is not installed";
    return nullptr;
  }
  try {
    return std::make_unique<ZavloNetworkNamespace>(label);
  } catch (const std::exception& error) {
    whyNot = std::string("cannot make a network namespace: ") + error.what();
    return nullptr;
  }
}

void ZavloNetworkNamespace::ip(const std::vector<std::string>& arguments) const {
  std::string binary = "/usr/sbin/ip";
  for (const char* candidate : {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip"}) {
    if (access(candidate, X_OK) == 0) {
      binary = candidate;
      break;
    }
  }
  std::vector<std::string> command{binary, "-n", name_};
  command.insert(command.end(), arguments.begin(), arguments.end());
  const auto run = zavloRunProcess(command);
  if (run.exitStatus != 0) {
    std::string text;
    for (const auto& part : command) text += part + " ";
    throw std::runtime_error(text + "failed: " + run.standardError);
  }
}

ZavloTunDevice::ZavloTunDevice(const ZavloNetworkNamespace& ns, const std::string& name) {
  // The device is made in the namespace of the thread that opens the clone device.
  ns.runInside([&] {
    const int descriptor = open("/dev/net/tun", O_RDWR | O_CLOEXEC);
    if (descriptor < 0) throw std::runtime_error(std::string("cannot open /dev/net/tun: ") + std::strerror(errno));
    ifreq request{};
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    std::strncpy(request.ifr_name, name.c_str(), IFNAMSIZ - 1);
    if (ioctl(descriptor, TUNSETIFF, &request) != 0) {
      const int error = errno;
      close(descriptor);
      throw std::runtime_error("cannot make TUN device " + name + ": " + std::strerror(error));
    }
    descriptor_ = descriptor;
  });
}

ZavloTunDevice::~ZavloTunDevice() {
  if (descriptor_ >= 0) close(descriptor_);
}
