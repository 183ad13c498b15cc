import contextlib
import fnmatch
import glob
import os

from machine import await_true, serving
from scenario import Scenario

PICTURES = 40


class Browser(Scenario):
    """Shows a page without a screen. Nothing goes while the browser runs; afterwards its cache goes, its profile stays."""

    profile = ""  # relative to the home directory
    entries = ""  # glob of the files of its cache

    def fill(self):
        os.makedirs("/srv/web")
        for number in range(PICTURES):
            with open(f"/srv/web/{number}.js", "w", encoding="ascii") as file:
                file.write(f"var part{number} = '{os.urandom(40_000).hex()}';\n")
        with open("/srv/web/index.html", "w", encoding="ascii") as file:
            file.write("<!DOCTYPE html><title>page</title><script>document.cookie = 'kept=yes; max-age=30000000';</script>"
                       + "".join(f"<script src={n}.js></script>" for n in range(PICTURES)) + "<p>shown</p>")
        asked = self.show()
        self.expect(len(asked) >= PICTURES, f"the browser asked for {len(asked)} files only")
        self.expect(len(self.cached()) >= PICTURES // 2, f"the browser kept {len(self.cached())} files only")

    def watched(self, paths):
        """A running browser deletes journals in its profile."""
        return [path for path in paths if fnmatch.fnmatch(path, self.machine.path(self.entries))]

    def cached(self):
        return glob.glob(self.machine.path(self.entries))

    def command(self, address, *options):
        raise NotImplementedError

    @contextlib.contextmanager
    def browsing(self):
        """The browser runs within the with statement, once it has asked for the page; yields its requests."""
        with serving("/srv/web") as (address, asked):
            with self.machine.running(*self.command(address + "/index.html"), user="anna"):
                await_true("the browser asks for the page", lambda: "/index.html" in asked)
                yield asked

    def show(self):
        with self.browsing() as asked:
            await_true("the browser has asked for the page's files",
                       lambda: len({path for path in asked if path.endswith(".js")}) == PICTURES)
            await_true("the browser has kept them", lambda: len(self.cached()) >= PICTURES // 2)
        return asked

    in_use = browsing

    def works(self):
        self.expect(not self.cached(), "entries are left")
        self.expect(os.listdir(self.machine.path(self.profile)), "the profile is gone")
        self.expect(len(self.show()) >= PICTURES, "the browser did not fetch the page again")


class Chromium(Browser):
    name = "chromium"
    holders = ("chromium",)
    packages = ("chromium",)
    profile = ".config/chromium/Default"
    entries = ".cache/chromium/Default/Cache/Cache_Data/????????????????_0"

    def command(self, address, *options):
        # The old headless mode keeps no cache on disk; a second address would need another start.
        return ("chromium", "--headless=new", "--no-sandbox", "--disable-gpu", "--no-first-run",
                "--user-data-dir=" + self.machine.path(".config/chromium"), *options, address)


class Firefox(Browser):
    name = "firefox"
    holders = ("firefox",)
    packages = ("firefox-esr",)
    profile = ".config/mozilla/firefox"  # ~/.mozilla/firefox before version 147
    entries = ".cache/mozilla/firefox/*/cache2/entries/*"

    def command(self, address, *options):
        return ("firefox-esr", "--headless", *options, address)
