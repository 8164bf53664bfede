#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <system_error>

/// A loopback port that is bound but never listened on, so every connection to it is
/// refused at once: an endpoint that can never be reached, without leaving the machine.
class ZavloClosedPort {
 public:
  ZavloClosedPort() {
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      throw std::system_error(errno, std::generic_category(), "closed port: bind");
    }
    ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
  }
  ~ZavloClosedPort() { ::close(fd_); }
  ZavloClosedPort(const ZavloClosedPort&) = delete;
  ZavloClosedPort& operator=(const ZavloClosedPort&) = delete;

  [[nodiscard]] std::uint16_t port() const noexcept { return port_; }
  [[nodiscard]] std::string url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }

 private:
  int fd_ = -1;
  std::uint16_t port_ = 0;
};
