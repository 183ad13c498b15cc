"""An invalid argument is refused with what is wrong, with which value, and what would be right."""

import datetime
import tempfile
import unittest

import kelvane


def service(**changed):
    return kelvane.DirectoryService(**{"id": "com.example.python", "directories": ["/tmp"], "ages": {4: "1h"}, **changed})


class Arguments(unittest.TestCase):
    def assert_says(self, kind, message, call):
        with self.assertRaises(kind) as raised:
            call()
        self.assertEqual(str(raised.exception), message)

    def test_ages(self):
        right = "expected a number and s, m, h, d or w, such as '30d'"
        for age in "30x", "d", "", "-1d", "1.5d", " 1d", "1 d", "٣d", "9999999999999d":
            with self.subTest(age):
                self.assert_says(kelvane.BadRequest, f"invalid age for urgency 3 {age!r}: {right}",
                                 lambda: service(ages={3: age}))
        self.assert_says(kelvane.BadRequest, f"invalid youngest '1y': {right}", lambda: service(youngest="1y"))
        self.assert_says(TypeError, "invalid age for urgency 3 1.5: expected an int", lambda: service(ages={3: 1.5}))
        self.assert_says(TypeError, "invalid age for urgency 3 True: expected an int", lambda: service(ages={3: True}))
        self.assert_says(TypeError, "invalid ages '7d': expected a dict such as {3: '7d', 4: '1h'}",
                         lambda: service(ages="7d"))
        self.assertRaisesRegex(kelvane.BadRequest, "^invalid age 999999999999: expected seconds, at most [0-9]+$",
                               service, ages={3: 999_999_999_999})
        for age in "0s", "90m", "2w", 3600, datetime.timedelta(days=3):
            service(ages={3: age, 4: 0})

    def test_urgencies(self):
        self.assert_says(kelvane.BadRequest, "invalid urgency in ages 5: expected 1 to 4", lambda: service(ages={5: "1d"}))
        self.assert_says(TypeError, "invalid urgency in ages '3': expected an int", lambda: service(ages={"3": "1d"}))
        self.assert_says(kelvane.BadRequest, "invalid urgency_limit 0: expected 1 to 4",
                         lambda: kelvane.Client().purge("/", 1, 0))

    def test_ids(self):
        self.assert_says(TypeError, "invalid id 5: expected a str", lambda: service(id=5))
        self.assert_says(kelvane.BadRequest, "invalid id 'a\\x00b': it contains a NUL", lambda: service(id="a\0b"))
        self.assert_says(kelvane.BadRequest, "invalid id 'a\\udcff': it cannot be written as UTF-8",
                         lambda: service(id="a\udcff"))
        self.assert_says(kelvane.BadRequest, "id is empty", lambda: service(id="").start())

    def test_directories(self):
        self.assert_says(TypeError, "invalid directories '/tmp': expected a list", lambda: service(directories="/tmp"))
        self.assert_says(kelvane.BadRequest, "invalid directories []: expected at least one",
                         lambda: service(directories=[]))
        self.assert_says(TypeError, "invalid directory 5: expected a path", lambda: service(directories=[5]))
        self.assert_says(kelvane.BadRequest, "invalid directory \"tmp\": expected an absolute path",
                         lambda: service(directories=["tmp"]).start())
        self.assertRaisesRegex(kelvane.BadRequest, "/not/there", service(directories=["/not/there"]).start)

    def test_sockets(self):
        with tempfile.TemporaryDirectory() as directory:
            self.assertRaisesRegex(kelvane.BadRequest, "no listening socket was handed over as \"no-such-socket\"",
                                   service(directories=[directory], passed_socket="no-such-socket").start)
        self.assert_says(TypeError, "invalid daemon_socket 5: expected a path", lambda: service(daemon_socket=5))

    def test_services_for_all_volumes(self):
        self.assert_says(kelvane.BadRequest, "invalid directories []: expected at least one",
                         lambda: kelvane.Service(id="com.example.python"))
        self.assertRaises(TypeError, service, all_volumes=True)
        self.assertRaises(kelvane.BadRequest, kelvane.Service(
            id="com.example.python", directories=["/tmp"], all_volumes=True).start)

    def test_rules(self):
        self.assert_says(TypeError, "invalid include '*.jpg': expected a list", lambda: service(include="*.jpg"))
        self.assert_says(kelvane.BadRequest, "invalid unit 'folder': expected 'file' or 'directory'",
                         lambda: service(unit="folder"))
        self.assert_says(kelvane.BadRequest, "invalid marker \"a/b\": expected a name without \"/\"",
                         lambda: service(markers=["a/b"]))
        self.assert_says(kelvane.BadRequest,
                         "invalid lock 'lock' in locks: expected ('flock', 'record' or 'exists', path)",
                         lambda: service(locks=["lock"]))
        self.assert_says(kelvane.BadRequest, "invalid keep_newest -1: expected 0 to 18446744073709551615",
                         lambda: service(keep_newest=-1))
        self.assertRaisesRegex(TypeError, "unexpected keyword argument 'age'", service, age={3: "1d"})

    def test_what_cannot_be_opened(self):
        rules = kelvane.Rules(ages={4: 0})
        self.assertRaisesRegex(kelvane.BadRequest, "/not/there", kelvane.count_directory, "/not/there", rules)
        self.assertRaisesRegex(kelvane.BadRequest, "/not/there", kelvane.volume_of, "/not/there")
        self.assert_says(TypeError, "invalid rules {}: expected kelvane.Rules",
                         lambda: kelvane.count_directory("/tmp", {}))

    def test_a_daemon_that_is_not_there(self):
        self.assertRaises(kelvane.NoDaemon, kelvane.Client("/not/there/kelvane.sock").state, "key")


if __name__ == "__main__":
    unittest.main()
