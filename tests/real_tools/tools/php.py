import json
import os
import zipfile

from machine import serving
from scenario import Scenario


class Composer(Scenario):
    name = "composer"
    holders = ("composer",)
    packages = ("composer", "unzip/unzip", "php-zip")

    port = 0  # the first server's, then the same one for all: composer knows an archive by its address

    def install(self, directory):
        """From a repository on this machine; whether its archive was asked for."""
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
