#!/usr/bin/env python3
"""Boots the QEMU guest with two emulated FTDI chips and runs the checks.

Each chip's host end is a Unix socket that QEMU serves; this harness connects
to it and echoes every byte back, so the chip behaves as a cable looped back
through a peer. QEMU attaches a chip while a peer is connected and detaches
it when the peer goes away: closing the connection is a real unplug, with
real kernel uevents, and connecting again is a real plug.

The guest writes lines that start with "@@" on its console:
  @@guest-up SECONDS          the guest reached its checks (guest uptime)
  @@check NAME ok|fail TEXT   one check's outcome
  @@figure NAME VALUE UNIT    one measured figure
  @@note TEXT                 something worth reporting
  @@host unplug|plug N        asks the harness to unplug or plug chip N
  @@guest-exit CODE           the checks ended
The harness prints each check and figure, then "N passed, M failed", and
exits non-zero on any failure, on a missing @@guest-exit, or on a timeout.
"""

import argparse
import glob
import os
import queue
import select
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time

SERIALS = ("KMVM0001", "KMVM0002")


class EchoPeer:
    """The host end of one chip: connects to QEMU's socket and echoes.

    Reading and writing run on two threads with a queue between them. QEMU
    writes to the socket from its main loop and waits until the write is
    taken; a peer that stopped reading while its own write waited for QEMU
    would stop both, and the whole guest with them.
    """

    def __init__(self, path):
        self.path = path
        self.sock = None
        self.threads = []

    def plug(self, deadline):
        while True:
            sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            try:
                sock.connect(self.path)
                break
            except OSError:
                sock.close()
                if time.monotonic() > deadline:
                    raise
                time.sleep(0.05)
        self.sock = sock
        pending = queue.Queue()
        self.threads = [threading.Thread(target=self._read, args=(sock, pending), daemon=True),
                        threading.Thread(target=self._write, args=(sock, pending), daemon=True)]
        for thread in self.threads:
            thread.start()

    @staticmethod
    def _read(sock, pending):
        try:
            while True:
                data = sock.recv(65536)
                if not data:
                    break
                pending.put(data)
        except OSError:
            pass
        pending.put(None)

    @staticmethod
    def _write(sock, pending):
        try:
            while (data := pending.get()) is not None:
                sock.sendall(data)
        except OSError:
            pass

    def unplug(self):
        if self.sock is not None:
            try:
                self.sock.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
            for thread in self.threads:
                thread.join(timeout=5)
            self.sock.close()
            self.sock = None


def kernel_and_version():
    kernels = sorted(glob.glob("/boot/vmlinuz-*"))
    if not kernels:
        sys.exit("run_guest: no kernel in /boot (install linux-image-amd64)")
    kernel = kernels[-1]
    return kernel, kernel[len("/boot/vmlinuz-"):]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--source", required=True)
    parser.add_argument("--build", required=True)
    parser.add_argument("--timeout", type=float, default=900)
    args = parser.parse_args()

    kernel, version = kernel_and_version()
    here = os.path.dirname(os.path.abspath(__file__))
    work = tempfile.mkdtemp(prefix="kmio-vm-")
    initramfs = os.path.join(work, "initramfs.gz")
    subprocess.run([os.path.join(here, "make_initramfs.sh"), version, initramfs], check=True)

    sockets = [os.path.join(work, f"chip{i}.sock") for i in range(len(SERIALS))]
    command = [
        "qemu-system-x86_64", "-machine", "q35", "-accel", "tcg", "-m", "1024", "-smp", "1",
        "-display", "none", "-serial", "stdio", "-monitor", "none", "-no-reboot",
        "-kernel", kernel, "-initrd", initramfs,
        "-append", f"console=ttyS0 panic=-1 kmio_src={args.source} kmio_build={args.build}",
        "-virtfs", "local,path=/,mount_tag=hostroot,security_model=none,readonly=on,multidevs=remap",
        "-device", "qemu-xhci,id=xhci",
    ]
    for i, (path, serial) in enumerate(zip(sockets, SERIALS)):
        command += ["-chardev", f"socket,id=chip{i},path={path},server=on,wait=off",
                    "-device", f"usb-serial,bus=xhci.0,chardev=chip{i},serial={serial}"]

    started = time.monotonic()
    deadline = started + args.timeout
    qemu = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT)
    peers = [EchoPeer(path) for path in sockets]
    passed, failed, exit_code = 0, 0, None
    log = open(os.path.join(work, "console.log"), "w")
    try:
        for peer in peers:
            peer.plug(deadline)
        pending = b""
        while exit_code is None:
            remaining = deadline - time.monotonic()
            if remaining <= 0:
                print("run_guest: timed out", flush=True)
                break
            ready, _, _ = select.select([qemu.stdout], [], [], remaining)
            if not ready:
                continue
            chunk = os.read(qemu.stdout.fileno(), 65536)
            if not chunk:
                print("run_guest: the guest stopped before its checks ended", flush=True)
                break
            pending += chunk
            *lines, pending = pending.split(b"\n")
            for raw in lines:
                line = raw.decode("utf-8", "replace").rstrip("\r")
                log.write(line + "\n")
                log.flush()
                if os.environ.get("KMIO_VM_VERBOSE"):
                    print(f"guest: {line}", flush=True)
                at = line.find("@@")
                if at < 0:
                    continue
                words = line[at + 2:].split(" ", 3)
                kind = words[0]
                if kind == "check":
                    ok = len(words) > 2 and words[2] == "ok"
                    passed += ok
                    failed += not ok
                    detail = words[3] if len(words) > 3 else ""
                    print(f"{'ok  ' if ok else 'FAIL'} {words[1]} {detail}".rstrip(), flush=True)
                elif kind == "figure":
                    print(f"figure {' '.join(words[1:])}", flush=True)
                elif kind == "note":
                    print(f"note {' '.join(words[1:])}", flush=True)
                elif kind == "guest-up":
                    print(f"figure guest-boot {words[1]} s guest time, "
                          f"{time.monotonic() - started:.2f} s wall", flush=True)
                elif kind == "host" and len(words) > 2:
                    peer = peers[int(words[2])]
                    if words[1] == "unplug":
                        peer.unplug()
                    else:
                        peer.plug(deadline)
                elif kind == "guest-exit":
                    exit_code = int(words[1]) if len(words) > 1 else 1
    finally:
        for peer in peers:
            peer.unplug()
        if qemu.poll() is None:
            try:
                qemu.wait(timeout=30)
            except subprocess.TimeoutExpired:
                qemu.kill()
                qemu.wait()
        log.close()

    print(f"figure stage-wall {time.monotonic() - started:.1f} s", flush=True)
    print(f"{passed} passed, {failed} failed (console log: {log.name})", flush=True)
    if exit_code != 0 or failed or passed == 0:
        sys.exit(1)
    shutil.rmtree(work)


if __name__ == "__main__":
    main()
