"""The names on a volume, and its free space."""

import ctypes
import os
import stat
import subprocess
import time

libc = ctypes.CDLL(None, use_errno=True)


def snapshot(top):
    """Path -> what tells whether it is still the same, of everything below that is not a directory."""
    found = {}
    for directory, names, files in os.walk(top):
        for name in files + [n for n in names if os.path.islink(os.path.join(directory, n))]:
            path = os.path.join(directory, name)
            status = os.lstat(path)
            found[path] = (stat.S_IFMT(status.st_mode), status.st_ino, status.st_size, status.st_mtime_ns)
    return found


def free_bytes(top):
    """The free space of the volume, after pending writes."""
    directory = os.open(top, os.O_RDONLY | os.O_DIRECTORY)
    try:
        if libc.syncfs(directory) != 0:
            raise OSError(ctypes.get_errno(), "syncfs", top)
        volume = os.fstatvfs(directory)
        return volume.f_bfree * volume.f_frsize
    finally:
        os.close(directory)


def below(paths, names):
    """Those of `paths` that equal one of `names` or are inside one."""
    names = set(names)
    return {path for path in paths if path in names or any(parent in names for parent in parents(path))}


def parents(path):
    while path not in ("", "/"):
        path = os.path.dirname(path)
        yield path


def make_older(volume, days):
    """Sets all times of files back, the status change included, which no system call can: path -> days."""
    device = subprocess.run(["findmnt", "-n", "-o", "SOURCE", volume], check=True, capture_output=True, text=True).stdout.strip()
    commands = ""
    for path, age in days.items():
        then = time.strftime("%Y%m%d%H%M%S", time.gmtime(time.time() - age * 86400))
        for field in ("mtime", "ctime", "atime", "crtime"):
            commands += f'set_inode_field "{path.removeprefix(volume)}" {field} {then}\n'
    with open(device, "rb"):  # keeps the loop device attached while nothing is mounted
        subprocess.run(["umount", volume], check=True)
        subprocess.run(["debugfs", "-w", "-f", "/dev/stdin", device], check=True, input=commands, text=True, capture_output=True)
        subprocess.run(["mount", device, volume], check=True)
    for path, age in days.items():
        if abs(time.time() - age * 86400 - os.stat(path).st_ctime) > 100_000:
            raise OSError(f"debugfs did not make {path} older")
