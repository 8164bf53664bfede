#include "zavlo-auth-bridge.h"

#include <memory>
#include <string>
#include <vector>

#include "Bridge/ZavloAuthenticationWrapper.hpp"
#include "Graph/ZavloAuthenticationGraph.hpp"
#include "Platform/Linux/Web/WebKitGtk/ZavloWebKitWebView.hpp"
#include "Platform/ZavloOriginRules.hpp"
#include "zavlo-auth-error.h"
#include "zavlo-auth-private.hpp"

struct _ZavloAuthBridge {
  GObject parent;
  ZavloAuthClient* client;
  std::shared_ptr<ZavloWebKitWebView>* webView;
};

G_DEFINE_FINAL_TYPE(ZavloAuthBridge, zavlo_auth_bridge, G_TYPE_OBJECT)

static void zavlo_auth_bridge_finalize(GObject* object) {
  auto* self = ZAVLO_AUTH_BRIDGE(object);
  if (self->client != nullptr) {
    zavloAuthClientGraph(self->client).webWrapper.cleanup();
    g_object_unref(self->client);
  }
  delete self->webView;
  G_OBJECT_CLASS(zavlo_auth_bridge_parent_class)->finalize(object);
}

static void zavlo_auth_bridge_class_init(ZavloAuthBridgeClass* klass) {
  G_OBJECT_CLASS(klass)->finalize = zavlo_auth_bridge_finalize;
}

static void zavlo_auth_bridge_init(ZavloAuthBridge* self) {
  self->client = nullptr;
  self->webView = nullptr;
}

ZavloAuthBridge* zavlo_auth_bridge_new(ZavloAuthClient* client, WebKitWebView* web_view,
                                       const gchar* const* allowed_origins, GError** error) {
  g_return_val_if_fail(ZAVLO_AUTH_IS_CLIENT(client), nullptr);
  g_return_val_if_fail(WEBKIT_IS_WEB_VIEW(web_view), nullptr);
  ZavloOriginRules rules;
  if (allowed_origins != nullptr) {
    std::vector<std::string> given;
    for (auto* const* origin = allowed_origins; *origin != nullptr; ++origin) given.emplace_back(*origin);
    std::string why;
    auto parsed = ZavloOriginRules::parse(given, &why);
    if (!parsed) {
      g_set_error(error, ZAVLO_AUTH_ERROR, ZAVLO_AUTH_ERROR_INVALID_OPTIONS, "An allowed origin cannot be used: %s",
                  why.c_str());
      return nullptr;
    }
    rules = std::move(*parsed);
  }
  auto* self = static_cast<ZavloAuthBridge*>(g_object_new(ZAVLO_AUTH_TYPE_BRIDGE, nullptr));
  self->client = ZAVLO_AUTH_CLIENT(g_object_ref(client));
  self->webView = new std::shared_ptr<ZavloWebKitWebView>(std::make_shared<ZavloWebKitWebView>(web_view));
  zavloAuthClientGraph(client).webWrapper.setupWebView(*self->webView, zavloAuthClientScreen(client),
                                                       zavloAuthClientEnvironment(client), rules);
  return self;
}
