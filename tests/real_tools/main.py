"""Tests the shipped cache definitions with real tools. script/test-tools describes the arguments."""

import argparse
import fcntl
import importlib
import os
import pkgutil
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)

PASSED, FAILED, NOT_RUN = 0, 1, 77
WORDS = {PASSED: "passed", FAILED: "FAILED", NOT_RUN: "NOT RUN"}
LONGEST = 900  # seconds of one tool, packages included


def scenarios():
    """Name -> class, of every module in tools/."""
    import tools
    from scenario import Scenario

    for module in pkgutil.iter_modules(tools.__path__):
        importlib.import_module("tools." + module.name)
    known, waiting = {}, [Scenario]
    while waiting:
        one = waiting.pop()
        waiting += one.__subclasses__()
        if one.name:
            known[one.name] = one
    return dict(sorted(known.items()))


def run_one(name, state, binaries):
    """In this process, whose mounts and processes are its own."""
    import kelvane
    from machine import Machine
    from outcome import Failure, NotRun
    from root import Root

    scenario = scenarios()[name]
    source = os.path.dirname(os.path.dirname(HERE))
    try:
        # "systemd" has systemd-socket-activate.
        Root(state).enter(["faketime", "systemd", *scenario.packages], scenario.volume, scenario.copied,
                          {source: "/kelvane/source", binaries: "/kelvane/bin"})
        kelvane.install("/kelvane/source")
        for holder in scenario.switched_on:
            kelvane.switch_on(holder)
        scenario(Machine()).carry_out()
    except NotRun as reason:
        print(f"  not run: {reason}")
        return NOT_RUN
    except Failure as failure:
        print(f"  failed: {failure}")
        return FAILED
    return PASSED


def run_all(names, state, binaries):
    ends = {}
    for name in names:
        print(f"\n== {name}", flush=True)
        begin = time.monotonic()
        command = ["timeout", "--foreground", str(LONGEST), "unshare", "--mount", "--propagation", "private", "--pid",
                   "--fork", "--kill-child", "--mount-proc", sys.executable, __file__, "--state", state, "--bin", binaries,
                   "--one", name]
        status = subprocess.run(command).returncode
        ends[name] = status if status in WORDS else FAILED
        print(f"  {WORDS[ends[name]]} after {time.monotonic() - begin:.0f} s", flush=True)
    print()
    for name, end in ends.items():
        print(f"{name:16}{WORDS[end]}")
    found = set(ends.values())
    return FAILED if FAILED in found else NOT_RUN if NOT_RUN in found else PASSED


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--state", required=True)
    parser.add_argument("--bin", required=True)
    parser.add_argument("--one")
    parser.add_argument("--list", action="store_true")
    parser.add_argument("tools", nargs="*")
    options = parser.parse_args()
    if options.one:
        return run_one(options.one, options.state, options.bin)
    known = scenarios()
    if options.list:
        print("\n".join(known))
        return PASSED
    for name in options.tools:
        if name not in known:
            print(f'test-tools: unknown tool "{name}": expected one of {", ".join(known)}', file=sys.stderr)
            return 2
    os.makedirs(options.state, exist_ok=True)
    with open(os.path.join(options.state, "lock"), "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)  # the image of the tools has one user at a time
        return run_all(options.tools or list(known), options.state, options.bin)


if __name__ == "__main__":
    sys.exit(main())
