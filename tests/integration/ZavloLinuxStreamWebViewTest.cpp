// The standard-stream web view over real pipes: lines in, scripts out, and a reader that
// never runs far ahead of the main queue.
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <thread>

#include "Platform/Linux/Loop/ZavloLinuxRunLoop.hpp"
#include "Platform/Linux/Web/ZavloLinuxStreamWebView.hpp"

using namespace std::chrono_literals;

namespace {

struct Pipe {
  Pipe() {
    if (pipe2(fds.data(), O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
  }
  ~Pipe() {
    for (const int fd : fds) {
      if (fd >= 0) close(fd);
    }
  }
  void closeWriteEnd() { close(std::exchange(fds[1], -1)); }
  std::array<int, 2> fds{};
};

struct Recorder final : ZavloScriptMessageHandler {
  void didReceiveScriptMessage(const ZavloScriptMessage& message) override {
    bodies.push_back(message.body);
    sources.push_back(message.source.origin + (message.source.mainFrame ? " main" : " sub"));
  }
  std::vector<nlohmann::json> bodies;
  std::vector<std::string> sources;
};

std::string readAll(int fd) {
  std::string text;
  std::array<char, 4096> buffer{};
  for (ssize_t n; (n = read(fd, buffer.data(), buffer.size())) > 0;) text.append(buffer.data(), n);
  return text;
}

}  // namespace

TEST(ZavloLinuxStreamWebView, LinesBecomeMessagesInOrderAndScriptsBecomeLines) {
  ZavloLinuxRunLoop loop;
  Pipe input, output;
  std::vector<std::string> ignored;
  bool ended = false;
  auto view = std::make_shared<ZavloLinuxStreamWebView>(
      loop, input.fds[0], output.fds[1], "bridge",
      ZavloLinuxStreamWebView::Events{
          [&](const std::string& reason) { ignored.push_back(reason); }, [&] { ended = true; }, {}});
  auto recorder = std::make_shared<Recorder>();
  view->addScriptMessageHandler(recorder, "bridge");
  view->start();

  const std::string text = "{\"a\":1}\r\n\"text\"\nnot json\n\n[1,[2]]\n" + std::string(300, '[') + "\n" +
                           std::string(ZavloLinuxStreamWebView::kMaxLineBytes + 1, ' ') +
                           "\n{\"last\":\"no line feed\"}";
  std::thread writer([&] {
    for (std::size_t at = 0; at < text.size();)
      at += static_cast<std::size_t>(write(input.fds[1], &text[at], text.size() - at));
    input.closeWriteEnd();
  });
  ASSERT_TRUE(loop.runUntil([&] { return ended; }, 60s));
  writer.join();
  EXPECT_EQ(recorder->bodies, (std::vector<nlohmann::json>{{{"a", 1}}, "text", {1, {2}}, {{"last", "no line feed"}}}));
  EXPECT_EQ(ignored.size(), 4U) << "not json, the empty line, too deep, too long";

  view->evaluateJavaScript("cb(\"x\")");
  view->removeScriptMessageHandler("bridge");
  view->evaluateJavaScript("cb(\"y\")");
  close(std::exchange(output.fds[1], -1));
  EXPECT_EQ(readAll(output.fds[0]), "cb(\"x\")\ncb(\"y\")\n");
  view->evaluateJavaScript("nobody reads this");  // a closed output is not an error
}

TEST(ZavloLinuxStreamWebView, TheReaderWaitsForTheMainQueueSoAFloodHoldsBoundedMemory) {
  ZavloLinuxRunLoop loop;
  Pipe input, output;
  bool ended = false;
  auto view = std::make_shared<ZavloLinuxStreamWebView>(loop, input.fds[0], output.fds[1], "bridge",
                                                        ZavloLinuxStreamWebView::Events{{}, [&] { ended = true; }, {}});
  auto recorder = std::make_shared<Recorder>();
  view->addScriptMessageHandler(recorder, "bridge");
  view->start();

  // Nobody runs the main queue yet: once the reader holds its share, the pipe fills up and
  // a writer that does not wait finds it full long before the whole input is taken.
  fcntl(input.fds[1], F_SETFL, O_NONBLOCK);
  const std::string line = "{\"pad\":\"" + std::string(8000, 'p') + "\"}\n";
  std::size_t accepted = 0;
  for (int attempt = 0; attempt < 200000 && accepted < 2000 * line.size(); ++attempt) {
    const auto n = write(input.fds[1], line.data() + accepted % line.size(), line.size() - accepted % line.size());
    if (n > 0) accepted += static_cast<std::size_t>(n);
  }
  EXPECT_LT(accepted, 200 * line.size()) << "the reader went on reading while nothing was delivered";

  // Once the main queue runs, everything arrives.
  fcntl(input.fds[1], F_SETFL, 0);
  std::thread writer([&] {
    for (std::size_t at = accepted; at < 2000 * line.size();) {
      at +=
          static_cast<std::size_t>(write(input.fds[1], line.data() + at % line.size(), line.size() - at % line.size()));
    }
    input.closeWriteEnd();
  });
  ASSERT_TRUE(loop.runUntil([&] { return ended; }, 120s));
  writer.join();
  EXPECT_EQ(recorder->bodies.size(), 2000U);
}

TEST(ZavloLinuxStreamWebView, AHandlerGetsTheMessageOfAnEnvelopeWithItsSource) {
  ZavloLinuxRunLoop loop;
  Pipe input, output;
  bool ended = false;
  auto view = std::make_shared<ZavloLinuxStreamWebView>(loop, input.fds[0], output.fds[1], "bridge",
                                                        ZavloLinuxStreamWebView::Events{{}, [&] { ended = true; }, {}});
  auto recorder = std::make_shared<Recorder>();
  view->addScriptMessageHandler(recorder, "bridge", *ZavloOriginRules::parse({"*"}));
  view->start();
  const std::string text = R"({"n":1})"
                           "\n"
                           R"({"message":[1],"frame":"main","origin":"https://a.example"})"
                           "\n"
                           R"({"origin":"null","frame":"main","message":"text"})";
  ASSERT_EQ(write(input.fds[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
  input.closeWriteEnd();
  ASSERT_TRUE(loop.runUntil([&] { return ended; }, 60s));
  EXPECT_EQ(recorder->bodies, (std::vector<nlohmann::json>{{{"n", 1}}, {1}, "text"}));
  EXPECT_EQ(recorder->sources, (std::vector<std::string>{" main", "https://a.example main", "null main"}));
}
