"""A client made with GDBus: gio_client.py SOCKET VOLUME. Prints what clients_test.cpp expects."""

import sys

from gi.repository import Gio, GLib

PATH = "/com/orvel/kelvane"


class Daemon:
    def __init__(self, path):
        self.connection = Gio.DBusConnection.new_for_address_sync(
            "unix:path=" + path, Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT, None, None)

    def call(self, method, arguments=None, interface="com.orvel.KelvaneClientProtocol"):
        """The answer's values; None after an error, which is printed."""
        try:
            return self.connection.call_sync(None, PATH, interface, method, arguments, None, Gio.DBusCallFlags.NONE,
                                             GLib.MAXINT, None).unpack()
        except GLib.Error as error:
            print("error", Gio.DBusError.get_remote_error(error))
            return None


def main():
    path, volume = sys.argv[1:]
    daemon = Daemon(path)
    daemon.call("clientSetState", GLib.Variant("(avs)", ([GLib.Variant("s", "kept")], "com.example.peer")))
    print("set")
    for key in "com.example.peer", "com.example.absent":
        found, = daemon.call("clientGetState", GLib.Variant("(v)", (GLib.Variant("s", key),)))
        print("state", found[0] if found else "nothing")
    here = {"KELVANE_VOLUME": GLib.Variant("s", volume)}
    (answer,), = daemon.call("clientPurgeableSpace", GLib.Variant("(a{sv})", (here,)))
    print("purgeable", answer["KELVANE_TOTAL_AVAILABLE"])
    amount = {"KELVANE_AMOUNT": GLib.Variant("t", 2 << 20)}
    (answer,), = daemon.call("clientPurge", GLib.Variant("(a{sv})", ({**here, **amount},)))
    print("purged", answer["KELVANE_AMOUNT"])
    daemon.call("clientCancelPurge", GLib.Variant("(a{sv})", (here,)))
    print("cancelled")
    daemon.call("noSuchMethod")
    daemon.call("clientPurge", GLib.Variant("(s)", ("no dictionary",)))
    peer = "org.freedesktop.DBus.Peer"
    daemon.call("Ping", interface=peer)
    print("pong")
    print("machine", *daemon.call("GetMachineId", interface=peer))
    described, = daemon.call("Introspect", interface="org.freedesktop.DBus.Introspectable")
    print("described" if "clientPurge" in described else described)


main()
