#include "Platform/Linux/Owner/ZavloLinuxFingerprints.hpp"

#include <gio/gio.h>
#include <openssl/evp.h>

#include <algorithm>
#include <memory>
#include <stdexcept>

namespace {

constexpr const char* kService = "net.reactivated.Fprint";
constexpr const char* kManagerPath = "/net/reactivated/Fprint/Manager";
constexpr const char* kManagerInterface = "net.reactivated.Fprint.Manager";
constexpr const char* kDeviceInterface = "net.reactivated.Fprint.Device";
constexpr const char* kNoEnrolledPrints = "net.reactivated.Fprint.Error.NoEnrolledPrints";
// A daemon that hangs must not hold a policy check for long.
constexpr int kCallTimeoutMs = 10000;

struct ErrorDeleter {
  void operator()(GError* error) const { g_error_free(error); }
};
struct VariantDeleter {
  void operator()(GVariant* variant) const { g_variant_unref(variant); }
};
using ErrorPointer = std::unique_ptr<GError, ErrorDeleter>;
using VariantPointer = std::unique_ptr<GVariant, VariantDeleter>;

// A private connection, closed on every path: the shared bus singletons of GLib end the
// process when their bus goes away, and a library must not do that to its host.
class PrivateConnection {
 public:
  explicit PrivateConnection(GDBusConnection* connection) : connection_(connection) {}
  PrivateConnection(const PrivateConnection&) = delete;
  PrivateConnection& operator=(const PrivateConnection&) = delete;
  ~PrivateConnection() {
    g_dbus_connection_close_sync(connection_, nullptr, nullptr);
    g_object_unref(connection_);
  }

  VariantPointer call(const char* path, const char* interface, const char* method, GVariant* arguments,
                      const char* replyType, ErrorPointer& error) const {
    GError* raw = nullptr;
    VariantPointer reply(g_dbus_connection_call_sync(connection_, kService, path, interface, method, arguments,
                                                     G_VARIANT_TYPE(replyType), G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs,
                                                     nullptr, &raw));
    error.reset(raw);
    return reply;
  }

 private:
  GDBusConnection* connection_;
};

ZavloLinuxEnrolledFingers unavailable(std::string detail) {
  return {ZavloLinuxEnrolledFingers::Availability::unavailable, {}, std::move(detail)};
}

std::string remoteErrorName(const GError* error) {
  gchar* name = g_dbus_error_get_remote_error(error);
  if (name == nullptr) return {};
  std::string result = name;
  g_free(name);
  return result;
}

}  // namespace

ZavloLinuxEnrolledFingers zavloReadEnrolledFingers(const std::optional<std::string>& busAddress,
                                                   const std::string& user) {
  GError* raw = nullptr;
  std::string address;
  if (busAddress) {
    address = *busAddress;
  } else {
    gchar* systemAddress = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &raw);
    if (systemAddress == nullptr) {
      ErrorPointer error(raw);
      return unavailable(std::string("No system bus: ") + error->message);
    }
    address = systemAddress;
    g_free(systemAddress);
  }

  GDBusConnection* connection = g_dbus_connection_new_for_address_sync(
      address.c_str(),
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, &raw);
  if (connection == nullptr) {
    ErrorPointer error(raw);
    return unavailable("Cannot connect to the bus at " + address + ": " + error->message);
  }
  const PrivateConnection bus(connection);

  ErrorPointer error;
  const auto device = bus.call(kManagerPath, kManagerInterface, "GetDefaultDevice", nullptr, "(o)", error);
  if (!device) return unavailable(std::string("No fingerprint device: ") + error->message);
  const gchar* devicePath = nullptr;
  g_variant_get(device.get(), "(&o)", &devicePath);

  const auto list =
      bus.call(devicePath, kDeviceInterface, "ListEnrolledFingers", g_variant_new("(s)", user.c_str()), "(as)", error);
  if (!list) {
    if (remoteErrorName(error.get()) == kNoEnrolledPrints) {
      return {ZavloLinuxEnrolledFingers::Availability::notEnrolled, {}, "No finger of " + user + " is enrolled."};
    }
    return unavailable(std::string("The fingerprint daemon did not list the enrolled fingers: ") + error->message);
  }

  ZavloLinuxEnrolledFingers result;
  GVariantIter* names = nullptr;
  g_variant_get(list.get(), "(as)", &names);
  const gchar* name = nullptr;
  while (g_variant_iter_next(names, "&s", &name)) result.fingers.emplace_back(name);
  g_variant_iter_free(names);
  if (result.fingers.empty()) {
    return {ZavloLinuxEnrolledFingers::Availability::notEnrolled, {}, "No finger of " + user + " is enrolled."};
  }
  std::sort(result.fingers.begin(), result.fingers.end());
  result.availability = ZavloLinuxEnrolledFingers::Availability::enrolled;
  return result;
}

ZavloBytes zavloEnrolledFingersDigest(const std::vector<std::string>& sortedFingers) {
  std::string text;
  for (const auto& finger : sortedFingers) text.append(finger).push_back('\n');
  ZavloBytes digest(EVP_MAX_MD_SIZE);
  unsigned int size = 0;
  if (EVP_Digest(text.data(), text.size(), digest.data(), &size, EVP_sha256(), nullptr) != 1) {
    throw std::runtime_error("SHA-256 failed");
  }
  digest.resize(size);
  return digest;
}
