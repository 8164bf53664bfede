#include "Platform/Linux/Web/ZavloLinuxStreamWebView.hpp"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <optional>
#include <string_view>
#include <system_error>

#include "Platform/Linux/Web/ZavloLinuxPageMessage.hpp"

namespace {

// One input line as the reader thread read it.
struct PageLine {
  std::optional<nlohmann::json> body;  // absent when the line is no message; reason says why
  std::string reason;
  ZavloScriptMessageSource source;  // an empty origin: a plain line, the host's own page
};

PageLine readPageLine(std::string_view text, bool overlong) {
  PageLine line;
  if (overlong) {
    line.reason = "a line longer than 8 MiB";
    return line;
  }
  auto value = zavloParsePageMessage(text);
  if (!value) {
    line.reason = "not JSON, or nested too deeply";
    return line;
  }
  const bool envelope = value->is_object() && value->size() == 3 && value->contains("origin") &&
                        value->contains("frame") && value->contains("message");
  if (!envelope) {
    line.body = std::move(value);
    return line;
  }
  const auto& origin = (*value)["origin"];
  const auto& frame = (*value)["frame"];
  if (!origin.is_string() || (frame != "main" && frame != "sub")) {
    line.reason = "an envelope's origin is a string and its frame \"main\" or \"sub\"";
    return line;
  }
  // The origin reaches the owner's prompt: only the form a browser gives location.origin,
  // never a URL, a blank origin (the host's own page) or text that could pose as a prompt.
  const auto& named = origin.get_ref<const std::string&>();
  if (ZavloOriginRules::originOf(named) != named) {
    line.reason = "an envelope's origin is written as browsers serialise one: scheme://host[:port] or null";
    return line;
  }
  line.source = {named, frame == "main"};
  line.body = std::move((*value)["message"]);
  return line;
}

// Why rules keep a message from source away from the handler; null when they let it through.
const char* refusal(const ZavloScriptMessageSource& source, const ZavloOriginRules& rules) {
  const bool ownPage = source.origin.empty();
  if (!source.mainFrame) return "not the top frame";
  if (rules.ownPageOnly()) {
    return ownPage ? nullptr : "no rules were given: only the host's own page, whose lines have no envelope";
  }
  if (rules.allows(source.origin)) return nullptr;
  return ownPage ? "a line without an envelope names no origin, and with rules given only \"*\" allows that"
                 : "an origin the rules do not allow";
}

}  // namespace

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
                                                      const std::string& name, const ZavloOriginRules& allowed) {
  handlers_[name] = Registration{std::move(handler), allowed};
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
  auto read = readPageLine(line, overlong);
  mainQueue_.post([weakSelf = weak_from_this(), read = std::move(read)]() mutable {
    const auto self = weakSelf.lock();
    if (!self) return;
    {
      const std::lock_guard lock(self->mutex_);
      --self->waiting_;
    }
    self->drained_.notify_all();
    if (!read.body) {
      if (self->events_.ignored) self->events_.ignored(read.reason);
      return;
    }
    const auto found = self->handlers_.find(self->messageHandlerName_);
    if (found == self->handlers_.end()) return;
    if (const char* why = refusal(read.source, found->second.rules)) {
      if (self->events_.refused) self->events_.refused(read.source.origin, read.source.mainFrame, why);
      return;
    }
    const auto handler = found->second.handler;  // held for the call: it may remove itself
    handler->didReceiveScriptMessage(ZavloScriptMessage{std::move(*read.body), std::move(read.source), {}});
  });
  return true;
}

void ZavloLinuxStreamWebView::postEnd() {
  mainQueue_.post([weakSelf = weak_from_this()] {
    const auto self = weakSelf.lock();
    if (self && self->events_.inputEnded) self->events_.inputEnded();
  });
}
