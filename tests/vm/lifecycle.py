"""The daemon is stopped, upgraded, loses its power, and is removed."""

import os

from guest import (PAYLOAD, Journal, active, call, drop_in, failed_units, launches, output, processes, run, unit)
from scenario import expect, scenario

STATE = "/var/lib/kelvane"


def store(key, value):
    call("clientSetState", "avs", 1, "s", value, key)


def stored(key):
    answer = call("clientGetState", "v", "s", key)
    return answer[0][0]["data"] if answer and answer[0] else None


@scenario(1)
def stops(report):
    """systemctl stop ends the daemon with status 0, and the next one knows what was stored"""
    store("com.example.stopped", "kept")
    run("systemctl", "stop", "kelvane.service")
    state = unit("kelvane.service", "ActiveState", "Result", "ExecMainCode", "ExecMainStatus")
    expect(state == ["inactive", "success", "1", "0"], state)
    run("systemctl", "start", "kelvane.service")
    expect(stored("com.example.stopped") == "kept", stored("com.example.stopped"))


@scenario(1)
def upgrades(report):
    """an upgrade replaces the daemon that runs, and the new one knows what was stored"""
    run("dpkg-deb", "--raw-extract", PAYLOAD + "/kelvane.deb", "/root/newer")
    run("sed", "-i", "s/^Version:.*/&+upgrade/", "/root/newer/DEBIAN/control")
    run("dpkg-deb", "--build", "/root/newer", "/root/newer.deb")
    before, process = launches(), unit("kelvane.service", "MainPID")
    run("apt-get", "install", "-y", "/root/newer.deb", timeout=300)
    version = output("dpkg-query", "--show", "kelvane")
    expect(version.endswith("+upgrade"), version)
    expect(active("kelvane.service") and unit("kelvane.service", "MainPID") != process, "it is the same process")
    expect(launches() == before + 1, f"launched {launches()} times, {before} before")
    expect(stored("com.example.stopped") == "kept", stored("com.example.stopped"))
    expect(failed_units() == "", failed_units())


@scenario(1)
def refuses_thresholds(report):
    """on a threshold that it cannot read the daemon refuses to start and says why, and starts once that is mended"""
    journal = Journal()
    drop_in("kelvane.service", "thresholds", "[Service]\nEnvironment=KELVANE_LOW_SPACE=8%%,1X\n")
    code, _ = run("systemctl", "restart", "kelvane.service", check=False)
    expect(code != 0, "it starts")
    report.note(journal.wait_for('kelvaned: KELVANE_LOW_SPACE is "8%,1X"', "_SYSTEMD_UNIT=kelvane.service"))
    journal.wait_for("Start request repeated too quickly", "UNIT=kelvane.service")
    drop_in("kelvane.service", "thresholds", "[Service]\nEnvironment=KELVANE_LOW_SPACE=8%%,1G\n")
    run("systemctl", "reset-failed", "kelvane.service", "kelvane.socket")
    run("systemctl", "start", "kelvane.service")
    expect(active("kelvane.socket"), output("systemctl", "status", "kelvane.socket", check=False))
    expect(stored("com.example.stopped") == "kept", stored("com.example.stopped"))


@scenario(1)
def stores_last(report):
    """a value is stored, and the power cut as soon as that is acknowledged"""
    # The delay is there for many machines; without it the second boot need not wait for it.
    drop_in("kelvane-daily.timer", "now", "[Timer]\nRandomizedDelaySec=0\n")
    os.sync()
    store("com.example.cut", "acknowledged")


@scenario(2)
def boots_again(report):
    """after the power was cut the machine boots without a failed unit, and the daemon runs"""
    for name in "kelvane.service", "kelvane.socket":
        expect(active(name), output("systemctl", "status", name, check=False))
    expect(failed_units() == "", failed_units())


@scenario(2)
def knows(report):
    """what was acknowledged before the power was cut is there"""
    expect(stored("com.example.cut") == "acknowledged", stored("com.example.cut"))
    expect(stored("com.example.stopped") == "kept", stored("com.example.stopped"))


@scenario(2)
def catches_up(report):
    """the daily maintenance that was due while the machine was off is caught up on"""
    journal = Journal.of_this_boot()
    report.note(journal.wait_for("Finished kelvane-daily.service", "UNIT=kelvane-daily.service"))
    last = unit("kelvane-daily.timer", "LastTriggerUSec")
    report.note(f"now {output('date')}, last triggered {last[0]}")
    state = unit("kelvane-daily.service", "Result", "ExecMainStatus")
    expect(state == ["success", "0"], state)


@scenario(2)
def removed(report):
    """removing the package ends the daemon and leaves its state"""
    run("apt-get", "remove", "-y", "kelvane", timeout=300)
    for name in "kelvane.service", "kelvane.socket", "kelvane-daily.timer":
        state = unit(name, "LoadState", "ActiveState")
        expect(state == ["not-found", "inactive"], f"{name} is {state}")
    expect(processes("kelvaned") == [], "it still runs")
    expect(not os.path.exists("/run/kelvane/kelvane.sock"), "its socket is there")
    expect(os.path.exists(STATE + "/com.orvel.kelvane.db"), "the state has gone")
    expect(failed_units() == "", failed_units())


@scenario(2)
def purged(report):
    """purging the package removes its state"""
    run("apt-get", "purge", "-y", "kelvane", timeout=300)
    left = [path for path in (STATE, "/run/kelvane", "/etc/kelvane", "/usr/lib/kelvane", "/System", "/OrvelInternal")
            if os.path.exists(path)]
    expect(left == [], left)
    expect(failed_units() == "", failed_units())
