"""What the kernel itself does about quotas, without the daemon: the facts that the daemon stands on."""

import itertools
import json
import os
import subprocess
import sys
import time

from guest import PATIENCE, PAYLOAD, lines_until
from scenario import Failed, expect, scenario
from volumes import EXT4, MIB, XFS, write_as

USER, USER_ID = "games", 5
OTHER, OTHER_ID = "bin", 2


class WarningsHeard:
    """What a process without any privilege hears."""

    def __init__(self):
        self.process = subprocess.Popen(
            ["setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups", "--bounding-set=-all", "--inh-caps=-all",
             "--no-new-privs", sys.executable, PAYLOAD + "/dquot.py"], stdout=subprocess.PIPE)
        self.lines = lines_until(self.process.stdout, time.monotonic() + PATIENCE)
        expect(next(self.lines, None) == "listening", "the listener cannot listen")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()

    def until(self, warning, user):
        """All that is heard up to the first such warning about that user."""
        heard = []
        for line in self.lines:
            heard.append(json.loads(line))
            if (heard[-1]["warning"], heard[-1]["id"]) == (warning, user):
                return heard
        raise Failed(f"no {warning} of {user} came, but {told(heard)}")

    def until_other(self, volume):
        """What is heard before something that surely is: so it tells what is not sent, too."""
        volume.limit_user(OTHER, MIB, 0)
        expect(write_as(OTHER, volume.path + "/other", 2 * MIB) == "", "the other user cannot write")
        return self.until("BSOFTWARN", OTHER_ID)[:-1]


def told(heard):
    """One part for each run of equal warnings."""
    parts = [f"{it['kind']} {it['id']} {it['warning']} on {it['device']} by {it['caused_by']}" for it in heard]
    runs = [(part, len(list(group))) for part, group in itertools.groupby(parts)]
    return ", ".join(part if count == 1 else f"{count} times {part}" for part, count in runs)


def user_crosses_limits(report, volume, falls):
    volume.mount_anew()
    volume.limit_user(USER, 8 * MIB, 16 * MIB)
    file = volume.path + "/file"
    with WarningsHeard() as warnings:
        met = write_as(USER, file, 10 * MIB)
        expect(met == "", f"the writer met {met} at the soft limit")
        over = warnings.until("BSOFTWARN", USER_ID)
        met = write_as(USER, file, 20 * MIB)  # xfs tells of the soft limit again and again meanwhile
        expect("quota exceeded" in met.lower(), f"the writer met '{met}' at the hard limit")
        hard = warnings.until("BHARDWARN", USER_ID)
        os.unlink(file)
        below = warnings.until_other(volume)
    report.note(f"soft limit: {told(over)}; hard limit: {told(hard)}; deleted: {told(below) or 'nothing'}")
    for one in over + hard:
        expect((one["kind"], one["id"], one["device"]) == ("user", USER_ID, volume.number), told(over + hard))
    seen = [it["warning"] for it in below if it["warning"] in ("BHARDBELOW", "BSOFTBELOW")]
    expect(seen == falls, told(below) or "nothing was heard")
    volume.unmount()


@scenario(1)
def user_quota_on_ext4(report):
    """the kernel tells an unprivileged process of a user over the limits of ext4, and below them again"""
    user_crosses_limits(report, EXT4, ["BHARDBELOW", "BSOFTBELOW"])


@scenario(1)
def user_quota_on_xfs(report):
    """the kernel tells an unprivileged process of a user over the limits of xfs, but not below them again"""
    user_crosses_limits(report, XFS, [])


def project_limit_is_the_size(report, volume):
    volume.mount_anew()
    folder = volume.limited_folder("project", 42, 20 * MIB)
    whole, part = os.statvfs(volume.path), os.statvfs(folder)
    size, free = part.f_blocks * part.f_frsize, part.f_bavail * part.f_frsize
    with WarningsHeard() as warnings:
        met = write_as(USER, folder + "/file", 30 * MIB)
        left = os.statvfs(folder)
        heard = warnings.until_other(volume)
    report.note(f"size {size}, free {free}, of a volume of {whole.f_blocks * whole.f_frsize}; full: {met}; "
                f"heard: {told(heard) or 'nothing'}")
    expect(size == 20 * MIB and 19 * MIB <= free <= 20 * MIB, f"a folder limited to {20 * MIB} has {size}, free {free}")
    expect(left.f_bavail * left.f_frsize < MIB, f"full, it has {left.f_bavail * left.f_frsize} free")
    expect("no space left" in met.lower() or "quota exceeded" in met.lower(), f"the writer met '{met}'")
    volume.unmount()


@scenario(1)
def project_quota_on_ext4(report):
    """a folder under a project limit of ext4 has the size of the limit"""
    project_limit_is_the_size(report, EXT4)


@scenario(1)
def project_quota_on_xfs(report):
    """a folder under a project limit of xfs has the size of the limit"""
    project_limit_is_the_size(report, XFS)
