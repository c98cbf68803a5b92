"""Network devices of kmio-sim on 127.0.0.1: listing, echo, link loss, discovery events."""

import os
import time

import pytest

import kalometio as km

from conftest import WAIT, read_exactly, run_python

LOOPBACK = "network:127.0.0.1"


def ours(records, sim):
    return sorted(
        (r for r in records if r.get("device-sn", "").startswith(sim.prefix)), key=lambda r: r["device-sn"]
    )


def next_event(watcher, kind, serial, timeout=WAIT):
    """Waits for an event of that kind for that device; other events (repeats, other devices) are skipped."""
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        event = watcher.get(timeout=max(0.0, deadline - time.monotonic()))
        if event is not None and event.kind == kind and event.serial_number == serial:
            return event
    return None


def test_listing_finds_the_simulated_devices_with_their_records(simulator):
    info = "bench 3|axis=x 100%"
    sim = simulator(prefix="PYL", count=2, info=info)
    records = ours(km.list_devices(iface=LOOPBACK), sim)
    assert [r["device-sn"] for r in records] == sim.serials
    for index, record in enumerate(records):
        assert record["locator"] == f"network:sn:{sim.serials[index]}"
        assert record["network-host"] == "127.0.0.1"
        assert int(record["network-port"]) == sim.first_port + index
        assert record["device-info"] == info
        assert record["iface-type"] == "network"
    locators = km.list_locators(link="network", iface=LOOPBACK, locator_format_network="host")
    assert f"network:127.0.0.1:{sim.first_port}" in locators


def test_device_infos_are_the_same_devices_in_structured_form(simulator):
    sim = simulator(prefix="PYD", count=2)
    infos = sorted(
        (i for i in km.list_device_infos(link="network", iface=LOOPBACK, force_rescan=True, discovery_timeout=500)
        if i.serial_number in sim.serials),
        key=lambda i: i.serial_number,
    )
    assert [i.serial_number for i in infos] == sim.serials
    for info in infos:
        assert (info.link, info.locator, info.available) == ("network", f"network:sn:{info.serial_number}", True)
        assert (info.vid, info.pid, info.description) == (None, None, None)
        assert info.record["network-host"] == "127.0.0.1"
    with pytest.raises(ValueError):
        km.list_device_infos(include_locator=True)


def test_a_device_opened_by_serial_number_echoes(simulator):
    sim = simulator(prefix="PYE", count=1)
    payload = os.urandom(64 * 1024)
    with km.open(f"network:sn:{sim.serials[0]}", iface=LOOPBACK) as dev:
        dev.send(payload)
        assert read_exactly(dev, len(payload)) == payload


def test_a_device_opened_by_host_and_port_echoes(simulator):
    sim = simulator(prefix="PYH", count=1)
    with km.open("network:127.0.0.1", port=sim.first_port, connect_timeout=2000) as dev:
        dev.send(b"hello\n")
        assert read_exactly(dev, 6) == b"hello\n"


def test_a_stopped_device_is_raised_as_link_lost(simulator):
    sim = simulator(prefix="PYX", count=1)
    with km.open(f"network:127.0.0.1:{sim.first_port}") as dev:
        dev.send(b"ok")
        assert read_exactly(dev, 2) == b"ok"
        sim.stop()
        with pytest.raises(km.LinkLostError) as caught:
            dev.read(timeout=WAIT)
        assert caught.value.code == 7


def test_watch_reports_devices_that_appear_and_vanish(simulator):
    with km.watch(iface=LOOPBACK) as watcher:
        sim = simulator(prefix="PYW", count=1)
        serial = sim.serials[0]
        appeared = next_event(watcher, "appear", serial)
        assert appeared is not None
        assert appeared.kind is km.EventKind.APPEAR and appeared.kind == "appear"
        assert appeared.locator == f"network:sn:{serial}"
        assert (appeared.host, appeared.port) == ("127.0.0.1", sim.first_port)
        assert appeared.available
        sim.stop()
        # A silent device is found gone by the next discovery pass it misses.
        km.list_devices(link="network", iface=LOOPBACK, force_rescan=True)
        vanished = next_event(watcher, "vanish", serial)
        assert vanished is not None and vanished.serial_number == serial
    assert watcher.closed
    start = time.monotonic()
    with pytest.raises(km.WatcherStopped):
        while True:
            watcher.get(timeout=30)  # events queued before the close can still be read
    assert time.monotonic() - start < 15  # a stopped watcher does not make readers wait out their timeout


def test_a_quiet_watcher_times_out_with_none():
    with km.watch(iface="network:none") as watcher:
        assert watcher.get(timeout=0.05) is None


def test_closing_a_watcher_restores_the_discovery_settings_it_changed():
    from kalometio import _globals as G

    km.set_global_options(discovery_iface="network:127.0.0.1", locator_format_network="host")
    try:
        with km.watch(iface="network:none", locator_format_network="sn"):
            assert G._current["discovery_iface"] == "network:none"
        assert G._current["discovery_iface"] == "network:127.0.0.1"
        assert G._current["locator_format_network"] == "host"
    finally:
        km.set_global_options(discovery_iface="network:none", locator_format_network="sn")


def test_only_one_watch_runs_at_a_time_and_a_failed_start_frees_the_slot():
    with km.watch(iface=LOOPBACK):
        with pytest.raises(RuntimeError):
            km.watch(iface=LOOPBACK)
    with pytest.raises(km.BadOptionsError):
        km.watch(iface="network:not-an-address")
    with km.watch(iface=LOOPBACK) as again:
        assert not again.closed


def test_iterating_a_watcher_ends_when_it_is_closed(simulator):
    watcher = km.watch(iface=LOOPBACK)
    sim = simulator(prefix="PYI", count=1)
    for event in watcher:
        if event.serial_number == sim.serials[0]:
            watcher.close()
    assert watcher.closed


def test_a_running_watch_is_stopped_at_interpreter_exit(simulator):
    sim = simulator(prefix="PYZ", count=1)
    code = (
        "import sys, kalometio as km\n"
        "watcher = km.watch(iface='network:127.0.0.1')\n"
        "km.list_devices(iface='network:127.0.0.1', force_rescan=True)\n"
        "event = watcher.get(timeout=10)\n"
        "print('event', event is not None, flush=True)\n"
    )
    result = run_python(code)
    assert result.returncode == 0, result.stderr
    assert result.stdout.strip() == "event True"
    assert sim.process.poll() is None
