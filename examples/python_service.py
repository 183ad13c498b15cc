#!/usr/bin/python3
"""A whole service in one file: a directory whose oldest files are deleted when the daemon asks for space.

Needs nothing of ours, only Debian's python3-gi. A request about a volume that the directory is not on is answered with
0, and so is one that fails. The steps:

  1. Make a SOCK_SEQPACKET socket pair, and pass one end to the daemon with clientCheckin.
  2. Each message that comes down the other end brings a descriptor. Serve D-Bus on it, as its server:
     the object /com/orvel/kelvane/service with the interface com.orvel.KelvaneServiceProtocol.
  3. When that end reads end-of-file the daemon has gone, or has dropped the service: check in again.

Prints "registered ID" when the daemon knows the service, "waiting: WHY" while it cannot be reached. Ends on SIGTERM or
SIGINT. Exit codes: 0 ended by a signal, 2 wrong usage, or a directory that cannot be used.
"""

import argparse
import os
import signal
import socket
import stat
import struct
import sys
import threading
import time

import gi

gi.require_version("Gio", "2.0")
from gi.repository import Gio, GLib  # noqa: E402

CLIENT_PATH = "/com/orvel/kelvane"
CLIENT_INTERFACE = "com.orvel.KelvaneClientProtocol"
SERVICE_PATH = "/com/orvel/kelvane/service"
FOREVER = GLib.MAXINT
RETRY_MILLISECONDS = 250

# A value that may be absent is an array of none or one, hence aa{sv}.
SERVICE = Gio.DBusNodeInfo.new_for_xml("""
<node>
  <interface name="com.orvel.KelvaneServiceProtocol">
    <method name="servicePurgeable">
      <arg type="i" direction="in"/><arg type="a{sv}" direction="in"/><arg type="aa{sv}" direction="out"/>
    </method>
    <method name="servicePurge">
      <arg type="i" direction="in"/><arg type="a{sv}" direction="in"/><arg type="aa{sv}" direction="out"/>
    </method>
    <method name="servicePeriodic">
      <arg type="i" direction="in"/><arg type="a{sv}" direction="in"/><arg type="aa{sv}" direction="out"/>
    </method>
    <method name="serviceCancelPurge"/>
    <method name="servicePing"/>
    <method name="serviceNotify"><arg type="a{sv}" direction="in"/></method>
    <method name="serviceCallback">
      <arg type="a{sv}" direction="in"/><arg type="aa{sv}" direction="out"/>
    </method>
  </interface>
</node>""").interfaces[0]


def dictionary(entries):
    """Answers one dictionary. Amounts are unsigned 64-bit numbers of bytes."""
    return GLib.Variant("(aa{sv})", ([entries],))


def amount(number):
    return dictionary({"KELVANE_AMOUNT": GLib.Variant("t", number)})


NOTHING = GLib.Variant("(aa{sv})", ([],))


class Cache:
    """The files directly in one directory. Links are neither followed nor deleted, nor accepted as the directory."""

    def __init__(self, directory, lifetime, youngest):
        self.path = os.path.realpath(directory)
        self.lifetime = lifetime
        self.youngest = youngest
        self.cancelled = threading.Event()
        os.close(self.open())  # raises OSError when it cannot be used

    def open(self):
        """Opened for each request, because an open descriptor keeps its volume from being unmounted."""
        descriptor = os.open(self.path, os.O_RDONLY | os.O_DIRECTORY | os.O_NOFOLLOW | os.O_CLOEXEC)
        os.stat(".", dir_fd=descriptor)  # may be listed, but not entered
        return descriptor

    def age_at(self, urgency):
        """How old a file must be to go, in seconds: the more urgent, the younger."""
        return max(self.youngest, self.lifetime * (4 - min(max(urgency, 1), 4)) / 4)

    def files(self, directory, urgency):
        """The names of files that may go, with the bytes that deleting them frees, oldest first."""
        newest = time.time() - self.age_at(urgency)
        found = []
        for name in os.listdir(directory):
            try:
                status = os.stat(name, dir_fd=directory, follow_symlinks=False)
            except OSError:
                continue
            touched = max(status.st_mtime, status.st_ctime, status.st_atime)
            # A file with a second name gives nothing back.
            if stat.S_ISREG(status.st_mode) and status.st_nlink == 1 and touched <= newest:
                found.append((touched, name, status.st_blocks * 512))
        return [(name, size) for _, name, size in sorted(found)]

    def on(self, volume, work):
        """The result of `work` on the open directory; 0 when that is on another volume, or after a failure."""
        try:
            directory = self.open()
            try:
                # On the safe side: a part of the volume with its own device number, such as a btrfs subvolume,
                # counts as another volume.
                if os.stat(volume).st_dev != os.fstat(directory).st_dev:
                    return 0
                return work(directory)
            finally:
                os.close(directory)
        except OSError as error:
            print(f"{self.path}: {error.strerror}", file=sys.stderr, flush=True)
            return 0

    def purgeable(self, urgency, info):
        return self.on(info["KELVANE_VOLUME"],
                       lambda directory: sum(size for _, size in self.files(directory, urgency)))

    def purge(self, urgency, info):
        """Deletes the oldest files until the amount is freed, and returns the bytes that were really freed."""
        return self.on(info["KELVANE_VOLUME"],
                       lambda directory: self.delete(directory, urgency, info["KELVANE_AMOUNT"]))

    def delete(self, directory, urgency, wanted):
        gone = 0
        for name, size in self.files(directory, urgency):
            if gone >= wanted or self.cancelled.is_set():
                break
            try:
                os.unlink(name, dir_fd=directory)
            except OSError:
                continue
            gone += size
        return gone


class Service:
    """Runs on the main loop's thread, except for counting and deleting."""

    def __init__(self, arguments):
        self.id = arguments.id
        self.daemon_socket = arguments.daemon
        self.cache = Cache(arguments.folder, arguments.lifetime, arguments.youngest)
        self.working = threading.Lock()  # one purge at a time
        self.connections = set()  # those served
        self.waiting_for = None
        self.attempt = 0  # what is left of an earlier one is ignored
        self.daemon = None
        self.endpoint = None
        self.caller = None  # the user whose calls are taken

    # --- checking in ---

    def check_in(self):
        self.attempt += 1
        attempt = self.attempt
        try:
            address = Gio.UnixSocketAddress.new(self.daemon_socket)
            stream = Gio.SocketClient.new().connect(address, None)
            self.caller = stream.get_socket().get_credentials().get_unix_user()
            self.daemon = Gio.DBusConnection.new_sync(
                stream, None, Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT, None, None)
        except GLib.Error as error:
            self.try_later(attempt, f"no daemon at {self.daemon_socket}: {error.message}")
            return GLib.SOURCE_REMOVE
        self.daemon.connect("closed", lambda *_: self.try_later(attempt, "the daemon has gone"))
        self.endpoint, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        GLib.unix_fd_add_full(GLib.PRIORITY_DEFAULT, self.endpoint.fileno(),
                              GLib.IOCondition.IN | GLib.IOCondition.HUP, self.endpoint_readable,
                              (attempt, self.endpoint))
        info = {"PURGE": GLib.Variant("b", True)}
        descriptors = Gio.UnixFDList.new()
        handle = descriptors.append(theirs.fileno())  # a duplicate
        theirs.close()
        # The daemon pings the service before it answers, so nothing may wait for the answer here.
        self.daemon.call_with_unix_fd_list(
            None, CLIENT_PATH, CLIENT_INTERFACE, "clientCheckin",
            GLib.Variant("(sha{sv})", (self.id, handle, info)), GLib.VariantType("(aa{sv})"),
            Gio.DBusCallFlags.NONE, FOREVER, descriptors, None, self.checked_in, attempt)
        return GLib.SOURCE_REMOVE

    def checked_in(self, daemon, result, attempt):
        try:
            (answer,), _ = daemon.call_with_unix_fd_list_finish(result)
        except GLib.Error as error:
            self.try_later(attempt, error.message)
            return
        if attempt != self.attempt:
            return
        if answer:
            self.waiting_for = None
            print("registered", self.id, flush=True)
        else:
            print("refused: the ID is that of a declared service", file=sys.stderr, flush=True)

    def try_later(self, attempt, why):
        if attempt != self.attempt:
            return
        self.attempt += 1
        if why != self.waiting_for:  # said once, however often it is tried
            print("waiting:", why, file=sys.stderr, flush=True)
        self.waiting_for = why
        if self.endpoint is not None:
            self.endpoint.close()
            self.endpoint = None
        GLib.timeout_add(RETRY_MILLISECONDS, self.check_in)

    # --- being called ---

    def endpoint_readable(self, _descriptor, _condition, which):
        attempt, endpoint = which
        if attempt != self.attempt or endpoint.fileno() < 0:
            return GLib.SOURCE_REMOVE
        data, descriptors, _, _ = socket.recv_fds(endpoint, 1, 1)
        for descriptor in descriptors:
            self.serve(descriptor)
        if data:
            return GLib.SOURCE_CONTINUE
        self.try_later(attempt, "the daemon has dropped the service")
        return GLib.SOURCE_REMOVE

    def serve(self, descriptor):
        # Who made the socket pair: the daemon. Only root and the user who holds its socket may call.
        with socket.socket(fileno=os.dup(descriptor)) as peer:
            _, user, _ = struct.unpack("3i", peer.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12))
        if user not in (0, self.caller):
            os.close(descriptor)
            return
        stream = Gio.Socket.new_from_fd(descriptor).connection_factory_create_connection()
        flags = (Gio.DBusConnectionFlags.AUTHENTICATION_SERVER
                 | Gio.DBusConnectionFlags.DELAY_MESSAGE_PROCESSING)
        Gio.DBusConnection.new(stream, Gio.dbus_generate_guid(), flags, None, None, self.connected)

    def connected(self, _source, result):
        try:
            connection = Gio.DBusConnection.new_finish(result)
        except GLib.Error:
            return  # the daemon has hung up
        self.connections.add(connection)
        connection.connect("closed", lambda it, *_: self.connections.discard(it))
        connection.register_object(SERVICE_PATH, SERVICE, self.called, None, None)
        connection.start_message_processing()

    def called(self, _connection, _sender, _path, _interface, method, parameters, invocation):
        if method == "servicePurge":
            self.cache.cancelled.clear()
            self.answer_later(self.purge, parameters, invocation)
        elif method == "servicePurgeable":
            self.answer_later(self.cache.purgeable, parameters, invocation)
        elif method == "servicePeriodic":
            invocation.return_value(amount(0))
        elif method == "serviceCallback":
            invocation.return_value(NOTHING)
        else:
            if method == "serviceCancelPurge":
                self.cache.cancelled.set()
            invocation.return_value(None)  # servicePing and serviceNotify: done is all there is to say

    def purge(self, urgency, info):
        with self.working:
            return self.cache.purge(urgency, info)

    def answer_later(self, work, parameters, invocation):
        """The main loop answers pings meanwhile."""
        threading.Thread(target=self.answer, args=(work, parameters.unpack(), invocation), daemon=True).start()

    @staticmethod
    def answer(work, arguments, invocation):
        answer = 0
        try:
            answer = work(*arguments)
        except Exception as error:  # the daemon waits for an answer in any case
            print(f"failed: {error!r}", file=sys.stderr, flush=True)
        GLib.idle_add(invocation.return_value, amount(answer))


def main():
    runtime = os.environ.get("RUNTIME_DIRECTORY", "/run/kelvane").split(":")[0]
    parser = argparse.ArgumentParser(description="Offers a directory of files for purging, oldest first.")
    parser.add_argument("--id", default="com.example.python", help="the service's ID (%(default)s)")
    parser.add_argument("--folder", required=True, help="the directory whose files may go")
    parser.add_argument("--lifetime", type=float, default=30 * 86400, metavar="SECONDS",
                        help="urgency 1, 2, 3 give up files older than 3/4, 1/2, 1/4 of it, urgency 4 all "
                             "(%(default)s)")
    parser.add_argument("--youngest", type=float, default=3600, metavar="SECONDS",
                        help="no file younger than this goes at any urgency (%(default)s)")
    parser.add_argument("--daemon", default=runtime + "/kelvane.sock", help="the daemon's socket (%(default)s)")
    arguments = parser.parse_args()
    try:
        service = Service(arguments)
    except OSError as error:
        print(f'cannot serve "{arguments.folder}": {error.strerror}', file=sys.stderr)
        return 2
    loop = GLib.MainLoop()
    for number in (signal.SIGTERM, signal.SIGINT):
        GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, number, loop.quit)
    service.check_in()
    loop.run()
    return 0


if __name__ == "__main__":
    sys.exit(main())
