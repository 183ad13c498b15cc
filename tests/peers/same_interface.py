"""same_interface.py SOCKET OBJECT INTERFACE FILE: fails when the object at the socket describes the interface in other
words than the file, or leaves an argument without a name. Comments and spaces do not count."""

import difflib
import sys
import xml.etree.ElementTree as xml

from jeepney import DBusAddress, new_method_call
from jeepney.io.blocking import DBusConnection, prep_socket


def answered(path, thing):
    connection = DBusConnection(prep_socket(path))
    address = DBusAddress(thing, bus_name="com.orvel.Kelvane", interface="org.freedesktop.DBus.Introspectable")
    return connection.send_and_get_reply(new_method_call(address, "Introspect")).body[0]


def lines(document, name):
    interface, = (each for each in xml.fromstring(document).iter("interface") if each.get("name") == name)
    text = xml.canonicalize(xml.tostring(interface), strip_text=True)
    return text.replace("><", ">\n<").splitlines()


def main():
    path, thing, name, file = sys.argv[1:]
    found = lines(answered(path, thing), name)
    with open(file, encoding="utf-8") as installed:
        expected = lines(installed.read(), name)
    differences = list(difflib.unified_diff(expected, found, file, "answered", lineterm=""))
    nameless = [line for line in found if line.startswith("<arg") and " name=" not in line]
    print(*differences, *nameless, sep="\n")
    methods = sum(line.startswith("<method") for line in found)
    return 1 if differences or nameless or methods < 7 else 0


sys.exit(main())
