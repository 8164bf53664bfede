#include "tools/peers/ZavloHttpTestServer.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <stdexcept>
#include <system_error>

namespace {

bool sameName(const std::string& a, const std::string& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](unsigned char x, unsigned char y) { return std::tolower(x) == std::tolower(y); });
}

std::string serialise(const ZavloHttpTestReply& reply) {
  if (reply.raw) return *reply.raw;
  std::string text = "HTTP/1.1 " + std::to_string(reply.status) + " " + reply.reason + "\r\n";
  for (const auto& [name, value] : reply.headers) text += name + ": " + value + "\r\n";
  text += "Content-Length: " + std::to_string(reply.body.size()) + "\r\n";
  if (reply.close) text += "Connection: close\r\n";
  text += "\r\n" + reply.body;
  return text;
}

[[noreturn]] void fail(const char* what) { throw std::system_error(errno, std::generic_category(), what); }

}  // namespace

std::optional<std::string> ZavloHttpTestRequest::header(const std::string& name) const {
  for (const auto& [field, value] : headers) {
    if (sameName(field, name)) return value;
  }
  return std::nullopt;
}

struct ZavloHttpTestServer::Connection {
  int fd = -1;
  std::size_t index = 0;
  std::string in;
  std::string out;
  bool closeAfterWrite = false;
  bool continued = false;  // "100 Continue" already sent for the request being read
};

ZavloHttpTestServer::ZavloHttpTestServer()
    : ZavloHttpTestServer([](const ZavloHttpTestRequest&) -> std::optional<ZavloHttpTestReply> {
        ZavloHttpTestReply reply;
        reply.headers = {{"Content-Type", "application/json"}};
        reply.body = "{}";
        return reply;
      }) {}

ZavloHttpTestServer::ZavloHttpTestServer(Responder responder) : responder_(std::move(responder)) {
  listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (listener_ < 0) fail("socket");
  const int yes = 1;
  setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = 0;
  socklen_t length = sizeof address;
  if (bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(listener_, 512) != 0 ||
      getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    close(listener_);
    fail("bind");
  }
  port_ = ntohs(address.sin_port);
  wakeFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wakeFd_ < 0) {
    close(listener_);
    fail("eventfd");
  }
  thread_ = std::thread([this] { run(); });
}

ZavloHttpTestServer::~ZavloHttpTestServer() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake();
  thread_.join();
  close(wakeFd_);
  close(listener_);
}

ZavloHttpTestServer::Responder ZavloHttpTestServer::neverAnswer() {
  return [](const ZavloHttpTestRequest&) -> std::optional<ZavloHttpTestReply> { return std::nullopt; };
}

std::string ZavloHttpTestServer::url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + path;
}

std::vector<ZavloHttpTestRequest> ZavloHttpTestServer::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

std::size_t ZavloHttpTestServer::requestCount() const {
  std::lock_guard lock(mutex_);
  return requests_.size();
}

std::size_t ZavloHttpTestServer::connectionCount() const {
  std::lock_guard lock(mutex_);
  return connections_;
}

std::size_t ZavloHttpTestServer::peakOpenConnections() const {
  std::lock_guard lock(mutex_);
  return peakOpen_;
}

bool ZavloHttpTestServer::waitForRequests(std::size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return arrived_.wait_for(lock, timeout, [&] { return requests_.size() >= count; });
}

bool ZavloHttpTestServer::answer(std::size_t index, ZavloHttpTestReply reply) {
  {
    std::lock_guard lock(mutex_);
    if (index >= requests_.size() || answered_[index]) return false;
    answered_[index] = true;
    outbox_.push_back({requests_[index].connection, serialise(reply), reply.close});
  }
  wake();
  return true;
}

void ZavloHttpTestServer::wake() const {
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = write(wakeFd_, &one, sizeof one);
}

void ZavloHttpTestServer::run() {
  std::map<std::size_t, Connection> connections;
  std::vector<pollfd> fds;
  std::vector<std::size_t> order;
  char buffer[65536];
  for (;;) {
    {
      std::lock_guard lock(mutex_);
      if (stopping_) break;
      for (auto& outgoing : outbox_) {
        auto found = connections.find(outgoing.connection);
        if (found == connections.end()) continue;
        found->second.out += outgoing.bytes;
        if (outgoing.close) found->second.closeAfterWrite = true;
      }
      outbox_.clear();
    }

    fds.clear();
    order.clear();
    fds.push_back({wakeFd_, POLLIN, 0});
    fds.push_back({listener_, POLLIN, 0});
    for (auto& [index, connection] : connections) {
      fds.push_back({connection.fd, static_cast<short>(POLLIN | (connection.out.empty() ? 0 : POLLOUT)), 0});
      order.push_back(index);
    }
    if (poll(fds.data(), fds.size(), 1000) < 0) continue;

    if ((fds[0].revents & POLLIN) != 0) {
      std::uint64_t count = 0;
      [[maybe_unused]] const auto n = read(wakeFd_, &count, sizeof count);
    }
    for (std::size_t i = 2; i < fds.size(); ++i) {
      auto& connection = connections.at(order[i - 2]);
      bool closed = false;
      if ((fds[i].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
        const auto n = read(connection.fd, buffer, sizeof buffer);
        if (n > 0) {
          connection.in.append(buffer, static_cast<std::size_t>(n));
          serve(connection);
        } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
          closed = true;
        }
      }
      if (!closed && !connection.out.empty()) {
        const auto n = send(connection.fd, connection.out.data(), connection.out.size(), MSG_NOSIGNAL);
        if (n > 0) connection.out.erase(0, static_cast<std::size_t>(n));
        if (n < 0 && errno != EAGAIN && errno != EINTR) closed = true;
      }
      if (closed || (connection.closeAfterWrite && connection.out.empty())) {
        close(connection.fd);
        connections.erase(order[i - 2]);
      }
    }
    // Accepted after the closes of the same round; a peer that hung up after the poll is
    // not counted either, so a client that closes one connection and then opens another
    // is never taken to hold both.
    if ((fds[1].revents & POLLIN) != 0) {
      for (;;) {
        const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) break;
        const int yes = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
        std::lock_guard lock(mutex_);
        const auto index = connections_++;
        connections[index] = Connection{fd, index, {}, {}, false, false};
        std::size_t open = 0;
        for (const auto& [other, held] : connections) {
          char peek = 0;
          if (recv(held.fd, &peek, 1, MSG_PEEK | MSG_DONTWAIT) != 0) ++open;
        }
        peakOpen_ = std::max(peakOpen_, open);
      }
    }
  }
  for (auto& [index, connection] : connections) close(connection.fd);
}

// Takes every complete request off the connection's input and answers or holds it.
void ZavloHttpTestServer::serve(Connection& connection) {
  for (;;) {
    const auto end = connection.in.find("\r\n\r\n");
    if (end == std::string::npos) return;
    ZavloHttpTestRequest request;
    request.connection = connection.index;
    std::size_t line = connection.in.find("\r\n");
    {
      const std::string first = connection.in.substr(0, line);
      const auto space = first.find(' ');
      const auto second = first.find(' ', space + 1);
      request.method = first.substr(0, space);
      request.target = first.substr(space + 1, second - space - 1);
    }
    std::size_t contentLength = 0;
    bool expectContinue = false;
    while (line < end) {
      const auto next = connection.in.find("\r\n", line + 2);
      const std::string field = connection.in.substr(line + 2, next - line - 2);
      const auto colon = field.find(':');
      std::string name = field.substr(0, colon);
      std::string value = colon == std::string::npos ? "" : field.substr(colon + 1);
      value.erase(0, value.find_first_not_of(" \t"));
      if (sameName(name, "Content-Length")) contentLength = std::stoul(value);
      if (sameName(name, "Expect") && sameName(value, "100-continue")) expectContinue = true;
      request.headers.emplace_back(std::move(name), std::move(value));
      line = next;
    }
    if (connection.in.size() < end + 4 + contentLength) {
      if (expectContinue && !connection.continued) {
        connection.out += "HTTP/1.1 100 Continue\r\n\r\n";
        connection.continued = true;
      }
      return;
    }
    request.body = connection.in.substr(end + 4, contentLength);
    connection.in.erase(0, end + 4 + contentLength);
    connection.continued = false;

    const auto reply = responder_(request);
    {
      std::lock_guard lock(mutex_);
      requests_.push_back(std::move(request));
      answered_.push_back(reply.has_value());
    }
    arrived_.notify_all();
    if (reply) {
      connection.out += serialise(*reply);
      if (reply->close) connection.closeAfterWrite = true;
    }
  }
}
