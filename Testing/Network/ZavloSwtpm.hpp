#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Testing/Network/ZavloProcess.hpp"
#include "tools/peers/ZavloTemporaryDirectory.hpp"

/// A TPM 2.0 of a test's own (tests and benchmarks): swtpm on two free loopback ports (the
/// TPM's and its control channel), its state in a private temporary folder. It can go away
/// and come back on the same state, as a TPM behind a lost connection would, or come back
/// empty, as another TPM. tool() runs a tpm2-tools program against it. swtpm serves one
/// connection at a time, and tpm2-tss's swtpm TCTI holds one per command, so key stores and
/// tools take turns.
class ZavloSwtpm {
 public:
  static constexpr const char* kProgram = "/usr/bin/swtpm";

  /// Why no TPM can be started here, or nothing.
  static std::optional<std::string> unavailable() {
    if (!std::filesystem::exists(kProgram)) {
      return std::string("swtpm is not installed (") + kProgram + " missing): apt-get install swtpm swtpm-tools";
    }
    return std::nullopt;
  }
  /// Why tool() cannot run here, or nothing.
  static std::optional<std::string> toolsUnavailable() {
    if (auto why = unavailable()) return why;
    if (!std::filesystem::exists("/usr/bin/tpm2_readpublic")) {
      return std::string("tpm2-tools is not installed (/usr/bin/tpm2_readpublic missing): apt-get install tpm2-tools");
    }
    return std::nullopt;
  }

  ZavloSwtpm() {
    if (unavailable()) return;
    std::filesystem::create_directory(state());
    for (int attempt = 0; attempt < 5 && !start(); ++attempt) {
      port_ = 0;  // another process took a port between the choice and swtpm's bind
    }
  }
  ZavloSwtpm(const ZavloSwtpm&) = delete;
  ZavloSwtpm& operator=(const ZavloSwtpm&) = delete;
  ~ZavloSwtpm() { stop(); }

  /// Starts swtpm on the state folder (on the ports it had, if any) and waits until it
  /// accepts connections; false when it did not come up.
  bool start() {
    if (pid_ > 0) return true;
    if (port_ == 0) port_ = freePortPair();
    if (port_ == 0) return false;
    const std::vector<std::string> arguments = {kProgram,
                                                "socket",
                                                "--tpm2",
                                                "--tpmstate",
                                                "dir=" + state().string(),
                                                "--server",
                                                "type=tcp,bindaddr=127.0.0.1,port=" + std::to_string(port_),
                                                "--ctrl",
                                                "type=tcp,bindaddr=127.0.0.1,port=" + std::to_string(port_ + 1),
                                                "--flags",
                                                "not-need-init,startup-clear"};
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    // swtpm ends with the test even when the test is killed, and holds none of its output:
    // a pipe it kept open would keep whoever reads the test's output waiting.
    const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == 0) {
      if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent) _exit(127);
      for (const int stream : {0, 1, 2}) dup2(nothing, stream);
      execv(kProgram, argv.data());
      _exit(127);
    }
    if (nothing >= 0) close(nothing);
    if (pid_ < 0) return false;
    // A bound on the wait, not a measurement: swtpm listens within milliseconds.
    for (int round = 0; round < 1000; ++round) {
      if (accepts()) return true;
      if (waitpid(pid_, nullptr, WNOHANG) == pid_) break;  // it exited: a port was taken
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    stop();
    return false;
  }
  /// Ends swtpm at once, as a TPM that goes away would.
  void stop() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }
  /// Starts again on an empty state folder: another TPM on the same ports.
  bool restartEmpty() {
    stop();
    std::error_code ignored;
    std::filesystem::remove_all(state(), ignored);
    std::filesystem::create_directory(state());
    return start();
  }

  [[nodiscard]] bool running() const { return pid_ > 0; }
  [[nodiscard]] std::string tcti() const { return "swtpm:host=127.0.0.1,port=" + std::to_string(port_); }
  [[nodiscard]] std::filesystem::path folder() const { return directory_.path(); }
  [[nodiscard]] std::filesystem::path state() const { return directory_.path() / "state"; }

  /// A tpm2-tools program (its name and arguments) run against this TPM.
  [[nodiscard]] ZavloProcessResult tool(const std::vector<std::string>& arguments) const {
    std::vector<std::string> command = {"/usr/bin/env", "TPM2TOOLS_TCTI=" + tcti()};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return zavloRunProcess(command);
  }

 private:
  // A port P with P + 1 free too, both on loopback.
  static std::uint16_t freePortPair() {
    for (int attempt = 0; attempt < 20; ++attempt) {
      const int first = bound(0);
      if (first < 0) continue;
      sockaddr_in address{};
      socklen_t length = sizeof address;
      getsockname(first, reinterpret_cast<sockaddr*>(&address), &length);
      const auto port = ntohs(address.sin_port);
      const int second = port < 65535 ? bound(static_cast<std::uint16_t>(port + 1)) : -1;
      close(first);
      if (second >= 0) {
        close(second);
        return port;
      }
    }
    return 0;
  }
  static int bound(std::uint16_t port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return fd;
    if (fd >= 0) close(fd);
    return -1;
  }
  [[nodiscard]] bool accepts() const {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port_);
    const bool connected = fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    if (fd >= 0) close(fd);
    return connected;
  }

  ZavloTemporaryDirectory directory_{"zavlo-swtpm"};
  std::uint16_t port_ = 0;
  pid_t pid_ = -1;
};
