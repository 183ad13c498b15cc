"""The two disks that the machine has for trying volumes on, each of 400 MiB, with quotas of users and projects."""

import os
from dataclasses import dataclass

from guest import run

MIB = 1 << 20
KIB = 1 << 10


@dataclass(frozen=True)
class Volume:
    type: str  # also the serial number of the disk
    make: tuple
    options: str

    @property
    def path(self):
        return "/volumes/" + self.type

    @property
    def device(self):
        return os.path.realpath("/dev/disk/by-id/virtio-" + self.type)

    @property
    def number(self):
        device = os.stat(self.device).st_rdev
        return f"{os.major(device)}:{os.minor(device)}"

    def mount_anew(self):
        """Makes an empty file system and mounts it."""
        self.unmount()
        run(*self.make, self.device)
        os.makedirs(self.path, exist_ok=True)
        run("mount", "-t", self.type, "-o", self.options, self.device, self.path)
        os.chmod(self.path, 0o1777)

    def unmount(self):
        if os.path.ismount(self.path):
            run("umount", self.path)

    def limit_user(self, user, soft, hard):
        """In bytes; 0 is none."""
        run("setquota", "-u", user, str(soft // KIB), str(hard // KIB), "0", "0", self.path)

    def limited_folder(self, name, project, limit):
        """A folder whose content is a project of its own that may take so many bytes."""
        folder = f"{self.path}/{name}"
        os.mkdir(folder)
        run("chattr", "+P", "-p", str(project), folder)
        run("setquota", "-P", str(project), "0", str(limit // KIB), "0", "0", self.path)
        os.chmod(folder, 0o1777)
        return folder


EXT4 = Volume("ext4", ("mkfs.ext4", "-q", "-F", "-O", "quota,project", "-E", "quotatype=usrquota:prjquota"),
              "usrquota,prjquota")
XFS = Volume("xfs", ("mkfs.xfs", "-q", "-f"), "uquota,pquota")


def write_as(user, path, size):
    """Writes zeros; returns what the writer met, "" when nothing."""
    return run("setpriv", f"--reuid={user}", "--regid=nogroup", "--clear-groups", "dd", "if=/dev/zero", f"of={path}",
               "bs=64K", f"count={size // (64 * KIB)}", "conv=notrunc,fsync", "oflag=append", "status=none",
               check=False)[1].strip()


def fill_cache(folder, size, count, owner):
    """Makes that many files of that total size."""
    os.makedirs(folder)
    for i in range(count):
        path = f"{folder}/{i:03}"
        with open(path, "wb") as file:
            file.write(bytes(size // count))
    run("chown", "--recursive", owner, folder)
    os.sync()
