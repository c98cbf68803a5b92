"""An open device: send bytes, read what arrived, close."""

from __future__ import annotations

import asyncio
import ctypes
import queue
import threading
import time
import weakref
from typing import Callable, Iterator, List, Optional, Tuple, Union

from . import _library as L
from .errors import InvalidHandleError, KmioError, ReceiveOverflowError, error_for
from .options import OptionValue, option_text

BytesLike = Union[bytes, bytearray, memoryview]


class _Closed:
    """Queued when the device is closed, to wake a reader that waits."""


_CLOSED = _Closed()


class _Overflow:
    """Queued where received bytes were dropped because the queue was full."""


_OVERFLOW = _Overflow()

# How many received bytes may wait unread before more are dropped.
DEFAULT_RECEIVE_LIMIT = 16 << 20

# Callback objects of devices closed without waiting for their receiving
# thread: the thread may still call them for a moment after the close, so
# they live on, each for a minute (far longer than a receiving thread takes
# to end), and are let go at a later close.
_RETIRE_SECONDS = 60.0
_retired: List[Tuple[float, "_Link"]] = []
_retired_lock = threading.Lock()


class _Link:
    """The part of a device that the library's receiving thread touches.

    It holds the queue and the two ctypes callbacks but no reference to the
    Device, so an open device can still be garbage-collected (which closes
    it). The callbacks only enqueue: received blocks as bytes, the first link
    error as its exception.
    """

    def __init__(self, locator: str, receive_limit: int, forward: Optional[Callable[[object], None]] = None) -> None:
        self.locator = locator
        # Set for asyncio streams: every block and the link error go there,
        # on the receiving thread, instead of into the queue.
        self.forward = forward
        self.queue: "queue.SimpleQueue[object]" = queue.SimpleQueue()
        # Bytes queued and not yet read, and whether an overflow marker
        # waits in the queue (one marker stands for every byte dropped until
        # a reader reaches it).
        self.receive_limit = receive_limit
        self.queued_bytes = 0
        self.overflow_queued = False
        self.count_lock = threading.Lock()
        self.handle: Optional[int] = None
        self.lock = threading.Lock()
        self.failed = False
        self.receive = L.ReceiveCallback(self._on_receive)
        self.link_error = L.LinkErrorCallback(self._on_link_error)

    def _on_receive(self, _context: object, data: "ctypes._Pointer[ctypes.c_uint8]", length: int) -> None:
        # The receiving thread never waits for a reader: with the queue full,
        # the block is dropped and the reader is told where.
        with L.on_library_thread(L.RECEIVING_THREAD):
            if self.forward is not None:
                self.forward(ctypes.string_at(data, length))
                return
            with self.count_lock:
                if self.queued_bytes + length > self.receive_limit:
                    if not self.overflow_queued:
                        self.overflow_queued = True
                        self.queue.put(_OVERFLOW)
                    return
                self.queued_bytes += length
            self.queue.put(ctypes.string_at(data, length))

    def _on_link_error(self, _context: object, code: int) -> None:
        # A network link that is gone reports itself on every pass of the
        # receiving thread until closed: keep the first report only.
        with L.on_library_thread(L.RECEIVING_THREAD):
            if not self.failed:
                self.failed = True
                error = error_for(code, f"{self.locator}: link error")
                if self.forward is not None:
                    self.forward(error)
                else:
                    self.queue.put(error)


def _release(link: _Link) -> None:
    """Closes the device's handle once; safe from any thread."""
    with link.lock:
        handle, link.handle = link.handle, None
    if handle is None:
        return
    open_handle: int = handle
    role = L.current_library_thread()
    if role == L.DISCOVERY_THREAD:
        # The event callback holds the library's table lock, under which
        # closing is not allowed: close on the next ordinary call instead.
        L.defer(lambda: _close_handle(open_handle, link, wait=True))
    else:
        # On a receiving thread the library cannot wait for its own thread
        # (and must not wait for another that may want the interpreter lock).
        _close_handle(open_handle, link, wait=role is None)


def _close_handle(handle: int, link: _Link, wait: bool) -> None:
    L.lib().KM_IO_Close(handle, 1 if wait else 0)
    if not wait:
        now = time.monotonic()
        with _retired_lock:
            _retired[:] = [(at, kept) for at, kept in _retired if now - at < _RETIRE_SECONDS]
            _retired.append((now, link))
    link.queue.put(_CLOSED)


class Device:
    """An open device; create it with :func:`kalometio.open`.

    Received bytes are queued by the library's receiving thread and taken by
    :meth:`read` (or by iterating over the device). A link failure is queued
    behind the bytes that came before it and raised by the read that reaches
    it, and by every read after. The device is closed by :meth:`close`, by
    leaving a ``with`` block, when it is garbage-collected, and at interpreter
    exit.
    """

    def __init__(
        self,
        locator: str,
        receive_limit: int = DEFAULT_RECEIVE_LIMIT,
        *,
        _forward: Optional[Callable[[object], None]] = None,
        **options: OptionValue,
    ) -> None:
        L.run_deferred()
        if receive_limit <= 0:
            raise ValueError("receive_limit must be a positive number of bytes")
        self.locator = locator
        self.options = option_text(options)
        link = _Link(locator, receive_limit, _forward)
        handle = ctypes.c_uint32()
        L.check(
            L.lib().KM_IO_Open(
                ctypes.byref(handle),
                locator.encode(),
                self.options.encode(),
                None,
                link.receive,
                link.link_error,
            ),
            f"open {locator}",
        )
        link.handle = handle.value
        self._link = link
        self._read_lock = threading.Lock()
        self._failure: Optional[KmioError] = None
        self._overflow_pending = False
        self._finalizer = weakref.finalize(self, _release, link)

    @property
    def handle(self) -> int:
        """The library's handle (0 to 63). Raises InvalidHandleError once closed."""
        handle = self._link.handle
        if handle is None:
            raise InvalidHandleError(f"{self.locator}: the device is closed")
        return handle

    @property
    def closed(self) -> bool:
        """True once the device has been closed."""
        return self._link.handle is None

    def send(self, data: BytesLike) -> None:
        """Sends bytes; returns when the link has accepted all of them.

        Raises:
            InvalidHandleError: the device is closed.
            SendFailedError, LinkLostError: the link refused the bytes.
        """
        payload = bytes(data)
        L.check(L.lib().KM_IO_Send(self.handle, payload, len(payload)), f"send to {self.locator}")

    def read(self, timeout: Optional[float] = None) -> bytes:
        """Returns the bytes received so far, or waits for some.

        Args:
            timeout: seconds to wait when nothing has arrived yet; None waits
                until something arrives or the device is closed, 0 does not wait.

        Returns:
            Every byte received since the last read, or b"" when the time ran out.

        Raises:
            LinkLostError, LinkFailedError: the link failed (after the bytes
                received before the failure have been returned).
            InvalidHandleError: the device is closed and nothing is left to read.
        """
        with self._read_lock:
            if self._overflow_pending:
                self._overflow_pending = False
                raise self._overflow_error()
            if self._failure is not None:
                raise self._failure
            try:
                item = (
                    self._link.queue.get(timeout=timeout) if timeout != 0 else self._link.queue.get_nowait()
                )
            except queue.Empty:
                return b""
            blocks: List[bytes] = []
            while True:
                if isinstance(item, bytes):
                    blocks.append(item)
                    with self._link.count_lock:
                        self._link.queued_bytes -= len(item)
                elif isinstance(item, _Overflow):
                    with self._link.count_lock:
                        self._link.overflow_queued = False
                    if blocks:
                        # Raised by the next read, after what came before the gap.
                        self._overflow_pending = True
                        break
                    raise self._overflow_error()
                elif isinstance(item, KmioError):
                    self._failure = item
                    break
                else:
                    self._link.queue.put(_CLOSED)  # for the next reader
                    break
                try:
                    item = self._link.queue.get_nowait()
                except queue.Empty:
                    break
            if blocks:
                return b"".join(blocks)
            if self._failure is not None:
                raise self._failure
            raise InvalidHandleError(f"{self.locator}: the device is closed")

    def _overflow_error(self) -> ReceiveOverflowError:
        return ReceiveOverflowError(
            f"{self.locator}: received bytes were dropped: more than {self._link.receive_limit} waited unread"
        )

    async def read_async(self, timeout: Optional[float] = None) -> bytes:
        """:meth:`read` for asyncio code: waits in a worker thread, not in the event loop."""
        return await asyncio.to_thread(self.read, timeout)

    def __iter__(self) -> Iterator[bytes]:
        """Yields blocks of received bytes as they arrive, until the device is closed."""
        while True:
            try:
                yield self.read()
            except InvalidHandleError:
                return

    def get_property(self, key: str) -> str:
        """Reads a property of the device (USB devices have them; see the C header)."""
        handle = self.handle
        return L.read_text(
            lambda buffer, size: L.lib().KM_IO_GetProperty(handle, key.encode(), buffer, ctypes.byref(size)),
            f"property {key!r} of {self.locator}",
        )

    def close(self) -> None:
        """Closes the device, waiting until its receiving thread has ended. Closing twice is harmless."""
        self._finalizer()

    def __enter__(self) -> "Device":
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def __repr__(self) -> str:
        state = "closed" if self.closed else f"handle {self._link.handle}"
        return f"<kalometio.Device {self.locator!r} {state}>"


def open(  # noqa: A001 - km.open is the natural name
    locator: str, receive_limit: int = DEFAULT_RECEIVE_LIMIT, **options: OptionValue
) -> Device:
    """Opens a device by its locator; keyword arguments become option lines.

    Example: ``kalometio.open("serial:/dev/ttyUSB0", baudrate=115200)`` or
    ``kalometio.open("network:sn:KM000042", iface="network:all")``.

    ``receive_limit`` bounds the bytes that may wait unread (16 MiB by
    default); what arrives beyond it is dropped, and a read raises
    :class:`ReceiveOverflowError` where the gap is.

    Raises:
        KmioError: a subclass for the result code (BadLocatorError, NotFoundError,
            BadOptionsError, OpenFailedError, ...).
    """
    return Device(locator, receive_limit, **options)
