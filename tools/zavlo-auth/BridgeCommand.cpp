// zavlo-auth bridge --stdio: the web bridge with standard input and output as the page, so
// that a script, a test or another process can drive it a message per line.
#include <unistd.h>

#include <csignal>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "Bridge/ZavloAuthenticationWrapper.hpp"
#include "Core/ZavloAuthEnvironment.hpp"
#include "Platform/Linux/Web/ZavloLinuxStreamWebView.hpp"
#include "ZavloCli.hpp"

using namespace std::chrono_literals;

namespace {

// After the input ends: an owner prompt waits for a person, a chain is bounded per hop.
constexpr auto kDrainLimit = 300s;

// Counts the answers the page is owed: one per message the bridge answers, less each
// script evaluated. The process ends when the input has ended and nothing is owed.
class AnswerCountingWebView final : public ZavloWebView {
 public:
  explicit AnswerCountingWebView(std::shared_ptr<ZavloWebView> view) : view_(std::move(view)) {}

  using ZavloWebView::addScriptMessageHandler;
  void addScriptMessageHandler(std::shared_ptr<ZavloScriptMessageHandler> handler, const std::string& name,
                               const ZavloOriginRules& allowed) override {
    view_->addScriptMessageHandler(std::make_shared<Counting>(std::move(handler), owed_), name, allowed);
  }
  void removeScriptMessageHandler(const std::string& name) override { view_->removeScriptMessageHandler(name); }
  void evaluateJavaScript(const std::string& script) override {
    if (*owed_ > 0) --*owed_;
    view_->evaluateJavaScript(script);
  }
  [[nodiscard]] std::size_t owed() const { return *owed_; }

 private:
  struct Counting final : ZavloScriptMessageHandler {
    Counting(std::shared_ptr<ZavloScriptMessageHandler> handler, std::shared_ptr<std::size_t> owed)
        : handler(std::move(handler)), owed(std::move(owed)) {}
    void didReceiveScriptMessage(const ZavloScriptMessage& message) override {
      if (ZavloAuthenticationBridge::expectsAnswer(message.body)) ++*owed;
      handler->didReceiveScriptMessage(message);
    }
    std::shared_ptr<ZavloScriptMessageHandler> handler;
    std::shared_ptr<std::size_t> owed;
  };

  std::shared_ptr<ZavloWebView> view_;
  std::shared_ptr<std::size_t> owed_ = std::make_shared<std::size_t>(0);  // main queue only
};

// An origin in a trace line as it was written when it is one, quoted otherwise ("" is the
// host's own page), so that no line of the input can break a line of the trace.
std::string originForTrace(const std::string& origin) {
  if (origin.empty()) return "the host's own page";
  if (ZavloOriginRules::originOf(origin) == origin) return origin;
  return nlohmann::json(origin).dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
}

void runBridge(ZavloCliContext& context, const ZavloOriginRules& rules) {
  // A page that stops reading must not end the process in the middle of an operation.
  std::signal(SIGPIPE, SIG_IGN);
  auto& platform = zavloCliPlatform(context.options);
  bool inputEnded = false;
  ZavloLinuxStreamWebView::Events events;
  events.ignored = [&context](const std::string& reason) { context.trace("bridge: input line ignored: " + reason); };
  events.inputEnded = [&inputEnded] { inputEnded = true; };
  // A refused message reaches no handler, so no answer is owed for it.
  events.refused = [&context](const std::string& origin, bool mainFrame, const std::string& why) {
    context.trace("bridge: refused a message from " + originForTrace(origin) + " (" + (mainFrame ? "main" : "sub") +
                  " frame): " + why);
  };
  auto stream = std::make_shared<ZavloLinuxStreamWebView>(platform.mainQueue(), STDIN_FILENO, STDOUT_FILENO,
                                                          std::string(ZavloAuthenticationBridge::kHandlerName),
                                                          std::move(events));
  auto page = std::make_shared<AnswerCountingWebView>(stream);

  static const auto screen = std::make_shared<int>(0);  // the command line has no screen; this stands for one
  const auto environment = context.options.environment == "development" ? ZavloAuthEnvironment::development
                                                                        : ZavloAuthEnvironment::production;
  auto& wrapper = ZavloAuthenticationWrapper::shared();
  wrapper.setupWebView(page, screen, environment, rules);
  context.telemetry();  // after setup, so that --telemetry-endpoint has the last word
  stream->start();

  platform.runLoop().runUntil([&inputEnded] { return inputEnded; }, std::chrono::hours(24 * 365));
  if (!platform.runLoop().runUntil([&page] { return page->owed() == 0; }, kDrainLimit)) {
    std::cerr << "zavlo-auth: bridge: " << page->owed() << " answer(s) still pending after "
              << std::chrono::duration_cast<std::chrono::seconds>(kDrainLimit).count() << " s; giving up\n";
    context.exitStatus = 1;
  }
  wrapper.cleanup();
}

}  // namespace

void addBridgeCommand(CLI::App& app, ZavloCliContext& context) {
  auto* bridge = app.add_subcommand("bridge", "The web bridge, with a page on standard input and output");
  auto stdio = std::make_shared<bool>(false);
  auto allowedOrigins = std::make_shared<std::vector<std::string>>();
  bridge
      ->add_flag("--stdio", *stdio,
                 "Read one page message per input line: a JSON value from the host's own page, or "
                 "{\"origin\":ORIGIN,\"frame\":\"main\"|\"sub\",\"message\":VALUE} for a document the host "
                 "vouches for; write each JavaScript text the bridge evaluates as one output line")
      ->required();
  bridge
      ->add_option("--allowed-origin", *allowedOrigins,
                   "Let the top frames of documents of this origin reach the bridge (repeatable): \"*\" for any, "
                   "or scheme://host[:port], where host may be *.NAME for the subdomains of NAME. Without it only "
                   "lines with no envelope pass; with it only envelopes from allowed origins, and lines with none "
                   "only under \"*\"")
      ->type_name("RULE")
      ->allow_extra_args(false);
  bridge->callback([stdio, allowedOrigins, &context] {
    ZavloOriginRules rules;
    if (!allowedOrigins->empty()) {
      std::string error;
      auto parsed = ZavloOriginRules::parse(*allowedOrigins, &error);
      if (!parsed) throw CLI::ValidationError("--allowed-origin", error);
      rules = std::move(*parsed);
    }
    zavloCliRequireOwnerSecret(context.options);  // a page may enrol and sign
    runBridge(context, rules);
  });  // holds the values CLI11 writes
}
