"""Loading libkmio and declaring its thirteen functions for ctypes.

The library is looked up once, on first use: the file named by the
``KMIO_LIBRARY`` environment variable if it is set, otherwise the installed
``libkmio.so.2`` (through ``ctypes.util.find_library`` and the loader's own
search path, which includes ``LD_LIBRARY_PATH``).
"""

from __future__ import annotations

import ctypes
import ctypes.util
import os
import threading
from typing import Any, Callable, List, Optional

from .errors import error_for

OK = 0
ERR_BUFFER_TOO_SMALL = 12

IFACE_NONE = 0
IFACE_USB = 1
IFACE_NETWORK = 2
IFACE_SERIAL = 3
IFACE_ALL = 9999

EVENT_ERROR = 0
EVENT_DEVICE_AVAILABLE = 1
EVENT_DEVICE_UNAVAILABLE = 2

SONAME = "libkmio.so.2"

ReceiveCallback = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.POINTER(ctypes.c_uint8), ctypes.c_size_t)
LinkErrorCallback = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_uint32)
EventCallback = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_uint32, ctypes.c_void_p)

_u32 = ctypes.c_uint32
_pu32 = ctypes.POINTER(ctypes.c_uint32)
_psize = ctypes.POINTER(ctypes.c_size_t)
_str = ctypes.c_char_p
_buf = ctypes.c_char_p
_ptr = ctypes.c_void_p

_PROTOTYPES = {
    "KM_IO_GetVersion": [_pu32, _pu32, _pu32],
    "KM_IO_GetLocatorInterfaceType": [_pu32, _str],
    "KM_IO_Open": [_pu32, _str, _str, _ptr, ReceiveCallback, LinkErrorCallback],
    "KM_IO_Close": [_u32, ctypes.c_int32],
    "KM_IO_Send": [_u32, _ptr, ctypes.c_size_t],
    "KM_IO_GetProperty": [_u32, _str, _buf, _psize],
    "KM_IO_SetEventCallback": [EventCallback, _ptr],
    "KM_IO_GetErrorEventData": [_ptr, _pu32, _buf, _psize],
    "KM_IO_GetDiscoveryEventData": [_ptr, _str, _buf, _psize],
    "KM_IO_CanEnumerateDevices": [_u32, _pu32],
    "KM_IO_EnumerateDevices": [_u32, _str, _buf, _psize],
    "KM_IO_EnumerateInterfaces": [_str, _buf, _psize],
    "KM_IO_SetGlobalOptions": [_str],
}

_lock = threading.Lock()
_library: Optional[ctypes.CDLL] = None


def library_path() -> str:
    """Returns the name or path that will be loaded: KMIO_LIBRARY, else the installed library."""
    chosen = os.environ.get("KMIO_LIBRARY")
    if chosen:
        return chosen
    return ctypes.util.find_library("kmio") or SONAME


def lib() -> ctypes.CDLL:
    """Returns the loaded library, loading it and declaring its functions on first use.

    Raises:
        OSError: the library could not be loaded (the message says where it was looked for).
    """
    global _library
    with _lock:
        if _library is None:
            path = library_path()
            try:
                loaded = ctypes.CDLL(path)
            except OSError as error:
                raise OSError(
                    f"kalometio: cannot load {path!r} ({error}); install KalometIO, "
                    "or set KMIO_LIBRARY to the path of libkmio.so.2"
                ) from error
            for name, argtypes in _PROTOTYPES.items():
                function = getattr(loaded, name)
                function.argtypes = argtypes
                function.restype = ctypes.c_uint32
            _library = loaded
        return _library


def check(code: int, what: str) -> None:
    """Raises the KmioError subclass of a non-zero result code."""
    if code != OK:
        raise error_for(code, what)


TextCall = Callable[["ctypes.Array[ctypes.c_char]", ctypes.c_size_t], Any]


def read_text(call: TextCall, what: str, first_size: int = 4096) -> str:
    """Reads a text under the library's out-buffer convention.

    ``call(buffer, size)`` makes the library call with a buffer and a size
    holding its capacity; when the text does not fit, the library reports the
    size it needs and the call is made again with that much room.
    """
    capacity = first_size
    while True:
        buffer = ctypes.create_string_buffer(capacity)
        size = ctypes.c_size_t(capacity)
        code = int(call(buffer, size))
        if code == OK:
            return buffer.raw[: size.value].decode("utf-8", errors="replace")
        if code != ERR_BUFFER_TOO_SMALL:
            raise error_for(code, what)
        # The text may have grown since the size was reported: ask for more
        # than before in any case, so the loop always makes progress.
        capacity = max(size.value, capacity * 2)


class _ThreadRole(threading.local):
    """What the current thread is doing inside the library, if anything."""

    role: Optional[str] = None


_thread_role = _ThreadRole()

# The two kinds of library threads that run our callbacks.
RECEIVING_THREAD = "receiving"
DISCOVERY_THREAD = "discovery"


class on_library_thread:
    """Marks the current thread as a library thread while a callback runs.

    Code that may run there (garbage collection of a device, say) looks at
    :func:`current_library_thread` to avoid calls the library forbids there.
    """

    def __init__(self, role: str) -> None:
        self._role = role
        self._previous: Optional[str] = None

    def __enter__(self) -> None:
        self._previous = _thread_role.role
        _thread_role.role = self._role

    def __exit__(self, *exc: object) -> None:
        _thread_role.role = self._previous


def current_library_thread() -> Optional[str]:
    """RECEIVING_THREAD or DISCOVERY_THREAD while running inside a callback, else None."""
    return _thread_role.role


# Work that had to wait until the current thread left the event callback,
# where the library's table lock is held and no closing call may be made.
_deferred: List[Callable[[], None]] = []
_deferred_lock = threading.Lock()


def defer(work: Callable[[], None]) -> None:
    """Queues a call to run on the next ordinary thread that calls into the package."""
    with _deferred_lock:
        _deferred.append(work)


def run_deferred() -> None:
    """Runs queued work when called outside the event callback; a no-op inside it."""
    if current_library_thread() == DISCOVERY_THREAD:
        return
    with _deferred_lock:
        work = list(_deferred)
        _deferred.clear()
    for item in work:
        item()
