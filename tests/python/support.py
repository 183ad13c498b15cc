"""A real daemon, volumes, and services in this process and beside it."""

import os
import pathlib
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import unittest

import kelvane

VOLUMES = [pathlib.Path(name) for name in os.environ["KELVANE_TEST_VOLUMES"].split(":")]
DAEMON = os.environ["KELVANE_TEST_DAEMON"]
PATIENCE = 30
WITH_THE_TEST = "setpriv", "--pdeathsig", "KILL"  # even when the test itself is killed
MEBIBYTE = 1 << 20

GRANTS = f"""<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict><key>user</key><integer>{os.getuid()}</integer>
<key>com.orvel.private.Kelvane</key><array><string>CLIENT_ENTITLEMENT</string><string>SERVICE_ENTITLEMENT</string>
<string>PURGE_ENTITLEMENT</string><string>PURGEABLE_ENTITLEMENT</string>
<string>ITEMIZED_PURGEABLE_ENTITLEMENT</string></array></dict></plist>
"""


class Daemon:
    """In directories of its own. No volume is ever low for it."""

    def __init__(self, test: unittest.TestCase) -> None:
        directory = tempfile.TemporaryDirectory()
        self._at = pathlib.Path(directory.name)
        for name in "run", "state", "etc/entitlements.d":
            (self._at / name).mkdir(parents=True)
        for name in "etc", "etc/entitlements.d":
            (self._at / name).chmod(0o755)
        grants = self._at / "etc/entitlements.d/tests.plist"
        grants.write_text(GRANTS)
        grants.chmod(0o644)
        self.socket = str(self._at / "run/kelvane.sock")
        self._start()
        test.addCleanup(directory.cleanup)
        test.addCleanup(self.end, signal.SIGTERM)

    def _start(self) -> None:
        ready = str(self._at / "ready")
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as listener:
            listener.bind(ready)
            listener.settimeout(PATIENCE)
            with open(self._at / "log", "ab") as log:
                self._process = subprocess.Popen([*WITH_THE_TEST, DAEMON], stdout=log, stderr=log, env={
                    **os.environ, "RUNTIME_DIRECTORY": str(self._at / "run"),
                    "STATE_DIRECTORY": str(self._at / "state"), "CONFIGURATION_DIRECTORY": str(self._at / "etc"),
                    "NOTIFY_SOCKET": ready, "KELVANE_LOW_SPACE": "0%"})
            while b"READY=1" not in listener.recv(4096):
                pass
        os.unlink(ready)

    def end(self, number: int) -> None:
        self._process.send_signal(number)
        self._process.wait(PATIENCE)

    def restart(self, number: int) -> None:
        self.end(number)
        self._start()


class Program:
    """A Python program beside the test; ended with the test. Its output is read line by line."""

    def __init__(self, test: unittest.TestCase, *arguments: str, environment: dict[str, str] | None = None) -> None:
        self._process = subprocess.Popen([*WITH_THE_TEST, sys.executable, "-u", *arguments], stdout=subprocess.PIPE,
                                         stderr=subprocess.STDOUT, text=True, env={**os.environ, **(environment or {})})
        self.heard: list[str] = []
        self._timer = threading.Timer(PATIENCE, self._process.kill)  # ends every wait below
        self._timer.start()
        test.addCleanup(self._end)

    def _end(self) -> None:
        self._timer.cancel()
        self._process.kill()
        self._process.wait()
        self._process.stdout.close()

    def hears(self, words: str) -> bool:
        """Reads on until a line has these words; false when there is none."""
        for line in self._process.stdout:
            self.heard.append(line)
            if words in line:
                return True
        return False

    def signal(self, number: int) -> None:
        self._process.send_signal(number)

    def status(self) -> int:
        """Reads to the end; returns the exit status."""
        self.heard += self._process.stdout
        return self._process.wait(PATIENCE)


class Registered:
    """Mixed into a service: waits for its states."""

    def __init__(self, **arguments) -> None:
        super().__init__(**arguments)
        self._states: list[tuple[kelvane.State, str]] = []
        self._changed = threading.Condition()

    def state_changed(self, state: kelvane.State, reason: str) -> None:
        with self._changed:
            self._states.append((state, reason))
            self._changed.notify_all()

    def await_state(self, state: kelvane.State, times: int = 1) -> None:
        with self._changed:
            came = self._changed.wait_for(lambda: [each for each, _ in self._states].count(state) >= times, PATIENCE)
            assert came, f"after {PATIENCE} s the states are {self._states}"


def fill(directory: pathlib.Path, files: int = 8) -> str:
    """Makes files of one mebibyte."""
    directory.mkdir()
    for number in range(files):
        (directory / str(number)).write_bytes(bytes(MEBIBYTE))
    return str(directory)


def size(directory: str) -> int:
    """The bytes of its files."""
    return sum(file.stat().st_size for file in pathlib.Path(directory).rglob("*") if file.is_file())


class Case(unittest.TestCase):
    """Each test has a daemon and empty volumes."""

    def setUp(self) -> None:
        self.addCleanup(self._empty)
        self.daemon = Daemon(self)
        self.client = kelvane.Client(self.daemon.socket)

    def _empty(self) -> None:
        for volume in VOLUMES:
            subprocess.run(["find", str(volume), "-mindepth", "1", "-delete"], check=True)

    def start(self, service):
        """Started and registered; stopped with the test."""
        service.start()
        self.addCleanup(service.stop)
        service.await_state(kelvane.State.REGISTERED)
        return service

    def freed(self, volume: pathlib.Path, amount: int, urgency: int = 4) -> int:
        return self.client.purge(volume, amount, urgency).freed
