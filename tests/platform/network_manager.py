"""NetworkManager's interface on the system bus, with a wired device, a wireless one, an idle one and two that others have set
up: ve0, which it leaves alone, and ve1, which it has found. Ends with its input.

Each line of its input changes something: wifi-primary, no-primary, drop-wired, hang.
"""

import os
import signal
import subprocess
import sys
import time

import dbus
import dbusmock

NAME, ROOT = "org.freedesktop.NetworkManager", "/org/freedesktop/NetworkManager"


def main():
    mock = subprocess.Popen([sys.executable, "-m", "dbusmock", "--system", "-l", os.devnull, "--template", "networkmanager"])
    try:
        bus = dbus.bus.BusConnection(os.environ["DBUS_SYSTEM_BUS_ADDRESS"])
        while not bus.name_has_owner(NAME):
            time.sleep(0.02)
        serve(bus, mock)
    finally:
        mock.kill()
        mock.wait()


def serve(bus, mock):
    manager = dbus.Interface(bus.get_object(NAME, ROOT), dbusmock.MOCK_IFACE)
    settings = dbus.Interface(bus.get_object(NAME, ROOT + "/Settings"), NAME + ".Settings")

    def give_addresses(device, number, addresses):
        path = f"{ROOT}/IP4Config/{number}"
        data = [dbus.Dictionary({"address": dbus.String(a, variant_level=1), "prefix": dbus.UInt32(24, variant_level=1)},
                                signature="sv") for a in addresses]
        manager.AddObject(path, NAME + ".IP4Config", {"AddressData": dbus.Array(data, signature="a{sv}")},
                          dbus.Array([], signature="(ssss)"))
        dbus.Interface(bus.get_object(NAME, device), dbusmock.MOCK_IFACE).AddProperties(
            NAME + ".Device", {"Ip4Config": dbus.ObjectPath(path)})

    wired = manager.AddEthernetDevice("wired", "eth7", 100)
    manager.AddEthernetDevice("idle", "eth8", 30)
    wireless = manager.AddWiFiDevice("wireless", "wlan7", 100)
    connection = settings.AddConnection(
        {"connection": {"id": "Studio LAN", "uuid": "6f2c1c1e-7c2f-4a53-9f0b-0d1b1a7b9f10", "type": "802-3-ethernet"}},
        signature="a{sa{sv}}")
    active = manager.AddActiveConnection([wired], connection, "/", "active1", 2)
    give_addresses(wired, 1, ["192.168.50.7", "10.9.8.7"])
    point = manager.AddAccessPoint(wireless, "point", "Backstage", "00:23:F8:7E:12:BB", 2, 2425, 5400, 82, 0x100)
    wireless_connection = manager.AddWiFiConnection(wireless, "wireless", "Backstage", "")
    wireless_active = manager.AddActiveConnection([wireless], wireless_connection, point, "active2", 2)
    give_addresses(wireless, 2, ["192.168.60.9"])
    manager.AddEthernetDevice("unmanaged", "ve0", 10)
    found = manager.AddEthernetDevice("found", "ve1", 100)
    external = manager.AddActiveConnection([found], connection, "/", "active3", 2)
    dbus.Interface(bus.get_object(NAME, external), dbusmock.MOCK_IFACE).AddProperties(
        NAME + ".Connection.Active", {"StateFlags": dbus.UInt32(0x80)})
    manager.AddProperties(NAME, {"PrimaryConnection": dbus.ObjectPath(active)})
    for line in sys.stdin:
        if line == "wifi-primary\n":
            manager.SetProperty(ROOT, NAME, "PrimaryConnection", dbus.ObjectPath(wireless_active))
        elif line == "no-primary\n":
            manager.SetProperty(ROOT, NAME, "PrimaryConnection", dbus.ObjectPath("/"))
        elif line == "drop-wired\n":
            manager.RemoveActiveConnection(wired, active)
        elif line == "hang\n":
            mock.send_signal(signal.SIGSTOP)


main()
