"""KalometIO for Python: open devices over USB, serial ports and the network,
list them, and hear about network devices that appear and vanish.

A thin layer over the C library libkmio through ctypes::

    import kalometio as km

    for dev in km.list_devices(iface="network:all"):
        print(dev["locator"], dev.get("device-info"))
    with km.open("serial:/dev/ttyUSB0", baudrate=115200) as dev:
        dev.send(b"...")
        reply = dev.read(timeout=1.0)
    for event in km.watch(iface="network:all"):
        print(event.kind, event.serial_number)

The library is the one named by the KMIO_LIBRARY environment variable, or the
installed libkmio.so.2.
"""

from .device import Device, open
from .enumeration import (
    DeviceInfo,
    list_device_infos,
    list_devices,
    list_interfaces,
    list_locators,
    locator_type,
    set_global_options,
    version,
)
from .errors import (
    BadLocatorError,
    BadOptionsError,
    BufferTooSmallError,
    DriverUnavailableError,
    EnumerationFailedError,
    InvalidHandleError,
    KmioError,
    LinkFailedError,
    LinkLostError,
    NoFreeHandleError,
    NotFoundError,
    NotSupportedError,
    ReceiveOverflowError,
    OpenFailedError,
    SendFailedError,
    UnknownPropertyError,
    WrongEventTypeError,
)
from .events import DiscoveryEvent, EventKind, Watcher, WatcherStopped, watch
from .options import option_text
from .streams import open_connection

__version__ = "2.2.0"

__all__ = [
    "BadLocatorError",
    "BadOptionsError",
    "BufferTooSmallError",
    "Device",
    "DeviceInfo",
    "DiscoveryEvent",
    "DriverUnavailableError",
    "EventKind",
    "EnumerationFailedError",
    "InvalidHandleError",
    "KmioError",
    "LinkFailedError",
    "LinkLostError",
    "NoFreeHandleError",
    "NotFoundError",
    "NotSupportedError",
    "OpenFailedError",
    "ReceiveOverflowError",
    "SendFailedError",
    "UnknownPropertyError",
    "Watcher",
    "WatcherStopped",
    "WrongEventTypeError",
    "list_device_infos",
    "list_devices",
    "list_interfaces",
    "list_locators",
    "locator_type",
    "open_connection",
    "option_text",
    "set_global_options",
    "version",
    "watch",
]
