// zavlo-auth demo: the whole product on one machine. A local operator and a local
// telemetry collector run inside the process, loopback stands in for the cellular
// interface, and every operation runs twice: through the native interface, then through
// the web bridge as a page posts its messages.
#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <variant>
#include <vector>

#include "Bridge/ZavloAuthenticationWrapper.hpp"
#include "Core/ZavloAuthEnvironment.hpp"
#include "Core/ZavloBase64.hpp"
#include "Graph/ZavloAuthenticationGraph.hpp"
#include "Native/ZavloAuthenticationNativeWrapper.hpp"
#include "Platform/Linux/Web/ZavloLinuxStreamWebView.hpp"
#include "Telemetry/ZavloAuthLogManager.hpp"
#include "ZavloCli.hpp"
#include "ZavloDemoReport.hpp"
#include "tools/peers/ZavloChainServer.hpp"
#include "tools/peers/ZavloHttpTestServer.hpp"
#include "tools/peers/ZavloTemporaryDirectory.hpp"

using namespace std::chrono_literals;

namespace {

// Every step of the demo runs on loopback and ends in milliseconds; these only bound a
// fault, so that the demo never hangs.
constexpr auto kStepLimit = 20s;
constexpr unsigned kChainHops = 4;  // three redirects, then the token
// What the demo's owner types; the demo says so in its report.
constexpr const char* kDemoSecret = "zavlo demo secret";
constexpr auto kTelemetryLimit = 3000ms;
constexpr auto kEnvironment = ZavloAuthEnvironment::production;

using Clock = std::chrono::steady_clock;
using Json = nlohmann::json;

double millisecondsSince(Clock::time_point start, Clock::time_point end = Clock::now()) {
  return std::chrono::duration<double, std::milli>(end - start).count();
}

std::string randomHex(std::size_t bytes) {
  std::string hex;
  std::array<unsigned char, 32> random{};
  if (bytes > random.size() || RAND_bytes(random.data(), static_cast<int>(bytes)) != 1) return {};
  static constexpr char kDigits[] = "0123456789abcdef";
  for (std::size_t i = 0; i < bytes; ++i) {
    hex += kDigits[random[i] >> 4];
    hex += kDigits[random[i] & 15];
  }
  return hex;
}

std::string hexOf(const unsigned char* bytes, std::size_t size) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (std::size_t i = 0; i < size; ++i) {
    if (i > 0 && i % 2 == 0) hex += ':';
    hex += kDigits[bytes[i] >> 4];
    hex += kDigits[bytes[i] & 15];
  }
  return hex;
}

// The signature must verify against the public key the enrolment gave, as a server would
// check it; OpenSSL does that, not the library under demonstration.
std::string verifyEs256(const std::string& publicKeyBase64, const std::string& message,
                        const std::string& signatureBase64) {
  const auto key = ZavloBase64::decode(publicKeyBase64);
  const auto signature = ZavloBase64::decode(signatureBase64);
  if (!key || !signature) return "not base64";
  const unsigned char* cursor = key->data();
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> pkey(d2i_PUBKEY(nullptr, &cursor, static_cast<long>(key->size())),
                                                           EVP_PKEY_free);
  if (!pkey) return "the public key is no SubjectPublicKeyInfo";
  std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  if (!context || EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr, pkey.get()) != 1) {
    return "OpenSSL could not start a verification";
  }
  const int verdict = EVP_DigestVerify(context.get(), signature->data(), signature->size(),
                                       reinterpret_cast<const unsigned char*>(message.data()), message.size());
  return verdict == 1 ? std::string() : "the signature does not verify";
}

std::string fingerprint(const std::string& publicKeyBase64) {
  const auto key = ZavloBase64::decode(publicKeyBase64);
  if (!key) return {};
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int size = 0;
  if (EVP_Digest(key->data(), key->size(), digest.data(), &size, EVP_sha256(), nullptr) != 1) return {};
  return hexOf(digest.data(), size);
}

// The owner prompt of both binding operations; the demo answers it itself.
Json bindingPrompt(const std::string& requestId) {
  return {
      {"promptTitle", "zavlo-auth demo"}, {"promptSubtitle", "answered by the demo itself"}, {"requestId", requestId}};
}

Json signingConfig(Json prompt, const std::string& challenge, const std::string& keyId) {
  prompt["challenge"] = challenge;
  prompt["allowedKeyIds"] = Json::array({keyId});
  return prompt;
}

std::string text(const Json& dictionary, const char* key) {
  const auto found = dictionary.find(key);
  return found != dictionary.end() && found->is_string() ? found->get<std::string>() : std::string();
}

std::string failureOf(const Json& dictionary) {
  auto reason = text(dictionary, "errorMessage");
  if (reason.empty()) reason = dictionary.dump();
  const auto code = text(dictionary, "errorCode");
  return code.empty() ? reason : code + ": " + reason;
}

// The page side of the standard-stream web view: messages go in through one pipe, the
// JavaScript the bridge evaluates comes out of another, a line each.
class DemoPage {
 public:
  explicit DemoPage(ZavloLinuxPlatform& platform) : platform_(platform) {
    if (pipe2(toBridge_.data(), O_CLOEXEC) != 0 || pipe2(fromBridge_.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
      throw std::system_error(errno, std::generic_category(), "pipe2");
    }
    view_ = std::make_shared<ZavloLinuxStreamWebView>(platform.mainQueue(), toBridge_[0], fromBridge_[1],
                                                      std::string(ZavloAuthenticationBridge::kHandlerName));
  }
  ~DemoPage() {
    ::close(toBridge_[1]);  // end of input lets the reader finish before it is joined
    view_.reset();
    for (const int fd : {toBridge_[0], fromBridge_[0], fromBridge_[1]}) ::close(fd);
  }
  DemoPage(const DemoPage&) = delete;
  DemoPage& operator=(const DemoPage&) = delete;

  [[nodiscard]] std::shared_ptr<ZavloLinuxStreamWebView> view() const { return view_; }

  /// Posts one message and waits for the callback it names; the dictionary the callback
  /// got, or a description of what went wrong.
  std::variant<Json, std::string> call(const Json& message) {
    const auto line = message.dump() + '\n';
    if (::write(toBridge_[1], line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
      return std::string("the message could not be posted");
    }
    std::optional<std::string> answer;
    platform_.runLoop().runUntil([&] { return (answer = nextLine()).has_value(); }, kStepLimit);
    if (!answer) return std::string("no answer within " + std::to_string(kStepLimit.count()) + " s");
    return parseCallback(*answer, message.value("callback", ""));
  }

 private:
  std::optional<std::string> nextLine() {
    std::array<char, 4096> chunk{};
    for (ssize_t n; (n = ::read(fromBridge_[0], chunk.data(), chunk.size())) > 0;) {
      pending_.append(chunk.data(), static_cast<std::size_t>(n));
    }
    const auto end = pending_.find('\n');
    if (end == std::string::npos) return std::nullopt;
    auto line = pending_.substr(0, end);
    pending_.erase(0, end + 1);
    return line;
  }

  // The text is callback("...") with the JSON answer as one JavaScript string literal;
  // the literal's escapes are all JSON escapes too, so JSON reads it.
  static std::variant<Json, std::string> parseCallback(const std::string& script, const std::string& callback) {
    const auto prefix = callback + "(";
    if (!script.starts_with(prefix) || !script.ends_with(")")) return "unexpected script: " + script;
    const auto literal = Json::parse(script.substr(prefix.size(), script.size() - prefix.size() - 1), nullptr, false);
    if (!literal.is_string()) return "the argument is no string literal: " + script;
    auto dictionary = Json::parse(literal.get<std::string>(), nullptr, false);
    if (!dictionary.is_object()) return "the argument is no JSON object: " + script;
    return dictionary;
  }

  ZavloLinuxPlatform& platform_;
  std::array<int, 2> toBridge_{-1, -1};
  std::array<int, 2> fromBridge_{-1, -1};
  std::shared_ptr<ZavloLinuxStreamWebView> view_;
  std::string pending_;
};

class Demo {
 public:
  Demo(ZavloCliContext& context, std::string htmlPath, std::vector<std::string> ignoredOptions)
      : context_(context), htmlPath_(std::move(htmlPath)), ignoredOptions_(std::move(ignoredOptions)) {}

  void run() {
    ZavloChainServerOptions operatorOptions;
    operatorOptions.mixedLocations = true;
    operatorOptions.freshToken = [this] {
      auto token = "demo-" + randomHex(16);
      const std::lock_guard lock(tokensMutex_);
      tokens_.insert(token);
      return token;
    };
    ZavloChainServer operatorServer(operatorOptions);
    ZavloHttpTestServer collector;
    ZavloTemporaryDirectory keyStore("zavlo-demo");  // removed at the end, with the keys

    // The secret the owner would type, written for the demo: the keys are sealed under it.
    const auto secretFile = keyStore.path() / "owner-secret";
    std::ofstream(secretFile) << kDemoSecret << '\n';
    configure(keyStore.path() / "keychain.db", secretFile, collector.url("/events"));
    report_.setting = {
        {"operator", operatorServer.baseUrl() + " in this process: " + std::to_string(kChainHops - 1) +
                         " redirects, one of them relative, then a fresh token"},
        {"collector", collector.url("/events") + " in this process"},
        {"cellular", "loopback (lo) stands in for the cellular interface in this demo"},
        {"key store", (keyStore.path() / "keychain.db").string() + ", temporary, removed at the end"},
        {"owner", std::string("authenticated by the demo itself with the demo secret \"") + kDemoSecret +
                      "\": every prompt succeeds at once, and the key store checks that secret"},
    };
    std::cout << "zavlo-auth demo: the whole product on this machine\n";
    for (const auto& [label, line] : report_.setting) std::cout << "  " << label << ": " << line << '\n';
    std::cout << '\n' << std::flush;

    auto& platform = zavloCliPlatform(context_.options);
    auto& operations = *ZavloAuthenticationGraph::shared().operations;
    operations.setHopObserver([this](const ZavloCellularSnaClient::HopTrace& hop) { hops_.push_back(hop); });
    runNative(platform, operatorServer.chainUrl(kChainHops, "demo"));
    runBridge(platform, operatorServer.chainUrl(kChainHops, "demo"));
    operations.setHopObserver({});

    collectTelemetry(collector);
    if (!htmlPath_.empty()) writeHtml();
    std::cout << zavloDemoSummary(report_) << std::flush;
    context_.exitStatus = report_.succeeded() ? 0 : 1;
  }

 private:
  void configure(const std::filesystem::path& keychain, const std::filesystem::path& secretFile,
                 const std::string& collectorUrl) {
    for (const auto& given : ignoredOptions_) {
      std::cerr << "zavlo-auth demo: " << given << " is not used; the demo brings its own\n";
    }
    auto& options = context_.options;
    options.cellularInterfaces = {"lo"};
    options.keystore = keychain.string();
    options.keychain.reset();
    options.ownerAuth = "allow";
    options.ownerSecretFile = secretFile.string();
    options.ownerNotice = "";  // the report's header says how the owner is authenticated
    options.telemetryEndpoint = collectorUrl;
    collectorUrl_ = collectorUrl;
  }

  void record(ZavloDemoReport::Step step) {
    std::cout << zavloDemoStepLine(step) << '\n' << std::flush;
    report_.steps.push_back(std::move(step));
  }

  // Runs one native operation to its completion and times it.
  std::optional<Json> native(ZavloLinuxPlatform& platform, const std::string& name,
                             const std::function<void(ZavloAuthenticationNativeWrapper::Completion)>& operation) {
    const auto start = Clock::now();
    const auto result = zavloCliAwait(platform, kStepLimit, operation);
    const auto elapsed = millisecondsSince(start);
    if (!result) {
      record({"native", name, false, elapsed, "no completion within " + std::to_string(kStepLimit.count()) + " s"});
      return std::nullopt;
    }
    auto dictionary = zavloCliDictionary(*result);
    if (!result->hasValue()) {
      record({"native", name, false, elapsed, failureOf(dictionary)});
      return std::nullopt;
    }
    pendingMilliseconds_ = elapsed;
    return dictionary;
  }

  std::optional<Json> bridge(DemoPage& page, const std::string& name, Json message) {
    message["method"] = name;
    message["callback"] = "zavloDemo_" + name;
    const auto start = Clock::now();
    auto answer = page.call(message);
    const auto elapsed = millisecondsSince(start);
    if (auto* problem = std::get_if<std::string>(&answer)) {
      record({"bridge", name, false, elapsed, *problem});
      return std::nullopt;
    }
    auto& dictionary = std::get<Json>(answer);
    if (text(dictionary, "status") != "SUCCESS") {
      record({"bridge", name, false, elapsed, failureOf(dictionary)});
      return std::nullopt;
    }
    pendingMilliseconds_ = elapsed;
    return dictionary;
  }

  // Judges one successful dictionary with a check that gives the detail or the failure.
  void judge(const std::string& via, const std::string& name, const std::optional<Json>& dictionary,
             const std::function<std::pair<bool, std::string>(const Json&)>& check) {
    if (!dictionary) return;
    auto [ok, detail] = check(*dictionary);
    record({via, name, ok, pendingMilliseconds_, std::move(detail)});
  }

  std::pair<bool, std::string> checkToken(const Json& dictionary) {
    const auto token = text(dictionary, "snaToken");
    const std::size_t hops = hops_.size() - hopsBefore_;
    const std::lock_guard lock(tokensMutex_);
    if (!tokens_.contains(token)) return {false, "the token is not one the operator issued: " + dictionary.dump()};
    tokens_.erase(token);  // a second use of the same token would be a fault
    return {hops == kChainHops, "snaToken " + token.substr(0, 13) + "..., " + std::to_string(hops) + " hops, status " +
                                    std::to_string(dictionary.value("httpStatusCode", 0))};
  }

  void chain(const std::string& via) {
    ZavloDemoReport::Chain drawn{via, {}};
    if (hopsBefore_ >= hops_.size()) return;
    const auto origin = hops_[hopsBefore_].started;
    const auto ms = [](std::chrono::microseconds value) { return static_cast<double>(value.count()) / 1000.0; };
    for (std::size_t i = hopsBefore_; i < hops_.size(); ++i) {
      const auto& hop = hops_[i];
      ZavloDemoReport::Hop line{
          hop.url,      hop.status,   hop.redirect, hop.failure, millisecondsSince(origin, hop.started),
          std::nullopt, std::nullopt, std::nullopt};
      if (hop.connectTime) line.connect = ms(*hop.connectTime);
      if (hop.requestTime) line.request = ms(*hop.requestTime);
      if (hop.responseTime) line.response = ms(*hop.responseTime);
      drawn.hops.push_back(std::move(line));
    }
    report_.chains.push_back(std::move(drawn));
  }

  std::pair<bool, std::string> checkEnrolment(const std::string& via, const Json& dictionary) {
    publicKey_ = text(dictionary, "publicKey");
    keyId_ = text(dictionary, "keyId");
    const auto print = fingerprint(publicKey_);
    if (keyId_.empty() || print.empty()) return {false, "no key id or public key: " + dictionary.dump()};
    const bool fresh =
        std::none_of(report_.keys.begin(), report_.keys.end(), [this](const auto& key) { return key.keyId == keyId_; });
    report_.keys.push_back({via, keyId_, print});
    if (!fresh) return {false, "key id " + keyId_ + " was given out before"};
    return {true, "key " + keyId_ + ", " + text(dictionary, "algorithm")};
  }

  void signAndVerify(const std::string& via, const std::optional<Json>& signature, const std::string& challenge) {
    judge(via, "signDeviceBindingChallenge", signature, [](const Json& dictionary) {
      const auto value = text(dictionary, "signature");
      return std::pair{!value.empty(), "signature of " + std::to_string(value.size()) + " base64 characters"};
    });
    if (!signature) return;
    const auto start = Clock::now();
    const auto problem = verifyEs256(publicKey_, challenge, text(*signature, "signature"));
    record({via, "signature verified (OpenSSL)", problem.empty(), millisecondsSince(start),
            problem.empty() ? "ES256 over the challenge, with the enrolled public key" : problem});
  }

  void stateIsEnrolled(const std::string& via, const std::optional<Json>& state) {
    judge(via, "getDeviceBindingState", state, [this](const Json& dictionary) {
      const auto value = text(dictionary, "state");
      return std::pair{value == "ENROLLED" && text(dictionary, "keyId") == keyId_, "state " + value};
    });
  }

  void runNative(ZavloLinuxPlatform& platform, const std::string& chainUrl) {
    auto& wrapper = ZavloAuthenticationNativeWrapper::shared();
    static const auto screen = std::make_shared<int>(0);  // the command line has no screen; this stands for one
    const auto start = Clock::now();
    wrapper.setup(screen, kEnvironment);
    watchTelemetry(*context_.telemetry());  // after setup, so that the collector has the last word
    record({"native", "setup", true, millisecondsSince(start), "telemetry to the collector"});

    const Json session = {{"requestId", "demo-native"}};
    judge("native", "initAuth", native(platform, "initAuth", [&](auto done) { wrapper.initAuth(session, done); }),
          [](const Json& dictionary) {
            return std::pair{true, "statusCode " + text(dictionary, "statusCode")};
          });
    hopsBefore_ = hops_.size();
    judge("native", "startAuth", native(platform, "startAuth", [&](auto done) { wrapper.startAuth(chainUrl, done); }),
          [this](const Json& dictionary) { return checkToken(dictionary); });
    chain("native");

    const auto prompt = bindingPrompt("demo-native");
    judge("native", "enrollDeviceBinding",
          native(platform, "enrollDeviceBinding", [&](auto done) { wrapper.enrollDeviceBinding(prompt, done); }),
          [this](const Json& dictionary) { return checkEnrolment("native", dictionary); });
    if (keyId_.empty()) return;
    const auto challenge = "demo-challenge-" + randomHex(16);
    const auto signing = signingConfig(prompt, challenge, keyId_);
    signAndVerify("native",
                  native(platform, "signDeviceBindingChallenge",
                         [&](auto done) { wrapper.signDeviceBindingChallenge(signing, done); }),
                  challenge);
    stateIsEnrolled("native", native(platform, "getDeviceBindingState", [&](auto done) {
                      wrapper.getDeviceBindingState({{"keyId", keyId_}}, done);
                    }));
  }

  void runBridge(ZavloLinuxPlatform& platform, const std::string& chainUrl) {
    // A page that stops reading must not end the process.
    std::signal(SIGPIPE, SIG_IGN);
    static const auto screen = std::make_shared<int>(0);
    DemoPage page(platform);
    auto& wrapper = ZavloAuthenticationWrapper::shared();
    const auto start = Clock::now();
    wrapper.setupWebView(page.view(), screen, kEnvironment);
    context_.telemetry()->configure(kEnvironment, collectorUrl_);  // setupWebView chose the built-in endpoint
    page.view()->start();
    record({"bridge", "setupWebView", true, millisecondsSince(start), "standard-stream web view over two pipes"});
    runBridgeSteps(page, chainUrl);
    wrapper.cleanup();  // before the page goes
  }

  void runBridgeSteps(DemoPage& page, const std::string& chainUrl) {
    judge("bridge", "getCapabilities", bridge(page, "getCapabilities", Json::object()), [](const Json& dictionary) {
      return std::pair{dictionary.contains("bridgeVersion"),
                       "bridgeVersion " + dictionary.value("bridgeVersion", Json()).dump()};
    });
    judge("bridge", "initAuth", bridge(page, "initAuth", {{"initConfig", Json{{"requestId", "demo-bridge"}}.dump()}}),
          [](const Json& dictionary) {
            return std::pair{true, "statusCode " + text(dictionary, "statusCode")};
          });
    hopsBefore_ = hops_.size();
    judge("bridge", "startAuth", bridge(page, "startAuth", {{"snaUri", chainUrl}}),
          [this](const Json& dictionary) { return checkToken(dictionary); });
    chain("bridge");

    keyId_.clear();
    const auto prompt = bindingPrompt("demo-bridge");
    judge("bridge", "enrollDeviceBinding", bridge(page, "enrollDeviceBinding", {{"config", prompt}}),
          [this](const Json& dictionary) { return checkEnrolment("bridge", dictionary); });
    if (keyId_.empty()) return;
    const auto challenge = "demo-challenge-" + randomHex(16);
    const auto signing = signingConfig(prompt, challenge, keyId_);
    // A page may give the configuration as text too.
    signAndVerify("bridge", bridge(page, "signDeviceBindingChallenge", {{"config", signing.dump()}}), challenge);
    stateIsEnrolled("bridge", bridge(page, "getDeviceBindingState", {{"config", Json{{"keyId", keyId_}}}}));
  }

  void watchTelemetry(ZavloAuthLogManager& logManager) {
    const bool verbose = context_.options.verbose;
    logManager.setObserver([this, verbose](const ZavloAuthEventLog& event, const std::string& endpoint) {
      const std::lock_guard lock(sentMutex_);
      ++report_.eventsSent;
      if (verbose) std::cerr << "telemetry: " << event.eventName.value_or("(unnamed)") << " -> " << endpoint << '\n';
    });
  }

  void collectTelemetry(const ZavloHttpTestServer& collector) {
    const auto start = Clock::now();
    auto logManager = context_.telemetry();
    const bool settled = logManager->waitForPendingEvents(kTelemetryLimit);
    std::size_t sent = 0;
    {
      const std::lock_guard lock(sentMutex_);
      sent = report_.eventsSent;
    }
    collector.waitForRequests(sent, kTelemetryLimit);
    for (const auto& request : collector.requests()) {
      const auto event = Json::parse(request.body, nullptr, false);
      if (!event.is_object()) continue;
      report_.events.push_back({text(event, "eventName"), text(event, "status"), text(event, "requestId")});
    }
    const bool all = settled && sent > 0 && report_.events.size() == sent;
    record({"demo", "telemetry delivered", all, millisecondsSince(start),
            std::to_string(report_.events.size()) + " of " + std::to_string(sent) + " events at the collector"});
  }

  void writeHtml() {
    const auto start = Clock::now();
    std::ofstream file(htmlPath_, std::ios::binary | std::ios::trunc);
    file << zavloDemoHtml(report_);
    file.close();
    const bool written = static_cast<bool>(file);
    record({"demo", "HTML report", written, millisecondsSince(start),
            (written ? "written to " : "could not write ") + htmlPath_});
  }

  ZavloCliContext& context_;
  std::string htmlPath_;
  std::vector<std::string> ignoredOptions_;
  std::string collectorUrl_;
  ZavloDemoReport report_;
  std::vector<ZavloCellularSnaClient::HopTrace> hops_;  // main thread only
  std::size_t hopsBefore_ = 0;
  double pendingMilliseconds_ = 0;
  std::string publicKey_;
  std::string keyId_;  // the key the current part of the demo enrolled
  std::mutex tokensMutex_;
  std::set<std::string> tokens_;
  std::mutex sentMutex_;
};

}  // namespace

void addDemoCommand(CLI::App& app, ZavloCliContext& context) {
  auto* demo = app.add_subcommand("demo",
                                  "The whole product on this machine: a local operator and telemetry collector, every "
                                  "operation natively and through the web bridge, a readable report");
  auto html = std::make_shared<std::string>();
  demo->add_option("--html", *html, "Also write the report as one self-contained HTML page to this file");
  demo->callback([html, &app, &context] {
    std::vector<std::string> ignored;
    for (const char* name : {"--keystore", "--keychain", "--telemetry-endpoint", "--cellular-interface",
                             "--cellular-dns", "--owner-auth", "--owner-secret-file"}) {
      if (app.get_option(name)->count() > 0) ignored.emplace_back(name);
    }
    try {
      Demo(context, *html, std::move(ignored)).run();
    } catch (const std::exception& error) {  // no loopback port, no temporary folder, no pipe
      std::cerr << "zavlo-auth demo: could not start: " << error.what() << '\n';
      context.exitStatus = 1;
    }
  });
}
