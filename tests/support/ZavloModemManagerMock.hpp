#pragma once

#include <nlohmann/json.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Linux/Network/ZavloLinuxModems.hpp"
#include "ZavloPrivateBus.hpp"

/// ModemManager played by python-dbusmock with the project's template
/// (zavlo_modemmanager_template.py) on a private bus of its own.
class ZavloModemManagerMock {
 public:
  /// Why it cannot run on this machine, naming the Debian package; nothing when it can.
  static std::optional<std::string> missing();

  /// parameters: the template's (the bearer's interface, its name servers, ...). Without a
  /// template the bus has no ModemManager.
  explicit ZavloModemManagerMock(const std::optional<nlohmann::json>& parameters);

  [[nodiscard]] const std::string& address() const { return bus_.address(); }
  /// Calls one of the template's control methods; dbus-send arguments ("boolean:true").
  /// Returns once the mock has emitted the signals of the change.
  void call(const std::string& method, const std::vector<std::string>& arguments = {}) const;

 private:
  ZavloPrivateBus bus_;
  std::unique_ptr<ZavloChildProcess> mock_;
};

/// Waits (at most 10 s, a safety bound) until modems hold a reading that satisfies done;
/// whether one did.
bool zavloAwaitModems(ZavloLinuxModems& modems, const std::function<bool(const ZavloLinuxModemReading&)>& done);
