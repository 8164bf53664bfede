#include "ZavloPrivateBus.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

extern char** environ;

ZavloChildProcess::ZavloChildProcess(const std::vector<std::string>& arguments) : program_(arguments.at(0)) {
  std::array<int, 2> out{};
  if (pipe2(out.data(), O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  std::vector<char*> argv;
  for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  const pid_t parent = getpid();
  pid_t pid = fork();
  if (pid == 0) {
    // Only async-signal-safe calls here. A test that dies (a sanitizer's halt) takes its
    // daemons with it instead of leaving them holding the test runner's pipes.
    if (prctl(PR_SET_PDEATHSIG, SIGTERM) != 0 || getppid() != parent) _exit(127);
    if (dup2(out[1], 1) < 0) _exit(127);
    execve(argv[0], argv.data(), environ);
    _exit(127);
  }
  const int forkError = errno;
  close(out[1]);
  if (pid < 0) {
    close(out[0]);
    throw std::runtime_error("cannot start " + program_ + ": " + std::strerror(forkError));
  }
  pid_ = pid;
  output_ = out[0];
}

ZavloChildProcess::~ZavloChildProcess() {
  kill(pid_, SIGTERM);
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  close(output_);
}

std::string ZavloChildProcess::readLine() {
  for (;;) {
    const auto end = buffered_.find('\n');
    if (end != std::string::npos) {
      auto line = buffered_.substr(0, end);
      buffered_.erase(0, end + 1);
      return line;
    }
    std::array<char, 512> chunk{};
    const auto n = read(output_, chunk.data(), chunk.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) throw std::runtime_error(program_ + " ended its output before a whole line");
    buffered_.append(chunk.data(), static_cast<std::size_t>(n));
  }
}

ZavloPrivateBus::ZavloPrivateBus() {
  std::string pattern = (std::filesystem::temp_directory_path() / "zavlo-bus-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  directory_ = pattern;
  const auto config = directory_ + "/bus.conf";
  std::ofstream(config) << R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:dir=)" << directory_
                        << R"(</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
)";
  try {
    daemon_ = std::make_unique<ZavloChildProcess>(std::vector<std::string>{
        "/usr/bin/dbus-daemon", "--config-file=" + config, "--nofork", "--nopidfile", "--print-address=1"});
    address_ = daemon_->readLine();
  } catch (...) {
    daemon_.reset();
    std::filesystem::remove_all(directory_);
    throw;
  }
}

ZavloPrivateBus::~ZavloPrivateBus() {
  daemon_.reset();
  std::error_code ignored;
  std::filesystem::remove_all(directory_, ignored);
}
