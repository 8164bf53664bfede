#include "ZavloTestNetworkNamespace.hpp"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "ZavloProcess.hpp"

namespace {

std::string trimmed(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  return text;
}

}  // namespace

std::string ZavloTestNetworkNamespace::ipProgram() {
  for (const char* candidate : {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip", "/bin/ip"}) {
    if (::access(candidate, X_OK) == 0) return candidate;
  }
  return {};
}

ZavloTestNetworkNamespace::ZavloTestNetworkNamespace(const std::string& role) {
  static std::atomic<int> counter{0};
  name_ = "zavlo-" + role + "-" + std::to_string(::getpid()) + "-" + std::to_string(counter++);
  const auto program = ipProgram();
  if (program.empty()) {
    problem_ = "iproute2 (ip) is not installed";
    return;
  }
  const auto result = zavloRunProcess({program, "netns", "add", name_});
  if (result.exitStatus != 0) {
    problem_ = "cannot create network namespace " + name_ + ": " + trimmed(result.standardError);
    return;
  }
  created_ = true;
  problem_ = ip({"link", "set", "lo", "up"});
  ok_ = problem_.empty();
}

ZavloTestNetworkNamespace::~ZavloTestNetworkNamespace() {
  if (created_) zavloRunProcess({ipProgram(), "netns", "delete", name_});
}

std::string ZavloTestNetworkNamespace::ip(const std::vector<std::string>& arguments) const {
  std::vector<std::string> command{ipProgram(), "-n", name_};
  command.insert(command.end(), arguments.begin(), arguments.end());
  const auto result = zavloRunProcess(command);
  if (result.exitStatus == 0) return {};
  std::string text = "ip -n " + name_;
  for (const auto& argument : arguments) text += " " + argument;
  return text + ": " + trimmed(result.standardError);
}

bool ZavloTestNetworkNamespace::runInside(const std::function<void()>& work) const {
  bool entered = false;
  std::thread thread([&] {
    const int descriptor = ::open(("/run/netns/" + name_).c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) return;
    entered = ::setns(descriptor, CLONE_NEWNET) == 0;
    ::close(descriptor);
    if (entered) work();
  });
  thread.join();
  return entered;
}
