#include "ZavloModemManagerMock.hpp"

#include <unistd.h>

#include <stdexcept>
#include <thread>

#include "Testing/Network/ZavloProcess.hpp"

std::optional<std::string> ZavloModemManagerMock::missing() {
  if (access("/usr/bin/dbus-daemon", X_OK) != 0 || access("/usr/bin/dbus-send", X_OK) != 0) {
    return "dbus-daemon and dbus-send (Debian dbus-daemon) are not installed";
  }
  if (zavloRunProcess({ZAVLO_PYTHON3, "-c", "import dbusmock"}).exitStatus != 0) {
    return std::string(ZAVLO_PYTHON3) + " cannot import dbusmock (Debian python3-dbusmock)";
  }
  return std::nullopt;
}

ZavloModemManagerMock::ZavloModemManagerMock(const std::optional<nlohmann::json>& parameters) {
  if (!parameters) return;
  mock_ = std::make_unique<ZavloChildProcess>(std::vector<std::string>{
      "/usr/bin/env", "DBUS_SYSTEM_BUS_ADDRESS=" + bus_.address(), ZAVLO_PYTHON3, "-m", "dbusmock", "--template",
      ZAVLO_MODEMMANAGER_TEMPLATE, "-l", bus_.directory() + "/modemmanager.log", "-p", parameters->dump()});
  if (mock_->readLine() != "ready") throw std::runtime_error("the ModemManager mock did not start");
}

void ZavloModemManagerMock::call(const std::string& method, const std::vector<std::string>& arguments) const {
  std::vector<std::string> command{"/usr/bin/dbus-send",
                                   "--bus=" + bus_.address(),
                                   "--print-reply",
                                   "--dest=org.freedesktop.ModemManager1",
                                   "/org/freedesktop/ModemManager1",
                                   "org.freedesktop.DBus.Mock." + method};
  command.insert(command.end(), arguments.begin(), arguments.end());
  const auto run = zavloRunProcess(command);
  if (run.exitStatus != 0) throw std::runtime_error(method + " failed: " + run.standardError);
}

bool zavloAwaitModems(ZavloLinuxModems& modems, const std::function<bool(const ZavloLinuxModemReading&)>& done) {
  modems.start();
  for (int tries = 0; tries < 1000; ++tries) {
    if (modems.hasFirstReading() && done(modems.reading())) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}
