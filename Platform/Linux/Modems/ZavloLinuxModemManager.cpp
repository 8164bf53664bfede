// ModemManager over GDBus: the watcher ZavloLinuxModems starts through
// zavloLinuxModemWatcherFactory.
#include <gio/gio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <memory>
#include <mutex>
#include <string_view>
#include <thread>

#include "Platform/Linux/Network/ZavloLinuxModems.hpp"
#include "Platform/Linux/ZavloLinuxGLibHeadroom.hpp"

namespace {

constexpr const char* kService = "org.freedesktop.ModemManager1";
constexpr const char* kManagerPath = "/org/freedesktop/ModemManager1";
constexpr const char* kModemInterface = "org.freedesktop.ModemManager1.Modem";
constexpr const char* k3gppInterface = "org.freedesktop.ModemManager1.Modem.Modem3gpp";
constexpr const char* kBearerInterface = "org.freedesktop.ModemManager1.Bearer";
constexpr const char* kObjectManagerInterface = "org.freedesktop.DBus.ObjectManager";
constexpr const char* kPropertiesInterface = "org.freedesktop.DBus.Properties";
// What the bus answers for a name nobody owns: without auto-start, and with it.
constexpr std::array<std::string_view, 2> kNoOwner = {"org.freedesktop.DBus.Error.NameHasNoOwner",
                                                      "org.freedesktop.DBus.Error.ServiceUnknown"};
// A daemon that hangs holds only the watcher's thread, and only this long per call.
constexpr int kCallTimeoutMs = 5000;

// ModemManager's own nicknames: MMModem3gppRegistrationState by value, and
// MMModemAccessTechnology by bit.
constexpr std::array<std::string_view, 12> kRegistrationStates = {"idle",
                                                                  "home",
                                                                  "searching",
                                                                  "denied",
                                                                  "unknown",
                                                                  "roaming",
                                                                  "home-sms-only",
                                                                  "roaming-sms-only",
                                                                  "emergency-only",
                                                                  "home-csfb-not-preferred",
                                                                  "roaming-csfb-not-preferred",
                                                                  "attached-rlos"};
constexpr std::array<std::string_view, 18> kAccessTechnologies = {
    "pots",      "gsm",   "gsm-compact", "gprs",  "edge",  "umts", "hsdpa", "hsupa",     "hspa",
    "hspa-plus", "1xrtt", "evdo0",       "evdoa", "evdob", "lte",  "5gnr",  "lte-cat-m", "lte-nb-iot"};

struct ErrorDeleter {
  void operator()(GError* error) const { g_error_free(error); }
};
struct VariantDeleter {
  void operator()(GVariant* variant) const { g_variant_unref(variant); }
};
using ErrorPointer = std::unique_ptr<GError, ErrorDeleter>;
using VariantPointer = std::unique_ptr<GVariant, VariantDeleter>;

VariantPointer lookup(GVariant* dictionary, const char* key, const GVariantType* type) {
  return VariantPointer(g_variant_lookup_value(dictionary, key, type));
}

std::string text(GVariant* dictionary, const char* key) {
  const auto value = lookup(dictionary, key, G_VARIANT_TYPE_STRING);
  return value ? g_variant_get_string(value.get(), nullptr) : "";
}

std::optional<std::uint32_t> number(GVariant* dictionary, const char* key) {
  const auto value = lookup(dictionary, key, G_VARIANT_TYPE_UINT32);
  if (!value) return std::nullopt;
  return g_variant_get_uint32(value.get());
}

// An object path, "" for none ("/" is how ModemManager says none).
std::string objectPath(GVariant* dictionary, const char* key) {
  const auto value = lookup(dictionary, key, G_VARIANT_TYPE_OBJECT_PATH);
  const std::string path = value ? g_variant_get_string(value.get(), nullptr) : "";
  return path == "/" ? "" : path;
}

std::vector<std::string> objectPaths(GVariant* dictionary, const char* key) {
  std::vector<std::string> paths;
  if (const auto value = lookup(dictionary, key, G_VARIANT_TYPE_OBJECT_PATH_ARRAY)) {
    for (gsize i = 0, n = g_variant_n_children(value.get()); i < n; ++i) {
      const VariantPointer child(g_variant_get_child_value(value.get(), i));
      paths.emplace_back(g_variant_get_string(child.get(), nullptr));
    }
  }
  return paths;
}

std::vector<std::string> accessTechnologies(std::uint32_t mask) {
  std::vector<std::string> names;
  for (std::size_t bit = 0; bit < kAccessTechnologies.size(); ++bit) {
    if ((mask & (std::uint32_t{1} << bit)) != 0) names.emplace_back(kAccessTechnologies[bit]);
  }
  return names;
}

std::string registrationState(std::uint32_t state) {
  return state < kRegistrationStates.size() ? std::string(kRegistrationStates[state]) : "unknown";
}

// The modem's own properties and those of its 3GPP interface, from one entry of
// GetManagedObjects; nothing for an object that is no modem.
std::optional<ZavloLinuxModem> readModem(const char* path, GVariant* interfaces) {
  const auto properties = lookup(interfaces, kModemInterface, G_VARIANT_TYPE_VARDICT);
  if (!properties) return std::nullopt;
  ZavloLinuxModem modem;
  modem.path = path;
  modem.accessTechnologies = accessTechnologies(number(properties.get(), "AccessTechnologies").value_or(0));
  if (const auto signal = lookup(properties.get(), "SignalQuality", G_VARIANT_TYPE("(ub)"))) {
    guint32 quality = 0;
    gboolean recent = FALSE;
    g_variant_get(signal.get(), "(ub)", &quality, &recent);
    modem.signalQuality = quality;
    modem.signalRecent = recent != FALSE;
  }
  modem.simPath = objectPath(properties.get(), "Sim");
  // PrimarySimSlot counts from 1; 0 on a modem without slots to choose from.
  const auto slot = number(properties.get(), "PrimarySimSlot").value_or(0);
  const auto slots = objectPaths(properties.get(), "SimSlots");
  if (slot > 0) {
    modem.simSlot = slot;
  } else if (const auto found = std::find(slots.begin(), slots.end(), modem.simPath);
             !modem.simPath.empty() && found != slots.end()) {
    modem.simSlot = static_cast<unsigned>(found - slots.begin()) + 1;
  }
  for (auto& bearerPath : objectPaths(properties.get(), "Bearers")) {
    ZavloLinuxBearer bearer;
    bearer.path = std::move(bearerPath);
    modem.bearers.push_back(std::move(bearer));
  }
  if (const auto gpp = lookup(interfaces, k3gppInterface, G_VARIANT_TYPE_VARDICT)) {
    modem.operatorCode = text(gpp.get(), "OperatorCode");
    modem.operatorName = text(gpp.get(), "OperatorName");
    if (const auto state = number(gpp.get(), "RegistrationState")) modem.registrationState = registrationState(*state);
  }
  return modem;
}

void readBearer(GVariant* properties, ZavloLinuxBearer& bearer) {
  bearer.interfaceName = text(properties, "Interface");
  if (const auto connected = lookup(properties, "Connected", G_VARIANT_TYPE_BOOLEAN)) {
    bearer.connected = g_variant_get_boolean(connected.get()) != FALSE;
  }
  for (const char* family : {"Ip4Config", "Ip6Config"}) {
    const auto config = lookup(properties, family, G_VARIANT_TYPE_VARDICT);
    if (!config) continue;
    for (const char* key : {"dns1", "dns2", "dns3"}) {
      if (auto server = text(config.get(), key); !server.empty()) bearer.dnsServers.push_back(std::move(server));
    }
  }
}

ZavloLinuxModemReading unreached(std::string detail) {
  return {.reached = false, .detail = std::move(detail), .modems = {}};
}

// The reason GLib could not run here, or nothing.
std::optional<std::string> glibWouldAbort() {
  switch (zavloGLibShortage()) {
    case ZavloGLibShortage::descriptors:
      return "no file descriptor is left to reach ModemManager";
    case ZavloGLibShortage::thread:
      return "no thread can be started for GLib's D-Bus worker";
    case ZavloGLibShortage::none:
      break;
  }
  return std::nullopt;
}

// One private connection on a main context of the watcher's own thread: GLib's shared bus
// singletons end the process when their bus goes away, which a library must not do.
class ModemManagerWatcher final : public ZavloLinuxModemWatcher {
 public:
  ModemManagerWatcher(std::optional<std::string> busAddress, Publish publish)
      : busAddress_(std::move(busAddress)), publish_(std::move(publish)) {
    thread_ = std::thread([this] {
      pthread_setname_np(pthread_self(), "zavlo-modems");
      run();
    });
  }

  ~ModemManagerWatcher() override {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
      if (cancellable_ != nullptr) g_cancellable_cancel(cancellable_);
      if (context_ != nullptr) g_main_context_wakeup(context_);
    }
    thread_.join();
  }

  ModemManagerWatcher(const ModemManagerWatcher&) = delete;
  ModemManagerWatcher& operator=(const ModemManagerWatcher&) = delete;

 private:
  bool stopping() {
    std::lock_guard lock(mutex_);
    return stopping_;
  }

  void run() {
    if (auto reason = glibWouldAbort()) return publish_(unreached(std::move(*reason)));
    GMainContext* context = g_main_context_new();
    g_main_context_push_thread_default(context);
    GCancellable* cancellable = g_cancellable_new();
    bool stopped = false;
    {
      std::lock_guard lock(mutex_);
      context_ = context;
      cancellable_ = cancellable;
      stopped = stopping_;
    }
    if (!stopped) watch(context, cancellable);
    {
      std::lock_guard lock(mutex_);
      context_ = nullptr;
      cancellable_ = nullptr;
    }
    g_object_unref(cancellable);
    // Sources still attached (a refresh scheduled at the end) go with the context.
    g_main_context_pop_thread_default(context);
    g_main_context_unref(context);
  }

  // Connects, reads, and follows ModemManager's signals until stopped or disconnected.
  void watch(GMainContext* context, GCancellable* cancellable) {
    GError* raw = nullptr;
    std::string address;
    if (busAddress_) {
      address = *busAddress_;
    } else {
      gchar* systemAddress = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, cancellable, &raw);
      if (systemAddress == nullptr) {
        const ErrorPointer error(raw);
        return publish_(unreached(std::string("no system bus: ") + error->message));
      }
      address = systemAddress;
      g_free(systemAddress);
    }
    connection_ = g_dbus_connection_new_for_address_sync(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, cancellable, &raw);
    if (connection_ == nullptr) {
      const ErrorPointer error(raw);
      return publish_(unreached("cannot connect to the bus at " + address + ": " + error->message));
    }
    const auto closed =
        g_signal_connect(connection_, "closed", G_CALLBACK(+[](GDBusConnection*, gboolean, GError*, gpointer self) {
                           static_cast<ModemManagerWatcher*>(self)->closed_ = true;
                         }),
                         this);
    // Whatever ModemManager changes, the whole state is read again: it is small, and a
    // reading never mixes old and new.
    const std::array<guint, 3> subscriptions = {
        g_dbus_connection_signal_subscribe(connection_, "org.freedesktop.DBus", "org.freedesktop.DBus",
                                           "NameOwnerChanged", "/org/freedesktop/DBus", kService,
                                           G_DBUS_SIGNAL_FLAGS_NONE, &ModemManagerWatcher::changed, this, nullptr),
        g_dbus_connection_signal_subscribe(connection_, kService, kObjectManagerInterface, nullptr, kManagerPath,
                                           nullptr, G_DBUS_SIGNAL_FLAGS_NONE, &ModemManagerWatcher::changed, this,
                                           nullptr),
        g_dbus_connection_signal_subscribe(connection_, kService, kPropertiesInterface, "PropertiesChanged", nullptr,
                                           kService, G_DBUS_SIGNAL_FLAGS_MATCH_ARG0_NAMESPACE,
                                           &ModemManagerWatcher::changed, this, nullptr)};
    refresh();
    while (!stopping() && !closed_) g_main_context_iteration(context, TRUE);
    if (closed_ && !stopping()) publish_(unreached("the bus closed the connection"));

    for (const auto id : subscriptions) g_dbus_connection_signal_unsubscribe(connection_, id);
    g_signal_handler_disconnect(connection_, closed);
    g_dbus_connection_close_sync(connection_, nullptr, nullptr);
    g_object_unref(connection_);
    connection_ = nullptr;
    // Lets GDBus release what it scheduled here (its subscriptions' clean-up); a refresh
    // still pending does nothing now.
    while (g_main_context_iteration(context, FALSE)) {
    }
  }

  static void changed(GDBusConnection* /*connection*/, const gchar* /*sender*/, const gchar* /*path*/,
                      const gchar* /*interface*/, const gchar* /*signal*/, GVariant* /*parameters*/, gpointer data) {
    auto* self = static_cast<ModemManagerWatcher*>(data);
    // Signals come in bursts (a connecting bearer changes several properties): one reading
    // after those already queued.
    if (self->refreshPending_) return;
    self->refreshPending_ = true;
    GSource* idle = g_idle_source_new();
    g_source_set_callback(
        idle,
        [](gpointer watcher) -> gboolean {
          auto* target = static_cast<ModemManagerWatcher*>(watcher);
          target->refreshPending_ = false;
          if (target->connection_ != nullptr) target->refresh();
          return G_SOURCE_REMOVE;
        },
        self, nullptr);
    g_source_attach(idle, self->context_);
    g_source_unref(idle);
  }

  VariantPointer call(const char* path, const char* interface, const char* method, GVariant* arguments,
                      const char* replyType, ErrorPointer& error) const {
    GError* raw = nullptr;
    // Never starts ModemManager by bus activation: a host that does not run it does not want it.
    VariantPointer reply(g_dbus_connection_call_sync(connection_, kService, path, interface, method, arguments,
                                                     G_VARIANT_TYPE(replyType), G_DBUS_CALL_FLAGS_NO_AUTO_START,
                                                     kCallTimeoutMs, cancellable_, &raw));
    error.reset(raw);
    return reply;
  }

  void refresh() {
    ErrorPointer error;
    const auto objects =
        call(kManagerPath, kObjectManagerInterface, "GetManagedObjects", nullptr, "(a{oa{sa{sv}}})", error);
    if (!objects) {
      if (g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_CANCELLED)) return;
      gchar* remote = g_dbus_error_get_remote_error(error.get());
      const bool absent = remote != nullptr && std::find(kNoOwner.begin(), kNoOwner.end(), remote) != kNoOwner.end();
      g_free(remote);
      return publish_(unreached(absent ? "ModemManager is not on the bus" : error->message));
    }
    ZavloLinuxModemReading reading;
    reading.reached = true;
    const VariantPointer entries(g_variant_get_child_value(objects.get(), 0));
    GVariantIter iterator;
    g_variant_iter_init(&iterator, entries.get());
    const gchar* path = nullptr;
    GVariant* interfaces = nullptr;
    while (g_variant_iter_next(&iterator, "{&o@a{sa{sv}}}", &path, &interfaces)) {
      const VariantPointer owned(interfaces);
      if (auto modem = readModem(path, interfaces)) reading.modems.push_back(std::move(*modem));
    }
    std::sort(reading.modems.begin(), reading.modems.end(),
              [](const ZavloLinuxModem& a, const ZavloLinuxModem& b) { return a.path < b.path; });
    for (auto& modem : reading.modems) {
      for (auto& bearer : modem.bearers) {
        const auto reply = call(bearer.path.c_str(), kPropertiesInterface, "GetAll",
                                g_variant_new("(s)", kBearerInterface), "(a{sv})", error);
        if (!reply) continue;  // gone meanwhile: its removal is on its way
        const VariantPointer properties(g_variant_get_child_value(reply.get(), 0));
        readBearer(properties.get(), bearer);
      }
    }
    if (stopping()) return;
    publish_(std::move(reading));
  }

  const std::optional<std::string> busAddress_;
  const Publish publish_;
  std::thread thread_;

  std::mutex mutex_;  // what the destructor reaches from another thread
  bool stopping_ = false;
  GMainContext* context_ = nullptr;
  GCancellable* cancellable_ = nullptr;

  // The watcher's thread only.
  GDBusConnection* connection_ = nullptr;
  bool closed_ = false;
  bool refreshPending_ = false;
};

std::unique_ptr<ZavloLinuxModemWatcher> makeWatcher(const std::optional<std::string>& busAddress,
                                                    ZavloLinuxModemWatcher::Publish publish) {
  return std::make_unique<ModemManagerWatcher>(busAddress, std::move(publish));
}

}  // namespace

extern "C" const ZavloLinuxModemWatcherFactory zavloLinuxModemWatcherFactory = &makeWatcher;
