"""The daemon asks by itself: when its user is over its quota, and when a volume fills up."""

import contextlib
import os
import time

from guest import Journal, active, free_bytes, purge
from scenario import expect, scenario
from services import SERVICE_USER, checked_in
from volumes import EXT4, MIB, XFS, fill_cache, write_as

DAEMON_USER = "kelvane"
DAEMON = "_SYSTEMD_UNIT=kelvane.service"


def cached(volume):
    return len(os.listdir(volume.path + "/cache"))


@contextlib.contextmanager
def caches(size, *volumes):
    """On each a new file system with a service that could give so much back."""
    with contextlib.ExitStack() as stack:
        for volume in volumes:
            volume.mount_anew()
            stack.callback(volume.unmount)
            fill_cache(volume.path + "/cache", size, 20, SERVICE_USER)
            stack.enter_context(checked_in(volume.type, volume.path + "/cache"))
        yield


def over_quota(report, volume, other):
    with caches(20 * MIB, volume, other):
        volume.limit_user(DAEMON_USER, 4 * MIB, 0)
        journal = Journal()
        met = write_as(DAEMON_USER, volume.path + "/file", 6 * MIB)
        expect(met == "", f"the writer met {met}")
        report.note(journal.wait_for("handleVFSStreamXPCEvent: caught VFS_QUOTA", DAEMON))
        report.note(journal.wait_for("purge urgency=", f"_SYSTEMD_UNIT={volume.type}.service"))
        purge(volume.path, 1)  # begins when the other is over
        expect(cached(volume) == 0, f"{cached(volume)} of 20 files are left on {volume.path}")
        expect(cached(other) == 20, f"{cached(other)} of 20 files are left on {other.path}, where no quota is exceeded")


@scenario(1)
def over_quota_on_ext4(report):
    """when the daemon's user is over its quota on ext4, the kernel's warning makes the daemon purge that volume only"""
    over_quota(report, EXT4, XFS)


@scenario(1)
def over_quota_on_xfs(report):
    """when the daemon's user is over its quota on xfs, the kernel's warning makes the daemon purge that volume only"""
    over_quota(report, XFS, EXT4)


def write_at(path, size, bytes_per_second):
    """Returns how many bytes went, what the writer met, and the least space that it saw."""
    block = bytes(256 << 10)
    start, gone, least = time.monotonic(), 0, free_bytes(os.path.dirname(path))
    with open(path, "wb", buffering=0) as file:
        while gone < size:
            try:
                gone += file.write(block)
            except OSError as error:
                return gone, error.strerror, least
            least = min(least, free_bytes(os.path.dirname(path)))
            time.sleep(max(0, start + gone / bytes_per_second - time.monotonic()))  # that is the rate
    return gone, "", least


def filled(report, volume):
    purgeable = 120 * MIB
    with caches(purgeable, volume):
        free = free_bytes(volume.path)
        journal = Journal()
        gone, met, least = write_at(volume.path + "/written", free + purgeable - 20 * MIB, 8 * MIB)
        report.note(f"{free / MIB:.0f} MiB were free and {purgeable / MIB:.0f} purgeable; the writer wrote "
                    f"{gone / MIB:.0f} and saw {least / MIB:.0f} free at least; {cached(volume)} of 20 files are left")
        expect(met == "", f"the writer met {met} after {gone / MIB:.0f} MiB; {cached(volume)} of 20 files are left")
        report.note(journal.wait_for("handleVFSStreamXPCEvent: caught VQ_LOWDISK", DAEMON))
        report.note(journal.wait_for("purge urgency=", f"_SYSTEMD_UNIT={volume.type}.service"))
        expect(active("kelvane.service"), "the daemon does not run")


@scenario(1)
def filled_ext4(report):
    """a writer that fills ext4 never runs out of space while there are purgeable bytes"""
    filled(report, EXT4)


@scenario(1)
def filled_xfs(report):
    """a writer that fills xfs never runs out of space while there are purgeable bytes"""
    filled(report, XFS)
