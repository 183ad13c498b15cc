"""A client made with jeepney: jeepney_client.py SOCKET VOLUME. Prints what clients_test.cpp expects."""

import sys

from jeepney import DBusAddress, MessageType, new_method_call
from jeepney.io.blocking import DBusConnection, prep_socket

PATH = "/com/orvel/kelvane"


class Daemon:
    def __init__(self, path):
        self.connection = DBusConnection(prep_socket(path))

    def call(self, method, signature=None, body=(), interface="com.orvel.KelvaneClientProtocol"):
        """The answer's values; None after an error, which is printed."""
        address = DBusAddress(PATH, bus_name="com.orvel.Kelvane", interface=interface)
        answer = self.connection.send_and_get_reply(new_method_call(address, method, signature, body))
        if answer.header.message_type == MessageType.error:
            print("error", answer.header.fields[4])
            return None
        return answer.body


def main():
    path, volume = sys.argv[1:]
    daemon = Daemon(path)
    daemon.call("clientSetState", "avs", ([("s", "kept")], "com.example.peer"))
    print("set")
    for key in "com.example.peer", "com.example.absent":
        found, = daemon.call("clientGetState", "v", (("s", key),))
        print("state", found[0][1] if found else "nothing")
    here = {"KELVANE_VOLUME": ("s", volume)}
    (answer,), = daemon.call("clientPurgeableSpace", "a{sv}", (here,))
    print("purgeable", answer["KELVANE_TOTAL_AVAILABLE"][1])
    (answer,), = daemon.call("clientPurge", "a{sv}", ({**here, "KELVANE_AMOUNT": ("t", 2 << 20)},))
    print("purged", answer["KELVANE_AMOUNT"][1])
    daemon.call("clientCancelPurge", "a{sv}", (here,))
    print("cancelled")
    daemon.call("noSuchMethod")
    daemon.call("clientPurge", "s", ("no dictionary",))
    peer = "org.freedesktop.DBus.Peer"
    daemon.call("Ping", interface=peer)
    print("pong")
    print("machine", *daemon.call("GetMachineId", interface=peer))
    described, = daemon.call("Introspect", interface="org.freedesktop.DBus.Introspectable")
    print("described" if "clientPurge" in described else described)


main()
