"""The GDBus peer: gdbus_peer.py serve|call PATH."""
import os
import sys

import gi

gi.require_version("Gio", "2.0")
from gi.repository import Gio, GLib  # noqa: E402

INTERFACE = """<node><interface name="a.b">
<method name="Echo"><arg type="s" direction="in"/><arg type="s" direction="out"/></method>
<method name="Write"><arg type="s" direction="in"/><arg type="h" direction="in"/><arg type="s" direction="out"/></method>
</interface></node>"""


def answer(_connection, _sender, _path, _interface, member, arguments, invocation):
    if member == "Write":
        descriptor = invocation.get_message().get_unix_fd_list().get(arguments[1])
        os.write(descriptor, b"x")
        os.close(descriptor)
    invocation.return_value(GLib.Variant("(s)", (arguments[0],)))


def serve(path):
    interface = Gio.DBusNodeInfo.new_for_xml(INTERFACE).interfaces[0]
    server = Gio.DBusServer.new_sync("unix:path=" + path, Gio.DBusServerFlags.NONE, Gio.dbus_generate_guid(), None, None)
    connections = []

    def accept(_server, connection):
        connections.append(connection)
        connection.register_object("/a", interface, answer, None, None)
        return True

    server.connect("new-connection", accept)
    server.start()
    GLib.MainLoop().run()


def call(path):
    connection = Gio.DBusConnection.new_for_address_sync(
        "unix:path=" + path, Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT, None, None)
    reply = connection.call_sync(None, "/a", "a.b", "Echo", GLib.Variant("(s)", ("text",)), None, 0, 20000, None)
    assert reply.unpack() == ("text",), reply
    reading, writing = os.pipe()
    descriptors = Gio.UnixFDList.new_from_array([os.dup(writing)])
    reply, _ = connection.call_with_unix_fd_list_sync(
        None, "/a", "a.b", "Write", GLib.Variant("(sh)", ("with", 0)), None, 0, 20000, descriptors, None)
    assert reply.unpack() == ("with",), reply
    assert os.read(reading, 1) == b"x"


{"serve": serve, "call": call}[sys.argv[1]](sys.argv[2])
