import glob
import os

from machine import serving
from scenario import Scenario

SETUP = """from setuptools import setup
setup(name="demo-cached", version="1.0", packages=["demo_cached"], package_data={"demo_cached": ["data"]})
"""


class Pip(Scenario):
    name = "pip"
    holders = ("pip", "pip-wheels")
    packages = ("python3-pip", "python3-setuptools", "python3-wheel")

    def install(self, target):
        """From an index on this machine; pip keeps what it got from it, and the wheel that it built."""
        with serving("/srv/index") as (address, asked):
            self.machine.run("/usr/bin/python3", "-m", "pip", "install", "--no-build-isolation", "--disable-pip-version-check",
                             "--trusted-host", "127.0.0.1", "--index-url", address + "/simple", "--target",
                             self.machine.path(target), "demo-cached")
        self.machine.run("/usr/bin/python3", "-c", "import demo_cached", env={"PYTHONPATH": self.machine.path(target)})
        return [path for path in asked if path.endswith(".gz")]

    def fill(self):
        self.machine.write("demo/setup.py", SETUP)
        self.machine.write("demo/demo_cached/__init__.py", "")
        self.machine.write("demo/demo_cached/data", os.urandom(400_000))
        self.machine.run("/usr/bin/python3", "setup.py", "-q", "sdist", cwd=self.machine.path("demo"))
        os.makedirs("/srv/index/simple/demo-cached")
        for archive in glob.glob(self.machine.path("demo/dist/*.tar.gz")):
            self.machine.run("cp", archive, "/srv/index/simple/demo-cached/", user="root")
        self.expect(self.install("first"), "pip did not ask for the archive")
        self.expect(glob.glob(self.machine.path(".cache/pip/http*/**/*"), recursive=True), "pip kept nothing of the index")
        self.expect(glob.glob(self.machine.path(".cache/pip/wheels/**/*.whl"), recursive=True), "pip kept no wheel")

    def works(self):
        self.install("second")
        self.machine.run("/usr/bin/python3", "-m", "pip", "cache", "list")
        self.machine.run("/usr/bin/python3", "-m", "pip", "cache", "info")


class Black(Scenario):
    """One of the programs of which ~/.cache holds files that stand alone."""

    name = "listed-caches"
    holders = ("listed-caches",)
    packages = ("black",)
    freeing = (4,)

    def caches(self):
        return glob.glob(self.machine.path(".cache/black/*/*"))

    def fill(self):
        self.machine.write("project/it.py", "x = 1\n")
        self.machine.run("black", "project")
        self.expect(self.caches(), "black kept nothing")

    def works(self):
        self.expect(not self.caches(), f"left: {self.caches()}")
        self.machine.run("black", "--check", "project")
        self.machine.write("project/it.py", "x=1\n")
        self.machine.run("black", "project")
        self.expect(self.caches(), "black keeps nothing again")
