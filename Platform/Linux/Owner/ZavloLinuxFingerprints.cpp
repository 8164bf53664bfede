#include "Platform/Linux/Owner/ZavloLinuxFingerprints.hpp"

#include <fcntl.h>
#include <gio/gio.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <string_view>

#include "Platform/Linux/ZavloLinuxGLibHeadroom.hpp"

namespace {

constexpr const char* kService = "net.reactivated.Fprint";
constexpr const char* kManagerPath = "/net/reactivated/Fprint/Manager";
constexpr const char* kManagerInterface = "net.reactivated.Fprint.Manager";
constexpr const char* kDeviceInterface = "net.reactivated.Fprint.Device";
constexpr const char* kPropertiesInterface = "org.freedesktop.DBus.Properties";
constexpr const char* kNoEnrolledPrints = "net.reactivated.Fprint.Error.NoEnrolledPrints";
// fprintd names a stored print's file after its finger's number (libfprint's FpFinger), in
// hexadecimal.
constexpr std::array<std::pair<std::string_view, char>, 10> kFingerFiles{{{"left-thumb", '1'},
                                                                          {"left-index-finger", '2'},
                                                                          {"left-middle-finger", '3'},
                                                                          {"left-ring-finger", '4'},
                                                                          {"left-little-finger", '5'},
                                                                          {"right-thumb", '6'},
                                                                          {"right-index-finger", '7'},
                                                                          {"right-middle-finger", '8'},
                                                                          {"right-ring-finger", '9'},
                                                                          {"right-little-finger", 'a'}}};
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

ZavloLinuxEnrolledFingers answer(ZavloLinuxEnrolledFingers::Availability availability, std::string detail) {
  ZavloLinuxEnrolledFingers result;
  result.availability = availability;
  result.detail = std::move(detail);
  return result;
}

ZavloLinuxEnrolledFingers unavailable(std::string detail) {
  return answer(ZavloLinuxEnrolledFingers::Availability::unavailable, std::move(detail));
}

std::string remoteErrorName(const GError* error) {
  gchar* name = g_dbus_error_get_remote_error(error);
  if (name == nullptr) return {};
  std::string result = name;
  g_free(name);
  return result;
}

struct DigestDeleter {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

// SHA-256 of a file read a block at a time, each block wiped after use (prints are
// biometric templates); empty when it cannot be read.
ZavloBytes fileSha256(const std::filesystem::path& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) return {};
  std::unique_ptr<EVP_MD_CTX, DigestDeleter> context(EVP_MD_CTX_new());
  bool good = context && EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) == 1;
  std::array<unsigned char, 4096> block{};
  while (good) {
    const auto n = read(fd, block.data(), block.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      good = n == 0;
      break;
    }
    good = EVP_DigestUpdate(context.get(), block.data(), static_cast<std::size_t>(n)) == 1;
  }
  OPENSSL_cleanse(block.data(), block.size());
  close(fd);
  ZavloBytes digest(EVP_MAX_MD_SIZE);
  unsigned int size = 0;
  if (!good || EVP_DigestFinal_ex(context.get(), digest.data(), &size) != 1) return {};
  digest.resize(size);
  return digest;
}

// The prints of the enrolled fingers under storage/user/DRIVER/DEVICE/, for every device
// folder there: the D-Bus interface does not tell which folder is the default device's.
// None when the folder cannot be read.
std::vector<ZavloLinuxEnrolledFingers::StoredPrint> readStoredPrints(const std::string& storage,
                                                                     const std::string& user,
                                                                     const std::vector<std::string>& fingers) {
  namespace fs = std::filesystem;
  std::vector<ZavloLinuxEnrolledFingers::StoredPrint> prints;
  if (user.find('/') != std::string::npos || user == "." || user == "..") return prints;
  const auto folders = [](const fs::path& folder) {
    std::vector<fs::path> found;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
      std::error_code typeError;
      if (entry->is_directory(typeError)) found.push_back(entry->path());
    }
    return found;
  };
  const fs::path userFolder = fs::path(storage) / user;
  for (const auto& driver : folders(userFolder)) {
    for (const auto& device : folders(driver)) {
      for (const auto& finger : fingers) {
        const auto known = std::find_if(kFingerFiles.begin(), kFingerFiles.end(),
                                        [&](const auto& entry) { return entry.first == finger; });
        if (known == kFingerFiles.end()) continue;
        const auto file = device / std::string(1, known->second);
        std::error_code missing;
        if (!fs::exists(fs::symlink_status(file, missing))) continue;
        prints.push_back({file.lexically_relative(userFolder).string(), fileSha256(file)});
      }
    }
  }
  std::sort(prints.begin(), prints.end(), [](const auto& a, const auto& b) { return a.path < b.path; });
  return prints;
}

std::string stringProperty(GVariant* properties, const char* name) {
  const VariantPointer value(g_variant_lookup_value(properties, name, G_VARIANT_TYPE_STRING));
  return value ? std::string(g_variant_get_string(value.get(), nullptr)) : std::string();
}

void appendField(std::string& out, std::string_view tag, std::string_view value) {
  out.append(tag).append(":").append(std::to_string(value.size())).append(":").append(value).append("\n");
}

// The reason GLib could not run here, or nothing.
std::optional<std::string> glibWouldAbort() {
  switch (zavloGLibShortage()) {
    case ZavloGLibShortage::descriptors:
      return "No file descriptor is left to reach the fingerprint daemon.";
    case ZavloGLibShortage::thread:
      return "No thread can be started to reach the fingerprint daemon.";
    case ZavloGLibShortage::none:
      break;
  }
  return std::nullopt;
}

}  // namespace

ZavloLinuxEnrolledFingers zavloReadEnrolledFingers(const std::optional<std::string>& busAddress,
                                                   const std::string& user, const std::string& printStorage) {
  if (auto reason = glibWouldAbort()) return unavailable(std::move(*reason));
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
      return answer(ZavloLinuxEnrolledFingers::Availability::notEnrolled, "No finger of " + user + " is enrolled.");
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
    return answer(ZavloLinuxEnrolledFingers::Availability::notEnrolled, "No finger of " + user + " is enrolled.");
  }
  std::sort(result.fingers.begin(), result.fingers.end());
  result.availability = ZavloLinuxEnrolledFingers::Availability::enrolled;
  result.devicePath = devicePath;

  const auto properties =
      bus.call(devicePath, kPropertiesInterface, "GetAll", g_variant_new("(s)", kDeviceInterface), "(a{sv})", error);
  if (properties) {
    const VariantPointer all(g_variant_get_child_value(properties.get(), 0));
    result.deviceName = stringProperty(all.get(), "name");
    result.scanType = stringProperty(all.get(), "scan-type");
  }
  result.prints = readStoredPrints(printStorage, user, result.fingers);
  return result;
}

ZavloBytes zavloFingerprintDomainState(const ZavloLinuxEnrolledFingers& enrolment) {
  std::string text;
  appendField(text, "device", enrolment.devicePath);
  appendField(text, "name", enrolment.deviceName);
  appendField(text, "scan-type", enrolment.scanType);
  for (const auto& finger : enrolment.fingers) appendField(text, "finger", finger);
  for (const auto& print : enrolment.prints) {
    appendField(text, "print", print.path);
    appendField(text, "sha256", {reinterpret_cast<const char*>(print.sha256.data()), print.sha256.size()});
  }
  ZavloBytes digest(EVP_MAX_MD_SIZE);
  unsigned int size = 0;
  if (EVP_Digest(text.data(), text.size(), digest.data(), &size, EVP_sha256(), nullptr) != 1) return {};
  digest.resize(size);
  return digest;
}
