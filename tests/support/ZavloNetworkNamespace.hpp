#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

/// A network namespace made for one test, with a name unique to this process, deleted
/// when the object goes (test support).
class ZavloNetworkNamespace {
 public:
  /// A new namespace, or null with the reason when this process may not make one
  /// (no root, no `ip`).
  static std::unique_ptr<ZavloNetworkNamespace> create(std::string& whyNot);
  ~ZavloNetworkNamespace();
  ZavloNetworkNamespace(const ZavloNetworkNamespace&) = delete;
  ZavloNetworkNamespace& operator=(const ZavloNetworkNamespace&) = delete;

  [[nodiscard]] const std::string& name() const noexcept { return name_; }
  /// Runs `ip -n NAME arguments...`; throws std::runtime_error with ip's message if it fails.
  void ip(const std::vector<std::string>& arguments) const;
  /// Runs work on a thread that has entered the namespace and waits for it; sockets,
  /// devices and threads made there belong to the namespace. Rethrows what work throws.
  void runInside(const std::function<void()>& work) const;

 private:
  explicit ZavloNetworkNamespace(std::string name) : name_(std::move(name)) {}
  std::string name_;
};

/// A TUN device (the no-ARP link type that modem drivers report) made inside a
/// namespace and held open, so that it has a carrier once it is set up.
class ZavloTunDevice {
 public:
  /// Throws std::runtime_error when the device cannot be made.
  ZavloTunDevice(const ZavloNetworkNamespace& ns, const std::string& name);
  ~ZavloTunDevice();
  ZavloTunDevice(const ZavloTunDevice&) = delete;
  ZavloTunDevice& operator=(const ZavloTunDevice&) = delete;

 private:
  int descriptor_ = -1;
};
