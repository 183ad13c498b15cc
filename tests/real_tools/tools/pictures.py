import hashlib
import os

from scenario import Scenario

# A portable pixmap: 300 x 200, of random colours.
HEADER = b"P6 300 200 255\n"


class Thumbnails(Scenario):
    """As file managers write them: named by the MD5 sum of the picture's address."""

    name = "thumbnails"
    holders = ("thumbnails",)
    packages = ("libgdk-pixbuf2.0-bin",)
    urgencies = (1, 2)
    freeing = (1,)

    sizes = (("normal", 128), ("large", 256))

    def thumbnails(self):
        for number in range(20):
            address = f"file://{self.machine.path(f'Pictures/{number}.ppm')}"
            for name, size in self.sizes:
                target = self.machine.path(".cache/thumbnails", name, hashlib.md5(address.encode()).hexdigest() + ".png")
                if not os.path.exists(target):
                    self.machine.run("gdk-pixbuf-thumbnailer", "-s", str(size), address, target, shown=False)
                yield target

    def fill(self):
        for number in range(20):
            self.machine.write(f"Pictures/{number}.ppm", HEADER + os.urandom(300 * 200 * 3))
        self.machine.run("mkdir", "-p", *(self.machine.path(".cache/thumbnails", name) for name, _ in self.sizes))
        self.expect(all(os.path.getsize(path) > 1000 for path in self.thumbnails()), "the thumbnailer made nothing")

    def works(self):
        directory = self.machine.path(".cache/thumbnails/normal")
        self.expect(not os.listdir(directory), "thumbnails are left")
        self.expect(all(os.path.getsize(path) > 1000 for path in self.thumbnails()), "the thumbnailer made nothing again")


class Fonts(Scenario):
    """fontconfig says by CACHEDIR.TAG that its directory is a cache, and has no holder of its own."""

    name = "tagged-caches"
    holders = ("tagged-caches",)
    packages = ("fontconfig", "fonts-dejavu-core")
    freeing = (4,)
    cache = ".cache/fontconfig"

    def fill(self):
        for number in range(60):
            self.machine.run("install", "-D", "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf",
                             self.machine.path(f".local/share/fonts/{number}/demo.ttf"), shown=False)
        self.machine.run("fc-cache", "-f")
        self.expect(len(self.caches()) >= 60, f"fontconfig cached {self.caches()}")

    def caches(self):
        return [name for name in os.listdir(self.machine.path(self.cache)) if ".cache-" in name]

    def works(self):
        self.expect(not self.caches(), f"left: {self.caches()}")
        self.expect("/60/" not in self.machine.run("fc-list") and "/59/" in self.machine.run("fc-list"), "fonts are not found")
        self.machine.run("fc-cache")
        self.expect(len(self.caches()) >= 60, "fontconfig does not fill its cache again")
