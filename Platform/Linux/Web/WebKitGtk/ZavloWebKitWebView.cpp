#include "Platform/Linux/Web/WebKitGtk/ZavloWebKitWebView.hpp"

#include <webkit2/webkit2.h>

#include <utility>

#include "Platform/Linux/Web/ZavloLinuxPageMessage.hpp"
#include "Platform/Linux/Loop/ZavloLinuxRunLoop.hpp"

struct ZavloWebKitWebView::Registration {
  std::string name;
  std::shared_ptr<ZavloScriptMessageHandler> handler;
  gulong signalHandler = 0;
  bool registered = false;  // false when the content manager already knew the name

  static void received(WebKitUserContentManager*, WebKitJavascriptResult* result, Registration* self) {
    JSCValue* value = webkit_javascript_result_get_js_value(result);
    gchar* json = jsc_value_to_json(value, 0);
    if (json == nullptr) {
      // No JSON form: nothing the bridge could read. A throwing toJSON leaves an exception
      // on the context, which must not be mistaken for a later one's.
      jsc_context_clear_exception(jsc_value_get_context(value));
      return;
    }
    auto body = zavloParsePageMessage(json);
    g_free(json);
    if (!body) return;
    // The handler may remove or replace itself, which frees this registration.
    const auto handler = self->handler;
    try {
      handler->didReceiveScriptMessage(*body);
    } catch (...) {
      // Unwinding into GLib's signal emission (C) would end the process.
      ZavloLinuxRunLoop::reportToStandardError(std::current_exception());
    }
  }
};

ZavloWebKitWebView::ZavloWebKitWebView(WebKitWebView* webView)
    : webView_(webView),
      contentManager_(webView != nullptr
                          ? WEBKIT_USER_CONTENT_MANAGER(g_object_ref(webkit_web_view_get_user_content_manager(webView)))
                          : nullptr) {
  if (webView_ != nullptr) {
    destroyHandler_ = g_signal_connect(webView_, "destroy", G_CALLBACK(&ZavloWebKitWebView::webViewDestroyed), this);
  }
}

ZavloWebKitWebView::~ZavloWebKitWebView() {
  auto registrations = std::move(registrations_);
  for (auto& [name, registration] : registrations) unregister(*registration);
  if (webView_ != nullptr) g_signal_handler_disconnect(webView_, destroyHandler_);
  if (contentManager_ != nullptr) g_object_unref(contentManager_);
  // The handlers are released last, when nothing of this object is used any more.
}

void ZavloWebKitWebView::webViewDestroyed(WebKitWebView* webView, ZavloWebKitWebView* self) {
  g_signal_handler_disconnect(webView, self->destroyHandler_);
  self->webView_ = nullptr;
}

void ZavloWebKitWebView::addScriptMessageHandler(std::shared_ptr<ZavloScriptMessageHandler> handler,
                                                 const std::string& name) {
  if (!handler) {
    removeScriptMessageHandler(name);
    return;
  }
  if (auto found = registrations_.find(name); found != registrations_.end()) {
    // The old handler goes when this returns: its destructor may call back into us.
    const auto replaced = std::exchange(found->second->handler, std::move(handler));
    return;
  }
  if (webView_ == nullptr) return;  // the handler goes at once: no page can reach it
  auto registration = std::make_unique<Registration>();
  registration->name = name;
  registration->handler = std::move(handler);
  // Connected before the name is registered, so that no early message is missed.
  const auto signal = "script-message-received::" + name;
  registration->signalHandler =
      g_signal_connect(contentManager_, signal.c_str(), G_CALLBACK(&Registration::received), registration.get());
  registration->registered =
      webkit_user_content_manager_register_script_message_handler(contentManager_, name.c_str()) != FALSE;
  registrations_.emplace(name, std::move(registration));
}

void ZavloWebKitWebView::removeScriptMessageHandler(const std::string& name) {
  auto found = registrations_.find(name);
  if (found == registrations_.end()) return;
  const auto registration = std::move(found->second);
  registrations_.erase(found);
  unregister(*registration);
}

void ZavloWebKitWebView::unregister(Registration& registration) {
  g_signal_handler_disconnect(contentManager_, registration.signalHandler);
  if (registration.registered) {
    webkit_user_content_manager_unregister_script_message_handler(contentManager_, registration.name.c_str());
  }
}

void ZavloWebKitWebView::evaluateJavaScript(const std::string& script) {
  if (webView_ == nullptr) return;
  webkit_web_view_evaluate_javascript(webView_, script.data(), static_cast<gssize>(script.size()), nullptr, nullptr,
                                      nullptr, nullptr, nullptr);
}
