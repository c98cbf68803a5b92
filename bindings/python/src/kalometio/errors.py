"""Exceptions raised for the library's result codes.

Every failing call raises a subclass of :class:`KmioError` named after its
result code, with the code in ``.code``, so callers can catch one kind of
failure (``except kalometio.NotFoundError``) or all of them
(``except kalometio.KmioError``).

:class:`KmioError` is an :class:`OSError`, as pyserial's ``SerialException``
is, so code written against pyserial that catches ``OSError`` keeps working.
The classes for a bad argument (a bad locator, bad options) are also
:class:`ValueError`, and the one for a lost connection is also
:class:`ConnectionError`.
"""

from __future__ import annotations

from typing import Dict, Optional, Type


class KmioError(OSError):
    """A call into libkmio failed.

    Attributes:
        code: the library's result code (1 to 15, see ``KM_IO_ERR_*``).
        name: the code's name without prefix, e.g. ``"NOT_FOUND"``.
    """

    code: int = 0
    name: str = "UNKNOWN"
    meaning: str = "unknown result code"

    def __init__(self, message: Optional[str] = None, code: Optional[int] = None) -> None:
        if code is not None:
            self.code = code
        text = f"{self.code} KM_IO_ERR_{self.name}: {self.meaning}"
        super().__init__(f"{message}: {text}" if message else text)


class NoFreeHandleError(KmioError):
    """All 64 handles are in use."""

    code, name, meaning = 1, "NO_FREE_HANDLE", "all 64 handles are in use"


class BadLocatorError(KmioError, ValueError):
    """The locator has no ':', an unknown prefix, or fields the link cannot use."""

    code, name, meaning = 2, "BAD_LOCATOR", "bad locator"


class NotFoundError(KmioError):
    """The device named by the locator was not found."""

    code, name, meaning = 3, "NOT_FOUND", "the device was not found"


class BadOptionsError(KmioError, ValueError):
    """The option string was refused (bad value, unknown key under "strict")."""

    code, name, meaning = 4, "BAD_OPTIONS", "bad options"


class OpenFailedError(KmioError):
    """The link could not be opened or configured."""

    code, name, meaning = 5, "OPEN_FAILED", "the link could not be opened or configured"


class InvalidHandleError(KmioError):
    """The handle is not open (the device was closed)."""

    code, name, meaning = 6, "INVALID_HANDLE", "the device is not open"


class LinkLostError(KmioError, ConnectionError):
    """The connection or device went away."""

    code, name, meaning = 7, "LINK_LOST", "the connection or device went away"


class LinkFailedError(KmioError):
    """Receiving failed for another reason (for example a serial hang-up)."""

    code, name, meaning = 8, "LINK_FAILED", "receiving failed"


class SendFailedError(KmioError):
    """Sending failed."""

    code, name, meaning = 9, "SEND_FAILED", "sending failed"


class NotSupportedError(KmioError):
    """The interface type cannot be listed, or a property could not be read."""

    code, name, meaning = 10, "NOT_SUPPORTED", "not supported"


class UnknownPropertyError(KmioError):
    """The device has no property of that name."""

    code, name, meaning = 11, "UNKNOWN_PROPERTY", "unknown property"


class BufferTooSmallError(KmioError):
    """A text did not fit (the package retries, so this is not normally seen)."""

    code, name, meaning = 12, "BUFFER_TOO_SMALL", "buffer too small"


class EnumerationFailedError(KmioError):
    """Listing devices or interfaces failed."""

    code, name, meaning = 13, "ENUMERATION_FAILED", "enumeration failed"


class DriverUnavailableError(KmioError):
    """The USB driver library or its functions are not available."""

    code, name, meaning = 14, "DRIVER_UNAVAILABLE", "the USB driver is not available"


class WrongEventTypeError(KmioError):
    """An event record was read with the accessor of another event type."""

    code, name, meaning = 15, "WRONG_EVENT_TYPE", "wrong event type"


ERRORS_BY_CODE: Dict[int, Type[KmioError]] = {
    cls.code: cls
    for cls in (
        NoFreeHandleError,
        BadLocatorError,
        NotFoundError,
        BadOptionsError,
        OpenFailedError,
        InvalidHandleError,
        LinkLostError,
        LinkFailedError,
        SendFailedError,
        NotSupportedError,
        UnknownPropertyError,
        BufferTooSmallError,
        EnumerationFailedError,
        DriverUnavailableError,
        WrongEventTypeError,
    )
}


def error_for(code: int, message: Optional[str] = None) -> KmioError:
    """Returns the exception for a result code (a plain KmioError for codes this version does not know)."""
    cls = ERRORS_BY_CODE.get(code)
    if cls is None:
        return KmioError(message, code=code)
    return cls(message)


class ReceiveOverflowError(BufferError):
    """Received bytes were dropped because too many waited unread.

    A device queues what arrives until :meth:`Device.read` takes it, up to
    ``receive_limit`` bytes (``kalometio.open(..., receive_limit=N)``, 16 MiB
    by default). The library's receiving thread never waits for a reader, so
    blocks that arrive while the queue is full are dropped. The read that
    reaches the gap returns the bytes received before it; the next read
    raises this error once; reads after it return what arrived after the
    gap. It is not a result code of the library, so it is no KmioError.
    """
