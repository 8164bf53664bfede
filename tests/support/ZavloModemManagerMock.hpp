#pragma once

#include <nlohmann/json.hpp>

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

  /// parameters: the template's; without, the bus has no ModemManager.
  explicit ZavloModemManagerMock(const std::optional<nlohmann::json>& parameters);

  [[nodiscard]] const std::string& address() const { return bus_.address(); }
  /// Calls a control method of the template (dbus-send arguments: "boolean:true"); returns
  /// once the mock has emitted the change's signals.
  void call(const std::string& method, const std::vector<std::string>& arguments = {}) const;

 private:
  ZavloPrivateBus bus_;
  std::unique_ptr<ZavloChildProcess> mock_;
};

/// Whether modems come to hold a reading that satisfies done within 10 s (a safety bound).
bool zavloAwaitModems(ZavloLinuxModems& modems, const std::function<bool(const ZavloLinuxModemReading&)>& done);
