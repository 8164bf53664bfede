#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>

/// A blocking TCP connection to a numeric IPv4 or IPv6 address, made in the calling
/// thread's network namespace; -1 when it cannot be made (test support).
inline int zavloConnectTcp(const std::string& address, std::uint16_t port) {
  sockaddr_storage storage{};
  socklen_t length = 0;
  auto* v4 = reinterpret_cast<sockaddr_in*>(&storage);
  auto* v6 = reinterpret_cast<sockaddr_in6*>(&storage);
  if (inet_pton(AF_INET, address.c_str(), &v4->sin_addr) == 1) {
    v4->sin_family = AF_INET;
    v4->sin_port = htons(port);
    length = sizeof *v4;
  } else if (inet_pton(AF_INET6, address.c_str(), &v6->sin6_addr) == 1) {
    v6->sin6_family = AF_INET6;
    v6->sin6_port = htons(port);
    length = sizeof *v6;
  }
  const int fd = socket(storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&storage), length) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}
