"""asyncio streams over a real pseudo-terminal: the loop never waits on the device."""

import asyncio
import logging
import os
import threading

import pytest

import kalometio as km

from conftest import WAIT, read_fd_exactly


def run_in_debug_mode(coroutine_function):
    """Runs the test's coroutine with asyncio's debug mode reporting any callback over 50 ms."""

    async def main():
        asyncio.get_running_loop().slow_callback_duration = 0.05
        return await coroutine_function()

    return asyncio.run(main(), debug=True)


def slow_callbacks(caplog):
    return [r.getMessage() for r in caplog.records if r.name == "asyncio" and "took" in r.getMessage()]


def test_reader_and_writer_carry_bytes_both_ways_without_blocking_the_loop(pty, caplog):
    master, path = pty
    caplog.set_level(logging.WARNING, logger="asyncio")

    async def body():
        reader, writer = await km.open_connection(f"serial:{path}", baudrate=115200)
        os.write(master, b"hello\nworld")
        assert await asyncio.wait_for(reader.readline(), WAIT) == b"hello\n"
        assert await asyncio.wait_for(reader.readexactly(5), WAIT) == b"world"
        writer.write(b"back" * 1000)
        await writer.drain()
        loop = asyncio.get_running_loop()
        echoed = await loop.run_in_executor(None, read_fd_exactly, master, 4000)
        assert echoed == b"back" * 1000
        assert writer.get_extra_info("peername") == f"serial:{path}"
        writer.close()
        await writer.wait_closed()

    run_in_debug_mode(body)
    assert slow_callbacks(caplog) == []


def test_a_cancelled_read_leaves_no_thread_and_loses_no_bytes(pty):
    master, path = pty

    async def body():
        reader, writer = await km.open_connection(f"serial:{path}", baudrate=115200)
        threads = threading.active_count()
        pending = asyncio.create_task(reader.read(100))
        await asyncio.sleep(0.05)
        pending.cancel()
        with pytest.raises(asyncio.CancelledError):
            await pending
        assert threading.active_count() == threads
        os.write(master, b"later")
        assert await asyncio.wait_for(reader.readexactly(5), WAIT) == b"later"
        writer.close()

    run_in_debug_mode(body)


def test_a_hang_up_ends_the_reader_with_the_link_error(pty):
    master, path = pty

    async def body():
        reader, writer = await km.open_connection(f"serial:{path}", baudrate=115200)
        os.close(master)
        with pytest.raises(km.LinkFailedError):
            await asyncio.wait_for(reader.read(100), WAIT)
        writer.close()

    run_in_debug_mode(body)


def test_a_bad_locator_raises_at_open():
    async def body():
        with pytest.raises(km.BadLocatorError):
            await km.open_connection("floppy:a")

    asyncio.run(body())
