"""The daemon, and the ready-made services of some holders, as the service manager would start them."""

import contextlib
import json
import os
import subprocess
import time

from outcome import Failure

ID = "com.orvel.kelvane.caches."
RUN = "/run/kelvane"
DESCRIPTORS = "/System/Library/Kelvane"
DEFINITIONS = "/usr/lib/kelvane/caches.d"
CACHES = "/kelvane/bin/kelvane-caches"


def install(source):
    """Installs definitions and grants where the packages put them."""
    for directory in (DESCRIPTORS, "/OrvelInternal/Library/Kelvane", "/etc/kelvane", "/usr/lib/kelvane"):
        os.makedirs(directory, exist_ok=True)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=0755", "none", directory], check=True)
    os.makedirs(DEFINITIONS)
    for kind in ("entitlements.d", "services.d", "caches.d"):
        os.makedirs("/etc/kelvane/" + kind)
    subprocess.run(f"install -m 644 {source}/caches/definitions/*.toml {DEFINITIONS}"
                   f" && install -m 644 {source}/packaging/entitlements.d/*.plist /etc/kelvane/entitlements.d",
                   shell=True, check=True)


def switch_on(holder):
    subprocess.run([CACHES, "enable", holder], check=True, stdout=subprocess.DEVNULL)


class Kelvane:
    """Runs within a with statement. Only the cache services have a clock that is `days` ahead."""

    def __init__(self, holders, days):
        self.holders = holders
        self.environment = {**os.environ, "RUNTIME_DIRECTORY": RUN, "STATE_DIRECTORY": "/run/kelvane-state",
                            "CONFIGURATION_DIRECTORY": "/etc/kelvane", "KELVANE_LOW_SPACE": "1M",
                            "KELVANE_VERY_LOW_SPACE": "1M"}
        self.later = {} if days == 0 else {"LD_PRELOAD": find_faketime(), "FAKETIME": f"+{days}d",
                                           "DONT_FAKE_MONOTONIC": "1", "NO_FAKE_STAT": "1"}
        self.processes = []
        self.reasons = {}  # why files stay, from the last explain

    def __enter__(self):
        for directory in (RUN + "/services", "/run/kelvane-state"):
            os.makedirs(directory, exist_ok=True)
        for holder in self.holders:
            self._declare(holder)
        self._start_services()
        self._start("kelvaned", ["/kelvane/bin/kelvaned"])
        self._await(RUN + "/kelvane.sock")
        return self

    def __exit__(self, *_):
        for process in self.processes:
            process.terminate()
        for process in self.processes:
            with contextlib.suppress(subprocess.TimeoutExpired):
                process.wait(timeout=10)
            process.kill()
            process.wait()
        for holder in self.holders:
            os.unlink(f"{DESCRIPTORS}/{ID}{holder}.plist")
            with contextlib.suppress(FileNotFoundError):
                os.unlink(f"{RUN}/services/{ID}{holder}")

    # --- questions ---

    def explain(self, volume, urgency):
        """The bytes and paths of the files and units on this volume that would go."""
        size, paths = 0, []
        for holder in self.holders:
            answer = self._json([CACHES, "explain", holder, "--volume", volume, "--urgency", str(urgency),
                                 "--files", "--json"], self.later)
            self.reasons[holder] = {key: answer[key] for key in ("reason", "roots") if key in answer}
            size += answer["bytes"]
            paths += [item["path"] for item in answer["items"]]
        return size, paths

    def purge(self, volume, urgency):
        """kelvanectl's report of a purge of all that may go."""
        return self._json(["/kelvane/bin/kelvanectl", "--json", "purge", volume, "1T", "--urgency", str(urgency)], {})

    def _json(self, command, more):
        print("    $", " ".join(command), flush=True)
        done = subprocess.run(command, env={**self.environment, **more}, capture_output=True, text=True, timeout=120)
        if done.returncode not in (0, 1):
            raise Failure(f"{' '.join(command)}: exit status {done.returncode}: {done.stderr}{self._logs()}")
        return json.loads(done.stdout)

    # --- processes ---

    def _declare(self, holder):
        with open(f"{DESCRIPTORS}/{ID}{holder}.plist", "w", encoding="ascii") as file:
            file.write(f'<plist version="1.0"><dict><key>KELVANE_ID</key><string>{ID}{holder}</string>'
                       "<key>KELVANE_SERVICES</key><array><string>PURGE</string></array></dict></plist>\n")

    def _start_services(self):
        command = ["systemd-socket-activate", "--fdname=" + ":".join(self.holders)]
        sockets = [f"{RUN}/services/{ID}{holder}" for holder in self.holders]
        command += [word for socket in sockets for word in ("-l", socket)]
        command += [word for name, value in self.later.items() for word in ("-E", f"{name}={value}")]
        self._start("kelvane-caches", [*command, CACHES])
        for socket in sockets:
            self._await(socket)

    def _start(self, name, command):
        with open(f"/run/{name}.log", "ab") as log:
            self.processes.append(subprocess.Popen(command, env=self.environment, stdin=subprocess.DEVNULL, stdout=log,
                                                   stderr=log))

    def _await(self, path):
        end = time.monotonic() + 20
        while not os.path.exists(path):
            if time.monotonic() > end or any(p.poll() is not None for p in self.processes):
                raise Failure(f"{path} does not appear{self._logs()}")
            time.sleep(0.02)

    @staticmethod
    def _logs():
        text = ""
        for name in ("kelvaned", "kelvane-caches"):
            with contextlib.suppress(FileNotFoundError), open(f"/run/{name}.log", encoding="utf-8", errors="replace") as log:
                text += f"\n{name}: " + log.read()[-3000:]
        return text


def find_faketime():
    for directory in ("/usr/lib/x86_64-linux-gnu", "/usr/lib/aarch64-linux-gnu"):
        if os.path.exists(f"{directory}/faketime/libfaketime.so.1"):
            return f"{directory}/faketime/libfaketime.so.1"
    raise Failure("libfaketime.so.1 is not there; it is in Debian's package faketime")
