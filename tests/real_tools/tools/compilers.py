import contextlib
import re

from scenario import Scenario

SOURCES = 24


def sources(machine, directory):
    """Small programs, whose object files have some 20 KiB each."""
    for number in range(SOURCES):
        table = ",".join(str(number * 7919 + i) for i in range(4000))
        machine.write(f"{directory}/part{number}.c", f"const int table{number}[] = {{{table}}};\n")


class Ccache(Scenario):
    name = "ccache"
    holders = ("ccache",)
    packages = ("ccache/ccache", "gcc/gcc", "libc6-dev")

    def compile(self):
        self.machine.shell("for s in project/*.c; do ccache gcc -c $s -o ${s%.c}.o; done")

    def fill(self):
        sources(self.machine, "project")
        self.compile()

    def works(self):
        self.compile()
        self.machine.run("ccache", "--zero-stats")
        self.compile()
        statistics = self.machine.run("ccache", "--print-stats")
        hits = sum(int(n) for n in re.findall(r"^(?:direct|preprocessed)_cache_hit\s+(\d+)", statistics, re.M))
        self.expect(hits == SOURCES, f"{hits} of {SOURCES} are found again: {statistics}")
        self.machine.run("ccache", "--cleanup")


class Sccache(Scenario):
    name = "sccache"
    holders = ("sccache",)
    packages = ("sccache", "gcc/gcc", "libc6-dev")

    @contextlib.contextmanager
    def in_use(self):
        """Its server runs, and counts its files."""
        self.machine.run("sccache", "--start-server")
        yield
        self.machine.run("sccache", "--stop-server")

    def compile(self):
        self.machine.shell("for s in project/*.c; do sccache gcc -c $s -o ${s%.c}.o; done")

    def fill(self):
        sources(self.machine, "project")
        with self.in_use():
            self.compile()

    def works(self):
        with self.in_use():
            self.compile()
        self.compile()
        statistics = self.machine.run("sccache", "--show-stats")
        hits = re.search(r"^Cache hits\s+(\d+)", statistics, re.M)
        self.expect(hits and int(hits[1]) == SOURCES, f"not everything is found again: {statistics}")
        self.machine.run("sccache", "--stop-server")
