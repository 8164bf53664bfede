#pragma once

#include <gio/gio.h>

G_BEGIN_DECLS

#define ZAVLO_AUTH_TYPE_CLIENT (zavlo_auth_client_get_type())
G_DECLARE_FINAL_TYPE(ZavloAuthClient, zavlo_auth_client, ZAVLO_AUTH, CLIENT, GObject)

/**
 * ZavloAuthClient:
 *
 * The library's operations as GIO asynchronous methods: a session start, a silent
 * authentication, and device binding (enrolment, signing, state). Configurations and
 * results are JSON objects as text, the dictionaries the library itself reads and
 * answers; failures are #GError in #ZAVLO_AUTH_ERROR.
 *
 * Each client has a platform of its own, made from its options when it is constructed,
 * and delivers its work on the thread-default main context of the thread that
 * constructed it. Use a client from that thread only; each callback runs on the
 * thread-default main context of the thread that started the call.
 */

/**
 * zavlo_auth_client_new:
 * @options: (nullable): the platform's options, a JSON object as text, or %NULL for none.
 *   Keys: `environment` ("production" or "development"), `cellularInterfaces`
 *   (interface names to treat as cellular), `cellularDnsServers`, `trustAnchorsPem`
 *   (PEM texts every TLS connection accepts beside the system's), `keyFile`,
 *   `ownerAuthentication` ("pam", "allow" or "deny"), `ownerSecretFile`,
 *   `telemetryEndpoint` (absent: the environment's tracking endpoint) and
 *   `sealingCost` (scrypt's log2 N for keys sealed under the owner's secret).
 * @error: where a refusal of the options goes
 *
 * Makes a client on the calling thread's thread-default main context.
 *
 * Returns: (transfer full): the client, or %NULL with @error set when the options cannot be used
 */
ZavloAuthClient* zavlo_auth_client_new(const gchar* options, GError** error);

/**
 * zavlo_auth_client_get_capabilities:
 * @self: the client
 *
 * Returns: (transfer full): what this build of the library can do, a JSON object as text
 */
gchar* zavlo_auth_client_get_capabilities(ZavloAuthClient* self);

/**
 * zavlo_auth_client_init_auth:
 * @self: the client
 * @config: (nullable): the session's configuration, a JSON object as text (`requestId`, ...)
 * @cancellable: (nullable): cancels the wait for the answer
 * @callback: (scope async): called with the answer
 * @user_data: (closure): for @callback
 *
 * Starts a session; finish with zavlo_auth_client_init_auth_finish().
 */
void zavlo_auth_client_init_auth(ZavloAuthClient* self, const gchar* config, GCancellable* cancellable,
                                 GAsyncReadyCallback callback, gpointer user_data);
/**
 * zavlo_auth_client_init_auth_finish:
 * @self: the client
 * @result: the result @callback received
 * @error: the failure
 *
 * Returns: (transfer full): the session's answer, a JSON object as text, or %NULL with @error set
 */
gchar* zavlo_auth_client_init_auth_finish(ZavloAuthClient* self, GAsyncResult* result, GError** error);

/**
 * zavlo_auth_client_start_auth:
 * @self: the client
 * @url: the operator's silent authentication URL
 * @config: (nullable): when given, a session is started with this configuration first
 *   (as zavlo_auth_client_init_auth()); %NULL runs in the session started before
 * @cancellable: (nullable): cancels the chain: the call then fails at once with
 *   %G_IO_ERROR_CANCELLED and the chain's own answer is dropped
 * @callback: (scope async): called with the answer
 * @user_data: (closure): for @callback
 *
 * Runs a silent authentication over the cellular link; finish with
 * zavlo_auth_client_start_auth_finish().
 */
void zavlo_auth_client_start_auth(ZavloAuthClient* self, const gchar* url, const gchar* config,
                                  GCancellable* cancellable, GAsyncReadyCallback callback, gpointer user_data);
/**
 * zavlo_auth_client_start_auth_finish:
 * @self: the client
 * @result: the result @callback received
 * @error: the failure
 *
 * Returns: (transfer full): the chain's answer, a JSON object as text, or %NULL with @error set
 */
gchar* zavlo_auth_client_start_auth_finish(ZavloAuthClient* self, GAsyncResult* result, GError** error);

/**
 * zavlo_auth_client_enroll:
 * @self: the client
 * @config: (nullable): `attestationChallenge`, `promptTitle`, `promptSubtitle`, `requestId`,
 *   `entityId`, as a JSON object in text
 * @cancellable: (nullable): cancels the wait for the answer
 * @callback: (scope async): called with the answer
 * @user_data: (closure): for @callback
 *
 * Creates a binding key after the device owner authenticates; finish with
 * zavlo_auth_client_enroll_finish().
 */
void zavlo_auth_client_enroll(ZavloAuthClient* self, const gchar* config, GCancellable* cancellable,
                              GAsyncReadyCallback callback, gpointer user_data);
/**
 * zavlo_auth_client_enroll_finish:
 * @self: the client
 * @result: the result @callback received
 * @error: the failure
 *
 * Returns: (transfer full): the enrolment (key id, public key), a JSON object as text, or %NULL with @error set
 */
gchar* zavlo_auth_client_enroll_finish(ZavloAuthClient* self, GAsyncResult* result, GError** error);

/**
 * zavlo_auth_client_sign:
 * @self: the client
 * @config: `challenge`, `allowedKeyIds` and the prompt keys of zavlo_auth_client_enroll(),
 *   as a JSON object in text
 * @cancellable: (nullable): cancels the wait for the answer
 * @callback: (scope async): called with the answer
 * @user_data: (closure): for @callback
 *
 * Signs a challenge with an enrolled key after the owner authenticates; finish with
 * zavlo_auth_client_sign_finish().
 */
void zavlo_auth_client_sign(ZavloAuthClient* self, const gchar* config, GCancellable* cancellable,
                            GAsyncReadyCallback callback, gpointer user_data);
/**
 * zavlo_auth_client_sign_finish:
 * @self: the client
 * @result: the result @callback received
 * @error: the failure
 *
 * Returns: (transfer full): the signature, a JSON object as text, or %NULL with @error set
 */
gchar* zavlo_auth_client_sign_finish(ZavloAuthClient* self, GAsyncResult* result, GError** error);

/**
 * zavlo_auth_client_get_state:
 * @self: the client
 * @config: `keyId`, as a JSON object in text
 * @cancellable: (nullable): cancels the wait for the answer
 * @callback: (scope async): called with the answer
 * @user_data: (closure): for @callback
 *
 * Reads the binding state of a key id; finish with zavlo_auth_client_get_state_finish().
 */
void zavlo_auth_client_get_state(ZavloAuthClient* self, const gchar* config, GCancellable* cancellable,
                                 GAsyncReadyCallback callback, gpointer user_data);
/**
 * zavlo_auth_client_get_state_finish:
 * @self: the client
 * @result: the result @callback received
 * @error: the failure
 *
 * Returns: (transfer full): the state, a JSON object as text, or %NULL with @error set
 */
gchar* zavlo_auth_client_get_state_finish(ZavloAuthClient* self, GAsyncResult* result, GError** error);

/**
 * zavlo_auth_client_cleanup:
 * @self: the client
 *
 * Clears the session and the configuration and shuts telemetry down.
 */
void zavlo_auth_client_cleanup(ZavloAuthClient* self);

G_END_DECLS
