"""Scenarios, each reported as one line: "ok NAME" or "not ok NAME: what was seen"; notes as "# NAME: text".

A scenario is a function whose docstring is its name. The scenarios of a boot run in the order in which they stand;
one that fails does not keep the next from running.
"""

import traceback

_scenarios = {}  # boot to functions


def scenario(boot):
    def register(function):
        name = function.__doc__
        assert name and ":" not in name and "\n" not in name, function
        _scenarios.setdefault(boot, []).append(function)
        return function
    return register


def names(boot):
    return [function.__doc__ for function in _scenarios[boot]]


class Failed(Exception):
    """Something else was seen than what is expected."""


def expect(condition, seen):
    """`seen` says what there was instead."""
    if not condition:
        raise Failed(str(seen))


def one_line(text):
    return " | ".join(line.strip() for line in str(text).splitlines() if line.strip())


class Report:
    """Writes one line at a time, so that what came out before a crash is whole."""

    def __init__(self, stream):
        self.stream = stream
        self.current = ""

    def line(self, text):
        self.stream.write(text + "\n")
        self.stream.flush()

    def note(self, text):
        self.line(f"# {self.current}: {one_line(text)}")

    def run(self, boot):
        for function in _scenarios[boot]:
            self.current = function.__doc__
            try:
                function(self)
                self.line("ok " + self.current)
            except Failed as failure:
                self.line(f"not ok {self.current}: {one_line(failure)}")
            except Exception as error:  # a mistake in one scenario must not hide the others
                where = traceback.extract_tb(error.__traceback__)[-1]
                self.line(f"not ok {self.current}: {one_line(repr(error))} at {where.filename}:{where.lineno}")
