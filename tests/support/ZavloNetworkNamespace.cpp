#include "ZavloNetworkNamespace.hpp"

#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <thread>

#include "ZavloProcess.hpp"

namespace {

// Followed by the pid of the test process and a counter.
constexpr std::string_view kPrefix = "zavlo-test-";

std::string ipBinary() {
  for (const char* candidate : {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip", "/bin/ip"}) {
    if (::access(candidate, X_OK) == 0) return candidate;
  }
  return {};
}

std::string trimmed(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  return text;
}

// Namespaces of test processes that died before cleaning up (a sanitizer abort, a
// crash) are deleted by the next test that makes one.
void deleteOrphans(const std::string& ip) {
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/var/run/netns", error)) {
    const auto name = entry.path().filename().string();
    if (name.rfind(kPrefix, 0) != 0) continue;
    const auto pid = std::atoi(name.c_str() + kPrefix.size());
    if (pid > 0 && ::kill(pid, 0) != 0 && errno == ESRCH) zavloRunProcess({ip, "netns", "delete", name});
  }
}

}  // namespace

std::unique_ptr<ZavloNetworkNamespace> ZavloNetworkNamespace::create(std::string& whyNot) {
  static std::atomic<int> counter{0};
  const auto ip = ipBinary();
  if (ip.empty()) {
    whyNot = "the ip tool (iproute2) is not installed";
    return nullptr;
  }
  if (::geteuid() != 0) {
    whyNot = "making a network namespace needs root";
    return nullptr;
  }
  deleteOrphans(ip);
  auto name = std::string(kPrefix) + std::to_string(::getpid()) + "-" + std::to_string(counter++);
  const auto run = zavloRunProcess({ip, "netns", "add", name});
  if (run.exitStatus != 0) {
    whyNot = "cannot make a network namespace: " + trimmed(run.standardError);
    return nullptr;
  }
  return std::unique_ptr<ZavloNetworkNamespace>(new ZavloNetworkNamespace(std::move(name)));
}

ZavloNetworkNamespace::~ZavloNetworkNamespace() {
  try {
    zavloRunProcess({ipBinary(), "netns", "delete", name_});
  } catch (const std::exception&) {
    // Nothing more can be done from a destructor; the name is unique to this process.
  }
}

void ZavloNetworkNamespace::ip(const std::vector<std::string>& arguments) const {
  std::vector<std::string> command{ipBinary(), "-n", name_};
  command.insert(command.end(), arguments.begin(), arguments.end());
  const auto run = zavloRunProcess(command);
  if (run.exitStatus != 0) {
    std::string text;
    for (const auto& part : command) text += part + " ";
    throw std::runtime_error(text + "failed: " + trimmed(run.standardError));
  }
}

void ZavloNetworkNamespace::runInside(const std::function<void()>& work) const {
  std::exception_ptr failure;
  std::thread inside([&] {
    try {
      const int descriptor = ::open(("/var/run/netns/" + name_).c_str(), O_RDONLY | O_CLOEXEC);
      if (descriptor < 0) throw std::runtime_error("cannot open namespace " + name_ + ": " + std::strerror(errno));
      const int entered = ::setns(descriptor, CLONE_NEWNET);
      const int error = errno;
      ::close(descriptor);
      if (entered != 0) throw std::runtime_error("cannot enter namespace " + name_ + ": " + std::strerror(error));
      work();
    } catch (...) {
      failure = std::current_exception();
    }
  });
  inside.join();
  if (failure) std::rethrow_exception(failure);
}

ZavloTunDevice::ZavloTunDevice(const ZavloNetworkNamespace& ns, const std::string& name) {
  // The device is made in the namespace of the thread that opens the clone device.
  ns.runInside([&] {
    const int descriptor = ::open("/dev/net/tun", O_RDWR | O_CLOEXEC);
    if (descriptor < 0) throw std::runtime_error(std::string("cannot open /dev/net/tun: ") + std::strerror(errno));
    ifreq request{};
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    std::strncpy(request.ifr_name, name.c_str(), IFNAMSIZ - 1);
    if (::ioctl(descriptor, TUNSETIFF, &request) != 0) {
      const int error = errno;
      ::close(descriptor);
      throw std::runtime_error("cannot make TUN device " + name + ": " + std::strerror(error));
    }
    descriptor_ = descriptor;
  });
}

ZavloTunDevice::~ZavloTunDevice() {
  if (descriptor_ >= 0) ::close(descriptor_);
}
