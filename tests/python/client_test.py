"""Calls of a client other than purges."""

import unittest

import kelvane
from support import VOLUMES, Case, fill


class Client(Case):
    def test_keeps_values_in_the_daemon(self):
        for value in True, False, 5, -5, 2**63 - 1, -2**63, "", "gr\u00fcn", "x" * 10_000:
            with self.subTest(value):
                self.client.set_state("key", value)
                kept = self.client.state("key")
                self.assertEqual((kept, type(kept)), (value, type(value)))
        self.daemon.restart(15)
        self.assertEqual(self.client.state("key"), "x" * 10_000)
        self.client.set_state("key", None)
        self.assertIsNone(self.client.state("key"))

    def test_refuses_values_that_cannot_be_kept(self):
        for value in 1.5, b"bytes", ["list"]:
            self.assertRaises(TypeError, self.client.set_state, "key", value)
        self.assertRaises(kelvane.BadRequest, self.client.set_state, "key", 2**63)

    def test_asks_about_the_volume_of_a_path(self):
        directory = fill(VOLUMES[0] / "cache")
        self.assertEqual(kelvane.volume_of(directory), str(VOLUMES[0]))
        self.assertEqual(self.client.purge(directory, 1, 1).freed, 0)
        self.assertEqual(self.client.purgeable(directory).services, {})

    def test_a_path_on_no_volume_is_refused_with_the_path(self):
        self.assertRaisesRegex(kelvane.BadRequest, "/proc", self.client.purgeable, "/proc")

    def test_the_version_is_that_of_the_library(self):
        self.assertRegex(kelvane.version(), r"^\d+\.\d+\.\d+$")


if __name__ == "__main__":
    unittest.main()
