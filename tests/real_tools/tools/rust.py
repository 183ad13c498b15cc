import hashlib
import json
import os

from scenario import Scenario

CONFIG = """[source.crates-io]
replace-with = "here"
[source.here]
registry = "file:///srv/registry/index"
"""


class Cargo(Scenario):
    name = "cargo"
    holders = ("cargo-crates", "cargo-sources")
    urgencies = (2, 3, 4)
    freeing = (2, 3)
    packages = ("cargo", "gcc/gcc", "libc6-dev", "git/git")

    def crate(self, name, size):
        """Puts a crate into the registry of this machine."""
        path = f"crates/{name}"
        self.machine.write(f"{path}/Cargo.toml", f'[package]\nname = "{name}"\nversion = "1.0.0"\nedition = "2021"\n'
                           'description = "d"\nlicense = "MIT"\n')
        self.machine.write(f"{path}/src/lib.rs", "pub fn number() -> u32 { 7 }\n")
        self.machine.write(f"{path}/data.bin", os.urandom(size))
        self.machine.run("cargo", "package", "--no-verify", "--allow-dirty", "--offline", cwd=self.machine.path(path))
        packed = self.machine.path(path, f"target/package/{name}-1.0.0.crate")
        os.makedirs(f"/srv/registry/files/{name}", exist_ok=True)
        self.machine.run("cp", packed, f"/srv/registry/files/{name}/1.0.0.crate", user="root")
        entry = {"name": name, "vers": "1.0.0", "deps": [], "features": {}, "yanked": False,
                 "cksum": hashlib.sha256(open(packed, "rb").read()).hexdigest()}
        where = f"/srv/registry/index/{name[:2]}/{name[2:4]}"
        os.makedirs(where, exist_ok=True)
        with open(f"{where}/{name}", "w", encoding="ascii") as file:
            file.write(json.dumps(entry) + "\n")

    def registry(self):
        os.makedirs("/srv/registry/index")
        with open("/srv/registry/index/config.json", "w", encoding="ascii") as file:
            # Cargo's client reads file URLs like web addresses.
            file.write('{"dl": "file:///srv/registry/files/{crate}/{version}.crate"}')
        self.crate("firstdemo", 900_000)
        self.crate("seconddemo", 300_000)
        self.machine.shell("cd /srv/registry/index; git init -q; git add .; git -c user.name=a -c user.email=a@b commit -qm x;"
                           " chown -R anna: /srv/registry", user="root")

    def build(self, *arguments):
        self.machine.run("cargo", "build", *arguments, cwd=self.machine.path("src/project"))
        self.machine.run(self.machine.path("src/project/target/debug/project"))

    def fill(self):
        self.machine.write(".cargo/config.toml", "")
        self.registry()
        self.machine.write(".cargo/config.toml", CONFIG)
        self.machine.write("src/project/Cargo.toml", '[package]\nname = "project"\nversion = "1.0.0"\nedition = "2021"\n'
                           '[dependencies]\nfirstdemo = "1"\nseconddemo = "1"\n')
        self.machine.write("src/project/src/main.rs", "fn main() { println!(\"{}\", firstdemo::number()"
                           " + seconddemo::number()); }\n")
        self.build()

    def after(self, urgency):
        if urgency == 2:  # unpacked again from the archives
            self.machine.run("cargo", "clean", cwd=self.machine.path("src/project"))
            self.build("--offline")

    def works(self):
        self.machine.run("cargo", "clean", cwd=self.machine.path("src/project"))
        self.build()
        self.machine.run("cargo", "clean", cwd=self.machine.path("src/project"))
        self.build("--offline")


class CargoTarget(Cargo):
    """Build directories, which the administrator must enable."""

    name = "cargo-target"
    holders = ("cargo-target",)
    switched_on = ("cargo-target",)
    urgencies = (3, 4)
    freeing = (4,)
    in_use_lock = "src/project/target/debug/.cargo-lock"

    def after(self, urgency):
        pass

    def in_use(self):
        return self.held("flock", self.machine.path(self.in_use_lock))

    def works(self):
        self.build("--offline")


class CargoGit(Cargo):
    """A crate that comes from a repository."""

    name = "cargo-git"
    holders = ("cargo-git", "cargo-sources")
    linked = True  # a checkout's objects are links to those of its repository

    def fill(self):
        os.makedirs("/srv/crate/src")
        with open("/srv/crate/Cargo.toml", "w", encoding="ascii") as file:
            file.write('[package]\nname = "gitdemo"\nversion = "1.0.0"\nedition = "2021"\n')
        with open("/srv/crate/src/lib.rs", "w", encoding="ascii") as file:
            file.write("pub fn number() -> u32 { 7 }\n")
        with open("/srv/crate/data.bin", "wb") as file:
            file.write(os.urandom(700_000))
        self.machine.shell("cd /srv/crate; git init -q; git add .; git -c user.name=a -c user.email=a@b commit -qm x;"
                           " chown -R anna: /srv/crate", user="root")
        self.machine.write("src/project/Cargo.toml", '[package]\nname = "project"\nversion = "1.0.0"\nedition = "2021"\n'
                           '[dependencies]\ngitdemo = { git = "file:///srv/crate" }\n')
        self.machine.write("src/project/src/main.rs", 'fn main() { println!("{}", gitdemo::number()); }\n')
        self.build()
