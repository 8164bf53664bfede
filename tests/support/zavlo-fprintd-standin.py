"""A stand-in for the fingerprint daemon (fprintd) on a test's private bus.

    python3 zavlo-fprintd-standin.py BUS_ADDRESS STATE_FILE

Answers the calls the library makes, GetDefaultDevice, ListEnrolledFingers and the
device's properties, with the daemon's own error names. STATE_FILE is JSON, read again on
every call so that a test changes the enrolled fingers between calls by rewriting it:

    {"device": true, "name": "...", "scan-type": "press",
     "fingers": {"USER": ["right-index-finger", ...]}}

The stored prints are plain files the test writes itself.

Prints "ready" once it owns the daemon's name.
"""

import json
import sys

import dbus
import dbus.mainloop.glib
import dbus.service
from gi.repository import GLib

NAME = "net.reactivated.Fprint"
MANAGER_PATH = "/net/reactivated/Fprint/Manager"
DEVICE_PATH = "/net/reactivated/Fprint/Device/0"


class NoSuchDevice(dbus.DBusException):
    _dbus_error_name = "net.reactivated.Fprint.Error.NoSuchDevice"


class NoEnrolledPrints(dbus.DBusException):
    _dbus_error_name = "net.reactivated.Fprint.Error.NoEnrolledPrints"


def read_state(path):
    with open(path, encoding="utf-8") as state:
        return json.load(state)


class Manager(dbus.service.Object):
    def __init__(self, bus, state_path):
        super().__init__(bus, MANAGER_PATH)
        self.state_path = state_path

    @dbus.service.method("net.reactivated.Fprint.Manager", out_signature="o")
    def GetDefaultDevice(self):
        if not read_state(self.state_path).get("device", False):
            raise NoSuchDevice("No devices available")
        return dbus.ObjectPath(DEVICE_PATH)


DEVICE_INTERFACE = "net.reactivated.Fprint.Device"


class Device(dbus.service.Object):
    def __init__(self, bus, state_path):
        super().__init__(bus, DEVICE_PATH)
        self.state_path = state_path

    @dbus.service.method("net.reactivated.Fprint.Device", in_signature="s", out_signature="as")
    def ListEnrolledFingers(self, username):
        fingers = read_state(self.state_path).get("fingers", {}).get(username, [])
        if not fingers:
            raise NoEnrolledPrints("Failed to discover prints")
        return dbus.Array(fingers, signature="s")

    @dbus.service.method(dbus.PROPERTIES_IFACE, in_signature="s", out_signature="a{sv}")
    def GetAll(self, interface):
        state = read_state(self.state_path)
        if interface != DEVICE_INTERFACE:
            return dbus.Dictionary({}, signature="sv")
        return dbus.Dictionary(
            {
                "name": dbus.String(state.get("name", "Stand-in reader")),
                "scan-type": dbus.String(state.get("scan-type", "press")),
                "num-enroll-stages": dbus.Int32(5),
            },
            signature="sv",
        )


def main():
    address, state_path = sys.argv[1], sys.argv[2]
    dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
    bus = dbus.bus.BusConnection(address)
    name = dbus.service.BusName(NAME, bus, do_not_queue=True)
    objects = [Manager(bus, state_path), Device(bus, state_path)]
    print("ready", flush=True)
    GLib.MainLoop().run()
    del name, objects


if __name__ == "__main__":
    main()
