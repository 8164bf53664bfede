#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

/// A program a test starts and stops again (test support). Its standard output is a pipe
/// the test reads lines from; the destructor stops it with SIGTERM and reaps it. It gets
/// SIGTERM as well when the thread that started it ends (a test that dies mid-way).
class ZavloChildProcess {
 public:
  explicit ZavloChildProcess(const std::vector<std::string>& arguments);
  ZavloChildProcess(const ZavloChildProcess&) = delete;
  ZavloChildProcess& operator=(const ZavloChildProcess&) = delete;
  ~ZavloChildProcess();

  /// The next line it writes, without the line feed; throws when its output ends first.
  std::string readLine();

 private:
  std::string program_;
  pid_t pid_ = -1;
  int output_ = -1;
  std::string buffered_;
};

/// A D-Bus daemon of the test's own: a configuration and a socket in a temporary folder,
/// stopped and removed on destruction.
class ZavloPrivateBus {
 public:
  ZavloPrivateBus();
  ZavloPrivateBus(const ZavloPrivateBus&) = delete;
  ZavloPrivateBus& operator=(const ZavloPrivateBus&) = delete;
  ~ZavloPrivateBus();

  [[nodiscard]] const std::string& address() const { return address_; }
  /// The temporary folder, for the test's own files.
  [[nodiscard]] const std::string& directory() const { return directory_; }

 private:
  std::string directory_;
  std::unique_ptr<ZavloChildProcess> daemon_;
  std::string address_;
};
