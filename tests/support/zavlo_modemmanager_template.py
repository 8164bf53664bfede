"""ModemManager for python-dbusmock (which ships none), run as
DBUS_SYSTEM_BUS_ADDRESS=ADDRESS /usr/bin/python3 -m dbusmock --template PATH -p PARAMETERS.

One modem as ModemManager exports it: the modem and its 3GPP interface through the object
manager, its SIM in the first of two slots, one bearer. Parameters (JSON, each optional):
interface, dns, dns6, connected, operator_code, operator_name, signal, access_technologies.
Control methods on org.freedesktop.DBus.Mock, each emitting what ModemManager would:
SetBearerConnected(b), SetOperator(ss), SetSignal(uu), RemoveModem(), AddModem().
Prints "ready" once it owns the name.
"""
import dbus
import dbusmock
from dbusmock import MOCK_IFACE

BUS_NAME = "org.freedesktop.ModemManager1"
MAIN_OBJ = "/org/freedesktop/ModemManager1"
MAIN_IFACE = "org.freedesktop.ModemManager1"
SYSTEM_BUS = True
IS_OBJECT_MANAGER = True

MODEM_IFACE = "org.freedesktop.ModemManager1.Modem"
GPP_IFACE = "org.freedesktop.ModemManager1.Modem.Modem3gpp"
BEARER_IFACE = "org.freedesktop.ModemManager1.Bearer"
MODEM, BEARER, SIM = MAIN_OBJ + "/Modem/0", MAIN_OBJ + "/Bearer/0", MAIN_OBJ + "/SIM/0"


def variant_dict(values):
    return dbus.Dictionary(values, signature="sv")


def ip_config(settings, family):
    servers = settings["dns"] if family == 4 else settings["dns6"]
    if not settings["connected"] or not servers:
        return variant_dict({})
    config = {"method": dbus.UInt32(2),  # static
              "address": dbus.String("10.64.1.2" if family == 4 else "fd00:64::2"),
              "prefix": dbus.UInt32(30 if family == 4 else 64)}
    for number, server in enumerate(servers[:3], start=1):
        config[f"dns{number}"] = dbus.String(server)
    return variant_dict(config)


def modem_properties(settings):
    return variant_dict({
        "State": dbus.Int32(11 if settings["connected"] else 8),  # connected, registered
        "AccessTechnologies": dbus.UInt32(settings["access_technologies"]),
        "SignalQuality": dbus.Struct((dbus.UInt32(settings["signal"]), dbus.Boolean(True)), signature="ub"),
        "Sim": dbus.ObjectPath(SIM),
        "SimSlots": dbus.Array([dbus.ObjectPath(SIM), dbus.ObjectPath("/")], signature="o"),
        "PrimarySimSlot": dbus.UInt32(1),
        "Bearers": dbus.Array([dbus.ObjectPath(BEARER)], signature="o"),
    })


def gpp_properties(settings):
    return variant_dict({"RegistrationState": dbus.UInt32(1),  # home
                         "OperatorCode": dbus.String(settings["operator_code"]),
                         "OperatorName": dbus.String(settings["operator_name"])})


def bearer_properties(settings):
    return variant_dict({"Interface": dbus.String(settings["interface"]),
                         "Connected": dbus.Boolean(settings["connected"]),
                         "Ip4Config": ip_config(settings, 4),
                         "Ip6Config": ip_config(settings, 6)})


def add_modem(mock):
    settings = mock.zavlo_settings
    mock.AddObject(MODEM, MODEM_IFACE, modem_properties(settings), [])
    dbusmock.get_object(MODEM).AddProperties(GPP_IFACE, gpp_properties(settings))
    mock.AddObject(BEARER, BEARER_IFACE, bearer_properties(settings), [])
    mock.AddObject(SIM, "org.freedesktop.ModemManager1.Sim", variant_dict({"Active": dbus.Boolean(True)}), [])
    mock.object_manager_emit_added(MODEM)


def change(mock, path, interface, make_properties, **settings):
    mock.zavlo_settings.update(settings)
    values = make_properties(mock.zavlo_settings)
    target = dbusmock.get_object(path)
    target.props[interface].update(values)
    target.EmitSignal(dbus.PROPERTIES_IFACE, "PropertiesChanged", "sa{sv}as",
                      [interface, values, dbus.Array([], signature="s")])


def load(mock, parameters):
    mock.zavlo_settings = {
        "interface": parameters.get("interface", "wwan0"),
        "dns": list(parameters.get("dns", ["10.64.0.53"])),
        "dns6": list(parameters.get("dns6", [])),
        "connected": bool(parameters.get("connected", False)),
        "operator_code": parameters.get("operator_code", "00101"),
        "operator_name": parameters.get("operator_name", "Zavlo Test Network"),
        "signal": int(parameters.get("signal", 73)),
        "access_technologies": int(parameters.get("access_technologies", 1 << 14)),  # LTE
    }
    # ModemManager's object manager lists modems only; bearers and SIMs are reached through them.
    mock.AddMethod(dbusmock.OBJECT_MANAGER_IFACE, "GetManagedObjects", "", "a{oa{sa{sv}}}",
                   "ret = {dbus.ObjectPath(k): objects[k].props for k in objects"
                   f" if k.startswith('{MAIN_OBJ}/Modem/')}}")
    add_modem(mock)
    print("ready", flush=True)


@dbus.service.method(MOCK_IFACE, in_signature="b", out_signature="")
def SetBearerConnected(self, connected):
    change(self, BEARER, BEARER_IFACE, bearer_properties, connected=bool(connected))
    change(self, MODEM, MODEM_IFACE, modem_properties)


@dbus.service.method(MOCK_IFACE, in_signature="ss", out_signature="")
def SetOperator(self, code, name):
    change(self, MODEM, GPP_IFACE, gpp_properties, operator_code=str(code), operator_name=str(name))


@dbus.service.method(MOCK_IFACE, in_signature="uu", out_signature="")
def SetSignal(self, quality, technologies):
    change(self, MODEM, MODEM_IFACE, modem_properties, signal=int(quality), access_technologies=int(technologies))


@dbus.service.method(MOCK_IFACE, in_signature="", out_signature="")
def RemoveModem(self):
    self.object_manager_emit_removed(MODEM)
    for path in (MODEM, BEARER, SIM):
        self.RemoveObject(path)


@dbus.service.method(MOCK_IFACE, in_signature="", out_signature="")
def AddModem(self):
    add_modem(self)
