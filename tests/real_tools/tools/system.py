import glob
import os
import re
import subprocess
import time

import files
from machine import await_true
from scenario import Scenario


DUMPS = "/var/lib/systemd/coredump"


def dumps():
    return sorted(glob.glob(DUMPS + "/core.*"))


class RotatedLogs(Scenario):
    """logrotate with the configuration of a package; the newest 64 MB stay."""

    name = "rotated-logs"
    holders = ("rotated-logs",)
    packages = ("logrotate", "gzip")
    volume = "/var"
    rounds = 9

    def rotate(self):
        self.machine.run("logrotate", "--force", "--state", "/var/lib/logrotate/status", "/etc/logrotate.conf", user="root",
                         shown=False)

    def fill(self):
        os.makedirs("/var/lib/logrotate", exist_ok=True)
        os.makedirs("/var/log/demo")
        os.makedirs("/var/lib/dpkg", exist_ok=True)  # the volume is new
        with open("/etc/logrotate.d/demo", "w", encoding="ascii") as file:
            file.write("/var/log/demo/*.log {\n rotate 12\n compress\n delaycompress\n missingok\n notifempty\n create\n}\n")
        for _ in range(self.rounds):
            with open("/var/log/demo/demo.log", "wb") as file:
                file.write(os.urandom(15_000_000))  # not to be compressed further
            self.rotate()
        self.expect(len(self.compressed()) == self.rounds - 1, f"logrotate made {self.compressed()}")

    def prepared(self):
        """A month between rotations, because logs of one age stay or go together."""
        files.make_older(self.volume, {path: 30 * number for number, path in enumerate(self.compressed())})

    @staticmethod
    def compressed():
        return sorted(glob.glob("/var/log/demo/*.gz"))

    def works(self):
        left = sum(os.path.getsize(path) for path in self.compressed())
        self.expect(left >= 64_000_000, f"only {left} bytes of compressed logs are left")
        self.expect(os.path.exists("/var/log/demo/demo.log.1"), "the log that a program may still write to is gone")
        with open("/var/log/demo/demo.log", "w", encoding="ascii") as file:
            file.write("goes on\n")
        self.rotate()
        self.expect(os.path.exists("/var/log/demo/demo.log.2.gz"), "logrotate does not go on")


class Coredumps(Scenario):
    """As systemd-coredump stores them, called as the kernel calls it; the newest three stay."""

    name = "coredumps"
    holders = ("coredumps",)
    packages = ("systemd-coredump", "gdb/gdb")
    volume = "/var/lib/systemd"
    count = 6

    def fill(self):
        os.makedirs(DUMPS)
        os.makedirs("/run/systemd")
        for number in range(self.count):
            self.crash(f"demo{number}")
        self.expect(len(dumps()) == self.count, f"systemd-coredump stored {dumps()}")

    def crash(self, name):
        """A program of this name crashes, and the kernel hands its memory over; a second process stores it."""
        with self.machine.running("systemd-socket-activate", "--seqpacket", "--accept", "-l", "/run/systemd/coredump",
                                  "/lib/systemd/systemd-coredump", user="root"):
            await_true("the socket", lambda: os.path.exists("/run/systemd/coredump"))
            before = dumps()
            self.hand_over(name)
            await_true("the dump is stored", lambda: len(dumps()) > len(before), 20)
        os.unlink("/run/systemd/coredump")

    def hand_over(self, name):
        path = f"/tmp/{name}"
        self.machine.run("cp", "/usr/bin/sleep", path, user="root", shown=False)
        with self.machine.running(path, "600", user="root") as process:
            self.machine.run("gcore", "-o", "/tmp/memory", str(process.pid), user="root", shown=False)
            values = {"%P": process.pid, "%u": 0, "%g": 0, "%s": 11, "%t": int(time.time()), "%c": 2**64 - 1, "%h": "machine",
                      "%d": 1}
            with open("/usr/lib/sysctl.d/50-coredump.conf", encoding="ascii") as file:
                pattern = re.search(r"^kernel.core_pattern=\|(.*)$", file.read(), re.M)[1]
            command = [str(values.get(word, word)) for word in pattern.split()]
            print("    $", *command, flush=True)
            with open(f"/tmp/memory.{process.pid}", "rb") as memory:
                done = subprocess.run(command, stdin=memory, capture_output=True, text=True)
        self.expect(done.returncode == 0, f"systemd-coredump: exit status {done.returncode} {done.stdout}{done.stderr}")

    def works(self):
        self.expect(len(dumps()) == 3, f"{dumps()} are left")
        self.crash("again")
        self.expect(len(dumps()) == 4, "no further dump is stored")
