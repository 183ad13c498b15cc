"""A service made with python3-dbus: dbus_service.py SOCKET ID. It checks in and serves what comes down its endpoint.

libdbus takes no connected socket from elsewhere: its servers listen at an address. So the bytes of each connection that
comes down the endpoint are passed on to one that this program makes to its own server."""

import socket
import sys
import threading

import dbus
import dbus.connection
import dbus.mainloop.glib
import dbus.server
import dbus.service
import dbus.types
from gi.repository import GLib

CLIENT = "com.orvel.KelvaneClientProtocol"
SERVICE = "com.orvel.KelvaneServiceProtocol"


def amount(number):
    return [{"KELVANE_AMOUNT": dbus.UInt64(number)}]


class Service(dbus.service.Object):
    @dbus.service.method(SERVICE, in_signature="ia{sv}", out_signature="aa{sv}")
    def servicePurgeable(self, urgency, info):
        return amount(4096)

    @dbus.service.method(SERVICE, in_signature="ia{sv}", out_signature="aa{sv}")
    def servicePurge(self, urgency, info):
        print("purge", info["KELVANE_VOLUME"], int(info["KELVANE_AMOUNT"]), flush=True)
        return amount(int(info["KELVANE_AMOUNT"]) - 1)

    @dbus.service.method(SERVICE, in_signature="ia{sv}", out_signature="aa{sv}")
    def servicePeriodic(self, urgency, info):
        print("servicePeriodic", flush=True)
        return []

    @dbus.service.method(SERVICE, in_signature="a{sv}", out_signature="aa{sv}")
    def serviceCallback(self, info):
        return []

    @dbus.service.method(SERVICE, in_signature="", out_signature="")
    def servicePing(self):
        print("servicePing", flush=True)

    @dbus.service.method(SERVICE, in_signature="", out_signature="")
    def serviceCancelPurge(self):
        print("serviceCancelPurge", flush=True)

    @dbus.service.method(SERVICE, in_signature="a{sv}", out_signature="")
    def serviceNotify(self, notification):
        print("serviceNotify", flush=True)


class Server(dbus.server.Server):
    def connection_added(self, connection):
        Service(connection, "/com/orvel/kelvane/service")


def copy(source, target):
    while data := source.recv(65536):
        target.sendall(data)
    target.shutdown(socket.SHUT_WR)


def pass_on(descriptor, address):
    theirs, ours = socket.socket(fileno=descriptor), socket.socket(socket.AF_UNIX)
    ours.connect(address)
    theirs.setblocking(True)  # the daemon made it non-blocking
    for one, other in (theirs, ours), (ours, theirs):
        threading.Thread(target=copy, args=(one, other), daemon=True).start()


def abstract_name(address):
    """Of "unix:abstract=NAME,guid=..."; for connect()."""
    return "\0" + address.split("abstract=")[1].split(",")[0]


def main():
    path, name = sys.argv[1:]
    dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
    server = Server("unix:abstract=" + path + "." + name)
    endpoint, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    loop = GLib.MainLoop()

    def readable(*_):
        data, descriptors, _, _ = socket.recv_fds(endpoint, 1, 1)
        for descriptor in descriptors:
            pass_on(descriptor, abstract_name(server.address))
        if not data:
            print("dropped", flush=True)
            loop.quit()
        return bool(data)

    GLib.unix_fd_add_full(0, endpoint.fileno(), GLib.IOCondition.IN | GLib.IOCondition.HUP, readable)
    connection = dbus.connection.Connection("unix:path=" + path)
    thing = connection.get_object(object_path="/com/orvel/kelvane", introspect=False)
    dbus.Interface(thing, "org.freedesktop.DBus.Peer").Ping()  # libdbus passes descriptors after the handshake only
    daemon = dbus.Interface(thing, CLIENT)
    # The daemon pings the service before it answers, so nothing waits for the answer here.
    daemon.clientCheckin(name, dbus.types.UnixFd(theirs), {"PURGE": True, "PERIODIC": True}, signature="sha{sv}",
                         reply_handler=lambda answer: print("registered" if answer else "refused", flush=True),
                         error_handler=lambda error: print("failed:", error, flush=True), timeout=1000)
    theirs.close()
    loop.run()
    server.disconnect()


main()
