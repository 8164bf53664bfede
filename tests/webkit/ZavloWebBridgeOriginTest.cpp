// Who reaches the web bridge in a real WebKit view: real pages served on two loopback
// ports (two origins), the bridge set up with rules for one of them, a key file and a
// telemetry collector of the test's own. Pages report what they saw by posting to their
// own server, never through the bridge.
#include <gtest/gtest.h>
#include <webkit2/webkit2.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Bridge/ZavloAuthenticationWrapper.hpp"
#include "Core/ZavloAuthResponseUtils.hpp"
#include "Graph/ZavloAuthenticationGraph.hpp"
#include "Platform/Linux/Loop/ZavloGLibMainQueue.hpp"
#include "Platform/Linux/Web/WebKitGtk/ZavloWebKitWebView.hpp"
#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "Telemetry/ZavloAuthLogManager.hpp"
#include "ZavloGLibIteration.hpp"
#include "ZavloGtkDisplay.hpp"
#include "ZavloWebKitTestWindow.hpp"
#include "tools/peers/ZavloHttpTestServer.hpp"
#include "tools/peers/ZavloTemporaryDirectory.hpp"

using nlohmann::json;
using namespace std::chrono_literals;

namespace {

constexpr auto kPageBound = 60s;  // a safety net: each wait ends when what it waits for arrives

// Shared by every page: the bridge as the page sees it, and reports to the page's own server.
constexpr const char* kPrelude = R"(
const bridge = () => window.webkit.messageHandlers.zavlo_authentication_bridge;
const report = (name, value) => fetch('/report/' + name, {method: 'POST', body: JSON.stringify(value)});
const enrol = {method: 'enrollDeviceBinding', callback: 'onAnswer', config: {}};
const sign = {method: 'signDeviceBindingChallenge', callback: 'onAnswer', config: {challenge: 'c', allowedKeyIds: ['k']}};
const start = {method: 'startAuth', callback: 'onAnswer', snaUri: 'http://127.0.0.1:9/'};
function onAnswer(text) { report('callback', text); }
function ignore() {}
// Every way a page or frame could try to reach the bridge, each with what it gave or threw.
function tryEverything() {
  const tries = {};
  const attempt = (name, f) => {
    try { const r = f(); tries[name] = r === undefined ? 'undefined' : typeof r; } catch (e) { tries[name] = e.name; }
  };
  const post = (body) => new CustomEvent('zavlo-bridge-post:zavlo_authentication_bridge',
                                         {detail: JSON.stringify({id: 1, document: 'x', body: JSON.stringify(body)})});
  for (const [name, body] of Object.entries({enrol, sign, start})) {
    attempt(name + ' here', () => bridge().postMessage(body));
    attempt(name + ' parent', () => parent.webkit.messageHandlers.zavlo_authentication_bridge.postMessage(body));
    attempt(name + ' parent event', () => parent.document.dispatchEvent(post(body)));
    attempt(name + ' own event', () => document.dispatchEvent(post(body)));
    attempt(name + ' window message', () => parent.postMessage(body, '*'));
  }
  return tries;
}
)";

std::string html(const std::string& body, const std::string& script) {
  return "<!DOCTYPE html><html><body>" + body + "<script>" + kPrelude + script + "</script></body></html>";
}

// One loopback origin serving pages by path and recording the reports they post.
class Site {
 public:
  explicit Site(std::map<std::string, std::string> pages)
      : pages_(std::make_shared<std::map<std::string, std::string>>(std::move(pages))),
        server_([pages = pages_](const ZavloHttpTestRequest& request) -> std::optional<ZavloHttpTestReply> {
          ZavloHttpTestReply reply;
          const auto found = pages->find(request.target);
          if (found != pages->end()) {
            reply.headers = {{"Content-Type", "text/html"}};
            reply.body = found->second;
          } else if (request.target.rfind("/report/", 0) != 0) {
            reply = ZavloHttpTestReply::text(404, "no such page", "Not Found");
          }
          return reply;
        }) {}

  [[nodiscard]] std::string origin() const { return server_.url(""); }
  [[nodiscard]] std::string url(const std::string& path) const { return server_.url(path); }
  /// The body of the first report of that name, once it arrived.
  [[nodiscard]] std::optional<json> report(const std::string& name) const {
    for (const auto& request : server_.requests()) {
      if (request.target == "/report/" + name) return json::parse(request.body, nullptr, false);
    }
    return std::nullopt;
  }

 private:
  std::shared_ptr<std::map<std::string, std::string>> pages_;
  ZavloHttpTestServer server_;
};

class ZavloWebBridgeOrigin : public ::testing::Test {
 protected:
  void SetUp() override {
    ZAVLO_REQUIRE_GTK();
    ZavloLinuxPlatform::Options options;
    options.mainQueue = std::make_shared<ZavloGLibMainQueue>();
    options.cellularInterfaces = {"lo"};
    options.keyFilePath = (folder_.path() / "keys.db").string();
    options.sealingCost = {10, 8, 1};
    options.ownerAuthentication.mode = ZavloLinuxOwnerAuthentication::Mode::allow;
    std::ofstream(folder_.path() / "secret") << "owner secret";
    options.ownerAuthentication.secretFile = (folder_.path() / "secret").string();
    platform_ = std::make_unique<ZavloLinuxPlatform>(std::move(options));
    graph_ = std::make_unique<ZavloAuthenticationGraph>(*platform_);
    window_ = std::make_unique<ZavloWebKitTestWindow>();
    ZavloWebKitWebView::Observer observer;
    observer.refused = [this](const std::string& origin, bool mainFrame, const std::string& why) {
      refused_.push_back({{"origin", origin}, {"mainFrame", mainFrame}, {"why", why}});
    };
    observer.answered = [this](const std::string& origin, bool, const json&) { answered_.push_back(origin); };
    observer.dropped = [this](const std::string& origin) { dropped_.push_back(origin); };
    webView_ = std::make_shared<ZavloWebKitWebView>(window_->view(), observer);
  }

  void TearDown() override {
    if (graph_) graph_->webWrapper.cleanupAll();
    webView_.reset();
    window_.reset();
  }

  void setup(const ZavloOriginRules& rules) {
    graph_->webWrapper.setupWebView(webView_, screen_, ZavloAuthEnvironment::development, rules);
    graph_->logManager->configure(ZavloAuthEnvironment::development, collector_.url("/events"));
  }
  static ZavloOriginRules rules(const std::vector<std::string>& texts) { return *ZavloOriginRules::parse(texts); }
  void open(const std::string& url) const { webkit_web_view_load_uri(window_->view(), url.c_str()); }
  static bool waitFor(const std::function<bool()>& done) { return zavloIterateUntil(nullptr, done, kPageBound); }
  [[nodiscard]] bool keyFileExists() const { return std::filesystem::exists(folder_.path() / "keys.db"); }

  ZavloTemporaryDirectory folder_;
  ZavloHttpTestServer collector_;
  std::unique_ptr<ZavloLinuxPlatform> platform_;
  std::unique_ptr<ZavloAuthenticationGraph> graph_;
  std::unique_ptr<ZavloWebKitTestWindow> window_;
  std::shared_ptr<ZavloWebKitWebView> webView_;
  std::shared_ptr<int> screen_ = std::make_shared<int>(0);
  std::vector<json> refused_;
  std::vector<std::string> answered_;
  std::vector<std::string> dropped_;
};

TEST_F(ZavloWebBridgeOrigin, AnAllowedTopPageGetsEachAnswerThroughItsCallbackAndItsPromise) {
  Site site({{"/", html("", R"(
    const got = {};
    window.onCapabilities = (text) => { got.callback = JSON.parse(text); };
    bridge().postMessage({method: 'getCapabilities', callback: 'onCapabilities'}).then((value) => {
      got.promise = value;
      window.onEnrolled = (text) => { got.enrolCallback = JSON.parse(text); };
      return bridge().postMessage({method: 'enrollDeviceBinding', callback: 'onEnrolled', config: {}});
    }).then((value) => { got.enrolPromise = value; setTimeout(() => report('answers', got), 0); });
  )")}});
  setup(rules({site.origin()}));
  open(site.url("/"));
  ASSERT_TRUE(waitFor([&] { return site.report("answers").has_value(); })) << "the page never got its answers";
  const auto got = *site.report("answers");
  const auto capabilities = ZavloAuthResponseUtils::capabilitiesDictionary();
  EXPECT_EQ(got["callback"], capabilities) << got;
  EXPECT_EQ(got["promise"], capabilities) << got;
  EXPECT_EQ(got["enrolPromise"].value("status", ""), "SUCCESS") << got;
  EXPECT_EQ(got["enrolCallback"], got["enrolPromise"]) << got;
  EXPECT_TRUE(keyFileExists());
  EXPECT_EQ(answered_, (std::vector<std::string>{site.origin(), site.origin()}));
  EXPECT_TRUE(refused_.empty()) << json(refused_);
}

// The frame of the other origin tries every door; the top page then enrols itself, so
// that the one key and the events that exist afterwards are the top page's.
TEST_F(ZavloWebBridgeOrigin, AFrameOfAnotherOriginReachesNothing) {
  Site other({{"/frame", html("", "report('frame', tryEverything());")}});
  Site site({{"/", html("<iframe src='" + other.url("/frame") + "'></iframe>", R"(
    document.querySelector('iframe').onload = () => bridge().postMessage(enrol).then((value) => report('done', value));
  )")}});
  setup(rules({site.origin()}));
  open(site.url("/"));
  ASSERT_TRUE(waitFor([&] { return other.report("frame") && site.report("done"); }));
  const auto tries = *other.report("frame");
  for (const char* method : {"enrol", "sign", "start"}) {
    const std::string name = method;
    EXPECT_EQ(tries[name + " here"], "TypeError") << "no postMessage in the frame: " << tries;
    EXPECT_EQ(tries[name + " parent"], "SecurityError") << tries;
    EXPECT_EQ(tries[name + " parent event"], "SecurityError") << tries;
  }
  EXPECT_FALSE(other.report("callback").has_value());
  EXPECT_TRUE(refused_.empty()) << "nothing of the frame even reached the view: " << json(refused_);
  EXPECT_EQ(answered_, std::vector<std::string>{site.origin()});
  // The top page's one enrolment made the key file; the frame's would have made more events.
  const auto events = collector_.requests();
  for (const auto& event : events) EXPECT_EQ(event.body.find("sign"), std::string::npos) << event.body;
}

// Without rules the page shown at setup is the host's own; another origin shown later
// (another port of the same host here) reaches nothing, whatever it or a stray envelope
// claims.
TEST_F(ZavloWebBridgeOrigin, ATopPageOutsideTheRulesReachesNothing) {
  Site own({{"/", html("", "report('shown', true);")}});
  Site other({{"/", html("", "report('tries', tryEverything());")}});
  open(own.url("/"));
  ASSERT_TRUE(waitFor([&] { return own.report("shown").has_value(); }));
  setup(ZavloOriginRules());
  open(other.url("/"));
  // Each method four ways reaches the view (its own postMessage, parent's, which is its own,
  // and events on its document), and each is refused.
  ASSERT_TRUE(waitFor([&] { return other.report("tries") && refused_.size() >= 12; })) << json(refused_);
  const auto tries = *other.report("tries");
  EXPECT_FALSE(other.report("callback").has_value());
  EXPECT_FALSE(keyFileExists()) << "no key was made";
  EXPECT_EQ(collector_.requestCount(), 0U) << "no event was sent";
  for (const auto& refusal : refused_) {
    EXPECT_EQ(refusal["origin"], other.origin()) << refusal;
    EXPECT_EQ(refusal["why"], "an origin the rules do not allow") << refusal;
  }

  // What only the library's own world could post is checked here all the same.
  struct Forged {
    json envelope;
    const char* why;
  };
  const std::vector<Forged> forged{
      {{{"origin", own.origin()}, {"mainFrame", true}}, "not the origin of the page shown"},
      {{{"origin", other.origin()}, {"mainFrame", false}}, "not the top frame"},
      {{{"origin", other.origin()}}, "not the top frame"},
  };
  for (const auto& [envelope, why] : forged) {
    refused_.clear();
    auto message = envelope;
    message["document"] = "x";
    message["body"] =
        json({{"method", "enrollDeviceBinding"}, {"callback", "onAnswer"}, {"config", json::object()}}).dump();
    const auto script = "window.webkit.messageHandlers.zavlo_authentication_bridge.postMessage(" + message.dump() + ")";
    webkit_web_view_evaluate_javascript(window_->view(), script.c_str(), -1, ZavloWebKitWebView::kScriptWorld, nullptr,
                                        nullptr, nullptr, nullptr);
    // Found by what only this envelope claims, whatever else is still on its way.
    const auto mine = [&, &envelope = envelope] {
      return std::find_if(refused_.begin(), refused_.end(), [&](const json& refusal) {
        return refusal["origin"] == envelope["origin"] && refusal["mainFrame"] == envelope.value("mainFrame", false);
      });
    };
    ASSERT_TRUE(waitFor([&] { return mine() != refused_.end(); })) << envelope;
    EXPECT_EQ((*mine())["why"], why) << envelope;
  }
  EXPECT_FALSE(keyFileExists());
  EXPECT_TRUE(answered_.empty());
}

// The answer is held at the operator until the page has gone; the next page of the same
// origin defines the same callback and would report it.
TEST_F(ZavloWebBridgeOrigin, AnAnswerOwedToAPageThatHasGoneIsNotDeliveredIntoTheNextOne) {
  ZavloHttpTestServer operatorServer(ZavloHttpTestServer::neverAnswer());
  Site site({{"/first", html("", R"(
    bridge().postMessage({method: 'initAuth', callback: 'ignore', initConfig: JSON.stringify({requestId: 'r'})})
      .then(() => bridge().postMessage({method: 'startAuth', callback: 'onAnswer', snaUri: ')" +
                                     operatorServer.url("/start") + R"('}))
      .then((value) => report('promise', value));
  )")},
             {"/next", html("", "report('next', true);")}});
  setup(rules({site.origin()}));
  open(site.url("/first"));
  ASSERT_TRUE(waitFor([&] { return operatorServer.requestCount() == 1; })) << "the chain never started";
  open(site.url("/next"));
  ASSERT_TRUE(waitFor([&] { return site.report("next").has_value(); }));
  const auto answeredBefore = answered_.size();
  ZavloHttpTestReply reply = ZavloHttpTestReply::text(200, "{}");
  ASSERT_TRUE(operatorServer.answer(0, reply));
  ASSERT_TRUE(waitFor([&] { return !dropped_.empty(); })) << "the answer was never dropped";
  EXPECT_EQ(dropped_, std::vector<std::string>{site.origin()});
  EXPECT_EQ(answered_.size(), answeredBefore);
  // Scripts run in order: once this one has reported, a callback evaluated before it would have too.
  webView_->evaluateJavaScript("report('flushed', true);");
  ASSERT_TRUE(waitFor([&] { return site.report("flushed").has_value(); }));
  EXPECT_FALSE(site.report("callback").has_value()) << "the callback ran in the next page";
  EXPECT_FALSE(site.report("promise").has_value());
}

}  // namespace
