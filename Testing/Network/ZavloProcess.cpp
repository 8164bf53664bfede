#include "Testing/Network/ZavloProcess.hpp"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <stdexcept>

extern char** environ;

ZavloProcessResult zavloRunProcess(const std::vector<std::string>& arguments, const std::string& standardInput) {
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

  ZavloProcessResult result;
  std::size_t written = 0;
  if (standardInput.empty()) {
    close(in[1]);
    in[1] = -1;
  }
  std::array<pollfd, 3> fds{{{out[0], POLLIN, 0}, {err[0], POLLIN, 0}, {in[1], POLLOUT, 0}}};
  std::array<char, 4096> buffer{};
  while (fds[0].fd >= 0 || fds[1].fd >= 0) {
    if (poll(fds.data(), fds.size(), -1) < 0) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd >= 0 && (fds[i].revents & (POLLIN | POLLHUP)) != 0) {
        const auto n = read(fds[i].fd, buffer.data(), buffer.size());
        if (n <= 0) {
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
      if (n <= 0 || written == standardInput.size()) {
        close(fds[2].fd);
        fds[2].fd = -1;
      }
    }
  }
  int status = 0;
  waitpid(pid, &status, 0);
  result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}
