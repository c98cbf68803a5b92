"""Option strings from keyword arguments, and record text into dicts.

Keyword arguments become the library's option lines: the name with ``_``
turned into ``-`` is the key, so ``connect_timeout=2000`` is the line
"connect-timeout 2000". ``True`` gives the bare key, ``False`` the value
"false", a list or tuple one line per item, and ``None`` no line at all.
"""

from __future__ import annotations

import re
from typing import Dict, Iterable, List, Mapping, Sequence, Union

Scalar = Union[str, int, bool, None]
OptionValue = Union[Scalar, Sequence[Scalar]]

_ESCAPE = re.compile(r"%([0-9A-Fa-f]{2})")


def option_lines(key: str, value: OptionValue) -> List[str]:
    """Returns the option lines of one keyword argument."""
    name = key.replace("_", "-")
    if not name or any(c.isspace() for c in name):
        raise ValueError(f"option name {key!r} is empty or contains blanks")
    if isinstance(value, (list, tuple)):
        return [line for item in value for line in option_lines(key, item)]
    if value is None:
        return []
    if value is True:
        return [name]
    if value is False:
        return [f"{name} false"]
    if isinstance(value, int):
        if value < 0:
            raise ValueError(f"option {name}: numbers are unsigned, not {value}")
        return [f"{name} {value}"]
    if isinstance(value, str):
        if "\n" in value or "\r" in value:
            raise ValueError(f"option {name}: a value cannot contain a line break")
        return [f"{name} {value}" if value else name]
    raise TypeError(f"option {name}: {type(value).__name__} is not a str, int, bool or list of them")


def option_text(options: Mapping[str, OptionValue]) -> str:
    """Joins keyword arguments into one option string (lines separated by line feeds)."""
    return "\n".join(line for key, value in options.items() for line in option_lines(key, value))


def _unescape(value: str) -> str:
    # The library writes '%' itself as %25, so every '%' starts an escape.
    return _ESCAPE.sub(lambda m: chr(int(m.group(1), 16)), value)


def parse_record(line: str) -> Dict[str, str]:
    """Parses one record line "key=value|key=value" into a dict, undoing the %XX escapes."""
    record: Dict[str, str] = {}
    for item in line.split("|"):
        key, sep, value = item.partition("=")
        if not sep:
            raise ValueError(f"not a record item: {item!r} in {line!r}")
        record[key] = _unescape(value)
    return record


def parse_records(text: str) -> List[Dict[str, str]]:
    """Parses record text (one record a line) into a list of dicts."""
    return [parse_record(line) for line in _lines(text)]


def _lines(text: str) -> Iterable[str]:
    return (line for line in text.split("\n") if line)
