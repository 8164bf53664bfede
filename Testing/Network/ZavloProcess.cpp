#include "Testing/Network/ZavloProcess.hpp"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <utility>

namespace {

void collectExit(pid_t pid, ZavloProcessResult& result) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The peak resident size of the running program, in KiB (0 once it has exited). Read from
// /proc because the rusage of a spawned child also counts the parent it was cloned from.
long peakResidentKilobytes(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmHWM:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
  }
  return 0;
}

// Starts arguments with standard input, output and error on new pipes; the parent's ends
// are returned in that order.
pid_t spawnWithPipes(const std::vector<std::string>& arguments, std::array<int, 3>& parentEnds) {
  std::array<int, 2> in{}, out{}, err{};
  if (pipe2(in.data(), O_CLOEXEC) != 0 || pipe2(out.data(), O_CLOEXEC) != 0 || pipe2(err.data(), O_CLOEXEC) != 0) {
    throw std::runtime_error("pipe failed");
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_adddup2(&actions, err[1], 2);
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  pid_t pid = 0;
  const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(in[0]);
  close(out[1]);
  close(err[1]);
  if (spawned != 0) {
    close(in[1]);
    close(out[0]);
    close(err[0]);
    throw std::runtime_error("cannot start " + arguments.at(0));
  }
  parentEnds = {in[1], out[0], err[0]};
  return pid;
}

}  // namespace

ZavloProcessResult zavloRunProcess(const std::vector<std::string>& arguments, const std::string& standardInput) {
  std::array<int, 3> ends{};
  const pid_t pid = spawnWithPipes(arguments, ends);
  std::array<int, 2> in{-1, ends[0]};
  std::array<int, 2> out{ends[1], -1};
  std::array<int, 2> err{ends[2], -1};

  ZavloProcessResult result;
  std::size_t written = 0;
  if (standardInput.empty()) {
    close(in[1]);
    in[1] = -1;
  } else {
    // A blocking write of more than the pipe holds would wait for the child, which may be
    // waiting for us to read its output.
    fcntl(in[1], F_SETFL, fcntl(in[1], F_GETFL) | O_NONBLOCK);
  }
  std::array<pollfd, 3> fds{{{out[0], POLLIN, 0}, {err[0], POLLIN, 0}, {in[1], POLLOUT, 0}}};
  std::array<char, 4096> buffer{};
  for (unsigned round = 0; fds[0].fd >= 0 || fds[1].fd >= 0; ++round) {
    if (round % 64 == 0)
      result.maxResidentKilobytes = std::max(result.maxResidentKilobytes, peakResidentKilobytes(pid));
    if (poll(fds.data(), fds.size(), -1) < 0) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd >= 0 && (fds[i].revents & (POLLIN | POLLHUP)) != 0) {
        const auto n = read(fds[i].fd, buffer.data(), buffer.size());
        if (n <= 0) {
          result.maxResidentKilobytes = std::max(result.maxResidentKilobytes, peakResidentKilobytes(pid));
          close(fds[i].fd);
          fds[i].fd = -1;
        } else {
          (i == 0 ? result.standardOutput : result.standardError).append(buffer.data(), static_cast<std::size_t>(n));
        }
      }
    }
    if (fds[2].fd >= 0 && (fds[2].revents & (POLLOUT | POLLERR)) != 0) {
      const auto n = write(fds[2].fd, standardInput.data() + written, standardInput.size() - written);
      if (n > 0) written += static_cast<std::size_t>(n);
      if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
      if (n <= 0 || written == standardInput.size()) {
        close(fds[2].fd);
        fds[2].fd = -1;
      }
    }
  }
  collectExit(pid, result);
  return result;
}

ZavloInteractiveProcess::ZavloInteractiveProcess(const std::vector<std::string>& arguments) {
  std::array<int, 3> ends{};
  pid_ = spawnWithPipes(arguments, ends);
  input_ = ends[0];
  output_ = ends[1];
  error_ = ends[2];
}

ZavloInteractiveProcess::~ZavloInteractiveProcess() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  for (const int fd : {input_, output_, error_}) {
    if (fd >= 0) close(fd);
  }
}

void ZavloInteractiveProcess::writeLine(const std::string& line) {
  const std::string text = line + "\n";
  std::size_t written = 0;
  while (input_ >= 0 && written < text.size()) {
    const auto n = write(input_, text.data() + written, text.size() - written);
    if (n <= 0) throw std::runtime_error("the process no longer reads its input");
    written += static_cast<std::size_t>(n);
  }
}

std::optional<std::string> ZavloInteractiveProcess::readLine(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  std::array<char, 4096> buffer{};
  for (;;) {
    if (const auto end = pending_.find('\n'); end != std::string::npos) {
      std::string line = pending_.substr(0, end);
      pending_.erase(0, end + 1);
      return line;
    }
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
    // Standard error is drained too, so that a chatty process never blocks on it.
    std::array<pollfd, 2> fds{{{output_, POLLIN, 0}, {error_, POLLIN, 0}}};
    if (left <= 0 || poll(fds.data(), fds.size(), static_cast<int>(left)) <= 0) return std::nullopt;
    if (fds[1].revents != 0 && error_ >= 0) {
      const auto n = read(error_, buffer.data(), buffer.size());
      if (n > 0) standardError_.append(buffer.data(), static_cast<std::size_t>(n));
      if (n <= 0) fds[1].fd = error_ = (close(error_), -1);
    }
    if (fds[0].revents != 0) {
      const auto n = read(output_, buffer.data(), buffer.size());
      if (n <= 0) return std::nullopt;
      pending_.append(buffer.data(), static_cast<std::size_t>(n));
    }
  }
}

ZavloProcessResult ZavloInteractiveProcess::finish() {
  close(input_);
  input_ = -1;
  ZavloProcessResult result;
  result.standardOutput = std::exchange(pending_, {});
  std::array<char, 4096> buffer{};
  for (const int fd : {output_, error_}) {
    if (fd < 0) continue;
    for (ssize_t n; (n = read(fd, buffer.data(), buffer.size())) > 0;) {
      (fd == output_ ? result.standardOutput : standardError_).append(buffer.data(), static_cast<std::size_t>(n));
    }
    close(fd);
  }
  output_ = error_ = -1;
  result.standardError = std::move(standardError_);
  collectExit(pid_, result);
  pid_ = -1;
  return result;
}
