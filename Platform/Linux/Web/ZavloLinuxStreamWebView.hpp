#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "Platform/ZavloQueue.hpp"
#include "Platform/ZavloWebView.hpp"

/// A web view made of two byte streams, for hosts without a screen: each input line is one
/// message the page posts to one handler name, and each script evaluated is written as one
/// output line, at once. The page is whoever writes the input and reads the output.
///
/// Threading: as ZavloWebView. A reader thread of its own reads the input; messages reach
/// the handler on the main queue, in input order. The reader stays at most kMaxWaiting
/// messages ahead of the main queue, so a flood of input holds bounded memory.
class ZavloLinuxStreamWebView final : public ZavloWebView,
                                      public std::enable_shared_from_this<ZavloLinuxStreamWebView> {
 public:
  static constexpr std::size_t kMaxWaiting = 64;
  /// A longer line is dropped whole: no page message of that size is expected.
  static constexpr std::size_t kMaxLineBytes = 8U << 20U;

  struct Events {
    /// Each line read that was not a message (not JSON, too deep, too long), on the main queue.
    std::function<void(const std::string& reason)> ignored;
    /// Once, on the main queue, after the last message of the input was delivered.
    std::function<void()> inputEnded;
  };

  /// Reads inputFd and writes outputFd (both stay open; the caller owns them). Messages go
  /// to the handler registered under messageHandlerName when each one is delivered.
  ZavloLinuxStreamWebView(ZavloQueue& mainQueue, int inputFd, int outputFd, std::string messageHandlerName,
                          Events events = {});
  /// Stops the reader (also when it waits for input) and joins it.
  ~ZavloLinuxStreamWebView() override;

  /// Starts reading; call once, after the handler is installed if no message may be lost.
  void start();

  using ZavloWebView::addScriptMessageHandler;
  void addScriptMessageHandler(std::shared_ptr<ZavloScriptMessageHandler> handler, const std::string& name,
                               const ZavloOriginRules& allowed) override;
  void removeScriptMessageHandler(const std::string& name) override;
  /// Writes script and a line feed; a script holding a line break would span lines, which
  /// no callback text of the library does. A closed output drops the rest silently.
  void evaluateJavaScript(const std::string& script) override;

 private:
  void readLoop();
  // Hands one complete line to the main queue; waits while kMaxWaiting are queued.
  bool deliver(std::string line, bool overlong);
  void postEnd();

  ZavloQueue& mainQueue_;
  const int inputFd_;
  const int outputFd_;
  const std::string messageHandlerName_;
  Events events_;
  std::map<std::string, std::shared_ptr<ZavloScriptMessageHandler>, std::less<>> handlers_;
  bool outputClosed_ = false;

  std::mutex mutex_;
  std::condition_variable drained_;
  std::size_t waiting_ = 0;
  bool stopping_ = false;
  int wakePipe_[2] = {-1, -1};
  std::thread reader_;
};
