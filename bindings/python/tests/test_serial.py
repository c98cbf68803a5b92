"""A device on a real pseudo-terminal: bytes both ways, reads, link failure, closing."""

import asyncio
import errno
import fcntl
import gc
import os
import threading
import time

import pytest

import kalometio as km
from kalometio import _library

from conftest import WAIT, eventually, read_exactly, read_fd_exactly, run_python


def open_pty(path: str) -> km.Device:
    return km.open(f"serial:{path}", baudrate=115200)


def port_is_free(path: str) -> bool:
    """The library holds a port exclusively, so a second open succeeds only once the first is closed."""
    try:
        open_pty(path).close()
        return True
    except km.OpenFailedError:
        return False


def port_is_locked(path: str) -> bool:
    """Whether someone holds the port, probed without calling into the library."""
    try:
        fd = os.open(path, os.O_RDWR | os.O_NOCTTY | os.O_NONBLOCK)
    except OSError as error:
        return error.errno == errno.EBUSY  # TIOCEXCL: exclusive use
    try:
        fcntl.flock(fd, fcntl.LOCK_EX | fcntl.LOCK_NB)
        return False
    except BlockingIOError:
        return True
    finally:
        os.close(fd)


def test_bytes_travel_both_ways(pty):
    master, path = pty
    with open_pty(path) as dev:
        os.write(master, b"ping")
        assert read_exactly(dev, 4) == b"ping"
        dev.send(b"pong")
        assert read_fd_exactly(master, 4) == b"pong"


def test_a_large_transfer_arrives_whole_and_in_order(pty):
    master, path = pty
    outbound = os.urandom(256 * 1024)
    with open_pty(path) as dev:
        sender = threading.Thread(target=dev.send, args=(outbound,))
        sender.start()
        assert read_fd_exactly(master, len(outbound), timeout=60) == outbound
        sender.join(WAIT)
        inbound = os.urandom(256 * 1024)
        writer = threading.Thread(target=os.write, args=(master, inbound))
        writer.start()
        assert read_exactly(dev, len(inbound), timeout=60) == inbound
        writer.join(WAIT)


def test_read_returns_every_byte_received_so_far_in_one_call(pty):
    master, path = pty
    with open_pty(path) as dev:
        for part in (b"abc", b"def", b"ghi"):
            os.write(master, part)
            time.sleep(0.05)
        time.sleep(1.5)  # ample for a pty on a loaded machine: all three writes are queued by now
        assert dev.read(timeout=0) == b"abcdefghi"


def test_read_with_nothing_received_waits_for_its_timeout(pty):
    _, path = pty
    with open_pty(path) as dev:
        assert dev.read(timeout=0) == b""
        start = time.monotonic()
        assert dev.read(timeout=0.3) == b""
        assert time.monotonic() - start >= 0.25


def test_a_hang_up_is_raised_by_read_after_the_bytes_before_it(pty):
    master, path = pty
    with open_pty(path) as dev:
        os.write(master, b"last words")
        assert read_exactly(dev, 10) == b"last words"
        os.close(master)
        with pytest.raises(km.LinkFailedError) as caught:
            dev.read(timeout=WAIT)
        assert caught.value.code == 8
        with pytest.raises(km.LinkFailedError):
            dev.read(timeout=0)


def test_closing_wakes_a_waiting_reader_and_ends_iteration(pty):
    master, path = pty
    dev = open_pty(path)
    received = []
    reader = threading.Thread(target=lambda: received.extend(dev))
    reader.start()
    os.write(master, b"one")
    assert eventually(lambda: b"".join(received) == b"one")
    dev.close()
    reader.join(WAIT)
    assert not reader.is_alive()
    assert dev.closed
    with pytest.raises(km.InvalidHandleError):
        dev.read(timeout=0)
    with pytest.raises(km.InvalidHandleError):
        dev.send(b"x")
    dev.close()  # a second close is harmless


def test_read_async_waits_without_blocking_the_event_loop(pty):
    master, path = pty

    async def scenario(dev):
        ticks = 0

        async def ticker():
            nonlocal ticks
            while True:
                ticks += 1
                await asyncio.sleep(0.01)

        tick_task = asyncio.ensure_future(ticker())
        asyncio.get_running_loop().call_later(0.3, os.write, master, b"async")
        data = await dev.read_async(timeout=WAIT)
        tick_task.cancel()
        return data, ticks

    with open_pty(path) as dev:
        data, ticks = asyncio.run(scenario(dev))
    assert data == b"async"
    assert ticks >= 5


def test_the_port_is_held_until_close_and_freed_by_context_exit(pty):
    _, path = pty
    with open_pty(path):
        assert not port_is_free(path)
    assert port_is_free(path)


def test_a_collected_device_releases_its_port(pty):
    _, path = pty
    dev = open_pty(path)
    assert not port_is_free(path)
    del dev
    gc.collect()
    assert port_is_free(path)


def test_a_device_dropped_inside_the_event_callback_is_closed_on_the_next_call(pty):
    _, path = pty
    dev = open_pty(path)
    # The event callback runs under the library's table lock, where closing is
    # not allowed: the close waits for the next ordinary call.
    with _library.on_library_thread(_library.DISCOVERY_THREAD):
        dev.close()
    assert dev.closed
    assert port_is_locked(path)
    km.list_interfaces()
    assert not port_is_locked(path)


def test_open_devices_are_closed_at_interpreter_exit(pty):
    master, path = pty
    code = (
        "import atexit, sys, kalometio as km\n"
        "state = {}\n"
        # Registered first, so it runs after the package's exit handlers.
        "atexit.register(lambda: print('closed at exit:', state['dev'].closed, flush=True))\n"
        "state['dev'] = km.open('serial:' + sys.argv[1], baudrate=115200)\n"
        "print('opened', flush=True)\n"
    )
    stop = threading.Event()

    def flood():  # keep the receiving thread busy while the interpreter exits
        while not stop.is_set():
            try:
                os.write(master, b"x" * 256)
            except OSError:
                return
            time.sleep(0.001)

    flooder = threading.Thread(target=flood)
    flooder.start()
    try:
        result = run_python(code, path)
    finally:
        stop.set()
        flooder.join(WAIT)
    assert result.returncode == 0, result.stderr
    assert result.stdout.split("\n")[:2] == ["opened", "closed at exit: True"]


def test_a_full_receive_queue_drops_and_says_where(pty):
    master, path = pty
    with km.open(f"serial:{path}", receive_limit=4096, baudrate=115200) as dev:
        os.write(master, b"a" * 4096)
        assert eventually(lambda: dev._link.queued_bytes == 4096)
        os.write(master, b"b" * 1024)  # no room: dropped
        assert eventually(lambda: dev._link.overflow_queued)
        assert dev.read(timeout=WAIT) == b"a" * 4096
        with pytest.raises(km.ReceiveOverflowError):
            dev.read(timeout=0)
        os.write(master, b"after")
        assert read_exactly(dev, 5) == b"after"


def test_receive_limit_must_be_positive(pty):
    _, path = pty
    with pytest.raises(ValueError):
        km.open(f"serial:{path}", receive_limit=0, baudrate=115200)


def test_links_closed_without_waiting_are_let_go_after_their_time(monkeypatch):
    from kalometio import device

    monkeypatch.setattr(device, "_RETIRE_SECONDS", 0.0)
    monkeypatch.setattr(device, "_retired", [])
    for _ in range(3):
        # Handle 63 is not open: the library answers 6 and nothing else happens.
        device._close_handle(63, device._Link("serial:/dev/null", 1), wait=False)
    assert len(device._retired) == 1
