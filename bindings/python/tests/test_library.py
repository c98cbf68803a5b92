"""The loaded library: version, locators, result codes as exceptions, listings."""

import os
import re
from pathlib import Path

import pytest

import kalometio as km
from kalometio.errors import ERRORS_BY_CODE, error_for

from conftest import run_python

HEADER = Path(__file__).resolve().parents[3] / "include" / "kmio" / "kmio.h"


def test_version_is_the_library_release():
    assert km.version() == (2, 2, 0)


@pytest.mark.parametrize(
    "locator, link",
    [("usb:sn:KM123456", "usb"), ("network:sn:KM000042", "network"), ("serial:/dev/ttyUSB0", "serial")],
)
def test_locators_are_classified_by_prefix(locator, link):
    assert km.locator_type(locator) == link


@pytest.mark.parametrize("locator", ["nocolon", "floppy:a", "Serial:/dev/ttyS0"])
def test_unknown_locator_prefixes_raise_bad_locator(locator):
    with pytest.raises(km.BadLocatorError) as caught:
        km.locator_type(locator)
    assert caught.value.code == 2


@pytest.mark.skipif(not HEADER.exists(), reason="needs the source tree's header")
def test_every_result_code_of_the_header_has_its_exception():
    codes = {int(n): name for name, n in re.findall(r"#define KM_IO_ERR_(\w+) (\d+)u", HEADER.read_text())}
    assert len(codes) == 15
    for code, name in codes.items():
        error = error_for(code)
        assert type(error) is ERRORS_BY_CODE[code]
        assert isinstance(error, km.KmioError)
        assert (error.code, error.name) == (code, name)
        assert f"KM_IO_ERR_{name}" in str(error)


@pytest.mark.parametrize(
    "code, also",
    [(2, ValueError), (4, ValueError), (7, ConnectionError), (3, OSError), (9, OSError), (99, OSError)],
)
def test_errors_are_os_errors_and_the_builtin_kind_that_fits(code, also):
    error = error_for(code, "call")
    assert isinstance(error, OSError) and isinstance(error, also)
    with pytest.raises(also):
        raise error


def test_import_star_does_not_shadow_the_builtin_open():
    namespace = {}
    exec("from kalometio import *", namespace)
    assert "open" not in namespace and callable(km.open)


def test_a_code_this_version_does_not_know_is_a_plain_kmio_error():
    error = error_for(99, "call")
    assert type(error) is km.KmioError and error.code == 99


@pytest.mark.parametrize(
    "locator, options, error, code",
    [
        ("nocolon", {}, km.BadLocatorError, 2),
        ("floppy:a", {}, km.BadLocatorError, 2),
        ("serial:/dev/kmio-no-such-tty", {"baudrate": 9600}, km.OpenFailedError, 5),
        ("network:127.0.0.1", {}, km.BadOptionsError, 4),
        ("network:127.0.0.1:x", {}, km.BadOptionsError, 4),
        (
            "network:127.0.0.1:55550",
            {"connect_timeout": 500, "strict": True, "no_such_key": 1},
            km.BadOptionsError,
            4,
        ),
    ],
)
def test_failed_opens_raise_the_exception_of_their_result_code(locator, options, error, code):
    with pytest.raises(error) as caught:
        km.open(locator, **options)
    assert caught.value.code == code


def test_a_serial_port_without_baudrate_is_refused(pty):
    _, path = pty
    with pytest.raises(km.BadOptionsError):
        km.open(f"serial:{path}")


def test_interface_records_carry_every_key_unless_chosen():
    records = km.list_interfaces()
    assert all(r["iface-type"] in ("network", "serial") for r in records)
    assert all("name" in r for r in records)
    serial = km.list_interfaces(iface_type="serial")
    assert all(r["iface-type"] == "serial" and r["serial-port"].startswith("/dev/") for r in serial)
    only_names = km.list_interfaces(iface_type="serial", include_name=True)
    assert [r.keys() for r in only_names] == [{"name"}] * len(serial)


def test_listing_an_unknown_link_is_a_value_error():
    with pytest.raises(ValueError):
        km.list_devices(link="floppy")


def test_serial_listing_gives_serial_locators():
    assert all(r["locator"].startswith("serial:") for r in km.list_devices(link="serial"))


def test_a_missing_library_is_reported_with_where_it_was_looked_for(tmp_path):
    missing = tmp_path / "libkmio.so.2"
    result = run_python(
        "import os, kalometio as km\n"
        "os.environ['KMIO_LIBRARY'] = os.sys.argv[1]\n"
        "try:\n    km.version()\nexcept OSError as e:\n    print(e)\n",
        str(missing),
    )
    assert result.returncode == 0, result.stderr
    assert str(missing) in result.stdout and "KMIO_LIBRARY" in result.stdout


def test_the_package_loads_the_library_kmio_library_names():
    chosen = os.environ.get("KMIO_LIBRARY")
    if not chosen:
        pytest.skip("KMIO_LIBRARY not set: the installed library is used")
    result = run_python(
        "import kalometio as km, ctypes\n"
        "km.version()\n"
        "from kalometio import _library\n"
        "print(_library.lib()._name)\n"
    )
    assert result.returncode == 0, result.stderr
    assert result.stdout.strip() == chosen
