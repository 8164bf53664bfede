#pragma once

#include <webkit2/webkit2.h>

#include "zavlo-auth-client.h"

G_BEGIN_DECLS

#define ZAVLO_AUTH_TYPE_BRIDGE (zavlo_auth_bridge_get_type())
G_DECLARE_FINAL_TYPE(ZavloAuthBridge, zavlo_auth_bridge, ZAVLO_AUTH, BRIDGE, GObject)

/**
 * ZavloAuthBridge:
 *
 * The web bridge over a #WebKitWebView: the page reaches the client's operations by
 * posting to `window.webkit.messageHandlers.zavlo_authentication_bridge`. The bridge is
 * installed while this object lives; it holds the client and the view weakly for the
 * page's sake, strongly for its own. Use it on the GTK main thread, with a client made
 * on that thread.
 */

/**
 * zavlo_auth_bridge_new:
 * @client: the client whose operations and session the page uses
 * @web_view: the view whose pages may call the bridge
 * @allowed_origins: (array zero-terminated=1) (nullable): origin rules, each an origin such as
 *   "https://a.example" (a host may start with a wildcard label); %NULL: the page the view
 *   shows now and pages of its origin
 * @error: where a rule that is not one goes
 *
 * Installs the bridge in @web_view.
 *
 * Returns: (transfer full): the bridge, or %NULL with @error set
 */
ZavloAuthBridge* zavlo_auth_bridge_new(ZavloAuthClient* client, WebKitWebView* web_view,
                                       const gchar* const* allowed_origins, GError** error);

G_END_DECLS
