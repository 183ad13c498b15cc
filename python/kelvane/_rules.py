"""Rules of a cache directory, and counting and purging one by them."""

import ctypes
import datetime
import re
from collections.abc import Iterable, Mapping
from dataclasses import dataclass
from typing import Any

from ._library import BadRequest, DirectoryCount, DirectoryPurge, call, library, number, path

Age = int | str | datetime.timedelta

_UNITS = {"s": 1, "m": 60, "h": 3600, "d": 86_400, "w": 604_800}
_KINDS = {"flock": 0, "record": 1, "exists": 2}
_ENDS = "amount freed", "nothing left", "cancelled", "too late", "failed"


def seconds(age: Age, name: str) -> int:
    """Converts "30d", a number of seconds or a timedelta to seconds."""
    if isinstance(age, datetime.timedelta):
        return number(int(age.total_seconds()), name)
    if not isinstance(age, str):
        return number(age, name)
    found = re.fullmatch(r"([0-9]{1,12})([smhdw])", age)
    if not found:
        raise BadRequest(f"invalid {name} {age!r}: expected a number and s, m, h, d or w, such as '30d'")
    return int(found[1]) * _UNITS[found[2]]


def several(values: Any, name: str) -> list[Any]:
    """Converts to a list. Refuses a single str, which would be a list of letters."""
    if isinstance(values, (str, bytes)) or not isinstance(values, Iterable):
        raise TypeError(f"invalid {name} {values!r}: expected a list")
    return list(values)


@dataclass(kw_only=True)
class Rules:
    """Which files of a cache directory may go, and when.

    The age of a file is the time since the newest of its three times. kelvane/kelvane.h and
    kelvane/cache_rules.h say more about each rule.
    """

    ages: Mapping[int, Age]
    """The minimum age at each urgency: {2: "30d", 3: "7d", 4: "1h"}."""
    youngest: Age = "1h"
    """Nothing younger goes at any urgency."""
    include: Iterable[str] = ()
    """Patterns of paths in the directory; without one, every file may go."""
    exclude: Iterable[str] = ()
    unit: str = "file"
    """"directory": what the include patterns name goes as a whole or stays."""
    markers: Iterable[str] = ()
    """Names of files that are deleted before anything else of their unit."""
    locks: Iterable[tuple[str, str]] = ()
    """("flock", "record" or "exists", path): while another process holds one, nothing goes."""
    unit_locks: Iterable[tuple[str, str]] = ()
    open_files_stay: bool = False
    keep_newest: int = 0
    """This number of the newest files or units stays."""
    keep_bytes: int = 0
    """At least this many of the newest bytes stay."""
    tagged_only: bool = False
    """Only what is in directories with a CACHEDIR.TAG may go."""


class RulesHandle:
    """The library's object for rules, valid within the with statement."""

    def __init__(self, rules: Rules) -> None:
        if not isinstance(rules, Rules):
            raise TypeError(f"invalid rules {rules!r}: expected kelvane.Rules")
        self._rules = rules

    def __enter__(self) -> int:
        self._handle = call("rules_new")
        try:
            self._fill(self._rules)
        except BaseException:
            self.__exit__()
            raise
        return self._handle

    def __exit__(self, *_: object) -> None:
        library.rules_free(self._handle)

    def _set(self, name: str, *arguments: Any) -> None:
        call("rules_" + name, self._handle, *arguments)

    def _fill(self, rules: Rules) -> None:
        if not isinstance(rules.ages, Mapping):
            raise TypeError(f"invalid ages {rules.ages!r}: expected a dict such as {{3: '7d', 4: '1h'}}")
        for urgency, age in rules.ages.items():
            self._set("set_age", number(urgency, "urgency in ages", 1, 4), seconds(age, f"age for urgency {urgency}"))
        self._set("set_youngest", seconds(rules.youngest, "youngest"))
        for pattern in several(rules.include, "include"):
            self._set("add_include", path(pattern, "pattern in include"))
        for pattern in several(rules.exclude, "exclude"):
            self._set("add_exclude", path(pattern, "pattern in exclude"))
        if rules.unit not in ("file", "directory"):
            raise BadRequest(f"invalid unit {rules.unit!r}: expected 'file' or 'directory'")
        self._set("set_unit", int(rules.unit == "directory"))
        for marker in several(rules.markers, "markers"):
            self._set("add_marker", path(marker, "name in markers"))
        self._add_locks("lock", rules.locks)
        self._add_locks("unit_lock", rules.unit_locks)
        self._set("set_open_files_stay", bool(rules.open_files_stay))
        self._set("set_keep_newest", number(rules.keep_newest, "keep_newest"))
        self._set("set_keep_bytes", number(rules.keep_bytes, "keep_bytes"))
        self._set("set_tagged_only", bool(rules.tagged_only))

    def _add_locks(self, name: str, locks: Iterable[tuple[str, str]]) -> None:
        for lock in several(locks, name + "s"):
            if not isinstance(lock, tuple) or len(lock) != 2 or lock[0] not in _KINDS:
                raise BadRequest(f"invalid lock {lock!r} in {name}s: expected ('flock', 'record' or 'exists', path)")
            self._set("add_" + name, _KINDS[lock[0]], path(lock[1], f"path in {name}s"))


@dataclass(frozen=True)
class Count:
    """What counting found, by urgency (1 to 4)."""

    bytes: dict[int, int]
    items: dict[int, int]
    complete: bool
    """False: cancelled, out of time, or something could not be read."""


@dataclass(frozen=True)
class Purged:
    freed: int
    """Bytes that are free now."""
    held: int
    """Bytes that become free when the programs that have the deleted files open close them."""
    items: int
    failures: int
    error: int
    """errno of the first failure, or 0."""
    end: str
    """"amount freed", "nothing left", "cancelled", "too late" or "failed"."""


def count_directory(directory: Any, rules: Rules, request: Any = None) -> Count:
    """Counts what may go. With a request, returns when it is cancelled or its time has run out."""
    count = DirectoryCount(size=ctypes.sizeof(DirectoryCount))
    with RulesHandle(rules) as handle:
        call("count_directory", path(directory, "directory"), handle, _pointer(request), count)
    return Count(dict(enumerate(count.bytes, 1)), dict(enumerate(count.items, 1)), count.complete)


def purge_directory(directory: Any, rules: Rules, urgency: int, amount: int, request: Any = None) -> Purged:
    """Deletes the oldest first, as far as the rules allow, until `amount` bytes are free."""
    purge = DirectoryPurge(size=ctypes.sizeof(DirectoryPurge))
    with RulesHandle(rules) as handle:
        call("purge_directory", path(directory, "directory"), handle, number(urgency, "urgency", 1, 4),
             number(amount, "amount"), _pointer(request), purge)
    return Purged(purge.freed, purge.held, purge.items, purge.failures, purge.error, _ENDS[purge.end])


def _pointer(request: Any) -> Any:
    return None if request is None else request.pointer
