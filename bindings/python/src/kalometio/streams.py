"""asyncio streams over a device: ``await kalometio.open_connection(locator)``.

Received bytes reach the event loop through ``call_soon_threadsafe`` from the
library's receiving thread, so reading never blocks the loop and needs no
thread of its own: cancelling a read leaves nothing behind. Sends go through
one writer thread per connection, because a send returns only when the link
has taken the bytes (a serial port at a low rate takes its time).
"""

from __future__ import annotations

import asyncio
import queue
import threading
from typing import Any, Optional, Tuple

from .device import Device
from .errors import KmioError
from .options import OptionValue

_STOP = object()


class _DeviceTransport(asyncio.Transport):
    """The transport of one open device."""

    def __init__(self, loop: asyncio.AbstractEventLoop, protocol: asyncio.Protocol) -> None:
        super().__init__()
        self._loop = loop
        self._protocol = protocol
        self._device: Optional[Device] = None
        self._closing = False
        self._writes: "queue.SimpleQueue[object]" = queue.SimpleQueue()
        self._writer: Optional[threading.Thread] = None

    # Runs on the library's receiving thread.
    def forward(self, item: object) -> None:
        try:
            if isinstance(item, bytes):
                self._loop.call_soon_threadsafe(self._received, item)
            else:
                self._loop.call_soon_threadsafe(self._lost, item)
        except RuntimeError:
            pass  # the loop is closed: nobody is left to tell

    def _received(self, data: bytes) -> None:
        if not self._closing:
            self._protocol.data_received(data)

    def _lost(self, error: object) -> None:
        if not self._closing:
            self._closing = True
            self._stop_writer()
            self._protocol.connection_lost(error if isinstance(error, Exception) else None)

    def attach(self, device: Device) -> None:
        self._device = device
        self._protocol.connection_made(self)

    def write(self, data: Any) -> None:
        if self._closing or not data:
            return
        if self._writer is None:
            self._writer = threading.Thread(target=self._write_loop, name="kalometio-writer", daemon=True)
            self._writer.start()
        self._writes.put(bytes(data))

    def _write_loop(self) -> None:
        device = self._device
        while (data := self._writes.get()) is not _STOP:
            try:
                assert device is not None
                device.send(data)  # type: ignore[arg-type]
            except KmioError as error:
                self.forward(error)
                return

    def _stop_writer(self) -> None:
        if self._writer is not None:
            self._writes.put(_STOP)

    def is_closing(self) -> bool:
        return self._closing

    def close(self) -> None:
        if self._closing:
            return
        self._closing = True
        self._stop_writer()
        if self._device is not None:
            self._device.close()
        self._loop.call_soon(self._protocol.connection_lost, None)

    def abort(self) -> None:
        self.close()

    def can_write_eof(self) -> bool:
        return False

    def get_write_buffer_size(self) -> int:
        return 0

    def is_reading(self) -> bool:
        return not self._closing

    # The library cannot hold bytes back: reading goes on; the reader's
    # buffer takes what arrives.
    def pause_reading(self) -> None:
        pass

    def resume_reading(self) -> None:
        pass

    def get_extra_info(self, name: str, default: Any = None) -> Any:
        if name == "device":
            return self._device
        if name == "peername" and self._device is not None:
            return self._device.locator
        return default


async def open_connection(
    locator: str, *, limit: int = 2**16, **options: OptionValue
) -> Tuple[asyncio.StreamReader, asyncio.StreamWriter]:
    """Opens a device and returns ``(reader, writer)``, as ``asyncio.open_connection`` does.

    Keyword arguments are option lines, as for :func:`kalometio.open`.
    ``writer.close()`` closes the device; a link failure ends the reader with
    the library's error (``reader.read()`` raises it).

    For example::

        reader, writer = await kalometio.open_connection("serial:/dev/ttyUSB0", baudrate=115200)
        writer.write(b"ping\\n")
        line = await reader.readline()
    """
    loop = asyncio.get_running_loop()
    reader = asyncio.StreamReader(limit=limit, loop=loop)
    protocol = asyncio.StreamReaderProtocol(reader, loop=loop)
    transport = _DeviceTransport(loop, protocol)
    # Opening is quick (a port, a connect within its time-out): run it off the
    # loop anyway, so that a slow network open does not stall other tasks.
    device = await loop.run_in_executor(None, lambda: Device(locator, _forward=transport.forward, **options))
    transport.attach(device)
    writer = asyncio.StreamWriter(transport, protocol, reader, loop)
    return reader, writer
