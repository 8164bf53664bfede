// The web bridge end to end: a real page in WebKit talks to the web entry class of a graph
// on the Linux platform, whose main queue is the GTK thread's GLib context, and a silent
// authentication runs against a local operator over loopback declared cellular. The page
// itself judges the answers it got and posts its verdict to a handler of the test's.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "Bridge/ZavloAuthenticationWrapper.hpp"
#include "Telemetry/ZavloAuthLogManager.hpp"
#include "Core/ZavloAuthResponseUtils.hpp"
#include "Graph/ZavloAuthenticationGraph.hpp"
#include "Platform/Linux/Web/WebKitGtk/ZavloWebKitWebView.hpp"
#include "Platform/Linux/Loop/ZavloGLibMainQueue.hpp"
#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "tools/peers/ZavloChainServer.hpp"
#include "ZavloGLibIteration.hpp"
#include "ZavloGtkDisplay.hpp"
#include "ZavloWebKitTestWindow.hpp"

using nlohmann::json;
using namespace std::chrono_literals;

namespace {

// The page's script. It posts what a careless page might, and records every callback the
// bridge calls, including one under the invalid name "a.b", which must never be called.
// The last message is answered after everything before it, so its answer ends the run.
constexpr const char* kPageScript = R"(
const bridge = window.webkit.messageHandlers.zavlo_authentication_bridge;
const calls = [];
const problems = [];

function equal(a, b) {
  if (a === b) return true;
  if (typeof a !== 'object' || typeof b !== 'object' || a === null || b === null) return false;
  if (Array.isArray(a) !== Array.isArray(b)) return false;
  const keys = Object.keys(a);
  if (keys.length !== Object.keys(b).length) return false;
  return keys.every((key) => Object.prototype.hasOwnProperty.call(b, key) && equal(a[key], b[key]));
}
function expect(what, actual, expected) {
  if (!equal(actual, expected)) problems.push(what + ': ' + JSON.stringify(actual) + ' instead of ' + JSON.stringify(expected));
}
function record(name, text) {
  let value = null;
  if (typeof text !== 'string') problems.push(name + ': the argument is not a string');
  else try { value = JSON.parse(text); } catch (error) { problems.push(name + ': not JSON: ' + text); }
  calls.push({name, value});
}

window.a = {b: (text) => record('a.b', text)};
function onCapabilities(text) { record('capabilities', text); }
function onUnsupported(text) { record('unsupported', text); }
function onInit(text) {
  record('initAuth', text);
  bridge.postMessage({method: 'startAuth', callback: 'onStart', snaUri: settings.snaUri});
}
function onStart(text) {
  record('startAuth', text);
  bridge.postMessage({method: 'getCapabilities', callback: 'onLast'});
}
function onLast(text) {
  record('last', text);
  expect('callbacks', calls.map((call) => call.name), ['capabilities', 'unsupported', 'initAuth', 'startAuth', 'last']);
  const answer = (name) => (calls.find((call) => call.name === name) || {}).value;
  expect('capabilities', answer('capabilities'), settings.capabilities);
  expect('unsupported method', answer('unsupported'),
         {status: 'FAILURE', errorCode: 'UNSUPPORTED_METHOD', errorMessage: 'Unsupported method: InitAuth'});
  expect('initAuth status', (answer('initAuth') || {}).status, 'SUCCESS');
  expect('startAuth', answer('startAuth'), {status: 'SUCCESS', httpStatusCode: 200, snaToken: settings.token});
  window.webkit.messageHandlers.verdict.postMessage({passed: problems.length === 0, problems, calls});
}

bridge.postMessage({method: 'getCapabilities', callback: 'onCapabilities'});
bridge.postMessage({method: 'InitAuth', callback: 'onUnsupported'});
bridge.postMessage({method: 'getCapabilities', callback: 'a.b'});
bridge.postMessage({method: 'initAuth', callback: 'onInit', initConfig: JSON.stringify({requestId: 'webkit-e2e'})});
)";

std::string page(const json& settings) {
  auto text = settings.dump();
  // Inside a script element "</" would end it.
  for (auto at = text.find("</"); at != std::string::npos; at = text.find("</", at)) text.replace(at, 2, "<\\/");
  return std::string("<!DOCTYPE html><html><body><script>\nconst settings = ") + text + ";\n" + kPageScript +
         "</script></body></html>";
}

}  // namespace

TEST(ZavloWebBridgeEndToEnd, ThePageHearsExactlyTheAnswersItShould) {
  ZAVLO_REQUIRE_GTK();
  ZavloChainServerOptions serverOptions;
  serverOptions.token = "webkit-token";
  ZavloChainServer chain(serverOptions);

  ZavloLinuxPlatform::Options options;
  options.cellularInterfaces = {"lo"};
  options.mainQueue = std::make_shared<ZavloGLibMainQueue>();  // GTK's context
  ZavloLinuxPlatform platform(std::move(options));
  ZavloAuthenticationGraph graph(platform);

  ZavloWebKitTestWindow window;
  auto webView = std::make_shared<ZavloWebKitWebView>(window.view());
  auto verdict = std::make_shared<ZavloRecordingHandler>();
  webView->addScriptMessageHandler(verdict, "verdict");
  const auto screen = std::make_shared<int>(0);
  graph.webWrapper.setupWebView(webView, screen, ZavloAuthEnvironment::development);
  graph.logManager->cleanup();  // no telemetry leaves the machine

  window.load(page({{"snaUri", chain.chainUrl(3)},
                    {"token", "webkit-token"},
                    {"capabilities", ZavloAuthResponseUtils::capabilitiesDictionary()}}));
  ASSERT_TRUE(zavloIterateUntil(
      nullptr, [&] { return !verdict->bodies.empty(); }, 60s))
      << "the page never reached its verdict";
  const auto& result = verdict->bodies.front();
  EXPECT_EQ(result.value("passed", false), true) << result.dump(2);
  EXPECT_EQ(verdict->bodies.size(), 1U);

  graph.webWrapper.cleanupAll();
}
