"""The process-wide options this package has set, so that a watcher can put
back what it changed when it stops. The library has no call that reads its
global options, so the package keeps the record; settings made around the
package (by C code in the same process) are not known here.
"""

from __future__ import annotations

import threading
from typing import Dict, Iterable

from .options import OptionValue

# What the library starts with for each key this package restores.
_DEFAULTS: Dict[str, OptionValue] = {"discovery_iface": "network:none", "locator_format_network": "sn"}
_lock = threading.Lock()
_current: Dict[str, OptionValue] = dict(_DEFAULTS)
_saved: Dict[str, OptionValue] = {}


def record(settings: Dict[str, OptionValue]) -> None:
    """Notes settings the library accepted."""
    with _lock:
        _current.update(settings)


def remember_before(settings: Dict[str, OptionValue]) -> None:
    """Saves the values in force for the keys about to change."""
    with _lock:
        _saved.clear()
        _saved.update({key: _current[key] for key in settings if key in _current})


def restorable(keys: Iterable[str]) -> Dict[str, OptionValue]:
    """The saved values of these keys (those a watcher changed), made current again."""
    with _lock:
        restored = {key: _saved.get(key, _current.get(key, _DEFAULTS[key])) for key in keys}
        _current.update(restored)
        return restored
