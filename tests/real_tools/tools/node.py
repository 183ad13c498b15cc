import os
import tomllib

import files
from kelvane import DEFINITIONS
from outcome import Failure, NotRun
from scenario import Scenario

PROJECT = '{"name": "demo", "version": "1.0.0", "private": true, "license": "none"}\n'
USES_IT = "console.log(require('is-odd')(3), require('lodash').chunk([1, 2, 3], 2).length)"
PACKAGES = ("is-odd@3.0.1", "lodash@4.17.21")


class Node(Scenario):
    packages = ("npm/npm",)

    def tool(self, package):
        """Installs a tool from the registry."""
        try:
            self.machine.run("npm", "install", "--no-audit", "--no-fund", "--prefix", self.machine.path("tool"), package)
        except Failure as failure:
            raise NotRun(f"{package} cannot be had: {failure}") from failure

    def in_project(self, *command, **options):
        return self.machine.run(*command, cwd=self.machine.path("project"), **options)

    def uses_packages(self, *command):
        output = self.in_project(*command, "-e", USES_IT).strip().splitlines()
        self.expect(output and output[-1] == "true 2", f"the packages do not work: {output}")

    def remove_modules(self):
        self.machine.run("rm", "-rf", self.machine.path("project/node_modules"))


class Npm(Node):
    name = "npm"
    holders = ("npm",)

    def fill(self):
        self.machine.write("project/package.json", PROJECT)
        try:
            self.in_project("npm", "install", "--no-audit", "--no-fund", *PACKAGES)
        except Failure as failure:
            raise NotRun(f"npm's registry is not reached: {failure}") from failure

    def works(self):
        self.uses_packages("node")
        self.remove_modules()
        self.in_project("npm", "ci", "--no-audit", "--no-fund")
        self.uses_packages("node")
        self.in_project("npm", "cache", "verify")
        self.remove_modules()
        self.in_project("npm", "ci", "--no-audit", "--no-fund", "--offline")


class Yarn(Node):
    name = "yarn"
    holders = ("yarn",)

    def yarn(self, *arguments):
        return self.in_project(self.machine.path("tool/node_modules/.bin/yarn"), *arguments)

    def fill(self):
        self.tool("yarn@1.22.22")
        self.machine.write("project/package.json", PROJECT)
        self.yarn("add", *PACKAGES)

    def works(self):
        self.uses_packages("node")
        self.remove_modules()
        self.yarn("install", "--frozen-lockfile")
        self.uses_packages("node")
        self.remove_modules()
        self.yarn("install", "--frozen-lockfile", "--offline")
        self.uses_packages("node")


class Berry(Node):
    """Yarn 3: a mirror in the home directory, and the project's own cache, which may be under version control."""

    name = "yarn-berry"
    holders = ("yarn-berry",)
    freeing = (4,)

    def yarn(self, *arguments):
        program = self.machine.path("tool/node_modules/@yarnpkg/cli-dist/bin/yarn.js")
        return self.in_project("node", program, *arguments, env={"YARN_ENABLE_TELEMETRY": "0"})

    def fill(self):
        self.tool("@yarnpkg/cli-dist@3.8.7")
        self.machine.write("project/package.json", PROJECT)
        self.machine.write("project/yarn.lock", "")
        self.yarn("add", *PACKAGES)
        self.expect(os.listdir(self.machine.path(".yarn/berry/cache")), "there is no mirror")

    def works(self):
        self.expect(os.listdir(self.machine.path("project/.yarn/cache")), "the project's own cache is gone")
        self.expect("true 2" in self.yarn("node", "-e", USES_IT), "the packages do not work")
        self.machine.run("rm", "-rf", self.machine.path("project/.yarn/cache"))
        self.yarn("install", "--immutable")
        self.expect("true 2" in self.yarn("node", "-e", USES_IT), "the packages do not work once they are fetched")
        self.expect(os.listdir(self.machine.path(".yarn/berry/cache")), "the mirror is not filled")


class Pnpm(Node):
    """All enabled holders of users: none of them touches pnpm's store, whose files are linked into projects."""

    name = "pnpm"
    freeing = (3,)  # npm's cache, which the installation of pnpm has filled

    def __init__(self, machine):
        super().__init__(machine)
        self.holders = []
        for name in sorted(os.listdir(DEFINITIONS)):
            with open(os.path.join(DEFINITIONS, name), "rb") as file:
                holder = tomllib.load(file)["holder"]
            if holder["for"] == "user" and holder["class"] != "personal":
                self.holders.append(holder["name"])

    def pnpm(self, *arguments):
        return self.in_project(self.machine.path("tool/node_modules/.bin/pnpm"), *arguments)

    def fill(self):
        self.tool("pnpm@8.15.9")
        self.machine.write("project/package.json", PROJECT)
        self.pnpm("add", *PACKAGES)
        self.store = self.pnpm("store", "path").strip().splitlines()[-1]
        self.kept = files.snapshot(self.store)
        self.expect(len(self.kept) > 500, f"{len(self.kept)} files are in {self.store}")

    def works(self):
        self.expect(files.snapshot(self.store) == self.kept, "the store has changed")
        self.uses_packages("node")
        self.remove_modules()
        self.pnpm("install", "--offline", "--frozen-lockfile")
        self.uses_packages("node")


class NodeModules(Node):
    """Installed packages of a project, which the administrator must enable; each project goes whole."""

    name = "node-modules"
    holders = ("node-modules",)
    switched_on = ("node-modules",)
    freeing = (4,)

    def in_project(self, *command, **options):
        return self.machine.run(*command, cwd=self.machine.path("src/project"), **options)

    def fill(self):
        self.machine.write("src/project/package.json", PROJECT)
        try:
            self.in_project("npm", "install", "--no-audit", "--no-fund", *PACKAGES)
        except Failure as failure:
            raise NotRun(f"npm's registry is not reached: {failure}") from failure

    def works(self):
        self.expect(not os.path.exists(self.machine.path("src/project/node_modules")), "the modules are still there")
        self.in_project("npm", "ci", "--no-audit", "--no-fund", "--prefer-offline")
        self.uses_packages("node")
