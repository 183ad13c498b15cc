"""Being a service."""

import atexit
import ctypes
import enum
import logging
import os
import signal
import socket
import threading
from collections.abc import Callable, Iterable
from typing import Any, Self

from . import _library
from ._library import CANNOT_TELL, LARGEST, BadRequest, call, library, number, path, text
from ._rules import Rules, RulesHandle, several

log = logging.getLogger("kelvane")

_running: set["_Base"] = set()  # keeps the objects alive that the library calls


class State(enum.IntEnum):
    WAITING = 0
    """For the daemon, or for another process to give up the ID."""
    REGISTERED = 1
    REFUSED = 2
    """By the daemon; tried again after a restart of the daemon."""
    SERVING = 3
    """A declared service: the socket is open."""


class Request:
    """What the daemon asks for. Once the handler has returned, it counts as cancelled."""

    def __init__(self, pointer: int) -> None:
        self.pointer: int | None = pointer
        self.urgency: int = library.request_urgency(pointer)
        """From 1 (only what nobody will miss) to 4 (all that can be made again)."""
        self.volume: str = os.fsdecode(library.request_volume(pointer))
        self.amount: int = library.request_amount(pointer)
        """The bytes to be freed; 0 for a question."""
        self.directories: tuple[str, ...] = tuple(
            os.fsdecode(library.request_directory(pointer, index))
            for index in range(library.request_directory_count(pointer)))
        """The service's directories that are on the volume now."""
        self.freed = 0
        """Add the bytes as they are freed: this is the answer when purge raises or returns nothing."""

    @property
    def seconds_left(self) -> float:
        """How long the handler has to return; an answer that comes later is not counted."""
        return library.request_seconds_left(self.pointer)

    @property
    def cancelled(self) -> bool:
        """True when the answer is no longer wanted: return soon, with what was freed until then."""
        return library.request_cancelled(self.pointer)


class _Ending:
    """Waits for SIGTERM or for end(). A signal wakes it, whichever thread receives the signal."""

    def __enter__(self) -> Self:
        self._ended = False
        self._reader, self._writer = socket.socketpair()
        self._writer.setblocking(False)
        self._has_signals = threading.current_thread() is threading.main_thread()
        if self._has_signals:
            self._wakeup_before = signal.set_wakeup_fd(self._writer.fileno(), warn_on_full_buffer=False)
            self._handler_before = signal.signal(signal.SIGTERM, lambda *_: self.end())
        return self

    def __exit__(self, *_: object) -> None:
        if self._has_signals:
            signal.signal(signal.SIGTERM, self._handler_before)
            signal.set_wakeup_fd(self._wakeup_before)
        self._reader.close()
        self._writer.close()

    def end(self) -> None:
        self._ended = True
        try:
            self._writer.send(b"\0")
        except OSError:
            pass  # full: it is awake; closed: it has ended

    def wait(self) -> None:
        while not self._ended:
            self._reader.recv(64)


class _Base:
    """The common part of both kinds of service."""

    def __init__(self, id: str, directories: Iterable[Any], daemon_socket: Any = None,
                 passed_socket: str | None = None) -> None:
        self._id = text(id, "id")
        self._directories = [path(each, "directory") for each in several(directories, "directories")]
        self._daemon_socket = None if daemon_socket is None else path(daemon_socket, "daemon_socket")
        self._passed_socket = None if passed_socket is None else text(passed_socket, "passed_socket")
        self._lock = threading.Lock()  # guards _handle
        self._handle: int | None = None
        self._callbacks: list[Any] = []  # may be called while the handle exists
        self._ending: _Ending | None = None  # in run()
        self._handling = threading.local()

    def _need_directories(self) -> None:
        if not self._directories:
            raise BadRequest("invalid directories []: expected at least one")

    def state_changed(self, state: State, reason: str) -> None:
        """Called when the service's state has changed. Unless overridden, logs why it does not serve."""
        level = logging.INFO if state in (State.REGISTERED, State.SERVING) else logging.WARNING
        log.log(level, "%s: %s%s", os.fsdecode(self._id), state.name.lower(), reason and ": " + reason)

    def run(self) -> None:
        """Serves until stop() and, in the main thread, until SIGTERM or Ctrl-C, which raises
        KeyboardInterrupt. The service is stopped when this returns or raises."""
        with _Ending() as self._ending:
            try:
                self.start()
                self._ending.wait()
            finally:
                self._finish()
                self._ending = None

    def start(self) -> None:
        """Serves on threads of the library until stop(), or until the program ends."""
        with self._lock:
            if self._handle is not None:
                raise BadRequest(f"the service {os.fsdecode(self._id)!r} is running")
            handle = self._new()
            try:
                self._set_up(handle)
                call("service_start", handle)
                _running.add(self)
                self._handle = handle
            except BaseException:
                library.service_free(handle)
                self._callbacks.clear()
                _running.discard(self)
                raise

    def stop(self) -> None:
        """Cancels running calls, waits for them, and ends the service. While run() is active, makes it do so and
        return. Only then may a handler of the service call this."""
        ending = self._ending
        if ending is not None:
            ending.end()
        elif getattr(self._handling, "now", False):
            raise BadRequest(f"the service {os.fsdecode(self._id)!r} cannot be stopped by its own handler")
        else:
            self._finish()

    def __enter__(self) -> Self:
        self.start()
        return self

    def __exit__(self, *_: object) -> None:
        self.stop()

    def _finish(self) -> None:
        with self._lock:
            handle, self._handle = self._handle, None  # freed once, even when this is interrupted
            if handle is None:
                return
            library.service_free(handle)
            self._callbacks.clear()
            _running.discard(self)

    def _new(self) -> int:
        raise NotImplementedError

    def _set_up(self, handle: int) -> None:
        for directory in self._directories:
            call("service_add_directory", handle, directory)
        if self._daemon_socket is not None:
            call("service_set_daemon_socket", handle, self._daemon_socket)
        if self._passed_socket is not None:
            call("service_set_passed_socket", handle, self._passed_socket)
        changed = self._kept(_library.StateChanged(self._state_changed))
        call("service_on_state", handle, changed, None)

    def _kept(self, callback: Any) -> Any:
        self._callbacks.append(callback)
        return callback

    def _guarded(self, name: str, handler: Callable[[], Any]) -> Any:
        """Returns the handler's result, or None when it raises, because C cannot handle an exception."""
        self._handling.now = True
        try:
            return handler()
        except BaseException:
            log.exception("%s: %s failed", os.fsdecode(self._id), name)
            return None
        finally:
            self._handling.now = False

    def _state_changed(self, state: int, reason: bytes, _: Any) -> None:
        self._guarded("state_changed", lambda: self.state_changed(State(state), os.fsdecode(reason)))


class DirectoryService(_Base):
    """A ready-made service of cache directories:

        kelvane.DirectoryService(id="com.example.thumbs", directories=["/var/cache/thumbs"],
                                 ages={2: "30d", 3: "7d", 4: "1h"}).run()

    The further arguments are those of Rules.
    """

    def __init__(self, *, id: str, directories: Iterable[Any], daemon_socket: Any = None,
                 passed_socket: str | None = None, **rules: Any) -> None:
        super().__init__(id, directories, daemon_socket, passed_socket)
        self._need_directories()
        self._rules = Rules(**rules)
        with RulesHandle(self._rules):
            pass  # reports their errors now, not at the start

    def _new(self) -> int:
        with RulesHandle(self._rules) as rules:
            return call("directory_service_new", self._id, rules)


class Service(_Base):
    """A service that is written by hand: override purgeable and purge, perhaps periodic.

    all_volumes, instead of directories, is for a service that finds out by itself, with volume_of, what it has
    on the volume of a request.

    The functions run on threads of the library: purge and periodic one at a time, purgeable one at a time and
    possibly while a purge runs. What they raise is logged, and answered with request.freed.
    """

    def __init__(self, *, id: str, directories: Iterable[Any] = (), all_volumes: bool = False,
                 daemon_socket: Any = None, passed_socket: str | None = None) -> None:
        super().__init__(id, directories, daemon_socket, passed_socket)
        self._all_volumes = all_volumes
        if not all_volumes:
            self._need_directories()

    def _set_up(self, handle: int) -> None:
        super()._set_up(handle)
        call("service_set_all_volumes", handle, bool(self._all_volumes))

    def purgeable(self, request: Request) -> int | None:
        """How many bytes a purge at the request's urgency could free; None: cannot tell. Changes nothing."""
        raise NotImplementedError

    def purge(self, request: Request) -> int | None:
        """Frees request.amount bytes, or all there is if that is less, and returns what was really freed."""
        raise NotImplementedError

    def periodic(self, request: Request) -> int | None:
        """Daily maintenance; returns the bytes freed. Called only when overridden."""
        raise NotImplementedError

    def _new(self) -> int:
        handler = _library.ServiceHandler(size=ctypes.sizeof(_library.ServiceHandler))
        handler.purgeable = self._work("purgeable")
        handler.purge = self._work("purge")
        if type(self).periodic is not Service.periodic:
            handler.periodic = self._work("periodic")
        return call("service_new", self._id, handler, None)

    def _work(self, name: str) -> Any:
        return self._kept(_library.Work(lambda pointer, _: self._answer(name, pointer)))

    def _answer(self, name: str, pointer: int) -> int:
        request = self._guarded(name, lambda: Request(pointer))
        if request is None:
            return 0

        def ask() -> int:
            result = getattr(self, name)(request)
            if result is None and name == "purgeable":
                return CANNOT_TELL
            return number(request.freed if result is None else result, "answer of " + name)

        answer = self._guarded(name, ask)
        request.pointer = None
        if answer is None and isinstance(request.freed, int) and 0 <= request.freed <= LARGEST:
            answer = request.freed
        return answer or 0


def _stop_all() -> None:
    """Runs at exit, while the interpreter can still be called."""
    for service in list(_running):
        service._finish()


atexit.register(_stop_all)
os.register_at_fork(after_in_child=_running.clear)  # a forked child has none of the library's threads
