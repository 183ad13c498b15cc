"""A root of its own for one scenario: the machine's, as an overlay that goes afterwards.

  lowest   / of this machine, never written
  middle   the tools that Debian's packages brought; kept in an image file between runs
  highest  what the scenario writes; goes with it

The homes, /root, /tmp and /run are new and empty. The volume under test is a new ext4 file system on a loop device.
All of this is mounted in the mount namespace that this process has for itself, and goes with it.
"""

import hashlib
import os
import shutil
import subprocess

from outcome import Failure, NotRun

IMAGE_SIZE = 12 << 30  # bytes, of a sparse file
VOLUME_SIZE = 4 << 30
AUTHORITIES = "/etc/ssl/certs/ca-certificates.crt"
CLEAN_PATH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"


def call(*command, **options):
    done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          text=True, errors="replace", **options)
    if done.returncode != 0:
        raise Failure(f"{' '.join(command)}: exit status {done.returncode}: {done.stdout[-2000:]}")
    return done.stdout


def clean_environment():
    proxies = {name: value for name, value in os.environ.items() if name.lower().endswith("_proxy")}
    environment = {"PATH": CLEAN_PATH, "LC_ALL": "C.UTF-8", "DEBIAN_FRONTEND": "noninteractive", **proxies}
    if os.path.exists(AUTHORITIES):
        environment["NODE_EXTRA_CA_CERTS"] = AUTHORITIES  # Node itself trusts a list of its own, not the machine's
    return environment


class Root:
    def __init__(self, state):
        self.state = state
        self.here = os.path.join(state, "mounts")
        self.root = os.path.join(self.here, "root")

    def enter(self, packages, volume, copied, bound):
        """This process's root is the new one afterwards. `bound`: directory outside -> inside, for reading."""
        self._mount_images()
        self._install(packages)
        self._mount_overlay(["highest"], "middle")
        self._furnish(volume, copied, bound)
        os.chroot(self.root)
        os.chdir("/")
        os.environ.clear()
        os.environ.update(clean_environment(), HOME="/root", USER="root")

    # --- images ---

    def _mount_images(self):
        os.makedirs(self.here, exist_ok=True)
        call("mount", "-t", "tmpfs", "-o", "mode=0755", "none", self.here)
        for name in ("image", "root", "lists"):
            os.mkdir(os.path.join(self.here, name))
        image = os.path.join(self.state, "tools.ext4")
        if not os.path.exists(image):
            make_ext4(image + ".part", IMAGE_SIZE)
            os.rename(image + ".part", image)
        call("mount", "-o", "loop", image, self._in_image())
        # The image depends on the packages of the machine, so it is made again when these change.
        base = hashlib.sha256(open("/var/lib/dpkg/status", "rb").read()).hexdigest()[:16]
        for name in os.listdir(self._in_image()):
            if name.startswith("middle") and name != "middle-" + base or name in ("highest", "work"):
                shutil.rmtree(self._in_image(name))
        self.middle = self._in_image("middle-" + base)
        os.makedirs(self.middle, exist_ok=True)
        for name in ("highest", "work", "archives"):
            os.makedirs(self._in_image(name), exist_ok=True)

    def _in_image(self, *names):
        return os.path.join(self.here, "image", *names)

    def _mount_overlay(self, upper, lower):
        lowest = "/" if lower is None else f"{self.middle}:/"
        highest = self.middle if upper is None else self._in_image(*upper)
        work = self._in_image("work", "middle" if upper is None else "highest")
        os.makedirs(work, exist_ok=True)
        call("mount", "-t", "overlay", "overlay", "-o", f"lowerdir={lowest},upperdir={highest},workdir={work}", self.root)
        if not os.path.exists(os.path.join(self.root, "usr/bin/python3")):
            raise NotRun("/usr is on a file system of its own, which the overlay of / does not show")

    # --- tools ---

    def _install(self, packages):
        self._mount_overlay(None, None)
        inside = Inside(self.root)
        try:
            missing = inside.missing(packages)
            if missing:
                self._install_missing(inside, missing)
        finally:
            call("umount", "--recursive", self.root)

    def _install_missing(self, inside, missing):
        self._mount_system()
        policy = os.path.join(self.root, "usr/sbin/policy-rc.d")
        with open(policy, "w", encoding="ascii") as file:  # no service may be started
            file.write("#!/bin/sh\nexit 101\n")
        os.chmod(policy, 0o755)
        archives = os.path.join(self.root, "var/cache/apt/archives")
        os.makedirs(archives, exist_ok=True)
        call("mount", "--bind", self._in_image("archives"), archives)
        try:
            inside.run("apt-get", "update", "-q")
            inside.run("apt-get", "install", "-q", "-y", "--no-install-recommends", *missing)
        except Failure as failure:
            raise NotRun(f"cannot install {' '.join(missing)}: {failure}") from failure

    # --- the machine ---

    def _mount_system(self):
        inside = lambda name: os.path.join(self.root, name)
        call("mount", "-t", "proc", "proc", inside("proc"))
        for name in ("dev", "sys"):
            call("mount", "--rbind", "/" + name, inside(name))
        for name, mode in (("tmp", "1777"), ("run", "0755"), ("dev/shm", "1777"), ("root", "0700")):
            call("mount", "-t", "tmpfs", "-o", "mode=" + mode, "none", inside(name))
        os.mkdir(inside("run/lock"))
        resolver = inside("etc/resolv.conf")
        text = open("/etc/resolv.conf", encoding="utf-8").read()
        if os.path.islink(resolver):
            os.unlink(resolver)
        with open(resolver, "w", encoding="utf-8") as file:
            file.write(text)

    def _furnish(self, volume, copied, bound):
        self._mount_system()
        os.makedirs(os.path.join(self.root, "home"), exist_ok=True)
        call("mount", "-t", "tmpfs", "-o", "mode=0755", "none", os.path.join(self.root, "home"))
        self._mount_volume(volume, copied)
        for outside, inside in bound.items():
            where = self.root + inside
            os.makedirs(where, exist_ok=True)
            call("mount", "--bind", outside, where)
            call("mount", "-o", "remount,bind,ro", where)

    def _mount_volume(self, path, copied):
        """A new volume at `path`; `copied`: with what the machine has there."""
        image = self._in_image("volume.ext4")
        make_ext4(image, VOLUME_SIZE)
        where, aside = self.root + path, os.path.join(self.here, "lists")
        os.makedirs(where, exist_ok=True)
        call("mount", "-o", "loop", image, aside)
        if copied:
            call("cp", "-a", where + "/.", aside)
        call("mount", "--move", aside, where)


class Inside:
    """Commands in a root that this process has not entered."""

    def __init__(self, root):
        self.root = root

    def run(self, *command):
        return call("chroot", self.root, *command, env=clean_environment(), timeout=1200)

    def missing(self, packages):
        return [package for package in packages if not self.has(package)]

    def has(self, package):
        """`package` may be written as PACKAGE/COMMAND: then it is there when the command is."""
        name, _, command = package.partition("/")
        if command:
            return any(os.path.lexists(self.root + directory + "/" + command) for directory in CLEAN_PATH.split(":"))
        shown = subprocess.run(["chroot", self.root, "dpkg-query", "-W", "-f", "${db:Status-Status}", name],
                               env=clean_environment(), capture_output=True, text=True)
        return shown.stdout == "installed"


def make_ext4(path, size):
    if os.path.exists(path):
        os.unlink(path)
    with open(path, "wb") as file:
        file.truncate(size)
    call("mkfs.ext4", "-q", "-F", "-m", "0", path, env={"PATH": CLEAN_PATH})
