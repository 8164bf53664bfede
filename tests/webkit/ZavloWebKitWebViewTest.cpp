// The WebKitGTK web view with real pages on a virtual display: what the page posts
// arrives as the JSON value it posted, scripts run in the page, removed handlers hear
// nothing, and a destroyed widget is harmless. GTK runs on the test's thread.
#include <gtest/gtest.h>
#include <webkit2/webkit2.h>

#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Platform/Linux/Web/WebKitGtk/ZavloWebKitWebView.hpp"
#include "ZavloGLibIteration.hpp"
#include "ZavloGtkDisplay.hpp"
#include "ZavloWebKitTestWindow.hpp"

using nlohmann::json;
using namespace std::chrono_literals;

namespace {

// A safety net only: each wait ends as soon as the message it waits for arrives.
constexpr auto kPageBound = 60s;

using Recorder = ZavloRecordingHandler;

// A page whose script posts "ready" to the control handler once it has run.
std::string page(const std::string& script) {
  return "<!DOCTYPE html><html><head><title>Zavlo</title></head><body><script>\n"
         "const post = (name, value) => window.webkit.messageHandlers[name].postMessage(value);\n" +
         script + "\npost('control', 'ready');\n</script></body></html>";
}

class ZavloWebKitWebViewTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ZAVLO_REQUIRE_GTK();
    window_ = std::make_unique<ZavloWebKitTestWindow>();
    webView_ = std::make_shared<ZavloWebKitWebView>(window_->view());
    webView_->addScriptMessageHandler(control_, "control");
  }

  void TearDown() override {
    webView_.reset();
    window_.reset();
  }

  // Loads the page (no network: everything is in the text) and waits for its "ready".
  bool load(const std::string& script) {
    window_->load(page(script));
    return waitForControl("ready");
  }

  bool waitForControl(const json& body) {
    return zavloIterateUntil(
        nullptr, [&] { return !control_->bodies.empty() && control_->bodies.back() == body; }, kPageBound);
  }

  std::unique_ptr<ZavloWebKitTestWindow> window_;
  std::shared_ptr<Recorder> control_ = std::make_shared<Recorder>();
  std::shared_ptr<ZavloWebKitWebView> webView_;
};

TEST_F(ZavloWebKitWebViewTest, PostedValuesArriveAsTheirJsonValuesAndOthersAreDropped) {
  auto probe = std::make_shared<Recorder>();
  webView_->addScriptMessageHandler(probe, "probe");
  ASSERT_TRUE(load(R"(
    post('probe', {method: 'getCapabilities', params: {n: 1, list: [true, null]}});
    post('probe', 'text');
    post('probe', 42);
    post('probe', -0.5);
    post('probe', [1, 'two', {three: [3]}]);
    post('probe', undefined);     // no JSON form
    post('probe', 10n);           // JSON has no BigInt: the conversion throws
    post('probe', '\uD800 lone'); // a lone surrogate reads as U+FFFD
    let deep = [];
    for (let i = 0; i < 300; ++i) deep = [deep];
    post('probe', deep);          // deeper than the bridge walks
    post('probe', 'end');
  )"));
  EXPECT_EQ(probe->bodies,
            (std::vector<json>{
                {{"method", "getCapabilities"}, {"params", {{"n", 1}, {"list", json::array({true, nullptr})}}}},
                "text",
                42,
                -0.5,
                json::array({1, "two", {{"three", json::array({3})}}}),
                "\xEF\xBF\xBD lone",
                "end",
            }));
}

TEST_F(ZavloWebKitWebViewTest, EvaluatedScriptsRunInThePageAndTheirErrorsAreIgnored) {
  ASSERT_TRUE(load("window.answer = 41;"));
  webView_->evaluateJavaScript("throw new Error('ignored');");
  webView_->evaluateJavaScript("(((");
  webView_->evaluateJavaScript("post('control', {evaluated: window.answer + 1, title: document.title});");
  EXPECT_TRUE(waitForControl({{"evaluated", 42}, {"title", "Zavlo"}}));
  EXPECT_EQ(control_->bodies.size(), 2U) << "ready, then the evaluated script's post";
}

// Messages to one page arrive in the order posted, so once the control message that
// follows a post has arrived, the post itself would have too.
TEST_F(ZavloWebKitWebViewTest, ReplacedAndRemovedHandlersHearNothingAndAreReleased) {
  auto first = std::make_shared<Recorder>();
  auto second = std::make_shared<Recorder>();
  std::weak_ptr<Recorder> firstWatch = first;
  std::weak_ptr<Recorder> secondWatch = second;
  webView_->addScriptMessageHandler(std::move(first), "probe");
  ASSERT_TRUE(load("post('probe', 'to the first');"));
  ASSERT_EQ(firstWatch.lock()->bodies, std::vector<json>{"to the first"});

  webView_->addScriptMessageHandler(second, "probe");
  EXPECT_TRUE(firstWatch.expired()) << "the replaced handler is released";
  webView_->evaluateJavaScript("post('probe', 'to the second'); post('control', 'replaced');");
  ASSERT_TRUE(waitForControl("replaced"));
  EXPECT_EQ(second->bodies, std::vector<json>{"to the second"});

  webView_->removeScriptMessageHandler("probe");
  webView_->evaluateJavaScript(
      "try { post('probe', 'lost'); } catch (error) {}"
      "post('control', 'removed');");
  ASSERT_TRUE(waitForControl("removed"));
  EXPECT_EQ(second->bodies, std::vector<json>{"to the second"});

  // The name was given back to WebKit: it can be registered again.
  webView_->addScriptMessageHandler(second, "probe");
  webView_->evaluateJavaScript("post('probe', 'again'); post('control', 'again');");
  ASSERT_TRUE(waitForControl("again"));
  EXPECT_EQ(second->bodies, (std::vector<json>{"to the second", "again"}));
  second.reset();
  webView_->removeScriptMessageHandler("probe");
  EXPECT_TRUE(secondWatch.expired());
}

TEST_F(ZavloWebKitWebViewTest, ADestroyedWidgetIsHarmlessAndTheServiceMayGoFirst) {
  auto probe = std::make_shared<Recorder>();
  std::weak_ptr<Recorder> probeWatch = probe;
  webView_->addScriptMessageHandler(std::move(probe), "probe");
  ASSERT_TRUE(load(""));

  // The service goes while the page lives: its handlers are unregistered and released,
  // and a new service on the same widget may take the names again.
  webView_.reset();
  EXPECT_TRUE(probeWatch.expired());
  auto control = std::make_shared<Recorder>();
  webView_ = std::make_shared<ZavloWebKitWebView>(window_->view());
  webView_->addScriptMessageHandler(control, "control");
  webView_->evaluateJavaScript("post('control', 'new service');");
  ASSERT_TRUE(zavloIterateUntil(
      nullptr, [&] { return !control->bodies.empty(); }, kPageBound));
  EXPECT_EQ(control->bodies, std::vector<json>{"new service"});

  // The widget goes first: every operation is then a no-op, and destruction still
  // releases the handlers.
  window_->destroy();
  EXPECT_EQ(webView_->webView(), nullptr);
  std::weak_ptr<Recorder> controlWatch = control;
  control.reset();
  webView_->evaluateJavaScript("post('control', 'nobody');");
  webView_->addScriptMessageHandler(std::make_shared<Recorder>(), "late");
  webView_->removeScriptMessageHandler("control");
  EXPECT_TRUE(controlWatch.expired());
  webView_.reset();
}

}  // namespace
