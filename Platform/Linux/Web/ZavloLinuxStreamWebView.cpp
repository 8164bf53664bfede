#include "Platform/Linux/Web/ZavloLinuxStreamWebView.hpp"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

#include "Platform/Linux/Web/ZavloLinuxPageMessage.hpp"

ZavloLinuxStreamWebView::ZavloLinuxStreamWebView(ZavloQueue& mainQueue, int inputFd, int outputFd,
                                                 std::string messageHandlerName, Events events)
    : mainQueue_(mainQueue),
      inputFd_(inputFd),
      outputFd_(outputFd),
      messageHandlerName_(std::move(messageHandlerName)),
      events_(std::move(events)) {
  if (pipe2(wakePipe_, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe2");
}

ZavloLinuxStreamWebView::~ZavloLinuxStreamWebView() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  drained_.notify_all();
  const char wake = 1;
  (void)!write(wakePipe_[1], &wake, 1);
  if (reader_.joinable()) reader_.join();
  close(wakePipe_[0]);
  close(wakePipe_[1]);
}

void ZavloLinuxStreamWebView::start() {
  if (reader_.joinable()) return;
  reader_ = std::thread([this] { readLoop(); });
}

void ZavloLinuxStreamWebView::addScriptMessageHandler(std::shared_ptr<ZavloScriptMessageHandler> handler,
                                                      const std::string& name,
                                                      const ZavloOriginRules& /*allowed*/) {
  handlers_[name] = std::move(handler);
}

void ZavloLinuxStreamWebView::removeScriptMessageHandler(const std::string& name) { handlers_.erase(name); }

void ZavloLinuxStreamWebView::evaluateJavaScript(const std::string& script) {
  if (outputClosed_) return;
  std::string line = script;
  line.push_back('\n');
  std::size_t written = 0;
  while (written < line.size()) {
    const auto n = write(outputFd_, line.data() + written, line.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {  // the reader of the page went away
      outputClosed_ = true;
      return;
    }
    written += static_cast<std::size_t>(n);
  }
}

void ZavloLinuxStreamWebView::readLoop() {
  std::array<char, std::size_t{64} * 1024> buffer{};
  std::string line;
  bool overlong = false;
  for (;;) {
    std::array<pollfd, 2> fds{{{inputFd_, POLLIN, 0}, {wakePipe_[0], POLLIN, 0}}};
    if (poll(fds.data(), fds.size(), -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (fds[1].revents != 0) return;  // stopping: no end event for a view being destroyed
    const auto n = read(inputFd_, buffer.data(), buffer.size());
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (n <= 0) break;
    for (std::size_t i = 0; i < static_cast<std::size_t>(n); ++i) {
      const char c = buffer[i];
      if (c != '\n') {
        if (line.size() < kMaxLineBytes) {
          line.push_back(c);
        } else {
          overlong = true;
        }
        continue;
      }
      if (!deliver(std::exchange(line, {}), std::exchange(overlong, false))) return;
    }
  }
  if ((!line.empty() || overlong) && !deliver(std::move(line), overlong)) return;  // a last line without its line feed
  postEnd();
}

bool ZavloLinuxStreamWebView::deliver(std::string line, bool overlong) {
  {
    std::unique_lock lock(mutex_);
    drained_.wait(lock, [this] { return stopping_ || waiting_ < kMaxWaiting; });
    if (stopping_) return false;
    ++waiting_;
  }
  if (!line.empty() && line.back() == '\r') line.pop_back();
  // Parsed here, off the main queue; only the value crosses over.
  auto body = overlong ? std::nullopt : zavloParsePageMessage(line);
  std::string reason;
  if (!body) reason = overlong ? "a line longer than 8 MiB" : "not JSON, or nested too deeply";
  mainQueue_.post([weakSelf = weak_from_this(), body = std::move(body), reason = std::move(reason)] {
    const auto self = weakSelf.lock();
    if (!self) return;
    {
      const std::lock_guard lock(self->mutex_);
      --self->waiting_;
    }
    self->drained_.notify_all();
    if (!body) {
      if (self->events_.ignored) self->events_.ignored(reason);
      return;
    }
    const auto found = self->handlers_.find(self->messageHandlerName_);
    if (found == self->handlers_.end()) return;
    const auto handler = found->second;  // held for the call: it may remove itself
    handler->didReceiveScriptMessage(ZavloScriptMessage{std::move(*body), {}, {}});
  });
  return true;
}

void ZavloLinuxStreamWebView::postEnd() {
  mainQueue_.post([weakSelf = weak_from_this()] {
    const auto self = weakSelf.lock();
    if (self && self->events_.inputEnded) self->events_.inputEnded();
  });
}
