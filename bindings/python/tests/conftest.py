"""Shared fixtures: real pseudo-terminals and kmio-sim on 127.0.0.1.

The library under test is the one the package loads (KMIO_LIBRARY, else the
installed libkmio.so.2); kmio-sim is taken from KMIO_SIM, else from PATH.
"""

from __future__ import annotations

import os
import shutil
import socket
import subprocess
import sys
import time
from typing import Callable, Iterator, List, Tuple

import pytest

import kalometio as km

# Generous: these bound waits on a loaded 2-core machine, they measure nothing.
WAIT = 10.0


def eventually(condition: Callable[[], bool], timeout: float = WAIT) -> bool:
    """Polls until condition() holds or the time runs out; returns its last value."""
    deadline = time.monotonic() + timeout
    while not condition():
        if time.monotonic() > deadline:
            return condition()
        time.sleep(0.02)
    return True


def read_exactly(device: km.Device, count: int, timeout: float = WAIT) -> bytes:
    """Reads until count bytes have arrived (or the time runs out)."""
    data = b""
    deadline = time.monotonic() + timeout
    while len(data) < count and time.monotonic() < deadline:
        data += device.read(timeout=max(0.0, deadline - time.monotonic()))
    return data


def read_fd_exactly(fd: int, count: int, timeout: float = WAIT) -> bytes:
    """Reads count bytes from a file descriptor (the pty master)."""
    import select

    data = b""
    deadline = time.monotonic() + timeout
    while len(data) < count:
        left = deadline - time.monotonic()
        if left <= 0 or not select.select([fd], [], [], left)[0]:
            break
        data += os.read(fd, count - len(data))
    return data


@pytest.fixture
def pty() -> Iterator[Tuple[int, str]]:
    """A pseudo-terminal pair: (master fd, slave path). The slave is opened by the library."""
    master, slave = os.openpty()
    path = os.ttyname(slave)
    os.close(slave)
    os.set_blocking(master, True)
    yield master, path
    try:
        os.close(master)
    except OSError:
        pass  # the test closed it to hang up the line


def free_port_range(count: int) -> int:
    """Returns a first port of count consecutive TCP ports that are free on 127.0.0.1."""
    for _ in range(50):
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            first = probe.getsockname()[1]
        if first + count > 65535:
            continue
        sockets: List[socket.socket] = []
        try:
            for port in range(first, first + count):
                s = socket.socket()
                sockets.append(s)
                s.bind(("127.0.0.1", port))
            return first
        except OSError:
            continue
        finally:
            for s in sockets:
                s.close()
    raise RuntimeError("no free port range")


def sim_path() -> str:
    path = os.environ.get("KMIO_SIM") or shutil.which("kmio-sim")
    if not path:
        pytest.fail("kmio-sim not found: set KMIO_SIM or put it on PATH")
    return path


class Simulator:
    """A running kmio-sim with devices PREFIX0001... on 127.0.0.1."""

    def __init__(self, prefix: str, count: int, info: str) -> None:
        self.prefix = prefix
        self.first_port = free_port_range(count)
        self.serials = [f"{prefix}{i + 1:04d}" for i in range(count)]
        self.process = subprocess.Popen(
            [
                sim_path(),
                "--iface",
                "127.0.0.1",
                "--count",
                str(count),
                "--serial-prefix",
                prefix,
                "--first-port",
                str(self.first_port),
                "--info",
                info,
            ],
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
        )
        assert self.process.stdout is not None
        seen = []
        for line in self.process.stdout:
            seen.append(line)
            if line.startswith("ready"):
                return
        self.stop()
        raise RuntimeError("kmio-sim did not start:\n" + "".join(seen))

    def stop(self) -> None:
        if self.process.poll() is None:
            self.process.terminate()
            self.process.wait(timeout=WAIT)
        if self.process.stdout:
            self.process.stdout.close()


@pytest.fixture
def simulator() -> Iterator[Callable[..., Simulator]]:
    """Starts kmio-sim instances on demand and stops them after the test."""
    started: List[Simulator] = []

    def start(prefix: str = "PYT", count: int = 2, info: str = "kmio-sim") -> Simulator:
        sim = Simulator(prefix, count, info)
        started.append(sim)
        return sim

    yield start
    for sim in started:
        sim.stop()


def run_python(code: str, *args: str) -> subprocess.CompletedProcess:
    """Runs a Python snippet in a fresh interpreter with this package, for exit-time behaviour."""
    return subprocess.run(
        [sys.executable, "-c", code, *args],
        capture_output=True,
        text=True,
        timeout=60,
    )
