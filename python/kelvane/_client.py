"""Asking the daemon for space."""

import ctypes
import os
import weakref
from dataclasses import dataclass
from typing import Any

from ._library import PurgeRequest, call, library, number, path, text

_NOTHING, _BOOLEAN, _SIGNED, _UNSIGNED, _REAL, _TEXT = range(6)


def version() -> str:
    """The version of libkelvane."""
    return library.version().decode()


def volume_of(at: Any) -> str:
    """The mount point under which the daemon knows the volume of a path. Do not compare paths instead."""
    volume = ctypes.create_string_buffer(4096)
    call("volume_of", path(at, "path"), volume, len(volume))
    return os.fsdecode(volume.value)


@dataclass(frozen=True)
class Pass:
    urgency: int
    freed: dict[str, int]
    """Maps each service's ID to the bytes of its last answer."""


@dataclass(frozen=True)
class PurgeResult:
    freed: int
    """What counts for the request."""
    reported: int
    """The sum of what the services reported."""
    free_before: int
    free_after: int
    seconds: float
    cancelled: bool
    passes: tuple[Pass, ...]


@dataclass(frozen=True)
class Purgeable:
    total: int
    services: dict[str, int]


class Client:
    """Asks the daemon. Any thread; each request blocks, Ctrl-C included, until the daemon has answered: a
    question for up to eleven seconds, a purge for as long as the services need."""

    def __init__(self, daemon_socket: Any = None) -> None:
        self._handle = call("client_new", None if daemon_socket is None else path(daemon_socket, "daemon_socket"))
        weakref.finalize(self, library.client_free, self._handle)

    def purge(self, at: Any, amount: int, urgency_limit: int = 3, pass_seconds: int = 0) -> PurgeResult:
        """Frees `amount` bytes on the volume of the path `at`; urgency_limit says how far the services may go.
        pass_seconds bounds the wait in each pass (0: the daemon's own times). Freeing less is not an error."""
        request = PurgeRequest(size=ctypes.sizeof(PurgeRequest), volume=os.fsencode(volume_of(at)),
                               amount=number(amount, "amount"),
                               urgency_limit=number(urgency_limit, "urgency_limit", 1, 4),
                               pass_seconds=number(pass_seconds, "pass_seconds", 0, 300))
        result = call("client_purge", self._handle, request)
        try:
            return _purge_result(result)
        finally:
            library.purge_result_free(result)

    def purgeable(self, at: Any, urgency: int = 3) -> Purgeable:
        """What the services could free on the volume of the path `at`, at that urgency."""
        volume = os.fsencode(volume_of(at))
        found = call("client_purgeable", self._handle, volume, number(urgency, "urgency", 1, 4))
        try:
            return Purgeable(library.purgeable_total(found), {
                library.purgeable_service(found, index).decode(): library.purgeable_service_bytes(found, index)
                for index in range(library.purgeable_service_count(found))})
        finally:
            library.purgeable_free(found)

    def state(self, key: str) -> bool | int | float | str | None:
        """A value of the daemon's key-value store; None when the key is unknown."""
        value = call("client_state", self._handle, text(key, "key"))
        try:
            return _state(key, value)
        finally:
            library.value_free(value)

    def set_state(self, key: str, value: bool | int | str | None) -> None:
        """The value is on disk when this returns. None removes the key."""
        encoded = text(key, "key")
        if value is None:
            call("client_remove_state", self._handle, encoded)
        elif isinstance(value, bool):
            call("client_set_state_boolean", self._handle, encoded, value)
        elif isinstance(value, int):
            call("client_set_state_integer", self._handle, encoded, number(value, "value", -2**63, 2**63 - 1))
        else:
            call("client_set_state_text", self._handle, encoded, text(value, "value"))


def _purge_result(result: int) -> PurgeResult:
    return PurgeResult(
        library.purge_result_freed(result), library.purge_result_reported(result),
        library.purge_result_free_before(result), library.purge_result_free_after(result),
        library.purge_result_seconds(result), library.purge_result_cancelled(result),
        tuple(_pass(result, index) for index in range(library.purge_result_pass_count(result))))


def _pass(result: int, index: int) -> Pass:
    return Pass(library.purge_result_urgency(result, index), {
        library.purge_result_service(result, index, service).decode():
            library.purge_result_service_freed(result, index, service)
        for service in range(library.purge_result_service_count(result, index))})


def _state(key: str, value: int) -> bool | int | float | str | None:
    kind = library.value_kind_of(value)
    if kind == _NOTHING:
        return None
    if kind == _BOOLEAN:
        return library.value_boolean(value)
    if kind == _SIGNED:
        return library.value_signed(value)
    if kind == _UNSIGNED:
        return library.value_unsigned(value)
    if kind == _REAL:
        return library.value_real(value)
    if kind == _TEXT:
        return library.value_text(value).decode()
    shown = library.value_description(value).decode("utf-8", "replace")
    raise TypeError(f"the value of {key!r} is {shown}: expected a boolean, a number or a text")
