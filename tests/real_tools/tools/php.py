import glob
import json
import os
import zipfile

from machine import serving
from scenario import Scenario


class Composer(Scenario):
    name = "composer"
    holders = ("composer",)
    packages = ("composer", "unzip/unzip", "php-zip")

    port = 0  # chosen by the first server, then reused, because composer identifies an archive by its address

    def install(self, directory):
        """Installs from a repository on this machine; returns whether its archive was requested."""
        with serving("/srv/composer", self.port) as (address, asked):
            self.port = int(address.rpartition(":")[2])
            packages = {"demo/cached": {"1.0.0": {"name": "demo/cached", "version": "1.0.0", "type": "library", "dist": {
                "type": "zip", "url": address + "/cached.zip", "reference": "0123456789abcdef0123456789abcdef01234567"}}}}
            with open("/srv/composer/packages.json", "w", encoding="ascii") as file:
                json.dump({"packages": packages}, file)
            self.machine.write(f"{directory}/composer.json", json.dumps({
                "name": "demo/project", "require": {"demo/cached": "1.0.0"}, "config": {"secure-http": False},
                "repositories": [{"packagist.org": False}, {"type": "composer", "url": address}]}))
            self.machine.run("composer", "install", "--no-interaction", cwd=self.machine.path(directory))
        self.expect(os.path.exists(self.machine.path(directory, "vendor/demo/cached/data")), "the package is not there")
        return "/cached.zip" in asked

    def fill(self):
        os.makedirs("/srv/composer")
        with zipfile.ZipFile("/srv/composer/cached.zip", "w") as archive:
            archive.writestr("composer.json", '{"name": "demo/cached"}')
            archive.writestr("data", os.urandom(700_000))
        self.expect(self.install("first"), "composer did not ask for the archive")
        self.expect(not self.install("second"), "composer did not keep the archive")

    def works(self):
        self.expect(self.install("third"), "the archive is still kept")
        self.expect(not self.install("fourth"), "the cache is not filled again")
        self.machine.run("composer", "clear-cache", "--gc")


class ComposerRepositories(Scenario):
    """A package that comes from a repository, of which Composer keeps a mirror."""

    name = "composer-vcs"
    holders = ("composer-vcs",)
    packages = ("composer", "git/git", "php-zip")
    port = 0

    def install(self, directory):
        with serving("/srv/vcs", self.port) as (address, asked):
            self.port = int(address.rpartition(":")[2])
            self.machine.write(f"{directory}/composer.json", json.dumps({
                "name": "demo/project", "require": {"demo/mirrored": "1.0.0"}, "config": {"secure-http": False},
                "repositories": [{"packagist.org": False}, {"type": "git", "url": address + "/demo.git"}]}))
            self.machine.run("composer", "install", "--no-interaction", "--prefer-source", cwd=self.machine.path(directory))
        self.expect(os.path.exists(self.machine.path(directory, "vendor/demo/mirrored/data")), "the package is not there")

    def mirrors(self):
        return glob.glob(self.machine.path(".cache/composer/vcs/*/HEAD"))

    def fill(self):
        os.makedirs("/srv/vcs/work")
        with open("/srv/vcs/work/composer.json", "w", encoding="ascii") as file:
            file.write('{"name": "demo/mirrored"}')
        with open("/srv/vcs/work/data", "wb") as file:
            file.write(os.urandom(600_000))
        self.machine.shell("cd /srv/vcs/work; git init -q; git add .; git -c user.name=a -c user.email=a@b commit -qm x;"
                           " git tag 1.0.0; git clone -q --bare . ../demo.git; git -C ../demo.git update-server-info", user="root")
        self.install("first")
        self.expect(self.mirrors(), "Composer kept no mirror")

    def works(self):
        self.expect(not self.mirrors(), "a mirror is left")
        self.install("second")
        self.expect(self.mirrors(), "Composer keeps no mirror again")
