"""Keyword arguments to option lines, and record text to dicts."""

import pytest

from kalometio.options import option_text, parse_record, parse_records


@pytest.mark.parametrize(
    "options, text",
    [
        ({"baudrate": 115200}, "baudrate 115200"),
        ({"connect_timeout": 2000}, "connect-timeout 2000"),
        ({"iface": "network:127.0.0.1"}, "iface network:127.0.0.1"),
        (
            {"iface": ["network:10.0.0.1", "network:10.0.0.2"]},
            "iface network:10.0.0.1\niface network:10.0.0.2",
        ),
        ({"strict": True}, "strict"),
        ({"find_only_available": False}, "find-only-available false"),
        ({"find_device_sn": None}, ""),
        ({"only_locator": ""}, "only-locator"),
        ({"baudrate": 9600, "xonxoff": True, "strict": True}, "baudrate 9600\nxonxoff\nstrict"),
        ({}, ""),
    ],
)
def test_keyword_arguments_become_option_lines(options, text):
    assert option_text(options) == text


@pytest.mark.parametrize(
    "options, error",
    [
        ({"info": "two\nlines"}, ValueError),
        ({"info": "carriage\rreturn"}, ValueError),
        ({"port": -1}, ValueError),
        ({"delay": 1.5}, TypeError),
        ({"iface": [b"network:all"]}, TypeError),
    ],
)
def test_values_the_option_language_cannot_carry_are_refused(options, error):
    with pytest.raises(error):
        option_text(options)


@pytest.mark.parametrize(
    "line, record",
    [
        ("locator=serial:/dev/ttyS0", {"locator": "serial:/dev/ttyS0"}),
        ("a=1|b=|c=x", {"a": "1", "b": "", "c": "x"}),
        ("device-info=a%7Cb%3Dc%25d%0Ae", {"device-info": "a|b=c%d\ne"}),
        ("device-info=%2541", {"device-info": "%41"}),
    ],
)
def test_record_lines_are_split_and_unescaped(line, record):
    assert parse_record(line) == record


def test_record_text_gives_one_dict_per_line():
    assert parse_records("a=1\nb=2") == [{"a": "1"}, {"b": "2"}]
    assert parse_records("") == []


def test_a_record_item_without_equals_sign_is_an_error():
    with pytest.raises(ValueError):
        parse_record("network:sn:KM1")
