"""The library's version, locator classes, and the device and interface lists."""

from __future__ import annotations

import ctypes
from dataclasses import dataclass, field
from typing import Dict, List, Optional, Tuple

from . import _globals as G
from . import _library as L
from .options import OptionValue, option_lines, option_text, parse_records

Record = Dict[str, str]

_LINKS = {"usb": L.IFACE_USB, "network": L.IFACE_NETWORK, "serial": L.IFACE_SERIAL}
_LINK_NAMES = {code: name for name, code in _LINKS.items()}


def version() -> Tuple[int, int, int]:
    """The loaded library's version as (major, minor, update), e.g. (2, 2, 0)."""
    major, minor, update = ctypes.c_uint32(), ctypes.c_uint32(), ctypes.c_uint32()
    L.check(
        L.lib().KM_IO_GetVersion(ctypes.byref(major), ctypes.byref(minor), ctypes.byref(update)), "version"
    )
    return major.value, minor.value, update.value


def locator_type(locator: str) -> str:
    """The link a locator names: "usb", "network" or "serial" (raises BadLocatorError otherwise)."""
    kind = ctypes.c_uint32()
    L.check(
        L.lib().KM_IO_GetLocatorInterfaceType(ctypes.byref(kind), locator.encode()), f"locator {locator!r}"
    )
    return _LINK_NAMES[kind.value]


def _with_every_key(options: Dict[str, OptionValue]) -> Dict[str, OptionValue]:
    """Records carry no keys unless asked for: ask for all of them unless the caller chose."""
    chosen = any(key.replace("_", "-").startswith(("include-", "only-")) for key in options)
    return options if chosen else {**options, "include_all": True}


def _enumerate(link: str, options: Dict[str, OptionValue]) -> str:
    L.run_deferred()
    if link not in ("usb", "network", "serial", "all"):
        raise ValueError(f"link must be usb, network, serial or all, not {link!r}")
    # The combined enumeration lists every link as records (the serial
    # listing of its own gives bare locators, and network has none).
    encoded = "\n".join(filter(None, [*option_lines("iface-type", link), option_text(options)])).encode()
    return L.read_text(
        lambda buffer, size: L.lib().KM_IO_EnumerateDevices(L.IFACE_ALL, encoded, buffer, ctypes.byref(size)),
        f"list {link} devices",
    )


def list_devices(link: str = "all", **options: OptionValue) -> List[Record]:
    """Lists devices as property records (dicts).

    Args:
        link: "usb", "serial", "network" or "all" (every link).
        **options: option lines, e.g. ``iface="network:all"`` (needed to find
            network devices), ``find_device_sn="KM000042"``, ``force_rescan=True``,
            ``include_device_sn=True`` (every key when no ``include_`` option is given).

    Example: ``for dev in list_devices(iface="network:all"): print(dev["locator"])``.
    """
    if options.get("only_locator"):
        raise ValueError("only_locator gives bare locators: use list_locators()")
    return parse_records(_enumerate(link, _with_every_key(options)))


@dataclass(frozen=True)
class DeviceInfo:
    """One listed device in a structured form.

    Attributes:
        link: "usb", "network" or "serial".
        locator: what :func:`kalometio.open` takes.
        serial_number: the device's serial number (USB and network; serial
            ports with ``serial_usb_info=True`` when a USB adapter has one).
        vid, pid: USB vendor and product ids (USB; serial with ``serial_usb_info``).
        description: the USB product text (USB; serial with ``serial_usb_info``).
        available: whether the device can be opened now (ports listed are).
        record: the full property record the library gave.
    """

    link: str
    locator: str
    serial_number: Optional[str] = None
    vid: Optional[int] = None
    pid: Optional[int] = None
    description: Optional[str] = None
    available: bool = True
    record: Record = field(default_factory=dict)

    @classmethod
    def from_record(cls, record: Record) -> "DeviceInfo":
        """Builds the structured form of one property record."""

        def number(key: str) -> Optional[int]:
            value = record.get(key)
            return int(value) if value else None

        return cls(
            link=record.get("iface-type", ""),
            locator=record.get("locator", ""),
            serial_number=record.get("device-sn"),
            vid=number("usb-vid"),
            pid=number("usb-pid"),
            description=record.get("usb-desc"),
            available=record.get("available", "1") == "1",
            record=dict(record),
        )


def list_device_infos(link: str = "all", **options: OptionValue) -> List[DeviceInfo]:
    """Lists devices as :class:`DeviceInfo` objects, with every key of each record.

    Takes the options of :func:`list_devices`, except the ``include_`` and
    ``only_`` ones (every key is read).
    """
    if any(key.replace("_", "-").startswith(("include-", "only-")) for key in options):
        raise ValueError("list_device_infos reads every key: leave out include_ and only_ options")
    return [DeviceInfo.from_record(record) for record in list_devices(link, **options)]


def list_locators(link: str = "all", **options: OptionValue) -> List[str]:
    """Lists the locators of the devices :func:`list_devices` would find."""
    return [line for line in _enumerate(link, {**options, "only_locator": True}).split("\n") if line]


def list_interfaces(**options: OptionValue) -> List[Record]:
    """Lists the host's network interfaces and serial ports as records.

    ``iface_type="network"`` or ``"serial"`` lists one kind.

    Every key is included unless an ``include_`` or ``only_`` option chooses."""
    L.run_deferred()
    encoded = option_text(_with_every_key(options)).encode()
    return parse_records(
        L.read_text(
            lambda buffer, size: L.lib().KM_IO_EnumerateInterfaces(encoded, buffer, ctypes.byref(size)),
            "list interfaces",
        )
    )


def set_global_options(**options: OptionValue) -> None:
    """Sets process-wide discovery options (``locator_format_network="host"``, ``discovery_iface=...``)."""
    L.run_deferred()
    L.check(L.lib().KM_IO_SetGlobalOptions(option_text(options).encode()), "set global options")
    G.record(options)
