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
/// Whoever writes the input vouches for where each line comes from. A line is either
/// - the message itself (any JSON value): from the host's own page, in its top frame; or
/// - an envelope, an object with exactly the keys "origin", "frame" and "message":
///   {"origin": "https://a.example", "frame": "main" or "sub", "message": <the message>},
///   the origin written as browsers serialise location.origin ("scheme://host[:port]",
///   without the scheme's default port, or "null"). A message the library acts on has
///   "method" and "callback", so none is mistaken for an envelope; an object with exactly
///   these three keys is always read as one, and one with other values is ignored.
///
/// Who may post (see ZavloWebView) is then decided per line, against the rules of the
/// handler: only the top frame ever passes; without rules, only plain lines (the host's own
/// page, whose origin a stream does not know); with rules, only envelopes whose origin the
/// rules allow, and plain lines only when a rule is "*", so that a host that gives rules
/// has every line name its origin and one it forgot to wrap is refused, not trusted.
/// A refused line reaches no handler; the message a handler receives carries the envelope's
/// origin and frame, or an empty origin for a plain line, and no reply.
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
    /// Each line read that was not a message (not JSON, too deep, too long, an envelope with
    /// other values than it may hold), on the main queue.
    std::function<void(const std::string& reason)> ignored;
    /// Once, on the main queue, after the last message of the input was delivered.
    std::function<void()> inputEnded;
    /// Each message the handler's rules kept from it, on the main queue: the origin the line
    /// named ("" for a plain line), whether it named the top frame, and why.
    std::function<void(const std::string& origin, bool mainFrame, const std::string& why)> refused;
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
  struct Registration {
    std::shared_ptr<ZavloScriptMessageHandler> handler;
    ZavloOriginRules rules;
  };
  std::map<std::string, Registration, std::less<>> handlers_;
  bool outputClosed_ = false;

  std::mutex mutex_;
  std::condition_variable drained_;
  std::size_t waiting_ = 0;
  bool stopping_ = false;
  int wakePipe_[2] = {-1, -1};
  std::thread reader_;
};
