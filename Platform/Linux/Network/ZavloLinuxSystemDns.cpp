// A link's name servers as the system's network services know them, over the system bus:
// systemd-resolved (the link's DNS servers) and NetworkManager (the device's IPv4 and IPv6
// configuration). Both are asked synchronously, off the connections' I/O thread.
#include <arpa/inet.h>
#include <gio/gio.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "Platform/Linux/ZavloLinuxGLibHeadroom.hpp"

std::vector<std::string> zavloResolvedLinkServers(unsigned interfaceIndex);
std::vector<std::string> zavloNetworkManagerLinkServers(const std::string& interfaceName);

namespace {

// A service that hangs must not hold a connection for long: the hop's own time-out runs.
constexpr int kCallTimeoutMs = 1000;
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";

struct VariantDeleter {
  void operator()(GVariant* variant) const { g_variant_unref(variant); }
};
using VariantPointer = std::unique_ptr<GVariant, VariantDeleter>;

// The services describe the links of the namespace they run in, the init process's: asked
// from another namespace (a test's, a container's), an index or a name there would name
// some other link.
bool inSystemNamespace() {
  std::error_code error;
  const auto own = std::filesystem::read_symlink("/proc/thread-self/ns/net", error);
  if (error) return false;
  const auto system = std::filesystem::read_symlink("/proc/1/ns/net", error);
  return error ? true : own == system;  // unreadable without root: most likely the same
}

// A private connection to the system bus, closed on every path: GLib's shared bus
// singleton ends the process when the bus goes away.
class SystemBus {
 public:
  SystemBus() {
    if (zavloGLibShortage() != ZavloGLibShortage::none) return;
    gchar* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    if (address == nullptr) return;
    connection_ = g_dbus_connection_new_for_address_sync(
        address,
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
    g_free(address);
  }
  SystemBus(const SystemBus&) = delete;
  SystemBus& operator=(const SystemBus&) = delete;
  ~SystemBus() {
    if (connection_ == nullptr) return;
    g_dbus_connection_close_sync(connection_, nullptr, nullptr);
    g_object_unref(connection_);
  }

  explicit operator bool() const { return connection_ != nullptr; }

  VariantPointer call(const char* service, const char* path, const char* interface, const char* method,
                      GVariant* arguments, const char* replyType) const {
    return VariantPointer(g_dbus_connection_call_sync(connection_, service, path, interface, method, arguments,
                                                      G_VARIANT_TYPE(replyType), G_DBUS_CALL_FLAGS_NO_AUTO_START,
                                                      kCallTimeoutMs, nullptr, nullptr));
  }

  // The value of a property, or null.
  VariantPointer property(const char* service, const char* path, const char* interface, const char* name) const {
    const auto reply = call(service, path, kProperties, "Get", g_variant_new("(ss)", interface, name), "(v)");
    if (!reply) return nullptr;
    GVariant* value = nullptr;
    g_variant_get(reply.get(), "(v)", &value);
    return VariantPointer(value);
  }

 private:
  GDBusConnection* connection_ = nullptr;
};

std::string addressText(int family, const guint8* bytes, gsize size) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  if ((family == AF_INET && size == 4) || (family == AF_INET6 && size == 16)) {
    if (inet_ntop(family, bytes, text.data(), text.size()) != nullptr) return text.data();
  }
  return {};
}

std::string withPort(const std::string& address, int family, guint16 port) {
  if (port == 0 || port == 53) return address;
  return (family == AF_INET6 ? "[" + address + "]" : address) + ":" + std::to_string(port);
}

}  // namespace

std::vector<std::string> zavloResolvedLinkServers(unsigned interfaceIndex) {
  constexpr const char* kService = "org.freedesktop.resolve1";
  constexpr const char* kLink = "org.freedesktop.resolve1.Link";
  std::vector<std::string> servers;
  if (!inSystemNamespace()) return servers;
  const SystemBus bus;
  if (!bus) return servers;
  const auto link = bus.call(kService, "/org/freedesktop/resolve1", "org.freedesktop.resolve1.Manager", "GetLink",
                             g_variant_new("(i)", static_cast<gint32>(interfaceIndex)), "(o)");
  if (!link) return servers;
  const gchar* path = nullptr;
  g_variant_get(link.get(), "(&o)", &path);
  // DNSEx carries ports; older versions have only DNS.
  if (const auto ex = bus.property(kService, path, kLink, "DNSEx");
      ex && g_variant_is_of_type(ex.get(), G_VARIANT_TYPE("a(iayqs)"))) {
    GVariantIter iter;
    g_variant_iter_init(&iter, ex.get());
    gint32 family = 0;
    GVariant* bytes = nullptr;
    guint16 port = 0;
    const gchar* name = nullptr;
    while (g_variant_iter_next(&iter, "(i@ayq&s)", &family, &bytes, &port, &name)) {
      const VariantPointer owned(bytes);
      gsize size = 0;
      const auto* data = static_cast<const guint8*>(g_variant_get_fixed_array(bytes, &size, 1));
      if (auto text = addressText(family, data, size); !text.empty()) servers.push_back(withPort(text, family, port));
    }
    return servers;
  }
  if (const auto plain = bus.property(kService, path, kLink, "DNS");
      plain && g_variant_is_of_type(plain.get(), G_VARIANT_TYPE("a(iay)"))) {
    GVariantIter iter;
    g_variant_iter_init(&iter, plain.get());
    gint32 family = 0;
    GVariant* bytes = nullptr;
    while (g_variant_iter_next(&iter, "(i@ay)", &family, &bytes)) {
      const VariantPointer owned(bytes);
      gsize size = 0;
      const auto* data = static_cast<const guint8*>(g_variant_get_fixed_array(bytes, &size, 1));
      if (auto text = addressText(family, data, size); !text.empty()) servers.push_back(text);
    }
  }
  return servers;
}

std::vector<std::string> zavloNetworkManagerLinkServers(const std::string& interfaceName) {
  constexpr const char* kService = "org.freedesktop.NetworkManager";
  constexpr const char* kDevice = "org.freedesktop.NetworkManager.Device";
  std::vector<std::string> servers;
  if (!inSystemNamespace()) return servers;
  const SystemBus bus;
  if (!bus) return servers;
  const auto device = bus.call(kService, "/org/freedesktop/NetworkManager", "org.freedesktop.NetworkManager",
                               "GetDeviceByIpIface", g_variant_new("(s)", interfaceName.c_str()), "(o)");
  if (!device) return servers;
  const gchar* devicePath = nullptr;
  g_variant_get(device.get(), "(&o)", &devicePath);
  const auto configPath = [&](const char* property) -> std::string {
    const auto value = bus.property(kService, devicePath, kDevice, property);
    if (!value || !g_variant_is_of_type(value.get(), G_VARIANT_TYPE_OBJECT_PATH)) return {};
    std::string path = g_variant_get_string(value.get(), nullptr);
    return path == "/" ? std::string() : path;
  };
  if (const auto ip4 = configPath("Ip4Config"); !ip4.empty()) {
    // NameserverData: one dictionary per server, its "address" a string.
    const auto data = bus.property(kService, ip4.c_str(), "org.freedesktop.NetworkManager.IP4Config", "NameserverData");
    if (data && g_variant_is_of_type(data.get(), G_VARIANT_TYPE("aa{sv}"))) {
      GVariantIter iter;
      g_variant_iter_init(&iter, data.get());
      GVariant* entry = nullptr;
      while (g_variant_iter_next(&iter, "@a{sv}", &entry)) {
        const VariantPointer owned(entry);
        const gchar* address = nullptr;
        if (g_variant_lookup(entry, "address", "&s", &address)) servers.emplace_back(address);
      }
    }
  }
  if (const auto ip6 = configPath("Ip6Config"); !ip6.empty()) {
    const auto list = bus.property(kService, ip6.c_str(), "org.freedesktop.NetworkManager.IP6Config", "Nameservers");
    if (list && g_variant_is_of_type(list.get(), G_VARIANT_TYPE("aay"))) {
      GVariantIter iter;
      g_variant_iter_init(&iter, list.get());
      GVariant* bytes = nullptr;
      while (g_variant_iter_next(&iter, "@ay", &bytes)) {
        const VariantPointer owned(bytes);
        gsize size = 0;
        const auto* data = static_cast<const guint8*>(g_variant_get_fixed_array(bytes, &size, 1));
        if (auto text = addressText(AF_INET6, data, size); !text.empty()) servers.push_back(text);
      }
    }
  }
  return servers;
}
