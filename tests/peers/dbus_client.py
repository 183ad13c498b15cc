"""A client made with python3-dbus: dbus_client.py SOCKET VOLUME. Prints what clients_test.cpp expects."""

import sys

import dbus
import dbus.connection

PATH = "/com/orvel/kelvane"
CLIENT = "com.orvel.KelvaneClientProtocol"


def attempt(call, *arguments, **more):
    """What it answers; None after an error, which is printed."""
    try:
        return call(*arguments, **more)
    except dbus.DBusException as error:
        print("error", error.get_dbus_name())
        return None


def main():
    path, volume = sys.argv[1:]
    connection = dbus.connection.Connection("unix:path=" + path)
    thing = connection.get_object(object_path=PATH, introspect=False)
    daemon = dbus.Interface(thing, CLIENT)
    daemon.clientSetState([dbus.String("kept", variant_level=1)], "com.example.peer", signature="avs")
    print("set")
    for key in "com.example.peer", "com.example.absent":
        found = daemon.clientGetState(key, signature="v")
        print("state", found[0] if found else "nothing")
    answer, = daemon.clientPurgeableSpace({"KELVANE_VOLUME": volume}, signature="a{sv}")
    print("purgeable", int(answer["KELVANE_TOTAL_AVAILABLE"]))
    answer, = daemon.clientPurge({"KELVANE_VOLUME": volume, "KELVANE_AMOUNT": dbus.UInt64(2 << 20)}, signature="a{sv}")
    print("purged", int(answer["KELVANE_AMOUNT"]))
    daemon.clientCancelPurge({"KELVANE_VOLUME": volume}, signature="a{sv}")
    print("cancelled")
    attempt(daemon.noSuchMethod)
    attempt(daemon.clientPurge, "no dictionary", signature="s")
    peer = dbus.Interface(thing, "org.freedesktop.DBus.Peer")
    peer.Ping()
    print("pong")
    print("machine", attempt(peer.GetMachineId))
    described = dbus.Interface(thing, "org.freedesktop.DBus.Introspectable").Introspect()
    print("described" if "clientPurge" in described else described)


main()
