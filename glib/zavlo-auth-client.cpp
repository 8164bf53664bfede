#include "zavlo-auth-client.h"

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "Core/ZavloAuthResponseUtils.hpp"
#include "Graph/ZavloAuthenticationGraph.hpp"
#include "Platform/Linux/Loop/ZavloGLibMainQueue.hpp"
#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "Telemetry/ZavloAuthLogManager.hpp"
#include "zavlo-auth-error.h"
#include "zavlo-auth-private.hpp"

namespace {

// The wire words are the nicks, so the registration is the one table of codes.
const GEnumValue kErrorValues[] = {
    {ZAVLO_AUTH_ERROR_FAILED, "ZAVLO_AUTH_ERROR_FAILED", "FAILED"},
    {ZAVLO_AUTH_ERROR_INVALID_OPTIONS, "ZAVLO_AUTH_ERROR_INVALID_OPTIONS", "INVALID_OPTIONS"},
    {ZAVLO_AUTH_ERROR_NO_VIEW_CONTROLLER, "ZAVLO_AUTH_ERROR_NO_VIEW_CONTROLLER", "NO_VIEW_CONTROLLER"},
    {ZAVLO_AUTH_ERROR_SESSION_NOT_INITIALIZED, "ZAVLO_AUTH_ERROR_SESSION_NOT_INITIALIZED", "SESSION_NOT_INITIALIZED"},
    {ZAVLO_AUTH_ERROR_INVALID_SNA_URI, "ZAVLO_AUTH_ERROR_INVALID_SNA_URI", "INVALID_SNA_URI"},
    {ZAVLO_AUTH_ERROR_SNA_CELLULAR_UNAVAILABLE, "ZAVLO_AUTH_ERROR_SNA_CELLULAR_UNAVAILABLE",
     "SNA_CELLULAR_UNAVAILABLE"},
    {ZAVLO_AUTH_ERROR_SNA_DEVICE_NOT_ON_MOBILE_DATA, "ZAVLO_AUTH_ERROR_SNA_DEVICE_NOT_ON_MOBILE_DATA",
     "SNA_DEVICE_NOT_ON_MOBILE_DATA"},
    {ZAVLO_AUTH_ERROR_SNA_INVALID_REDIRECT, "ZAVLO_AUTH_ERROR_SNA_INVALID_REDIRECT", "SNA_INVALID_REDIRECT"},
    {ZAVLO_AUTH_ERROR_SNA_CONNECTION_FAILED, "ZAVLO_AUTH_ERROR_SNA_CONNECTION_FAILED", "SNA_CONNECTION_FAILED"},
    {ZAVLO_AUTH_ERROR_SNA_CELLULAR_REQUEST_FAILED, "ZAVLO_AUTH_ERROR_SNA_CELLULAR_REQUEST_FAILED",
     "SNA_CELLULAR_REQUEST_FAILED"},
    {ZAVLO_AUTH_ERROR_SNA_TOO_MANY_REDIRECTS, "ZAVLO_AUTH_ERROR_SNA_TOO_MANY_REDIRECTS", "SNA_TOO_MANY_REDIRECTS"},
    {ZAVLO_AUTH_ERROR_SDK_ERROR, "ZAVLO_AUTH_ERROR_SDK_ERROR", "SDK_ERROR"},
    {ZAVLO_AUTH_ERROR_DEVICE_NOT_SECURE, "ZAVLO_AUTH_ERROR_DEVICE_NOT_SECURE", "DEVICE_NOT_SECURE"},
    {ZAVLO_AUTH_ERROR_DEVICE_BINDING_UNSUPPORTED, "ZAVLO_AUTH_ERROR_DEVICE_BINDING_UNSUPPORTED",
     "DEVICE_BINDING_UNSUPPORTED"},
    {ZAVLO_AUTH_ERROR_DEVICE_BINDING_ENROLL_FAILED, "ZAVLO_AUTH_ERROR_DEVICE_BINDING_ENROLL_FAILED",
     "DEVICE_BINDING_ENROLL_FAILED"},
    {ZAVLO_AUTH_ERROR_INVALID_CHALLENGE, "ZAVLO_AUTH_ERROR_INVALID_CHALLENGE", "INVALID_CHALLENGE"},
    {ZAVLO_AUTH_ERROR_DEVICE_BINDING_NOT_ENROLLED, "ZAVLO_AUTH_ERROR_DEVICE_BINDING_NOT_ENROLLED",
     "DEVICE_BINDING_NOT_ENROLLED"},
    {ZAVLO_AUTH_ERROR_DEVICE_BINDING_KEY_INVALIDATED, "ZAVLO_AUTH_ERROR_DEVICE_BINDING_KEY_INVALIDATED",
     "DEVICE_BINDING_KEY_INVALIDATED"},
    {ZAVLO_AUTH_ERROR_DEVICE_BINDING_SIGN_FAILED, "ZAVLO_AUTH_ERROR_DEVICE_BINDING_SIGN_FAILED",
     "DEVICE_BINDING_SIGN_FAILED"},
    {ZAVLO_AUTH_ERROR_DEVICE_BINDING_USER_CANCELLED, "ZAVLO_AUTH_ERROR_DEVICE_BINDING_USER_CANCELLED",
     "DEVICE_BINDING_USER_CANCELLED"},
    {ZAVLO_AUTH_ERROR_DEVICE_BINDING_AUTH_FAILED, "ZAVLO_AUTH_ERROR_DEVICE_BINDING_AUTH_FAILED",
     "DEVICE_BINDING_AUTH_FAILED"},
    {ZAVLO_AUTH_ERROR_INVALID_JSON_CONFIGURATION, "ZAVLO_AUTH_ERROR_INVALID_JSON_CONFIGURATION",
     "INVALID_JSON_CONFIGURATION"},
    {ZAVLO_AUTH_ERROR_UNSUPPORTED_METHOD, "ZAVLO_AUTH_ERROR_UNSUPPORTED_METHOD", "UNSUPPORTED_METHOD"},
    {0, nullptr, nullptr},
};

std::string dump(const nlohmann::json& json) {
  // Replacement keeps the text valid UTF-8 even if a server sent bytes that are not.
  return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

// The library's failure as a GError: the code its word names, else FAILED with the word
// in front of the message.
GError* errorFrom(const ZavloAuthException& exception) {
  const auto& word = exception.errorCode();
  auto* enumClass = static_cast<GEnumClass*>(g_type_class_ref(zavlo_auth_error_get_type()));
  const GEnumValue* value = word ? g_enum_get_value_by_nick(enumClass, word->c_str()) : nullptr;
  GError* error = nullptr;
  if (value != nullptr && value->value != ZAVLO_AUTH_ERROR_FAILED && value->value != ZAVLO_AUTH_ERROR_INVALID_OPTIONS) {
    error = g_error_new_literal(ZAVLO_AUTH_ERROR, value->value, exception.errorMessage().c_str());
  } else if (word) {
    error = g_error_new(ZAVLO_AUTH_ERROR, ZAVLO_AUTH_ERROR_FAILED, "%s: %s", word->c_str(),
                        exception.errorMessage().c_str());
  } else {
    error = g_error_new_literal(ZAVLO_AUTH_ERROR, ZAVLO_AUTH_ERROR_FAILED, exception.errorMessage().c_str());
  }
  g_type_class_unref(enumClass);
  return error;
}

std::vector<std::string> texts(const nlohmann::json& options, const char* key) {
  std::vector<std::string> values;
  const auto found = options.find(key);
  if (found == options.end()) return values;
  if (!found->is_array()) throw std::invalid_argument(std::string(key) + " must be a list of texts");
  for (const auto& value : *found) values.push_back(value.get<std::string>());
  return values;
}

std::optional<std::string> text(const nlohmann::json& options, const char* key) {
  const auto found = options.find(key);
  if (found == options.end() || found->is_null()) return std::nullopt;
  return found->get<std::string>();
}

struct Settings {
  ZavloLinuxPlatform::Options platform;
  ZavloAuthEnvironment environment = ZavloAuthEnvironment::production;
  std::optional<std::string> telemetryEndpoint;
};

const char* const kOptionKeys[] = {"environment", "cellularInterfaces",  "cellularDnsServers", "trustAnchorsPem",
                                   "keyFile",     "ownerAuthentication", "ownerSecretFile",    "telemetryEndpoint",
                                   "sealingCost"};

// Throws (nlohmann's or std::invalid_argument) with the reason when the options are not usable.
Settings settingsFrom(const nlohmann::json& options) {
  if (!options.is_object()) throw std::invalid_argument("the options must be a JSON object");
  for (const auto& [key, value] : options.items()) {
    if (std::find(std::begin(kOptionKeys), std::end(kOptionKeys), key) == std::end(kOptionKeys)) {
      throw std::invalid_argument("unknown option " + key);
    }
  }
  Settings settings;
  const auto environment = text(options, "environment").value_or("production");
  if (environment == "development") {
    settings.environment = ZavloAuthEnvironment::development;
  } else if (environment != "production") {
    throw std::invalid_argument("environment must be production or development");
  }
  auto& platform = settings.platform;
  platform.cellularInterfaces = texts(options, "cellularInterfaces");
  platform.cellularDnsServers = texts(options, "cellularDnsServers");
  platform.additionalTrustAnchorsPem = texts(options, "trustAnchorsPem");
  platform.keyFilePath = text(options, "keyFile");
  const auto owner = text(options, "ownerAuthentication").value_or("pam");
  if (owner == "allow") {
    platform.ownerAuthentication.mode = ZavloLinuxOwnerAuthentication::Mode::allow;
  } else if (owner == "deny") {
    platform.ownerAuthentication.mode = ZavloLinuxOwnerAuthentication::Mode::deny;
  } else if (owner != "pam") {
    throw std::invalid_argument("ownerAuthentication must be pam, allow or deny");
  }
  platform.ownerAuthentication.secretFile = text(options, "ownerSecretFile");
  if (const auto cost = options.find("sealingCost"); cost != options.end()) {
    const auto log2N = cost->get<int>();
    if (log2N < 1 || log2N > 30) throw std::invalid_argument("sealingCost must be between 1 and 30");
    platform.sealingCost.log2N = static_cast<std::uint8_t>(log2N);
  }
  settings.telemetryEndpoint = text(options, "telemetryEndpoint");
  return settings;
}

}  // namespace

G_DEFINE_QUARK(zavlo - auth - error - quark, zavlo_auth_error)

GType zavlo_auth_error_get_type(void) {
  static gsize type = 0;
  if (g_once_init_enter(&type)) g_once_init_leave(&type, g_enum_register_static("ZavloAuthError", kErrorValues));
  return type;
}

struct _ZavloAuthClient {
  GObject parent;
  GMainContext* context;
  // Destroyed in reverse order: the graph before the platform it runs on.
  std::shared_ptr<ZavloLinuxPlatform>* platform;
  ZavloAuthenticationGraph* graph;
  std::shared_ptr<int>* screen;  // stands for the host's screen, which the library holds weakly
  ZavloAuthEnvironment::Value environment;
};

G_DEFINE_FINAL_TYPE(ZavloAuthClient, zavlo_auth_client, G_TYPE_OBJECT)

static void zavlo_auth_client_finalize(GObject* object) {
  auto* self = ZAVLO_AUTH_CLIENT(object);
  if (self->graph != nullptr) self->graph->operations->cleanupAll();
  delete self->graph;
  delete self->platform;
  delete self->screen;
  g_main_context_unref(self->context);
  G_OBJECT_CLASS(zavlo_auth_client_parent_class)->finalize(object);
}

static void zavlo_auth_client_class_init(ZavloAuthClientClass* klass) {
  G_OBJECT_CLASS(klass)->finalize = zavlo_auth_client_finalize;
}

static void zavlo_auth_client_init(ZavloAuthClient* self) {
  self->context = g_main_context_ref_thread_default();
  self->platform = nullptr;
  self->graph = nullptr;
  self->screen = nullptr;
  self->environment = ZavloAuthEnvironment::production;
}

ZavloAuthClient* zavlo_auth_client_new(const gchar* options, GError** error) {
  Settings settings;
  try {
    settings = settingsFrom(options == nullptr ? nlohmann::json::object() : nlohmann::json::parse(options));
  } catch (const std::exception& failure) {
    g_set_error(error, ZAVLO_AUTH_ERROR, ZAVLO_AUTH_ERROR_INVALID_OPTIONS, "The client's options cannot be used: %s",
                failure.what());
    return nullptr;
  }
  auto* self = static_cast<ZavloAuthClient*>(g_object_new(ZAVLO_AUTH_TYPE_CLIENT, nullptr));
  settings.platform.mainQueue = std::make_shared<ZavloGLibMainQueue>(self->context);
  self->platform =
      new std::shared_ptr<ZavloLinuxPlatform>(std::make_shared<ZavloLinuxPlatform>(std::move(settings.platform)));
  self->graph = new ZavloAuthenticationGraph(**self->platform);
  self->screen = new std::shared_ptr<int>(std::make_shared<int>(0));
  self->environment = static_cast<ZavloAuthEnvironment::Value>(static_cast<std::int64_t>(settings.environment));
  self->graph->nativeWrapper.setup(*self->screen, settings.environment);
  // After setup, which turns telemetry on for the environment's own endpoint.
  if (settings.telemetryEndpoint) self->graph->logManager->configure(settings.environment, *settings.telemetryEndpoint);
  return self;
}

ZavloAuthenticationGraph& zavloAuthClientGraph(ZavloAuthClient* client) { return *client->graph; }
std::shared_ptr<void> zavloAuthClientScreen(ZavloAuthClient* client) { return *client->screen; }
ZavloAuthEnvironment zavloAuthClientEnvironment(ZavloAuthClient* client) { return client->environment; }

gchar* zavlo_auth_client_get_capabilities(ZavloAuthClient* self) {
  g_return_val_if_fail(ZAVLO_AUTH_IS_CLIENT(self), nullptr);
  return g_strdup(dump(self->graph->nativeWrapper.getCapabilities()).c_str());
}

void zavlo_auth_client_cleanup(ZavloAuthClient* self) {
  g_return_if_fail(ZAVLO_AUTH_IS_CLIENT(self));
  self->graph->nativeWrapper.cleanupAll();
}

namespace {

// One call in flight: answered once, by the library or by the cancellable, whichever
// comes first. The library's answer after a cancellation is dropped.
struct Call {
  GTask* task;
  GCancellable* cancellable;
  // Stops what the call started on the network (a chain), when the cancellable fires.
  std::shared_ptr<ZavloCancellation> stop = std::make_shared<ZavloCancellation>();
  gulong cancelledHandler = 0;
  std::atomic<bool> answered{false};

  ~Call() {
    if (cancellable != nullptr) g_object_unref(cancellable);
    g_object_unref(task);
  }
  bool claim() { return !answered.exchange(true); }
};

// The client stays alive until the library answers, even after a cancellation: the chain
// still runs on its platform. The last reference goes from an idle of the client's
// context, never from inside the library's own completion.
void releaseLater(ZavloAuthClient* client) {
  GSource* idle = g_idle_source_new();
  g_source_set_callback(
      idle,
      [](gpointer data) -> gboolean {
        g_object_unref(data);
        return G_SOURCE_REMOVE;
      },
      client, nullptr);
  g_source_attach(idle, client->context);
  g_source_unref(idle);
}

void cancelled(GCancellable* /*cancellable*/, gpointer data) {
  auto& call = *static_cast<std::shared_ptr<Call>*>(data);
  if (call->claim()) {
    g_task_return_new_error(call->task, G_IO_ERROR, G_IO_ERROR_CANCELLED, "The operation was cancelled");
    call->stop->cancel();
  }
}

using Operation = std::function<void(ZavloAuthenticationNativeWrapper::Completion, std::shared_ptr<ZavloCancellation>)>;

void run(ZavloAuthClient* self, GCancellable* cancellable, GAsyncReadyCallback callback, gpointer userData,
         gpointer tag, const Operation& operation) {
  GTask* task = g_task_new(self, cancellable, callback, userData);
  g_task_set_source_tag(task, tag);
  // The library's answer, not the cancellable's state at that moment, decides the result.
  g_task_set_check_cancellable(task, FALSE);
  auto call = std::make_shared<Call>();
  call->task = task;
  call->cancellable = cancellable != nullptr ? G_CANCELLABLE(g_object_ref(cancellable)) : nullptr;
  if (cancellable != nullptr) {
    call->cancelledHandler =
        g_cancellable_connect(cancellable, G_CALLBACK(cancelled), new std::shared_ptr<Call>(call),
                              [](gpointer data) { delete static_cast<std::shared_ptr<Call>*>(data); });
  }
  g_object_ref(self);
  auto completion = [self, call](ZavloResult<nlohmann::json> result) {
    if (call->cancellable != nullptr) {
      g_cancellable_disconnect(call->cancellable, call->cancelledHandler);
      call->cancelledHandler = 0;
    }
    if (call->claim()) {
      if (result) {
        g_task_return_pointer(call->task, g_strdup(dump(result.value()).c_str()), g_free);
      } else {
        g_task_return_error(call->task, errorFrom(result.error()));
      }
    }
    releaseLater(self);
  };
  try {
    operation(std::move(completion), call->stop);
  } catch (const std::exception& failure) {
    // The library answers with values; this is only for what it cannot (memory).
    if (call->claim()) {
      g_task_return_new_error(task, ZAVLO_AUTH_ERROR, ZAVLO_AUTH_ERROR_FAILED, "%s", failure.what());
    }
  }
}

// A configuration: the JSON text the host gave, or an empty object; text that is no
// JSON object goes to the library as it is (an empty object would hide the mistake) by
// way of a value it refuses.
nlohmann::json configFrom(const gchar* config) {
  if (config == nullptr) return nlohmann::json::object();
  return nlohmann::json::parse(config, nullptr, /*allow_exceptions=*/false);
}

gchar* finish(ZavloAuthClient* self, GAsyncResult* result, gpointer tag, GError** error) {
  g_return_val_if_fail(g_task_is_valid(result, self), nullptr);
  g_return_val_if_fail(g_task_get_source_tag(G_TASK(result)) == tag, nullptr);
  return static_cast<gchar*>(g_task_propagate_pointer(G_TASK(result), error));
}

}  // namespace

void zavlo_auth_client_init_auth(ZavloAuthClient* self, const gchar* config, GCancellable* cancellable,
                                 GAsyncReadyCallback callback, gpointer user_data) {
  g_return_if_fail(ZAVLO_AUTH_IS_CLIENT(self));
  auto& wrapper = self->graph->nativeWrapper;
  const auto json = configFrom(config);
  run(self, cancellable, callback, user_data, reinterpret_cast<gpointer>(zavlo_auth_client_init_auth),
      [&wrapper, json](auto completion, auto /*stop*/) { wrapper.initAuth(json, std::move(completion)); });
}

gchar* zavlo_auth_client_init_auth_finish(ZavloAuthClient* self, GAsyncResult* result, GError** error) {
  return finish(self, result, reinterpret_cast<gpointer>(zavlo_auth_client_init_auth), error);
}

void zavlo_auth_client_start_auth(ZavloAuthClient* self, const gchar* url, const gchar* config,
                                  GCancellable* cancellable, GAsyncReadyCallback callback, gpointer user_data) {
  g_return_if_fail(ZAVLO_AUTH_IS_CLIENT(self));
  g_return_if_fail(url != nullptr);
  auto& wrapper = self->graph->nativeWrapper;
  std::string target(url);
  std::optional<nlohmann::json> session;
  if (config != nullptr) session = configFrom(config);
  run(self, cancellable, callback, user_data, reinterpret_cast<gpointer>(zavlo_auth_client_start_auth),
      [&wrapper, target, session](auto completion, auto stop) {
        if (!session) {
          wrapper.startAuth(target, std::move(completion), std::move(stop));
          return;
        }
        wrapper.initAuth(*session, [&wrapper, target, completion, stop](ZavloResult<nlohmann::json> started) {
          if (!started) {
            completion(std::move(started));
            return;
          }
          wrapper.startAuth(target, completion, stop);
        });
      });
}

gchar* zavlo_auth_client_start_auth_finish(ZavloAuthClient* self, GAsyncResult* result, GError** error) {
  return finish(self, result, reinterpret_cast<gpointer>(zavlo_auth_client_start_auth), error);
}

void zavlo_auth_client_enroll(ZavloAuthClient* self, const gchar* config, GCancellable* cancellable,
                              GAsyncReadyCallback callback, gpointer user_data) {
  g_return_if_fail(ZAVLO_AUTH_IS_CLIENT(self));
  auto& wrapper = self->graph->nativeWrapper;
  const auto json = configFrom(config);
  run(self, cancellable, callback, user_data, reinterpret_cast<gpointer>(zavlo_auth_client_enroll),
      [&wrapper, json](auto completion, auto /*stop*/) { wrapper.enrollDeviceBinding(json, std::move(completion)); });
}

gchar* zavlo_auth_client_enroll_finish(ZavloAuthClient* self, GAsyncResult* result, GError** error) {
  return finish(self, result, reinterpret_cast<gpointer>(zavlo_auth_client_enroll), error);
}

void zavlo_auth_client_sign(ZavloAuthClient* self, const gchar* config, GCancellable* cancellable,
                            GAsyncReadyCallback callback, gpointer user_data) {
  g_return_if_fail(ZAVLO_AUTH_IS_CLIENT(self));
  auto& wrapper = self->graph->nativeWrapper;
  const auto json = configFrom(config);
  run(self, cancellable, callback, user_data, reinterpret_cast<gpointer>(zavlo_auth_client_sign),
      [&wrapper, json](auto completion, auto /*stop*/) {
        wrapper.signDeviceBindingChallenge(json, std::move(completion));
      });
}

gchar* zavlo_auth_client_sign_finish(ZavloAuthClient* self, GAsyncResult* result, GError** error) {
  return finish(self, result, reinterpret_cast<gpointer>(zavlo_auth_client_sign), error);
}

void zavlo_auth_client_get_state(ZavloAuthClient* self, const gchar* config, GCancellable* cancellable,
                                 GAsyncReadyCallback callback, gpointer user_data) {
  g_return_if_fail(ZAVLO_AUTH_IS_CLIENT(self));
  auto& wrapper = self->graph->nativeWrapper;
  const auto json = configFrom(config);
  run(self, cancellable, callback, user_data, reinterpret_cast<gpointer>(zavlo_auth_client_get_state),
      [&wrapper, json](auto completion, auto /*stop*/) { wrapper.getDeviceBindingState(json, std::move(completion)); });
}

gchar* zavlo_auth_client_get_state_finish(ZavloAuthClient* self, GAsyncResult* result, GError** error) {
  return finish(self, result, reinterpret_cast<gpointer>(zavlo_auth_client_get_state), error);
}
