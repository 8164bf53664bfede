#pragma once

#include <webkit2/webkit2.h>

#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Platform/ZavloWebView.hpp"

/// Keeps every body one handler name receives (test support).
struct ZavloRecordingHandler final : ZavloScriptMessageHandler {
  std::vector<nlohmann::json> bodies;
  void didReceiveScriptMessage(const ZavloScriptMessage& message) override { bodies.push_back(message.body); }
};

/// A shown top-level window holding one WebKit web view; destroyed with the object unless
/// the test destroyed it first (test support, GTK thread only).
class ZavloWebKitTestWindow {
 public:
  ZavloWebKitTestWindow()
      : window_(gtk_window_new(GTK_WINDOW_TOPLEVEL)), view_(WEBKIT_WEB_VIEW(webkit_web_view_new())) {
    gtk_window_set_default_size(GTK_WINDOW(window_), 800, 600);
    gtk_container_add(GTK_CONTAINER(window_), GTK_WIDGET(view_));
    gtk_widget_show_all(window_);
  }
  ~ZavloWebKitTestWindow() { destroy(); }
  ZavloWebKitTestWindow(const ZavloWebKitTestWindow&) = delete;
  ZavloWebKitTestWindow& operator=(const ZavloWebKitTestWindow&) = delete;

  /// The web view; nullptr once destroyed.
  [[nodiscard]] WebKitWebView* view() const { return view_; }
  /// Loads the page from text, with a base URI that no request is ever made to.
  void load(const std::string& html) const { webkit_web_view_load_html(view_, html.c_str(), "https://zavlo.test/"); }
  void destroy() {
    if (window_ != nullptr) gtk_widget_destroy(window_);
    window_ = nullptr;
    view_ = nullptr;
  }

 private:
  GtkWidget* window_;
  WebKitWebView* view_;
};
