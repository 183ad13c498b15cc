import glob
import os

from outcome import Failure, NotRun
from scenario import Scenario

ARCHIVES = "/var/cache/apt/archives"
LISTS = "/var/lib/apt/lists"
PACKAGES = ("hello", "sl", "fonts-liberation")


def update(machine):
    try:
        machine.run("apt-get", "update", "-q", user="root")
    except Failure as failure:
        raise NotRun(f"Debian's archive is not reached: {failure}") from failure


class Archives(Scenario):
    name = "apt"
    holders = ("apt",)
    volume = "/var/cache"
    lock_user = "root"

    def download(self, *options):
        self.machine.run("apt-get", "install", "-q", "-y", "-d", "--no-install-recommends", *options, *PACKAGES, user="root")

    def fill(self):
        update(self.machine)
        os.makedirs(ARCHIVES + "/partial")
        # An interrupted download leaves a part, which belongs to apt's own user.
        self.machine.run("timeout", "4", "apt-get", "install", "-q", "-y", "-d", "--no-install-recommends",
                         "-o", "Acquire::http::Dl-Limit=100", "fonts-noto-core", user="root", status=None)
        self.expect(os.listdir(ARCHIVES + "/partial"), "the interrupted download left nothing")
        self.download()
        self.expect(len(glob.glob(ARCHIVES + "/*.deb")) >= len(PACKAGES), "apt-get -d kept no packages")

    def in_use(self):
        return self.held("record", ARCHIVES + "/lock")

    def works(self):
        self.expect(not glob.glob(ARCHIVES + "/*.deb"), "packages are left")
        self.expect(os.path.exists(ARCHIVES + "/lock"), "the lock file is gone")
        self.expect(os.listdir(ARCHIVES + "/partial"), "the half download is gone")
        self.download()
        self.machine.run("apt-get", "install", "-q", "-y", "--no-install-recommends", "hello", user="root")
        self.machine.run("hello")
        self.machine.run("apt-get", "check", "-q", user="root")


class Lists(Scenario):
    name = "apt-lists"
    holders = ("apt-lists",)
    volume = "/var/lib/apt"
    copied = True
    freeing = (4,)
    lock_user = "root"

    def fill(self):
        update(self.machine)
        self.expect(glob.glob(LISTS + "/*Packages*"), "apt-get update left no lists")

    def in_use(self):
        return self.held("record", LISTS + "/lock")

    def works(self):
        update(self.machine)
        self.machine.run("apt-get", "install", "-q", "-y", "--no-install-recommends", "hello", user="root")
        self.machine.run("hello")
