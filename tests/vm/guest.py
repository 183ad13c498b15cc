"""What the scenarios do in the machine: run programs, call the daemon, follow the journal."""

import json
import os
import select
import subprocess
import time

from scenario import Failed, expect

PAYLOAD = os.path.dirname(os.path.abspath(__file__))
SOCKET = "/run/kelvane/kelvane.sock"
PATIENCE = 120  # seconds; the machine may be an emulated one


def run(*command, check=True, timeout=PATIENCE, **more):
    """Runs a program; returns its exit code and all it wrote."""
    environment = {**os.environ, "DEBIAN_FRONTEND": "noninteractive", "LC_ALL": "C.UTF-8", "SYSTEMD_PAGER": ""}
    try:
        done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              text=True, errors="replace", timeout=timeout, env=environment, check=False, **more)
    except subprocess.TimeoutExpired as error:
        raise Failed(f"{' '.join(command)} took longer than {timeout} s: {error.output}") from error
    expect(not check or done.returncode == 0,
           f"{' '.join(command)} ended with {done.returncode}: {done.stdout[-2000:]}")
    return done.returncode, done.stdout


def output(*command, **more):
    return run(*command, **more)[1].strip()


def unit(name, *properties):
    """The values of a unit's properties, in order."""
    text = output("systemctl", "show", name, *(f"--property={it}" for it in properties))
    found = dict(line.split("=", 1) for line in text.splitlines() if "=" in line)
    return [found.get(it, "") for it in properties]


def active(name):
    return unit(name, "ActiveState") == ["active"]


def failed_units():
    return output("systemctl", "list-units", "--failed", "--plain", "--no-legend")


def processes(name):
    """The ids of those that execute a program of that name."""
    found = []
    for process in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open(f"/proc/{process}/comm", encoding="ascii", errors="replace") as file:
                found += [int(process)] if file.read().strip() == name else []
        except OSError:
            pass  # it has ended
    return found


def drop_in(name, label, text):
    """Adds to a unit's settings; takes that back when the text is empty."""
    folder = f"/etc/systemd/system/{name}.d"
    os.makedirs(folder, exist_ok=True)
    with open(f"{folder}/{label}.conf", "w", encoding="utf-8") as file:
        file.write(text)
    run("systemctl", "daemon-reload")


def launches():
    """How many daemons were launched since the folder was made."""
    with open("/run/kelvane/notify/com.orvel.kelvane.launched", encoding="ascii") as file:
        return int(file.read())


def busctl(method, signature, *arguments):
    """The command that calls the daemon, as one would by hand."""
    return ["busctl", f"--address=unix:path={SOCKET}", "--json=short", f"--timeout={PATIENCE}", "call",
            "com.orvel.Kelvane", "/com/orvel/kelvane", "com.orvel.KelvaneClientProtocol", method, signature,
            *map(str, arguments)]


def call(method, signature, *arguments):
    """Calls the daemon as root, and returns the values of the answer as JSON has them."""
    answer = output(*busctl(method, signature, *arguments), timeout=PATIENCE + 20)
    return json.loads(answer)["data"] if answer else None


def plain(value):
    """JSON of a variant or a dictionary of them, without the types."""
    if isinstance(value, dict) and set(value) == {"type", "data"}:
        return plain(value["data"])
    if isinstance(value, dict):
        return {key: plain(item) for key, item in value.items()}
    return [plain(item) for item in value] if isinstance(value, list) else value


def purge(volume, amount):
    answer, = call("clientPurge", "a{sv}", 2, "KELVANE_VOLUME", "s", volume, "KELVANE_AMOUNT", "t", amount)
    expect(answer, "the answer is empty")
    return plain(answer[0])


class Journal:
    """What is written to the journal from now on."""

    def __init__(self):
        self.since = "--after-cursor=" + output("journalctl", "--lines=0", "--show-cursor").rsplit("cursor: ", 1)[1]

    @classmethod
    def of_this_boot(cls):
        journal = cls()
        journal.since = "--boot"
        return journal

    def lines(self, field=""):
        """The messages; with a field, as "UNIT=name", those that have it."""
        entries = output(*self._command()).splitlines()
        return [message for message in (self._message(entry, field) for entry in entries) if message is not None]

    def wait_for(self, text, field="", timeout=PATIENCE):
        """Returns the first line with that text as soon as it is there."""
        with subprocess.Popen([*self._command(), "--follow", "--no-tail"], stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL) as follower:
            try:
                for entry in lines_until(follower.stdout, time.monotonic() + timeout):
                    if text in (self._message(entry, field) or ""):
                        return self._message(entry, field)
            finally:
                follower.kill()
        last = " | ".join(self.lines()[-25:])
        raise Failed(f'no "{text}" in the journal; its last lines are: {last}')

    def _command(self):
        return ["journalctl", self.since, "--output=json", "--output-fields=MESSAGE,UNIT,_SYSTEMD_UNIT", "--quiet"]

    @staticmethod
    def _message(entry, field):
        """Fields are not left to journalctl, which skips the first entry that has them after a cursor without."""
        found = json.loads(entry)
        name, _, value = field.partition("=")
        return str(found.get("MESSAGE")) if not field or found.get(name) == value else None


def lines_until(stream, deadline):
    """The lines of a pipe, each as soon as it is there."""
    kept = b""
    while (left := deadline - time.monotonic()) > 0 and select.select([stream], [], [], left)[0]:
        block = os.read(stream.fileno(), 65536)
        if not block:
            return
        *lines, kept = (kept + block).split(b"\n")
        yield from (line.decode(errors="replace") for line in lines)


def free_bytes(path):
    status = os.statvfs(path)
    return status.f_bavail * status.f_frsize


def cut_power():
    """At once, with all that was not written yet lost."""
    with open("/proc/sysrq-trigger", "w", encoding="ascii") as trigger:
        trigger.write("b")


def power_off():
    run("systemctl", "poweroff", "--no-block")
