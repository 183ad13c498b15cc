"""libkelvane's C interface as kelvane/kelvane.h declares it, and its errors."""

import ctypes
import os
from ctypes import CFUNCTYPE, POINTER, Structure, byref, c_bool, c_char, c_char_p, c_double, c_int, c_int64
from ctypes import c_size_t, c_uint64, c_void_p
from typing import Any

# Opaque objects of the library, with a name for each type.
Rules = Service = Request = Client = PurgeResult = Purgeable = Value = c_void_p

CANNOT_TELL = 2**64 - 1
LARGEST = 2**64 - 1

Work = CFUNCTYPE(c_uint64, Request, c_void_p)
StateChanged = CFUNCTYPE(None, c_int, c_char_p, c_void_p)


class ErrorBuffer(Structure):
    _fields_ = [("size", c_size_t), ("failure", c_int), ("message", c_char * 1024)]


class ServiceHandler(Structure):
    _fields_ = [("size", c_size_t), ("purgeable", Work), ("purge", Work), ("periodic", Work)]


class DirectoryCount(Structure):
    _fields_ = [("size", c_size_t), ("bytes", c_uint64 * 4), ("items", c_uint64 * 4), ("complete", c_bool)]


class DirectoryPurge(Structure):
    _fields_ = [("size", c_size_t), ("end", c_int), ("freed", c_uint64), ("held", c_uint64), ("items", c_uint64),
                ("failures", c_uint64), ("error", c_int)]


class PurgeRequest(Structure):
    _fields_ = [("size", c_size_t), ("volume", c_char_p), ("amount", c_uint64), ("urgency_limit", c_int),
                ("pass_seconds", c_uint64)]


_E = POINTER(ErrorBuffer)
# The result and argument types of each function. Those with an error as last argument are called through `call`.
FUNCTIONS: dict[str, tuple[Any, ...]] = {
    "version": (c_char_p,),
    "volume_of": (c_int, c_char_p, c_char_p, c_size_t, _E),
    "rules_new": (Rules, _E),
    "rules_free": (None, Rules),
    "rules_set_age": (c_int, Rules, c_int, c_uint64, _E),
    "rules_set_youngest": (c_int, Rules, c_uint64, _E),
    "rules_add_include": (c_int, Rules, c_char_p, _E),
    "rules_add_exclude": (c_int, Rules, c_char_p, _E),
    "rules_set_unit": (c_int, Rules, c_int, _E),
    "rules_add_marker": (c_int, Rules, c_char_p, _E),
    "rules_add_lock": (c_int, Rules, c_int, c_char_p, _E),
    "rules_add_unit_lock": (c_int, Rules, c_int, c_char_p, _E),
    "rules_set_open_files_stay": (c_int, Rules, c_bool, _E),
    "rules_set_keep_newest": (c_int, Rules, c_uint64, _E),
    "rules_set_keep_bytes": (c_int, Rules, c_uint64, _E),
    "rules_set_tagged_only": (c_int, Rules, c_bool, _E),
    "request_urgency": (c_int, Request),
    "request_volume": (c_char_p, Request),
    "request_amount": (c_uint64, Request),
    "request_directory_count": (c_size_t, Request),
    "request_directory": (c_char_p, Request, c_size_t),
    "request_seconds_left": (c_double, Request),
    "request_cancelled": (c_bool, Request),
    "directory_service_new": (Service, c_char_p, Rules, _E),
    "service_new": (Service, c_char_p, POINTER(ServiceHandler), c_void_p, _E),
    "service_free": (None, Service),
    "service_add_directory": (c_int, Service, c_char_p, _E),
    "service_set_all_volumes": (c_int, Service, c_bool, _E),
    "service_set_daemon_socket": (c_int, Service, c_char_p, _E),
    "service_set_passed_socket": (c_int, Service, c_char_p, _E),
    "service_on_state": (c_int, Service, StateChanged, c_void_p, _E),
    "service_start": (c_int, Service, _E),
    "service_stop": (c_int, Service, _E),
    "count_directory": (c_int, c_char_p, Rules, Request, POINTER(DirectoryCount), _E),
    "purge_directory": (c_int, c_char_p, Rules, c_int, c_uint64, Request, POINTER(DirectoryPurge), _E),
    "client_new": (Client, c_char_p, _E),
    "client_free": (None, Client),
    "client_purge": (PurgeResult, Client, POINTER(PurgeRequest), _E),
    "purge_result_free": (None, PurgeResult),
    "purge_result_freed": (c_uint64, PurgeResult),
    "purge_result_reported": (c_uint64, PurgeResult),
    "purge_result_free_before": (c_uint64, PurgeResult),
    "purge_result_free_after": (c_uint64, PurgeResult),
    "purge_result_seconds": (c_double, PurgeResult),
    "purge_result_cancelled": (c_bool, PurgeResult),
    "purge_result_pass_count": (c_size_t, PurgeResult),
    "purge_result_urgency": (c_int, PurgeResult, c_size_t),
    "purge_result_service_count": (c_size_t, PurgeResult, c_size_t),
    "purge_result_service": (c_char_p, PurgeResult, c_size_t, c_size_t),
    "purge_result_service_freed": (c_uint64, PurgeResult, c_size_t, c_size_t),
    "client_purgeable": (Purgeable, Client, c_char_p, c_int, _E),
    "purgeable_free": (None, Purgeable),
    "purgeable_total": (c_uint64, Purgeable),
    "purgeable_service_count": (c_size_t, Purgeable),
    "purgeable_service": (c_char_p, Purgeable, c_size_t),
    "purgeable_service_bytes": (c_uint64, Purgeable, c_size_t),
    "client_state": (Value, Client, c_char_p, _E),
    "client_set_state_boolean": (c_int, Client, c_char_p, c_bool, _E),
    "client_set_state_integer": (c_int, Client, c_char_p, c_int64, _E),
    "client_set_state_text": (c_int, Client, c_char_p, c_char_p, _E),
    "client_remove_state": (c_int, Client, c_char_p, _E),
    "value_free": (None, Value),
    "value_kind_of": (c_int, Value),
    "value_boolean": (c_bool, Value),
    "value_signed": (c_int64, Value),
    "value_unsigned": (c_uint64, Value),
    "value_real": (c_double, Value),
    "value_text": (c_char_p, Value),
    "value_description": (c_char_p, Value),
}


class Error(Exception):
    """A call failed. The subclasses name the kind of failure."""


class NoDaemon(Error):
    """No process listens on the daemon's socket."""


class Refused(Error):
    """The daemon does not serve this process, or not this request."""


class BadRequest(Error, ValueError):
    """An argument or a request is invalid."""


class ConnectionLost(Error):
    """The connection ended before the answer; the work may or may not have been done."""


_ERRORS: dict[int, type[Exception]] = {1: NoDaemon, 2: Refused, 3: BadRequest, 4: ConnectionLost, 5: MemoryError}


class _Library:
    """The functions as attributes, without the kelvane_ of their names."""

    def __init__(self) -> None:
        shared = ctypes.CDLL("libkelvane.so.1")
        for name, (result, *arguments) in FUNCTIONS.items():
            function = getattr(shared, "kelvane_" + name)
            function.restype = result
            function.argtypes = arguments
            setattr(self, name, function)

    def __getattr__(self, name: str) -> Any:
        raise AttributeError(f"libkelvane has no kelvane_{name}")


library = _Library()


def call(name: str, *arguments: Any) -> Any:
    """Calls a function whose last argument is an error. Returns its result, or raises the error."""
    error = ErrorBuffer(size=ctypes.sizeof(ErrorBuffer))
    result = getattr(library, name)(*arguments, byref(error))
    if error.failure:
        raise _ERRORS.get(error.failure, Error)(error.message.decode("utf-8", "replace"))
    return result


def text(value: object, name: str) -> bytes:
    if not isinstance(value, str):
        raise TypeError(f"invalid {name} {value!r}: expected a str")
    if "\0" in value:
        raise BadRequest(f"invalid {name} {value!r}: it contains a NUL")
    try:
        return value.encode("utf-8")
    except UnicodeEncodeError:
        raise BadRequest(f"invalid {name} {value!r}: it cannot be written as UTF-8") from None


def path(value: Any, name: str) -> bytes:
    try:
        encoded = os.fsencode(value)
    except TypeError:
        raise TypeError(f"invalid {name} {value!r}: expected a path") from None
    if b"\0" in encoded:
        raise BadRequest(f"invalid {name} {value!r}: it contains a NUL")
    return encoded


def number(value: object, name: str, smallest: int = 0, largest: int = LARGEST) -> int:
    if not isinstance(value, int) or isinstance(value, bool):
        raise TypeError(f"invalid {name} {value!r}: expected an int")
    if not smallest <= value <= largest:
        raise BadRequest(f"invalid {name} {value!r}: expected {smallest} to {largest}")
    return value
