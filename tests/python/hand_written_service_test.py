"""Services whose purge is Python code: what it is asked, what it may answer, and what it raises."""

import os
import pathlib
import signal
import tempfile
import threading
import time
import unittest

import kelvane
from support import MEBIBYTE, PATIENCE, VOLUMES, Case, Program, Registered, fill


class Scripted(Registered, kelvane.Service):
    """Gives the test's answers, and records its requests."""

    def __init__(self, daemon_socket, purgeable=lambda request: 0, purge=lambda request: 0) -> None:
        super().__init__(id="com.example.python", directories=[str(volume / "cache") for volume in VOLUMES[:2]],
                         daemon_socket=daemon_socket)
        self._purgeable, self._purge = purgeable, purge
        self.asked: list[kelvane.Request] = []

    def purgeable(self, request):
        self.asked.append(request)
        return self._purgeable(request)

    def purge(self, request):
        self.asked.append(request)
        return self._purge(request)


def raises_after_freeing(request):
    request.freed += 5 * MEBIBYTE
    raise OSError("the disk is on fire")


class ThePagesSample(Case):
    """docs/writing-a-service.md shows a service whose purge is written by hand."""

    CACHE = """
import os
class Entry:
    def __init__(self, path): self.path = path
    def delete(self):
        bytes_ = os.stat(self.path).st_size
        os.unlink(self.path)
        return bytes_
def oldest_first(directories, urgency):
    return [Entry(os.path.join(each, name)) for each in directories for name in sorted(os.listdir(each))]
def size(directory, urgency):
    return sum(os.stat(each.path).st_size for each in oldest_first([directory], urgency))
"""

    def test_counts_and_purges(self):
        page = (pathlib.Path(__file__).resolve().parents[2] / "docs/writing-a-service.md").read_text()
        sample, = (each.split("```")[0] for each in page.split("```python\n") if "import my_cache" in each)
        directory = fill(VOLUMES[0] / "cache")
        with tempfile.TemporaryDirectory() as module:
            pathlib.Path(module, "my_cache.py").write_text(self.CACHE)
            program = Program(self, "-c", "import logging; logging.basicConfig(level='INFO')\n" +
                              sample.replace("/var/cache/thumbs", directory),
                              environment={"PYTHONPATH": module + ":" + os.environ["PYTHONPATH"],
                                           "RUNTIME_DIRECTORY": os.path.dirname(self.daemon.socket)})
            self.assertTrue(program.hears("registered"), program.heard)
        self.assertEqual(self.client.purgeable(VOLUMES[0], 3).total, 8 * MEBIBYTE)
        self.assertEqual(self.freed(VOLUMES[0], 3 * MEBIBYTE), 3 * MEBIBYTE)
        self.assertEqual(sorted(os.listdir(directory)), ["3", "4", "5", "6", "7"])


class HandWrittenService(Case):
    def setUp(self):
        super().setUp()
        self.directories = [fill(volume / "cache") for volume in VOLUMES[:2]]

    def service(self, **handlers) -> Scripted:
        return self.start(Scripted(self.daemon.socket, **handlers))

    def test_is_asked_about_its_directories_on_the_volume(self):
        def answer(request):
            seen.append((request.urgency, request.volume, request.amount, request.directories, request.cancelled))
            times.append(request.seconds_left)
            return 0

        seen, times = [], []
        self.service(purgeable=answer, purge=answer)
        self.client.purgeable(VOLUMES[1], 2)
        self.client.purge(VOLUMES[0], 3 * MEBIBYTE, 1)
        self.assertEqual(seen, [(2, str(VOLUMES[1]), 0, (self.directories[1],), False),
                                (1, str(VOLUMES[0]), 3 * MEBIBYTE, (self.directories[0],), False)])
        self.assertTrue(all(0 < left < 10 for left in times), times)

    def test_for_all_volumes_is_asked_about_each(self):
        class Everywhere(Registered, kelvane.Service):
            data = self.directories[1]

            def purgeable(self, request):
                return 7 if kelvane.volume_of(self.data) == request.volume else 0

        self.start(Everywhere(id="com.example.python", all_volumes=True, daemon_socket=self.daemon.socket))
        self.assertEqual([self.client.purgeable(volume, 1).total for volume in VOLUMES], [0, 7])

    def test_its_answers_reach_the_client(self):
        self.service(purgeable=lambda request: 7, purge=lambda request: 5 * MEBIBYTE)
        self.assertEqual(self.client.purgeable(VOLUMES[0], 1).services, {"com.example.python": 7})
        self.assertEqual(self.client.purge(VOLUMES[0], 5 * MEBIBYTE).reported, 5 * MEBIBYTE)

    def test_a_purge_may_count_as_it_goes_and_return_nothing(self):
        def purge(request):
            request.freed += request.amount

        self.service(purge=purge)
        self.assertEqual(self.client.purge(VOLUMES[0], 5 * MEBIBYTE).reported, 5 * MEBIBYTE)

    def test_what_a_purge_raises_is_logged_and_what_was_freed_before_is_answered(self):
        self.service(purge=raises_after_freeing)
        with self.assertLogs("kelvane") as logs:
            self.assertEqual(self.client.purge(VOLUMES[0], 5 * MEBIBYTE).reported, 5 * MEBIBYTE)
        self.assertIn("com.example.python: purge failed", logs.output[0])
        self.assertIn("Traceback", logs.output[0])
        self.assertIn("OSError: the disk is on fire", logs.output[0])

    def test_what_a_question_raises_is_logged_and_nothing_is_answered(self):
        self.service(purgeable=lambda request: 1 // 0)
        with self.assertLogs("kelvane") as logs:
            self.assertEqual(self.client.purgeable(VOLUMES[0], 1).total, 0)
        self.assertIn("ZeroDivisionError", logs.output[0])

    def test_even_a_handler_that_exits_does_not_end_the_program(self):
        def exits(request):
            raise SystemExit(1)

        self.service(purge=exits, purgeable=lambda request: 7)
        with self.assertLogs("kelvane"):
            self.assertEqual(self.client.purge(VOLUMES[0], MEBIBYTE).reported, 0)
        self.assertEqual(self.client.purgeable(VOLUMES[0], 1).total, 7)

    def test_an_invalid_answer_is_logged_and_counts_as_nothing(self):
        for answer in "5", 5.0, -1, True, 2**64:
            with self.subTest(answer=answer):
                service = self.service(purge=lambda request: answer)
                with self.assertLogs("kelvane") as logs:
                    self.assertEqual(self.client.purge(VOLUMES[0], MEBIBYTE).reported, 0)
                self.assertIn(f"invalid answer of purge {answer!r}", logs.output[0])
                service.stop()

    def test_may_say_that_it_cannot_tell(self):
        self.service(purgeable=lambda request: None)
        self.assertEqual(self.client.purgeable(VOLUMES[0], 1).total, 0)

    def test_a_request_is_cancelled_when_the_daemon_goes(self):
        def purge(request):
            running.set()
            while not request.cancelled and request.seconds_left > 0:
                time.sleep(0.001)
            cancelled.append(request.cancelled)
            returned.set()
            return 0

        running, returned, cancelled, lost = threading.Event(), threading.Event(), [], []

        def ask():
            try:
                self.client.purge(VOLUMES[0], MEBIBYTE, 1, pass_seconds=300)
            except kelvane.ConnectionLost as error:
                lost.append(error)

        self.service(purge=purge)
        asking = threading.Thread(target=ask)
        asking.start()
        self.assertTrue(running.wait(PATIENCE))
        self.daemon.restart(signal.SIGKILL)
        self.assertTrue(returned.wait(PATIENCE))
        asking.join(PATIENCE)
        self.assertEqual((cancelled, len(lost)), ([True], 1))

    def test_a_kept_request_counts_as_cancelled(self):
        service = self.service()
        self.client.purge(VOLUMES[0], MEBIBYTE, 1)
        service.stop()
        self.assertTrue(service.asked[0].cancelled)
        self.assertEqual(service.asked[0].seconds_left, 0)

    def test_cannot_be_stopped_by_its_own_handler(self):
        service = self.service(purge=lambda request: service.stop())
        with self.assertLogs("kelvane") as logs:
            self.client.purge(VOLUMES[0], MEBIBYTE, 1)
        self.assertIn("cannot be stopped by its own handler", logs.output[0])

    def test_uses_rules_for_its_directories(self):
        rules = kelvane.Rules(ages={4: 0}, youngest=0)

        def purge(request):
            return sum(kelvane.purge_directory(each, rules, request.urgency, request.amount, request).freed
                       for each in request.directories)

        self.service(purge=purge, purgeable=lambda request: sum(
            kelvane.count_directory(each, rules, request).bytes[request.urgency] for each in request.directories))
        self.assertEqual(self.client.purgeable(VOLUMES[0], 4).total, 8 * MEBIBYTE)
        self.assertEqual(self.freed(VOLUMES[0], 3 * MEBIBYTE, 3), 0)
        self.assertEqual(self.freed(VOLUMES[0], 3 * MEBIBYTE), 3 * MEBIBYTE)


if __name__ == "__main__":
    unittest.main()
