// zavlo-auth interfaces with ModemManager played by python-dbusmock on a private bus, which
// the command reaches as the system bus (DBUS_SYSTEM_BUS_ADDRESS). The mocked bearer uses
// the loopback link, which the kernel shows as loopback.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <string>

#include "Testing/Network/ZavloProcess.hpp"
#include "ZavloModemManagerMock.hpp"

namespace {

ZavloProcessResult interfacesOnBus(const std::string& busAddress) {
  return zavloRunProcess({"/usr/bin/env", "DBUS_SYSTEM_BUS_ADDRESS=" + busAddress, ZAVLO_AUTH_BINARY, "interfaces"});
}

std::string loopbackType(const nlohmann::json& dictionary) {
  for (const auto& interface : dictionary.at("interfaces")) {
    if (interface.at("name") == "lo") return interface.at("type");
  }
  return "";
}

}  // namespace

TEST(ZavloCliModems, InterfacesShowsEachModemAndCountsItsConnectedBearerCellular) {
  if (const auto why = ZavloModemManagerMock::missing()) GTEST_SKIP() << *why;
  const ZavloModemManagerMock modemManager(nlohmann::json{{"interface", "lo"},
                                                          {"connected", true},
                                                          {"dns", {"10.64.0.53", "10.64.0.54"}},
                                                          {"dns6", {"fd00:64::53"}},
                                                          {"access_technologies", (1U << 14) | (1U << 15)}});
  const auto run = interfacesOnBus(modemManager.address());
  EXPECT_EQ(run.exitStatus, 0) << run.standardOutput << run.standardError;
  const auto dictionary = nlohmann::json::parse(run.standardOutput);
  EXPECT_EQ(dictionary.at("status"), "SUCCESS") << "without --cellular-interface";
  EXPECT_EQ(loopbackType(dictionary), "cellular");
  const auto expected = nlohmann::json::parse(R"([{
    "path": "/org/freedesktop/ModemManager1/Modem/0", "operatorCode": "00101", "operatorName": "Zavlo Test Network",
    "registrationState": "home", "signalQuality": 73, "signalRecent": true, "accessTechnologies": ["lte", "5gnr"],
    "sim": "/org/freedesktop/ModemManager1/SIM/0", "simSlot": 1,
    "bearers": [{"path": "/org/freedesktop/ModemManager1/Bearer/0", "interface": "lo", "connected": true,
                 "dnsServers": ["10.64.0.53", "10.64.0.54", "fd00:64::53"]}]}])");
  EXPECT_EQ(dictionary.at("modems"), expected);
}

// Without ModemManager, whether the bus is there or not, the kernel's evidence stands and
// the output says so the same way.
TEST(ZavloCliModems, InterfacesWithoutModemManagerIsTheKernelsView) {
  if (const auto why = ZavloModemManagerMock::missing()) GTEST_SKIP() << *why;
  const ZavloModemManagerMock emptyBus(std::nullopt);
  const auto withBus = interfacesOnBus(emptyBus.address());
  const auto withoutBus = interfacesOnBus("unix:path=/nonexistent/zavlo-modems-bus");
  const auto dictionary = nlohmann::json::parse(withBus.standardOutput);
  EXPECT_EQ(loopbackType(dictionary), "loopback");
  EXPECT_EQ(dictionary.at("modems"), nlohmann::json::array());
  EXPECT_EQ(withBus.standardOutput, withoutBus.standardOutput);
}
