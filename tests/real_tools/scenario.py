"""The common part of all scenarios, and the order of their steps."""

import contextlib
import os

import files
from kelvane import Kelvane
from machine import await_true
from outcome import Failure


class Scenario:
    name = ""
    holders = ()  # names of shipped definitions
    packages = ()  # Debian's; PACKAGE/COMMAND when another source of the command is also accepted
    switched_on = ()  # those of them that are off until the administrator enables them
    volume = "/home"
    copied = False  # whether the volume begins with what the machine has there
    lock_user = "anna"  # the user that holds locks
    linked = False  # files have names in two holders: explain of either alone does not count them
    days = 200  # how far the services' clock is ahead
    urgencies = (3, 4)
    freeing = (3,)  # those of them at which something must go

    def __init__(self, machine):
        self.machine = machine
        self.notes = []

    def fill(self):
        """Lets the tool fill its cache."""
        raise NotImplementedError

    def works(self):
        """Shows that the tool works."""
        raise NotImplementedError

    def prepared(self):
        """Last steps before the purges."""

    def after(self, urgency):
        """Shows that the tool works between two purges."""

    def watched(self, paths):
        """The files that a running tool does not change itself."""
        return list(paths)

    in_use = None  # a context manager: while it is entered, nothing may go

    # --- the order ---

    def carry_out(self):
        self.step("fill")
        self.fill()
        self.step("purge while everything is younger than an hour")
        self._expect_nothing(0)
        if self.in_use:
            self.step("purge while the cache is in use")
            with self.in_use():
                self._expect_nothing(self.days)
        self.prepared()
        for urgency in self.urgencies:
            self.step(f"purge at urgency {urgency}, {self.days} days later")
            self._purge(urgency)
            self.after(urgency)
        self.step("works afterwards")
        self.works()

    @staticmethod
    def step(text):
        print("  --", text, flush=True)

    def _expect_nothing(self, days):
        before = files.snapshot(self.volume)
        with Kelvane(self.holders, days) as kelvane:
            named = kelvane.explain(self.volume, 4)[1]
            answer = kelvane.purge(self.volume, 4)
        after = files.snapshot(self.volume)
        gone = self.watched(path for path in before if path not in after)
        if named or gone or answer["claimed_bytes"]:
            raise Failure(f"something goes that must stay: named {named[:5]}, gone {gone[:5]}, "
                          f"claimed {answer['claimed_bytes']}")

    def _purge(self, urgency):
        self.machine.await_rest()
        with Kelvane(self.holders, self.days) as kelvane:
            estimate, named = kelvane.explain(self.volume, urgency)
            before, free_before = files.snapshot(self.volume), files.free_bytes(self.volume)
            answer = kelvane.purge(self.volume, urgency)
            after, free_after = files.snapshot(self.volume), files.free_bytes(self.volume)
        gone = {path for path in before if path not in after}
        self._compare_names(files.below(before, named), gone, before, after)
        self._compare_bytes(urgency, estimate, answer["claimed_bytes"], free_after - free_before, len(gone))
        if not gone and urgency in self.freeing:
            raise Failure(f"nothing goes at urgency {urgency}: {kelvane.reasons}")

    @staticmethod
    def _compare_names(named, gone, before, after):
        problems = {"explained, but still there": named - gone, "gone, but not explained": gone - named,
                    "new": set(after) - set(before),
                    "changed": {path for path in after if path in before and after[path] != before[path]}}
        for what, paths in problems.items():
            if paths:
                raise Failure(f"{len(paths)} files {what}: {sorted(paths)[:5]}")

    def _compare_bytes(self, urgency, estimate, claimed, measured, count):
        note = f"urgency {urgency}: {count} files, explained {estimate}, claimed {claimed}, measured {measured}"
        print("    " + note, flush=True)
        self.notes.append(note)
        if claimed > 0 and urgency not in self.freeing:
            raise Failure(f"urgency {urgency} frees {claimed} bytes")
        for what, value in (("explained", estimate), ("claimed", claimed)):
            less_is_right = self.linked and what == "explained" and value < measured
            if not less_is_right and abs(value - measured) > measured // 100:
                raise Failure(f"{what} {value} and measured {measured} differ by more than 1 %")

    # --- for scenarios ---

    @staticmethod
    def expect(condition, problem):
        if not condition:
            raise Failure(problem)

    @contextlib.contextmanager
    def held(self, lock, path):
        """flock(1) or a record lock of another process of the user's."""
        code = ("import fcntl,sys,time; f=open(sys.argv[2],'a'); "
                "(fcntl.flock if sys.argv[1]=='flock' else fcntl.lockf)(f, fcntl.LOCK_EX); "
                "open('/tmp/held','w').close(); time.sleep(600)")
        with self.machine.running("python3", "-c", code, lock, path, user=self.lock_user):
            await_true("the lock is held", lambda: os.path.exists("/tmp/held"), 20)
            os.unlink("/tmp/held")
            yield
