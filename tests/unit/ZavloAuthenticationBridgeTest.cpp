// The web bridge on the test platform: a recording web view stands in for the page, and
// every answer is read back from the script the bridge evaluated.
#include <gtest/gtest.h>

#include "Bridge/ZavloAuthenticationWrapper.hpp"
#include "Core/ZavloAuthResponseUtils.hpp"
#include "Testing/ZavloTestWebView.hpp"
#include "ZavloNativeGraph.hpp"

using nlohmann::json;
using Script = ZavloTestConnectionScript;

namespace {

constexpr const char* kHandler = "zavlo_authentication_bridge";

struct Answer {
  std::string callback;
  json result;
};

// Undoes the call text: NAME("ESCAPED") back to the name and the JSON value.
Answer decode(const std::string& script) {
  const auto open = script.find("(\"");
  EXPECT_NE(open, std::string::npos) << script;
  EXPECT_EQ(script.substr(script.size() - 2), "\")") << script;
  std::string text;
  for (std::size_t i = open + 2; i + 2 < script.size(); ++i) {
    char c = script[i];
    if (c == '\\') {
      c = script[++i];
      c = c == 'n' ? '\n' : c == 'r' ? '\r' : c == 't' ? '\t' : c;
    }
    text.push_back(c);
  }
  return {script.substr(0, open), json::parse(text)};
}

json failure(const std::string& code, const std::string& message) {
  return {{"status", "FAILURE"}, {"errorCode", code}, {"errorMessage", message}};
}

class ZavloAuthenticationBridgeTest : public ::testing::Test {
 protected:
  void SetUp() override { wrapper.setupWebView(page, graph.screen, ZavloAuthEnvironment::development); }

  /// Posts each body as the page would, runs everything, and returns the answers.
  std::vector<Answer> post(const std::vector<json>& bodies) {
    for (const auto& body : bodies) page->post(kHandler, body);
    graph.platform.runUntilIdle();
    std::vector<Answer> answers;
    for (const auto& script : page->takeEvaluatedScripts()) answers.push_back(decode(script));
    return answers;
  }
  /// The one answer to one message.
  json answer(const json& body) {
    auto answers = post({body});
    EXPECT_EQ(answers.size(), 1U) << body.dump();
    return answers.empty() ? json() : answers[0].result;
  }
  void cellularOperator(const std::string& token) {
    graph.setPath({{"wwan0", ZavloInterfaceType::cellular}});
    graph.platform.connections().script("op.test", 80,
                                        Script::answering("HTTP/1.1 200 OK\r\n\r\n{\"snaToken\":\"" + token + "\"}"));
  }

  ZavloNativeGraph graph;
  ZavloAuthenticationWrapper& wrapper = graph.graph.webWrapper;
  std::shared_ptr<ZavloTestWebView> page = std::make_shared<ZavloTestWebView>(graph.platform.mainQueue());
};

}  // namespace

TEST_F(ZavloAuthenticationBridgeTest, MessagesWithoutAMethodAndACallbackAreIgnored) {
  const std::vector<json> ignored = {"getCapabilities",
                                     42,
                                     json::array({"getCapabilities", "cb"}),
                                     nullptr,
                                     json::object(),
                                     json{{"method", "getCapabilities"}},
                                     json{{"callback", "cb"}},
                                     json{{"method", 1}, {"callback", "cb"}},
                                     json{{"method", "getCapabilities"}, {"callback", json::array()}}};
  EXPECT_TRUE(post(ignored).empty());
  EXPECT_TRUE(graph.events().empty());
}

TEST_F(ZavloAuthenticationBridgeTest, DispatchAnswersCapabilitiesAndRefusesUnknownMethodsByExactName) {
  const auto answers = post({{{"method", "getCapabilities"}, {"callback", "$cb_1"}},
                             {{"method", "InitAuth"}, {"callback", "onInit"}},
                             {{"method", "getCapabilities "}, {"callback", "x"}}});
  ASSERT_EQ(answers.size(), 3U);
  EXPECT_EQ(answers[0].callback, "$cb_1");
  EXPECT_EQ(answers[0].result, ZavloAuthResponseUtils::capabilitiesDictionary());
  EXPECT_EQ(answers[1].callback, "onInit");
  EXPECT_EQ(answers[1].result, failure("UNSUPPORTED_METHOD", "Unsupported method: InitAuth"));
  EXPECT_EQ(answers[2].result, failure("UNSUPPORTED_METHOD", "Unsupported method: getCapabilities "));
  EXPECT_TRUE(graph.events().empty()) << "capabilities do no other work";

  // A callback that is not a plain identifier hears nothing, whatever the method.
  for (const char* name : {"a.b", "f()", "1cb", "", "cb;alert(1)", "a b", "é"}) {
    EXPECT_TRUE(
        post({{{"method", "getCapabilities"}, {"callback", name}}, {{"method", "nope"}, {"callback", name}}}).empty())
        << name;
  }
}

TEST_F(ZavloAuthenticationBridgeTest, InitAuthReadsItsConfigurationTextAndStartsTheSession) {
  const auto invalid =
      failure("INVALID_JSON_CONFIGURATION", "Invalid JSON configuration for Zavlo Authentication SDK.");
  for (const json& config : {json(), json(7), json("{\"requestId\":"), json("[1]"), json("7"), json{{"requestId", "r"}},
                             json(std::string(300, '[') + std::string(300, ']'))}) {
    json body{{"method", "initAuth"}, {"callback", "cb"}};
    if (!config.is_null()) body["initConfig"] = config;
    EXPECT_EQ(answer(body), invalid) << config.dump();
  }
  EXPECT_FALSE(wrapper.bridge()->initConfig());

  graph.setPath({{"wwan0", ZavloInterfaceType::cellular}});
  for (const char* method : {"initAuth", "initSNA"}) {
    EXPECT_EQ(answer({{"method", method}, {"callback", "cb"}, {"initConfig", R"({"requestId":" r1 "})"}}),
              (json{{"status", "SUCCESS"}, {"statusCode", "200"}, {"mcc", ""}, {"mnc", ""}}));
    EXPECT_EQ(graph.requests->sessionSnapshot().storedRequestId, "r1");
  }
  EXPECT_EQ(graph.eventNames(),
            (std::vector<std::string>{"INIT_AUTH", "INIT_AUTH_RESPONSE", "INIT_AUTH", "INIT_AUTH_RESPONSE"}));

  // The configuration is kept even when the host's screen has gone and nothing starts.
  graph.screen.reset();
  EXPECT_EQ(answer({{"method", "initAuth"}, {"callback", "cb"}, {"initConfig", R"({"requestId":"r2"})"}}),
            failure("NO_VIEW_CONTROLLER", "ViewController is required but not provided"));
  ASSERT_TRUE(wrapper.bridge()->initConfig());
  EXPECT_EQ(wrapper.bridge()->initConfig()->requestId(), "r2");
  EXPECT_EQ(graph.events().size(), 4U);
}

TEST_F(ZavloAuthenticationBridgeTest, StartAuthTakesTheFirstUrlKeyHoldingAString) {
  EXPECT_EQ(answer({{"method", "startAuth"}, {"callback", "cb"}, {"snaUri", 5}, {"snaLink", json::array()}}),
            failure("INVALID_SNA_URI", "Invalid SNA URI provided"));
  EXPECT_EQ(answer({{"method", "startAuth"}, {"callback", "cb"}, {"snaUri", "http://op.test/"}}),
            failure("SESSION_NOT_INITIALIZED", "Session not initialized. Please call initAuth first."))
      << "no session yet";

  cellularOperator("tok-1");
  ASSERT_EQ(answer({{"method", "initAuth"}, {"callback", "cb"}, {"initConfig", "{}"}}).at("status"), "SUCCESS");
  std::vector<std::string> hops;
  graph.graph.operations->setHopObserver([&hops](const auto& hop) { hops.push_back(hop.url); });
  const auto answers = post({{{"method", "startSNA"},
                              {"callback", "first"},
                              {"snaUri", 1},
                              {"snaURL", "http://op.test/a"},
                              {"snaLink", "http://elsewhere.test/"}},
                             {{"method", "getCapabilities"}, {"callback", "second"}}});
  ASSERT_EQ(answers.size(), 2U);
  EXPECT_EQ(answers[0].callback, "second") << "the chain answers after the immediate reply";
  EXPECT_EQ(answers[1].callback, "first");
  EXPECT_EQ(answers[1].result, (json{{"status", "SUCCESS"}, {"httpStatusCode", 200}, {"snaToken", "tok-1"}}));
  ASSERT_EQ(graph.platform.connections().all().size(), 1U);
  EXPECT_EQ(hops, std::vector<std::string>{"http://op.test/a"}) << "the host's diagnostics see the page's chain";

  wrapper.cleanupAll();
  wrapper.setupWebView(page, graph.screen, ZavloAuthEnvironment::development);
  EXPECT_EQ(answer({{"method", "startAuth"}, {"callback", "cb"}, {"snaUri", "http://op.test/a"}}).at("errorCode"),
            "SESSION_NOT_INITIALIZED");
}

TEST_F(ZavloAuthenticationBridgeTest, DeviceBindingReadsItsConfigurationAsAnObjectOrAsText) {
  const auto invalid =
      failure("INVALID_JSON_CONFIGURATION", "Invalid JSON configuration for Zavlo Authentication SDK.");
  for (const char* method : {"getDeviceBindingState", "enrollDeviceBinding", "signDeviceBindingChallenge"}) {
    for (const json& config : {json(), json(3), json::array({1}), json("[]"), json("{bad"), json(nullptr)}) {
      json body{{"method", method}, {"callback", "cb"}};
      if (!config.is_null()) body["config"] = config;
      EXPECT_EQ(answer(body), invalid) << method << " " << config.dump();
    }
  }

  const auto enrolled = answer({{"method", "enrollDeviceBinding"},
                                {"callback", "cb"},
                                {"config", R"({"promptSubtitle":"  Bind this phone ","requestId":"  "})"}});
  ASSERT_EQ(enrolled.at("status"), "SUCCESS") << enrolled.dump();
  const auto keyId = enrolled.at("keyId").get<std::string>();
  EXPECT_EQ(graph.platform.ownerAuthentication().prompts().at(0).localizedReason, "Bind this phone");
  for (const auto& event : graph.events()) EXPECT_FALSE(event.contains("requestId")) << "a blank id is absent";

  const auto signature =
      answer({{"method", "signDeviceBindingChallenge"},
              {"callback", "cb"},
              {"config", {{"allowedKeyIds", " " + keyId + " "}, {"challenge", "nonce"}, {"promptSubtitle", "   "}}}});
  EXPECT_EQ(signature.at("status"), "SUCCESS") << signature.dump();
  EXPECT_EQ(signature.at("keyId"), keyId);
  EXPECT_EQ(graph.platform.ownerAuthentication().prompts().at(1).localizedReason, "Confirm your identity to continue");
  EXPECT_EQ(answer({{"method", "getDeviceBindingState"}, {"callback", "cb"}, {"config", json{{"keyId", keyId}}.dump()}})
                .at("state"),
            "ENROLLED");

  EXPECT_EQ(ZavloAuthenticationBridge::stringListValue({{"k", {" a", "", " ", 7, "b "}}}, "k"),
            (std::vector<std::string>{"a", "7", "b"}));
  EXPECT_TRUE(ZavloAuthenticationBridge::stringListValue({{"k", "  "}}, "k").empty());
  EXPECT_TRUE(ZavloAuthenticationBridge::stringListValue({{"k", {{"a", 1}}}}, "k").empty());
}

TEST_F(ZavloAuthenticationBridgeTest, OneBridgeAtATimeAndNothingReachesAPageThatIsGone) {
  auto other = std::make_shared<ZavloTestWebView>(graph.platform.mainQueue());
  wrapper.setupWebView(other, graph.screen, ZavloAuthEnvironment::development);
  EXPECT_FALSE(page->hasHandler(kHandler));
  EXPECT_TRUE(other->hasHandler(kHandler));
  EXPECT_TRUE(post({{{"method", "getCapabilities"}, {"callback", "cb"}}}).empty());

  // An answer already on its way is dropped when the bridge goes before it is evaluated.
  other->post(kHandler, {{"method", "getCapabilities"}, {"callback", "cb"}});
  graph.platform.runUntilIdle();
  EXPECT_EQ(other->takeEvaluatedScripts().size(), 1U);
  wrapper.bridge()->invokeJsonStringCallback("cb", {{"late", true}});
  wrapper.cleanup();
  graph.platform.runUntilIdle();
  EXPECT_FALSE(other->hasHandler(kHandler));
  EXPECT_TRUE(other->evaluatedScripts().empty());

  // A web view destroyed under its bridge: the page hears nothing and nothing breaks.
  wrapper.setupWebView(other, graph.screen, ZavloAuthEnvironment::development);
  const auto bridge = wrapper.bridge();
  bridge->invokeJsonStringCallback("cb", {{"status", "SUCCESS"}});
  other.reset();
  graph.platform.runUntilIdle();
  wrapper.cleanupAll();
  EXPECT_TRUE(bridge->webView().expired());
}

namespace {

// What a web view that tells documents apart records of the answers it was given.
struct RecordingReply final : ZavloScriptMessageReply {
  bool answer(const std::string& callbackScript, const json& result) override {
    answers.push_back({callbackScript, result});
    return true;
  }
  std::vector<std::pair<std::string, json>> answers;
};

}  // namespace

TEST_F(ZavloAuthenticationBridgeTest, AMessageWithAReplyIsAnsweredThroughItAndTheRulesReachTheView) {
  const auto capabilities = ZavloAuthResponseUtils::capabilitiesDictionary();
  struct Case {
    json body;
    std::size_t answers;
    std::string scriptStart;  // of the callback's call; empty: none is evaluated
    json result;
  };
  const std::vector<Case> cases{
      {{{"method", "getCapabilities"}, {"callback", "cb"}}, 1, "cb(\"", capabilities},
      // The promise still settles when the callback's name may not be called.
      {{{"method", "getCapabilities"}, {"callback", "a.b"}}, 1, "", capabilities},
      {{{"method", "nope"}, {"callback", "cb"}}, 1, "cb(\"", failure("UNSUPPORTED_METHOD", "Unsupported method: nope")},
      {{{"method", "getCapabilities"}}, 0, "", nullptr},
  };
  for (const auto& [body, count, scriptStart, result] : cases) {
    auto reply = std::make_shared<RecordingReply>();
    page->postMessage(kHandler, ZavloScriptMessage{body, {"https://a.example", true}, reply});
    graph.platform.runUntilIdle();
    EXPECT_TRUE(page->takeEvaluatedScripts().empty()) << "answers go through the reply only: " << body;
    ASSERT_EQ(reply->answers.size(), count) << body;
    if (count == 0) continue;
    EXPECT_EQ(reply->answers[0].first.substr(0, scriptStart.size()), scriptStart) << body;
    if (scriptStart.empty()) {
      EXPECT_EQ(reply->answers[0].first, "") << body;
    }
    EXPECT_EQ(reply->answers[0].second, result) << body;
  }

  // The owner's prompt names the page that asked.
  auto reply = std::make_shared<RecordingReply>();
  page->postMessage(
      kHandler, ZavloScriptMessage{{{"method", "enrollDeviceBinding"}, {"callback", "cb"}, {"config", json::object()}},
                                   {"https://a.example", true},
                                   reply});
  graph.platform.runUntilIdle();
  ASSERT_EQ(reply->answers.size(), 1U);
  EXPECT_EQ(reply->answers[0].second.value("status", ""), "SUCCESS") << reply->answers[0].second;
  EXPECT_EQ(graph.platform.ownerAuthentication().prompts().back().requestingOrigin, "https://a.example");

  EXPECT_TRUE(page->allowedOrigins(kHandler)->ownPageOnly()) << "no rules given: the host's own page";
  const auto rules = ZavloOriginRules::parse({"https://a.example", "https://*.b.example:8443"});
  wrapper.setupWebView(page, graph.screen, ZavloAuthEnvironment::development, *rules);
  EXPECT_EQ(page->allowedOrigins(kHandler)->texts(), rules->texts());
}
