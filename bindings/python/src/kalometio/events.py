"""Discovery events: network devices that appear and vanish."""

from __future__ import annotations

import ctypes
import queue
import threading
import weakref
from dataclasses import dataclass, field
from enum import Enum
from typing import Any, Dict, Iterator, Optional, Tuple, cast

from . import _globals as G
from . import _library as L
from .errors import KmioError
from .options import OptionValue, option_lines, option_text, parse_record



class EventKind(str, Enum):
    """What an event says. A ``str`` too, so ``event.kind == "appear"`` holds."""

    APPEAR = "appear"  # found, or changed and present
    VANISH = "vanish"  # lost, or no longer available
    ERROR = "error"  # a discovery error, with its code and text

    def __str__(self) -> str:
        return self.value


class WatcherStopped(Exception):
    """Raised by :meth:`Watcher.get` once the watcher is closed and its queued events are read."""


_KINDS = {
    L.EVENT_ERROR: EventKind.ERROR,
    L.EVENT_DEVICE_AVAILABLE: EventKind.APPEAR,
    L.EVENT_DEVICE_UNAVAILABLE: EventKind.VANISH,
}


@dataclass(frozen=True)
class DiscoveryEvent:
    """One event of the library's discovery.

    Attributes:
        kind: an :class:`EventKind`: APPEAR (found, or changed and present),
            VANISH (lost or no longer available), or ERROR.
        record: the device's property record (every key), e.g. ``device-sn``,
            ``locator``, ``network-host``, ``network-port``, ``device-info``.
        code: the error code of an "error" event, else 0.
        message: the text of an "error" event, else "".
    """

    kind: EventKind
    record: Dict[str, str] = field(default_factory=dict)
    code: int = 0
    message: str = ""

    @property
    def serial_number(self) -> Optional[str]:
        """The device's serial number (``device-sn``)."""
        return self.record.get("device-sn")

    @property
    def locator(self) -> Optional[str]:
        """The locator to open the device with."""
        return self.record.get("locator")

    @property
    def host(self) -> Optional[str]:
        """The device's IPv4 address."""
        return self.record.get("network-host")

    @property
    def port(self) -> Optional[int]:
        """The device's TCP port."""
        port = self.record.get("network-port")
        return int(port) if port else None

    @property
    def available(self) -> bool:
        """Whether the device says it can be opened (``available=1``)."""
        return self.record.get("available") == "1"


class _Stopped:
    """Queued when the watcher stops, to wake a waiting reader."""


_STOPPED = _Stopped()
# The global settings a watcher may change, and so restores when it stops.
_WATCHED_KEYS = ("discovery_iface", "locator_format_network")
_active_lock = threading.Lock()
_active = False


def _event_handler(events: "queue.SimpleQueue[object]") -> Any:
    """Makes the event callback. It runs under the library's table lock, so it
    only reads the record (allowed there) and queues its text."""

    def on_event(_user: object, event_type: int, event: int) -> None:
        with L.on_library_thread(L.DISCOVERY_THREAD):
            try:
                if event_type == L.EVENT_ERROR:
                    code = ctypes.c_uint32()
                    text = L.read_text(
                        lambda b, s: L.lib().KM_IO_GetErrorEventData(
                            event, ctypes.byref(code), b, ctypes.byref(s)
                        ),
                        "error event",
                    )
                    events.put((event_type, text, code.value))
                else:
                    text = L.read_text(
                        lambda b, s: L.lib().KM_IO_GetDiscoveryEventData(
                            event, b"include-all", b, ctypes.byref(s)
                        ),
                        "discovery event",
                    )
                    events.put((event_type, text, 0))
            except KmioError as error:
                events.put(error)

    return L.EventCallback(on_event)


def _stop(callback: object) -> None:
    """Switches events and background discovery off. The finalizer holds the
    callback object until then, so the library never calls a freed function."""
    global _active
    if L.current_library_thread() == L.DISCOVERY_THREAD:
        L.defer(lambda: _stop(callback))
        return
    library = L.lib()
    library.KM_IO_SetEventCallback(L.EventCallback(0), None)  # a null callback switches events off
    # Back to the discovery settings in force before the watcher started.
    library.KM_IO_SetGlobalOptions(option_text(G.restorable(_WATCHED_KEYS)).encode())
    with _active_lock:
        _active = False


class Watcher:
    """Background discovery and its events; create it with :func:`kalometio.watch`.

    Iterating yields :class:`DiscoveryEvent` objects as they come (blocking);
    :meth:`get` waits with a time limit. Only one watcher can run at a time,
    since the library has one event callback and one set of discovery
    interfaces per process. Stops on :meth:`close`, at the end of a ``with``
    block, on garbage collection and at interpreter exit.
    """

    def __init__(self, iface: OptionValue = "network:all", **options: OptionValue) -> None:
        global _active
        L.run_deferred()
        with _active_lock:
            if _active:
                raise RuntimeError("kalometio: only one watch() can run at a time; close the other first")
            _active = True
        self._events: "queue.SimpleQueue[object]" = queue.SimpleQueue()
        callback = _event_handler(self._events)
        self._finalizer = weakref.finalize(self, _stop, callback)
        settings = {"discovery_iface": iface, **options}
        G.remember_before(settings)
        text = option_text(settings)
        library = L.lib()
        try:
            library.KM_IO_SetEventCallback(callback, None)
            L.check(library.KM_IO_SetGlobalOptions(text.encode()), "start discovery")
            G.record(settings)
        except BaseException:
            self._finalizer()
            raise

    def get(self, timeout: Optional[float] = None) -> Optional[DiscoveryEvent]:
        """Returns the next event; None if none came within ``timeout`` seconds.

        Raises :class:`WatcherStopped` once the watcher is closed and every
        event queued before the close has been read, so a caller can tell a
        quiet network from a stopped watcher.
        """
        try:
            item = self._events.get(timeout=timeout)
        except queue.Empty:
            return None
        if isinstance(item, _Stopped):
            self._events.put(item)
            raise WatcherStopped("the watcher is closed")
        if isinstance(item, KmioError):
            raise item
        event_type, text, code = cast(Tuple[int, str, int], item)
        if event_type == L.EVENT_ERROR:
            return DiscoveryEvent(EventKind.ERROR, {}, code, text)
        return DiscoveryEvent(_KINDS[event_type], parse_record(text) if text else {})

    def __iter__(self) -> Iterator[DiscoveryEvent]:
        while True:
            try:
                event = self.get()
            except WatcherStopped:
                return
            if event is not None:
                yield event

    @property
    def closed(self) -> bool:
        """True once the watcher has stopped."""
        return not self._finalizer.alive

    def close(self) -> None:
        """Stops discovery and event delivery; events already queued can still be read."""
        if self._finalizer.alive:
            self._finalizer()
            self._events.put(_STOPPED)

    def __enter__(self) -> "Watcher":
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()


def watch(iface: OptionValue = "network:all", **options: OptionValue) -> Watcher:
    """Starts background discovery on the given interfaces and returns its events.

    Args:
        iface: "network:all", "network:A.B.C.D", or a list of them.
        **options: further global options, e.g. ``locator_format_network="host"``.

    Example::

        for event in kalometio.watch(iface="network:all"):
            print(event.kind, event.serial_number, event.locator)
    """
    return Watcher(iface, **options)
