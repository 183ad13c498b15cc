"""The service in ten lines that examples/ has, and DirectoryService in general."""

import os
import pathlib
import signal
import unittest

import kelvane
from support import MEBIBYTE, VOLUMES, Case, Program, Registered, fill, size

EXAMPLE = pathlib.Path(__file__).resolve().parents[2] / "examples/thumbnail_service.py"
# Says on standard error when the service is registered.
TALKATIVE = "import logging, runpy, sys; logging.basicConfig(level='INFO'); sys.argv = sys.argv[1:]; " \
            "runpy.run_path(sys.argv[0], run_name='__main__')"
DAY = 86_400


PAGE = EXAMPLE.parents[1] / "docs/writing-a-service.md"


class CacheService(Registered, kelvane.DirectoryService):
    pass


class TheExample(Case):
    def started(self, days: int, *directories: str) -> Program:
        """Its clock is ahead, so that new files count as that many days old."""
        program = Program(self, "-c", TALKATIVE, str(EXAMPLE), *directories, environment={
            "LD_PRELOAD": os.environ["KELVANE_TEST_TIME_AHEAD"], "KELVANE_TEST_AHEAD": str(days * DAY),
            "RUNTIME_DIRECTORY": os.path.dirname(self.daemon.socket)})
        self.assertTrue(program.hears("com.example.thumbs: registered"), program.heard)
        return program

    def test_is_ten_lines(self):
        lines = [line for line in EXAMPLE.read_text().splitlines() if line and not line.startswith(("#", '"""'))]
        self.assertLessEqual(len(lines), 10)

    def test_is_what_the_page_shows(self):
        code = EXAMPLE.read_text().split('"""')[2].strip()
        self.assertIn(f"```python\n{code}\n```", PAGE.read_text())

    def test_says_why_it_is_not_registered(self):
        program = Program(self, str(EXAMPLE), fill(VOLUMES[0] / "cache"),
                          environment={"RUNTIME_DIRECTORY": "/not/there"})
        self.assertTrue(program.hears("com.example.thumbs: waiting: nobody listens on /not/there/kelvane.sock"),
                        program.heard)

    def test_says_why_it_cannot_start(self):
        program = Program(self, str(EXAMPLE), "/not/there")
        self.assertEqual(program.status(), 1)
        self.assertIn("/not/there", program.heard[-1])

    def test_gives_back_what_is_old_enough_at_each_urgency(self):
        directory = fill(VOLUMES[0] / "cache")
        self.started(10, directory)
        self.assertEqual(self.client.purgeable(VOLUMES[0], 3).total, 8 * MEBIBYTE)
        self.assertEqual(self.freed(VOLUMES[0], MEBIBYTE, 2), 0)
        self.assertEqual(self.freed(VOLUMES[0], MEBIBYTE, 3), MEBIBYTE)
        self.assertEqual(size(directory), 7 * MEBIBYTE)

    def test_offers_nothing_at_an_urgency_at_which_nothing_is_old_enough(self):
        self.started(10, fill(VOLUMES[0] / "cache"))
        self.assertEqual(self.client.purgeable(VOLUMES[0], 2).total, 0)

    def test_leaves_what_was_just_made(self):
        directory = fill(VOLUMES[0] / "cache")
        self.started(0, directory)
        self.assertEqual(self.freed(VOLUMES[0], MEBIBYTE), 0)
        self.assertEqual(size(directory), 8 * MEBIBYTE)

    def test_ends_on_sigterm(self):
        program = self.started(0, fill(VOLUMES[0] / "cache"))
        program.signal(signal.SIGTERM)
        self.assertEqual(program.status(), 0, program.heard)


class DirectoryService(Case):
    def service(self, *directories: str, **arguments) -> CacheService:
        arguments = {"youngest": 0, "ages": {3: "1d", 4: 0}, **arguments}
        return self.start(CacheService(id="com.example.python", directories=directories,
                                       daemon_socket=self.daemon.socket, **arguments))

    def test_frees_on_the_volume_of_the_request_only(self):
        first, second = (fill(volume / "cache") for volume in VOLUMES[:2])
        self.service(first, second)
        self.assertEqual(self.client.purgeable(VOLUMES[0], 4).services, {"com.example.python": 8 * MEBIBYTE})
        self.assertEqual(self.freed(VOLUMES[0], 64 * MEBIBYTE), 8 * MEBIBYTE)
        self.assertEqual((size(first), size(second)), (0, 8 * MEBIBYTE))

    def test_is_not_asked_about_a_volume_on_which_it_has_nothing(self):
        directory = fill(VOLUMES[0] / "cache")
        self.service(directory)
        self.assertEqual(self.client.purgeable(VOLUMES[1], 4).services.get("com.example.python", 0), 0)
        self.assertEqual(self.freed(VOLUMES[1], MEBIBYTE), 0)
        self.assertEqual(size(directory), 8 * MEBIBYTE)

    def test_a_purge_says_who_freed_what_in_which_pass(self):
        self.service(fill(VOLUMES[0] / "cache"))
        result = self.client.purge(VOLUMES[0], 2 * MEBIBYTE, 4)
        self.assertEqual([each.urgency for each in result.passes], [1, 2, 3, 4])
        self.assertEqual(result.passes[-1].freed, {"com.example.python": 2 * MEBIBYTE})
        self.assertEqual((result.freed, result.reported, result.cancelled), (2 * MEBIBYTE, 2 * MEBIBYTE, False))
        self.assertEqual(result.free_after - result.free_before, 2 * MEBIBYTE)

    def test_keeps_what_its_rules_exclude(self):
        directory = fill(VOLUMES[0] / "cache")
        self.service(directory, include=["[0-5]"], exclude=["0"], keep_newest=2)
        self.assertEqual(self.freed(VOLUMES[0], 64 * MEBIBYTE), 3 * MEBIBYTE)
        self.assertTrue({"0", "6", "7"} < set(os.listdir(directory)))

    def test_units_go_as_a_whole(self):
        for unit in "old", "new":
            fill(VOLUMES[0] / unit, 4)
        os.mkdir(VOLUMES[0] / "cache")
        for unit in "old", "new":
            os.rename(VOLUMES[0] / unit, VOLUMES[0] / "cache" / unit)
        self.service(str(VOLUMES[0] / "cache"), unit="directory", include=["*"])
        self.assertEqual(self.freed(VOLUMES[0], MEBIBYTE), 4 * MEBIBYTE)
        self.assertEqual(len(os.listdir(VOLUMES[0] / "cache")), 1)

    def test_survives_restarts_of_the_daemon(self):
        service = self.service(fill(VOLUMES[0] / "cache"))
        for restarts, number in enumerate((signal.SIGTERM, signal.SIGKILL), 1):
            self.daemon.restart(number)
            service.await_state(kelvane.State.REGISTERED, 1 + restarts)
            self.assertEqual(self.freed(VOLUMES[0], MEBIBYTE), MEBIBYTE)

    def test_can_be_started_again(self):
        service = self.service(fill(VOLUMES[0] / "cache"))
        with self.assertRaisesRegex(kelvane.BadRequest, "'com.example.python' is running"):
            service.start()
        service.stop()
        self.assertEqual(self.freed(VOLUMES[0], MEBIBYTE), 0)
        service.start()
        service.await_state(kelvane.State.REGISTERED, 2)
        self.assertEqual(self.freed(VOLUMES[0], MEBIBYTE), MEBIBYTE)


if __name__ == "__main__":
    unittest.main()
