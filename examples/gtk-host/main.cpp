// zavlo-gtk-host: a GTK application that shows a page in WebKit and installs the web
// bridge in it, with every completion of the library delivered on the GTK main thread.
//
//   zavlo-gtk-host                             # a window; press the buttons
//   zavlo-gtk-host --snapshot answers.png      # run everything, save a picture, exit
//   xvfb-run -a zavlo-gtk-host --owner-auth allow --snapshot answers.png   # headless
//   zavlo-gtk-host --url https://a.example/ --print-answers --exit-after 30
//                                              # any page; what it got, on stdout
#include <cairo.h>
#include <webkit2/webkit2.h>

#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "Bridge/ZavloAuthenticationWrapper.hpp"
#include "Graph/ZavloAuthenticationGraph.hpp"
#include "Platform/Linux/Loop/ZavloGLibMainQueue.hpp"
#include "Platform/Linux/Web/WebKitGtk/ZavloWebKitWebView.hpp"
#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "Telemetry/ZavloAuthLogManager.hpp"
#include "ZavloGtkHostPage.hpp"
#include "tools/peers/ZavloChainServer.hpp"

namespace {

constexpr const char* kMethods[] = {"getCapabilities",     "initAuth",
                                    "startAuth",           "getDeviceBindingState",
                                    "enrollDeviceBinding", "signDeviceBindingChallenge"};

struct Options {
  std::optional<std::string> snapshot;
  int timeoutSeconds = 60;
  std::vector<std::string> cellularInterfaces;
  std::optional<std::string> operatorUrl;
  std::optional<std::string> keystore;
  std::optional<std::string> url;
  std::vector<std::string> allowedOrigins;
  std::optional<int> exitAfterSeconds;
  bool printAnswers = false;
  std::string ownerAuth = "pam";
  std::optional<std::string> ownerSecretFile;
  std::string environment = "production";
  std::optional<std::string> telemetryEndpoint;
};

// What the page reports to the host once "Run all" has finished.
struct PageReport final : ZavloScriptMessageHandler {
  std::optional<nlohmann::json> answers;
  void didReceiveScriptMessage(const ZavloScriptMessage& message) override {
    const auto& body = message.body;
    if (body.is_object() && body.value("event", "") == "ranAll" && body.contains("answers")) answers = body["answers"];
  }
};

ZavloLinuxOwnerAuthentication::Mode ownerMode(const std::string& name) {
  if (name == "allow") return ZavloLinuxOwnerAuthentication::Mode::allow;
  if (name == "deny") return ZavloLinuxOwnerAuthentication::Mode::deny;
  return ZavloLinuxOwnerAuthentication::Mode::pam;
}

// The page with the host's settings in place of its marker; "</" would end the script.
std::string pageWith(const nlohmann::json& settings) {
  std::string page = kZavloGtkHostPage;
  auto text = settings.dump();
  for (auto at = text.find("</"); at != std::string::npos; at = text.find("</", at)) text.replace(at, 2, "<\\/");
  const std::string marker = "/*ZAVLO_HOST_SETTINGS*/null";
  page.replace(page.find(marker), marker.size(), text);
  return page;
}

// Iterates GTK's context until done() holds or the time is up.
bool iterateUntil(const std::function<bool()>& done, int seconds) {
  bool expired = false;
  const guint timeout = g_timeout_add_seconds(
      static_cast<guint>(seconds),
      [](gpointer flag) -> gboolean {
        *static_cast<bool*>(flag) = true;
        return G_SOURCE_REMOVE;
      },
      &expired);
  while (!done() && !expired) g_main_context_iteration(nullptr, TRUE);
  if (!expired) g_source_remove(timeout);
  return done();
}

struct Snapshot {
  std::string path;
  bool finished = false;
  std::string failure;
};

void snapshotTaken(GObject* source, GAsyncResult* result, gpointer data) {
  auto& snapshot = *static_cast<Snapshot*>(data);
  GError* error = nullptr;
  cairo_surface_t* surface = webkit_web_view_get_snapshot_finish(WEBKIT_WEB_VIEW(source), result, &error);
  if (surface == nullptr) {
    snapshot.failure = error != nullptr ? error->message : "no picture";
    g_clear_error(&error);
  } else {
    const auto status = cairo_surface_write_to_png(surface, snapshot.path.c_str());
    if (status != CAIRO_STATUS_SUCCESS) snapshot.failure = cairo_status_to_string(status);
    cairo_surface_destroy(surface);
  }
  snapshot.finished = true;
}

// Runs every method through the page, saves the picture and says whether all answered.
int runForSnapshot(WebKitWebView* view, const PageReport& report, const Options& options) {
  const bool ranAll = iterateUntil([&] { return report.answers.has_value(); }, options.timeoutSeconds);
  Snapshot snapshot;
  snapshot.path = *options.snapshot;
  webkit_web_view_get_snapshot(view, WEBKIT_SNAPSHOT_REGION_FULL_DOCUMENT, WEBKIT_SNAPSHOT_OPTIONS_NONE, nullptr,
                               snapshotTaken, &snapshot);
  iterateUntil([&] { return snapshot.finished; }, options.timeoutSeconds);
  if (!snapshot.finished || !snapshot.failure.empty()) {
    std::cerr << "zavlo-gtk-host: no snapshot: " << (snapshot.finished ? snapshot.failure : "timed out") << '\n';
  }

  std::vector<std::string> silent;
  for (const char* method : kMethods) {
    const bool answered = ranAll && report.answers->contains(method) && (*report.answers)[method].is_object() &&
                          (*report.answers)[method].contains("status");
    if (answered) {
      std::cout << method << ' ' << (*report.answers)[method].dump() << '\n';
    } else {
      silent.emplace_back(method);
    }
  }
  if (silent.empty()) {
    std::cout << "every method answered\n";
  } else {
    std::cout << "no answer from:";
    for (const auto& method : silent) std::cout << ' ' << method;
    std::cout << '\n';
  }
  return silent.empty() && snapshot.failure.empty() && snapshot.finished ? 0 : 1;
}

// One line of JSON per answer delivered, refused post and dropped answer, so that a script
// can check what a page got and what it did not.
ZavloWebKitWebView::Observer printingObserver() {
  const auto print = [](const nlohmann::json& line) { std::cout << line.dump() << std::endl; };
  ZavloWebKitWebView::Observer observer;
  observer.answered = [print](const std::string& origin, bool callback, const nlohmann::json& result) {
    auto via = nlohmann::json::array({"promise"});
    if (callback) via.insert(via.begin(), "callback");
    print({{"answered", {{"origin", origin}, {"via", via}, {"result", result}}}});
  };
  observer.refused = [print](const std::string& origin, bool mainFrame, const std::string& why) {
    print({{"refused", {{"origin", origin}, {"frame", mainFrame ? "main" : "sub"}, {"why", why}}}});
  };
  observer.dropped = [print](const std::string& origin) {
    print({{"dropped", {{"origin", origin}, {"why", "the document that asked has gone"}}}});
  };
  return observer;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"The web bridge in a WebKitGTK window: one button per method of the page API."};
  Options options;
  app.add_option("--snapshot", options.snapshot,
                 "Run every method at once, save a PNG of the page to this file and exit (0 when every method "
                 "answered)");
  app.add_option("--timeout", options.timeoutSeconds, "With --snapshot: how long to wait for the answers (seconds)")
      ->check(CLI::PositiveNumber);
  app.add_option("--cellular-interface", options.cellularInterfaces,
                 "Treat this interface as cellular (repeatable); without --operator-url: lo");
  app.add_option("--operator-url", options.operatorUrl,
                 "Where startAuth goes; without it a local operator on loopback answers with a token");
  app.add_option("--keystore", options.keystore, "The key store file (default: in the user's data folder)");
  app.add_option("--owner-auth", options.ownerAuth,
                 "How the device owner is authenticated: pam (on the terminal), "
                 "allow or deny (at once, asking nobody)")
      ->check(CLI::IsMember({"pam", "allow", "deny"}));
  app.add_option("--owner-secret-file", options.ownerSecretFile,
                 "What the owner would type at a prompt, read from this file (allow: the key store checks it)")
      ->check(CLI::ExistingFile);
  app.add_option("--environment", options.environment, "development or production")
      ->check(CLI::IsMember({"development", "production"}));
  app.add_option("--telemetry-endpoint", options.telemetryEndpoint,
                 "Send telemetry events here; without it this example sends none");
  app.add_option("--url", options.url, "Load this page instead of the built-in one");
  app.add_option("--allowed-origin", options.allowedOrigins,
                 "Let top pages of this origin reach the bridge (repeatable): scheme://host[:port], "
                 "*.host for subdomains, or * for every origin; without it only the page loaded first and its "
                 "origin");
  app.add_option("--exit-after", options.exitAfterSeconds,
                 "Close the window after this many seconds (with --snapshot, --timeout bounds the run)")
      ->check(CLI::PositiveNumber);
  app.add_flag("--print-answers", options.printAnswers,
               "Print a line of JSON on standard output for each answer delivered to a page, each post refused "
               "and each answer dropped");
  CLI11_PARSE(app, argc, argv);
  std::string ruleError;
  const auto rules = options.allowedOrigins.empty() ? std::optional(ZavloOriginRules())
                                                    : ZavloOriginRules::parse(options.allowedOrigins, &ruleError);
  if (!rules) {
    std::cerr << "zavlo-gtk-host: --allowed-origin: " << ruleError << '\n';
    return 2;
  }

  if (gtk_init_check(&argc, &argv) == FALSE) {
    std::cerr << "zavlo-gtk-host: no display to open (set DISPLAY, or run it under xvfb-run -a)\n";
    return 2;
  }
  if (options.ownerAuth != "pam") {
    std::cerr << "zavlo-gtk-host: --owner-auth " << options.ownerAuth << ": every owner prompt "
              << (options.ownerAuth == "allow" ? "succeeds" : "fails") << " without asking anyone\n";
  }

  nlohmann::json notes = nlohmann::json::array();
  std::unique_ptr<ZavloChainServer> localOperator;
  std::string snaUri;
  if (options.operatorUrl) {
    snaUri = *options.operatorUrl;
  } else {
    ZavloChainServerOptions serverOptions;
    serverOptions.token = "gtk-host-demo-token";
    localOperator = std::make_unique<ZavloChainServer>(serverOptions);
    snaUri = localOperator->chainUrl(3);
    if (options.cellularInterfaces.empty()) options.cellularInterfaces = {"lo"};
    notes.push_back("No --operator-url: a local operator on loopback (" + localOperator->baseUrl() +
                    ") answers startAuth after two redirects.");
  }
  if (!options.cellularInterfaces.empty()) {
    std::string names;
    for (const auto& name : options.cellularInterfaces) names += (names.empty() ? "" : ", ") + name;
    notes.push_back("Declared cellular: " + names + ".");
  }
  notes.push_back("Owner authentication: " + options.ownerAuth +
                  "; key store: " + options.keystore.value_or(ZavloLinuxPlatform::defaultKeyFilePath()) + ".");
  notes.push_back(options.telemetryEndpoint ? "Telemetry goes to " + *options.telemetryEndpoint + "."
                                            : std::string("Telemetry is off in this example."));

  // Every completion, timer and prompt reply of the library runs on this (GTK's) thread.
  ZavloLinuxPlatform::Options platformOptions;
  platformOptions.cellularInterfaces = options.cellularInterfaces;
  platformOptions.keyFilePath = options.keystore;
  platformOptions.keyFile.trace = [](const std::string& line) {
    std::cerr << "zavlo-gtk-host: key store: " << line << '\n';
  };
  platformOptions.ownerAuthentication.mode = ownerMode(options.ownerAuth);
  platformOptions.ownerAuthentication.secretFile = options.ownerSecretFile;
  platformOptions.mainQueue = std::make_shared<ZavloGLibMainQueue>();
  ZavloPlatform::install(std::make_shared<ZavloLinuxPlatform>(std::move(platformOptions)));

  GtkWidget* window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
  gtk_window_set_title(GTK_WINDOW(window), "Zavlo GTK host");
  gtk_window_set_default_size(GTK_WINDOW(window), 900, 820);
  auto* view = WEBKIT_WEB_VIEW(webkit_web_view_new());
  gtk_container_add(GTK_CONTAINER(window), GTK_WIDGET(view));
  gtk_widget_show_all(window);

  // The bridge holds the screen weakly: it lives as long as this function.
  const auto screen = std::shared_ptr<void>(window, [](void*) {});
  auto webView = std::make_shared<ZavloWebKitWebView>(
      view, options.printAnswers ? printingObserver() : ZavloWebKitWebView::Observer{});
  auto report = std::make_shared<PageReport>();
  webView->addScriptMessageHandler(report, "gtk_host");
  auto& wrapper = ZavloAuthenticationWrapper::shared();
  const auto environment =
      options.environment == "development" ? ZavloAuthEnvironment::development : ZavloAuthEnvironment::production;
  wrapper.setupWebView(webView, screen, environment, *rules);
  auto& logManager = *ZavloAuthenticationGraph::shared().logManager;
  if (options.telemetryEndpoint) {
    logManager.configure(environment, *options.telemetryEndpoint);
  } else {
    logManager.cleanup();
  }

  const nlohmann::json settings = {{"snaUri", snaUri},
                                   {"unknownKeyId", "zavlo-gtk-host-no-such-key"},
                                   {"notes", notes},
                                   {"autoRun", options.snapshot.has_value()}};
  if (options.url) {
    webkit_web_view_load_uri(view, options.url->c_str());
  } else {
    webkit_web_view_load_html(view, pageWith(settings).c_str(), "https://zavlo-gtk-host.invalid/");
  }

  int status = 0;
  if (options.snapshot) {
    status = runForSnapshot(view, *report, options);
    gtk_widget_destroy(window);
  } else {
    g_signal_connect(window, "destroy", G_CALLBACK(gtk_main_quit), nullptr);
    if (options.exitAfterSeconds) {
      g_timeout_add_seconds(
          static_cast<guint>(*options.exitAfterSeconds),
          [](gpointer data) -> gboolean {
            gtk_widget_destroy(static_cast<GtkWidget*>(data));
            return G_SOURCE_REMOVE;
          },
          window);
    }
    gtk_main();
  }
  wrapper.cleanupAll();
  return status;
}
