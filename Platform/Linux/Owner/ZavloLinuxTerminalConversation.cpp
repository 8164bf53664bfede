#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>

#include "Core/ZavloPromptText.hpp"
#include "Platform/Linux/Owner/ZavloLinuxOwnerAuthentication.hpp"

namespace {

using Round = ZavloLinuxOwnerAuthentication::ConversationRound;
using Style = ZavloLinuxOwnerAuthentication::Message::Style;

constexpr char kInterrupt = 0x03;  // Ctrl-C
constexpr char kEndOfFile = 0x04;  // Ctrl-D
constexpr char kBackspace = 0x08;
constexpr char kKill = 0x15;  // Ctrl-U
constexpr char kDelete = 0x7f;
constexpr std::size_t kLongestAnswer = 512;  // PAM_MAX_RESP_SIZE: PAM takes no more

std::runtime_error terminalError(const std::string& what) {
  return std::runtime_error(what + ": " + std::strerror(errno));
}

bool isContinuationByte(std::uint8_t byte) { return (byte & 0xC0) == 0x80; }

// Who asked and why, before the round's first prompt. A page's reason follows a label of
// ours, so that no line the page writes starts where the origin line does.
std::string introduction(const Round& round) {
  const auto origin = ZavloPromptText::safeOrigin(round.requestingOrigin);
  const auto reason = ZavloPromptText::safe(round.reason);
  std::string text;
  if (!origin.empty()) text += "Asked by the page at " + origin + "\n";
  if (!reason.empty()) text += (origin.empty() ? "" : "The page says: ") + reason + "\n";
  return text;
}

// A line being typed, in locked memory from the first key on.
class Line {
 public:
  Line() : bytes_(kLongestAnswer) {}
  void push(std::uint8_t byte) {
    if (size_ < bytes_.size()) bytes_.data()[size_++] = byte;
  }
  [[nodiscard]] bool empty() const { return size_ == 0; }
  // One character, all of its UTF-8 bytes.
  void eraseLast() {
    while (size_ > 1 && isContinuationByte(bytes_.data()[size_ - 1])) bytes_.data()[--size_] = 0;
    if (size_ > 0) bytes_.data()[--size_] = 0;
  }
  ZavloLinuxSecret take() {
    bytes_.shrink(size_);
    size_ = 0;
    return std::move(bytes_);
  }

 private:
  ZavloLinuxSecret bytes_;
  std::size_t size_ = 0;
};

// The terminal, opened for one round. Its settings as found are put back by the
// destructor, so no path (an answer, a cancel, an exception) leaves echo off.
class Terminal {
 public:
  explicit Terminal(const std::string& device) : device_(device) {
    fd_ = open(device.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (fd_ < 0) throw terminalError("Cannot open " + device + " to ask the owner");
    if (tcgetattr(fd_, &saved_) != 0) {
      const auto error = terminalError(device + " is no terminal to ask the owner on");
      close(fd_);
      throw error;
    }
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;
  ~Terminal() {
    restore();
    close(fd_);
  }

  void write(const std::string& text) {
    std::size_t written = 0;
    while (written < text.size()) {
      const auto n = ::write(fd_, text.data() + written, text.size() - written);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) throw terminalError("Cannot write to " + device_);
      written += static_cast<std::size_t>(n);
    }
  }

  /// Shows prompt and reads one line byte by byte, echoing it only when echo is true.
  /// std::nullopt when the owner cancels, the terminal hangs up or cancelFd fires.
  std::optional<ZavloLinuxSecret> readLine(const std::string& prompt, bool echo, int cancelFd) {
    // Byte by byte with signals off: Ctrl-C then cancels this prompt instead of ending the
    // process with the terminal left silent.
    termios raw = saved_;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | ECHONL | ISIG | IEXTEN);
    raw.c_cc[VMIN] = 1;
    raw.c_cc[VTIME] = 0;
    set(raw);
    write(prompt);
    Line line;  // wipes itself on every path
    auto answer = readRaw(line, echo, cancelFd);
    restore();
    return answer;
  }

 private:
  std::optional<ZavloLinuxSecret> readRaw(Line& line, bool echo, int cancelFd) {
    const auto cancel = [&]() -> std::optional<ZavloLinuxSecret> {
      write("\n");
      return std::nullopt;
    };
    for (;;) {
      pollfd fds[2] = {{fd_, POLLIN, 0}, {cancelFd, POLLIN, 0}};
      if (poll(fds, cancelFd >= 0 ? 2 : 1, -1) < 0) {
        if (errno == EINTR) continue;
        throw terminalError("Cannot wait for " + device_);
      }
      if (cancelFd >= 0 && fds[1].revents != 0) return cancel();
      if ((fds[0].revents & POLLIN) == 0) return cancel();  // hung up
      char byte = 0;
      const auto n = read(fd_, &byte, 1);
      if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
      if (n < 0) throw terminalError("Cannot read from " + device_);
      if (n == 0) return cancel();
      switch (byte) {
        case '\r':
        case '\n':
          write("\n");  // the line feed was not echoed
          return line.take();
        case kInterrupt:
          return cancel();
        case kEndOfFile:
          if (line.empty()) return cancel();
          break;
        case kBackspace:
        case kDelete:
          eraseLast(line, echo);
          break;
        case kKill:
          while (!line.empty()) eraseLast(line, echo);
          break;
        default:
          if (static_cast<unsigned char>(byte) < 0x20) break;  // other control keys mean nothing here
          line.push(static_cast<std::uint8_t>(byte));
          if (echo) write(std::string(1, byte));
      }
    }
  }

  void eraseLast(Line& line, bool echo) {
    if (line.empty()) return;
    line.eraseLast();
    if (echo) write("\b \b");
  }

  void set(const termios& settings) {
    while (tcsetattr(fd_, TCSANOW, &settings) != 0) {
      if (errno != EINTR) throw terminalError("Cannot set up " + device_);
    }
  }

  void restore() noexcept {
    while (tcsetattr(fd_, TCSANOW, &saved_) != 0 && errno == EINTR) {
    }
  }

  std::string device_;
  int fd_ = -1;
  termios saved_{};
};

}  // namespace

ZavloLinuxOwnerAuthentication::Conversation ZavloLinuxOwnerAuthentication::terminalConversation(std::string device) {
  return [device = std::move(device)](const Round& round) -> std::optional<Answers> {
    Terminal terminal(device);
    Answers answers;  // each answer wipes itself on every path
    bool introduced = false;
    for (const auto& message : round.messages) {
      if (message.style == Style::errorMessage || message.style == Style::textInfo) {
        terminal.write(message.text + "\n");
        answers.emplace_back();
        continue;
      }
      if (!introduced) {
        terminal.write(introduction(round));
        introduced = true;
      }
      auto answer = terminal.readLine(message.text, message.style == Style::promptEchoOn, round.cancelFd);
      if (!answer) return std::nullopt;
      answers.push_back(std::move(*answer));
    }
    return answers;
  };
}
