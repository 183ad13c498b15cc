"""A service made with jeepney: jeepney_service.py SOCKET ID. It checks in and serves what comes down its endpoint.

jeepney reads and writes messages; the server's side of the handshake is by hand."""

import select
import socket
import sys

from jeepney import DBusAddress, MessageType, new_method_call, new_method_return
from jeepney.io.blocking import DBusConnection, prep_socket
from jeepney.low_level import Parser

MEMBER = 3  # a header field's code
SENT = {"OK": b"OK 0123456789abcdef0123456789abcdef\r\n", "DATA": b"DATA\r\n", "NO": b"ERROR\r\n"}


class Caller:
    """A connection of the daemon's."""

    def __init__(self, descriptor):
        self.socket = socket.socket(fileno=descriptor)
        self.lines = b""
        self.parser = None  # once the handshake is over
        self.serial = 0

    def fileno(self):
        return self.socket.fileno()

    def readable(self):
        """False at its end."""
        data = self.socket.recv(65536)
        if self.parser is None:
            data = self.shake_hands(data)
        elif not data:
            return False
        if self.parser is not None:
            self.parser.add_data(data)
            while (message := self.parser.get_next_message()) is not None:
                self.called(message)
        return True

    def shake_hands(self, data):
        """What is left after it."""
        self.lines += data
        while b"\r\n" in self.lines:
            line, self.lines = self.lines.split(b"\r\n", 1)
            words = line.lstrip(b"\0").split()
            if words == [b"BEGIN"]:
                self.parser = Parser()
                return self.lines
            self.socket.sendall(self.reply_to(words))
        return b""

    @staticmethod
    def reply_to(words):
        if words[:2] == [b"AUTH", b"EXTERNAL"]:
            return SENT["OK"] if len(words) > 2 else SENT["DATA"]
        return SENT["OK"] if words == [b"DATA"] else SENT["NO"]  # descriptors are not agreed to

    def called(self, message):
        if message.header.message_type != MessageType.method_call:
            return
        reply = new_method_return(message, *answer(message.header.fields[MEMBER], message.body))
        self.serial += 1
        self.socket.sendall(reply.serialise(serial=self.serial))


def answer(method, arguments):
    """Signature and body."""
    if method == "servicePurgeable":
        return "aa{sv}", ([{"KELVANE_AMOUNT": ("t", 4096)}],)
    if method == "servicePurge":
        urgency, info = arguments
        wanted = info["KELVANE_AMOUNT"][1]
        print("purge", info["KELVANE_VOLUME"][1], wanted, flush=True)
        return "aa{sv}", ([{"KELVANE_AMOUNT": ("t", wanted - 1)}],)
    if method in ("servicePeriodic", "serviceCallback"):
        print(method, flush=True)
        return "aa{sv}", ([],)
    print(method, flush=True)
    return None, ()


def check_in(path, name, endpoint):
    daemon = DBusConnection(prep_socket(path, enable_fds=True), enable_fds=True)
    address = DBusAddress("/com/orvel/kelvane", bus_name="com.orvel.Kelvane", interface="com.orvel.KelvaneClientProtocol")
    # The daemon pings the service before it answers, so nothing waits for the answer here.
    daemon.send(new_method_call(address, "clientCheckin", "sha{sv}", (name, endpoint, {
        "PURGE": ("b", True), "PERIODIC": ("b", True)})))
    return daemon


def main():
    path, name = sys.argv[1:]
    endpoint, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    daemon = check_in(path, name, theirs)
    theirs.close()
    open_ones = [endpoint, daemon.sock]
    while True:
        for ready in select.select(open_ones, [], [])[0]:
            if ready is endpoint:
                data, descriptors, _, _ = socket.recv_fds(endpoint, 1, 1)
                if not data:
                    return print("dropped", flush=True)
                open_ones += [Caller(descriptor) for descriptor in descriptors]
            elif ready is daemon.sock:
                reply = daemon.receive()
                print("registered" if reply.body == ([reply.body[0][0]],) else "refused", flush=True)
                open_ones.remove(daemon.sock)
            elif not ready.readable():
                ready.socket.close()
                open_ones.remove(ready)


main()
