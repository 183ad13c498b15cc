"""The kernel's quota warnings, as any process may hear them: generic netlink, family VFS_DQUOT, group "events"."""

import json
import socket
import struct

WARNINGS = {1: "IHARDWARN", 2: "ISOFTLONGWARN", 3: "ISOFTWARN", 4: "BHARDWARN", 5: "BSOFTLONGWARN", 6: "BSOFTWARN",
            7: "IHARDBELOW", 8: "ISOFTBELOW", 9: "BHARDBELOW", 10: "BSOFTBELOW"}
KINDS = {0: "user", 1: "group", 2: "project"}

_NETLINK_GENERIC = 16
_SOL_NETLINK, _ADD_MEMBERSHIP = 270, 1
_GENL_ID_CTRL, _CTRL_CMD_GETFAMILY = 16, 3
_CTRL_ATTR_FAMILY_NAME, _CTRL_ATTR_MCAST_GROUPS = 2, 7
_REQUEST = 1


def _attributes(data):
    found = {}
    while len(data) >= 4:
        length, kind = struct.unpack_from("HH", data)
        if length < 4:
            break
        found[kind & 0x3FFF] = data[4:length]
        data = data[(length + 3) & ~3:]
    return found


def _number(data):
    return int.from_bytes(data, "little")


class Listener:
    def __init__(self):
        self.socket = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, _NETLINK_GENERIC)
        self.socket.bind((0, 0))
        self.socket.setsockopt(_SOL_NETLINK, _ADD_MEMBERSHIP, self._group())

    def _group(self):
        name = b"VFS_DQUOT\0"
        attribute = struct.pack("HH", 4 + len(name), _CTRL_ATTR_FAMILY_NAME) + name.ljust(12, b"\0")
        payload = struct.pack("BBH", _CTRL_CMD_GETFAMILY, 1, 0) + attribute
        self.socket.send(struct.pack("IHHII", 16 + len(payload), _GENL_ID_CTRL, _REQUEST, 1, 0) + payload)
        answer = self.socket.recv(65536)
        groups = _attributes(_attributes(answer[20:])[_CTRL_ATTR_MCAST_GROUPS])
        for group in map(_attributes, groups.values()):
            if group[1] == b"events\0":
                return _number(group[2])
        raise OSError("the kernel has no group of quota events")

    def next(self):
        found = _attributes(self.socket.recv(65536)[20:])
        return {"kind": KINDS.get(_number(found[1])), "id": _number(found[2]),
                "warning": WARNINGS.get(_number(found[3]), _number(found[3])),
                "device": f"{_number(found[4])}:{_number(found[5])}", "caused_by": _number(found[6])}


def main():
    """Prints "listening", then each warning as a line of JSON."""
    listener = Listener()
    print("listening", flush=True)
    while True:
        print(json.dumps(listener.next()), flush=True)


if __name__ == "__main__":
    main()
