"""Services under systemd: one that its socket starts, one that checks in, and one that holds the daemon up."""

import contextlib
import os
import sys
from pathlib import Path

from guest import (PAYLOAD, Journal, active, call, drop_in, launches, output, purge, run, unit)
from scenario import expect, scenario
from volumes import EXT4, MIB, fill_cache

DECLARED = "com.example.declared"
UNIT = f"kelvane-service@{DECLARED}"
DESCRIPTOR = Path(f"/usr/lib/kelvane/services.d/{DECLARED}.plist")
SERVICE_UNIT = Path(f"/etc/systemd/system/{UNIT}.service")
SERVICE_USER = "games"


def declare():
    """What the package of a service brings; the daemon reads it when it starts."""
    DESCRIPTOR.write_text(f"""<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0">
<dict>
  <key>KELVANE_ID</key><string>{DECLARED}</string>
  <key>KELVANE_SERVICES</key><array><string>PURGE</string><string>PERIODIC</string></array>
</dict>
</plist>
""", encoding="utf-8")
    SERVICE_UNIT.write_text(f"""[Service]
ExecStart={PAYLOAD}/cache_service --passed kelvane-service --id {DECLARED} --folder {EXT4.path}/declared \\
  --lifetime 0 --youngest 0 --verbose
User={SERVICE_USER}
""", encoding="utf-8")
    run("systemctl", "daemon-reload")
    run("systemctl", "enable", "--now", UNIT + ".socket")
    run("systemctl", "restart", "kelvane.service")


def withdraw():
    run("systemctl", "disable", "--now", UNIT + ".socket")
    run("systemctl", "stop", UNIT + ".service")
    DESCRIPTOR.unlink(missing_ok=True)
    SERVICE_UNIT.unlink(missing_ok=True)
    run("systemctl", "daemon-reload")


@contextlib.contextmanager
def checked_in(name, folder):
    """A service that checks in, as a user who holds what the group kelvane is granted."""
    journal = Journal()
    run("systemd-run", f"--unit={name}", f"--property=User={SERVICE_USER}", "--property=SupplementaryGroups=kelvane",
        PAYLOAD + "/cache_service", "--id", f"com.example.{name}", "--folder", folder, "--lifetime", "0", "--youngest", "0",
        "--verbose")
    try:
        journal.wait_for(f"registered com.example.{name}", f"_SYSTEMD_UNIT={name}.service")
        yield
    finally:
        run("systemctl", "stop", f"{name}.service")


@scenario(1)
def declared_service(report):
    """a declared service is started by its socket when a purge asks it"""
    EXT4.mount_anew()
    fill_cache(EXT4.path + "/declared", 16 * MIB, 16, SERVICE_USER)
    declare()
    expect(not active(UNIT + ".service"), "it runs before anybody has asked it")
    answer = purge(EXT4.path, 4 * MIB)
    freed = answer.get("KELVANE_URGENCY_1_OPERATION_INFO", {}).get("KELVANE_REPORTING_SERVICES", {})
    expect(freed.get(DECLARED, 0) >= 4 * MIB, answer)
    expect(active(UNIT + ".service"), output("systemctl", "status", UNIT + ".service", check=False))
    left = len(os.listdir(EXT4.path + "/declared"))
    expect(left == 12, f"{left} of 16 files are left")


@scenario(1)
def daily_maintenance(report):
    """the daily maintenance goes through the local volumes, and its unit ends when the daemon is done"""
    drop_in("kelvane.service", "log", "[Service]\nEnvironment=KELVANE_LOG_LEVEL=5\n")
    run("systemctl", "restart", "kelvane.service")
    journal = Journal()
    run("systemctl", "start", "kelvane-daily.service")
    state = unit("kelvane-daily.service", "Result", "ExecMainStatus")
    expect(state == ["success", "0"], state)
    lines = journal.lines("_SYSTEMD_UNIT=kelvane.service")
    drop_in("kelvane.service", "log", "")  # from the next daemon on
    results = [line for line in lines if line.startswith("performPeriodicsWithInfo: result: {KELVANE_AMOUNT = 0;}")]
    expect(len(results) == 2, lines)  # the root and the one that is mounted here


MUTE = """
import argparse, os, sys
sys.path.insert(0, "{payload}")
import python_service
class Mute(python_service.Service):
    def called(self, *_):
        print("called", flush=True)
    def try_later(self, *_):
        os._exit(0)
service = Mute(argparse.Namespace(id="com.example.mute", daemon="/run/kelvane/kelvane.sock", folder="/tmp",
                                  lifetime=0, youngest=0))
service.check_in()
python_service.GLib.MainLoop().run()
"""


def held_up(report):
    before, restarts = launches(), int(unit("kelvane.service", "NRestarts")[0])
    journal = Journal()
    run("systemd-run", "--unit=mute", sys.executable, "-c", MUTE.format(payload=PAYLOAD))
    journal.wait_for("called", "_SYSTEMD_UNIT=mute.service")
    report.note(journal.wait_for("Watchdog timeout", "UNIT=kelvane.service"))
    journal.wait_for("registered com.example.loyal", "_SYSTEMD_UNIT=loyal.service")
    answer = call("clientPurgeableSpace", "a{sv}", 1, "KELVANE_VOLUME", "s", EXT4.path)
    expect(answer and answer[0], answer)
    expect(active("kelvane.service"), "the daemon does not run")
    now = int(unit("kelvane.service", "NRestarts")[0])
    expect((now, launches()) == (restarts + 1, before + 1), f"{now - restarts} restarts, {launches() - before} launches")


@scenario(1)
def watchdog(report):
    """a service that never answers its ping makes systemd replace the daemon, and the others check in again"""
    withdraw()
    EXT4.mount_anew()
    fill_cache(EXT4.path + "/loyal", 0, 1, SERVICE_USER)
    drop_in("kelvane.service", "watchdog", "[Service]\nWatchdogSec=20\n")
    run("systemctl", "restart", "kelvane.service")
    with checked_in("loyal", EXT4.path + "/loyal"):
        held_up(report)
    drop_in("kelvane.service", "watchdog", "")
    run("systemctl", "restart", "kelvane.service")
    EXT4.unmount()
