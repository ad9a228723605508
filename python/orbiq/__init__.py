"""Audience measurement for Python applications, over the C interface of liborbiq.

    import orbiq

    orbiq.describe(bundle_identifier="tv.example.player",
                   authorization_server="https://auth.example/tag/")
    orbiq.Tagger("ABC").send_hit()  # returns at once
    orbiq.flush(5)                  # only where the process ends soon

Everything may be called from any thread, the device identifier from one at a time. What goes wrong is
raised as `Error`; so is a text with a zero character or a lone surrogate, which C does not have. The
library's log goes to the logger "orbiq" of the module `logging` from `describe` on, and to standard error
before.
"""

import atexit
import ctypes
import dataclasses
import logging
import re
from collections.abc import Callable
from ctypes import POINTER, byref, c_bool, c_char, c_char_p, c_double, c_int32, c_size_t, c_uint64
from ctypes import c_void_p as Handle

__all__ = ["DescriptionRefused", "Error", "Statistics", "Tagger", "describe", "device_identifier",
           "flush", "reset_device_identifier", "statistics", "version",
           "will_enter_foreground"]

_NONE, _ARGUMENT, _REFUSED, _BUFFER, _TIMEOUT = 1, -1, -2, -3, -8
_LEVELS = (logging.INFO, logging.WARNING, logging.ERROR)
_COUNTS = ("accepted", "sent", "refused", "answered_with_another_status", "given_up", "pushed_out",
           "discarded_at_start", "discarded_at_network_return", "pending",
           "additions_waiting_high_water")

_LogSink = ctypes.CFUNCTYPE(None, Handle, c_int32, c_char_p, c_size_t, c_double)
_AdvertisingIdentifier = ctypes.CFUNCTYPE(c_bool, Handle, POINTER(c_char), c_size_t)


class _Statistics(ctypes.Structure):
    _fields_ = [*((name, c_uint64) for name in _COUNTS), ("last_success", c_double)]


_library = ctypes.CDLL("liborbiq.so.1")
_text = (c_char_p, c_size_t, POINTER(c_size_t))
for _name, _arguments in {
        "host_free": (Handle,),
        "host_set_text": (Handle, c_int32, c_char_p),
        "host_set_main_screen": (Handle, c_double, c_double, c_double, c_double),
        "host_set_user_interface_idiom": (Handle, c_int32),
        "host_set_durable": (Handle, c_bool),
        "host_set_assume_reachable": (Handle, c_bool),
        "host_set_log_sink": (Handle, _LogSink, Handle),
        "host_set_advertising_identifier": (Handle, _AdvertisingIdentifier, Handle),
        "host_describe": (Handle, c_char_p, c_size_t),
        "tagger_with_serial": (c_char_p, POINTER(Handle)),
        "tagger_send_hit": (Handle,),
        "tagger_set_use_idfa": (Handle, c_bool),
        "tagger_get_use_idfa": (Handle, POINTER(c_bool)),
        "set_logging_mode": (c_int32,),
        "flush": (c_double,),
        "get_statistics": (POINTER(_Statistics), c_size_t),
        "last_failure": _text,
        "device_identifier": _text}.items():
    getattr(_library, f"orbiq_{_name}").argtypes = _arguments
_library.orbiq_host_new.restype = Handle
_library.orbiq_version.restype = _library.orbiq_status_text.restype = c_char_p

# What the library calls must live as long as it may.
_kept: list[object] = []
atexit.register(_library.orbiq_remove_log_sink)


class Error(Exception):
    """A call that failed. `status` is the number of orbiq_c.h."""

    def __init__(self, status: int, text: str | None = None) -> None:
        super().__init__(text or _library.orbiq_status_text(status).decode())
        self.status = status


class DescriptionRefused(Error):
    """The description cannot be used, or the library is in use already; says why."""


def _check(status: int) -> int:
    if status < 0:
        raise Error(status)
    return status


def _encoded(text: str) -> bytes:
    """For C, which would cut the text at a zero character."""
    if re.search(r"[\0\ud800-\udfff]", text):
        raise Error(_ARGUMENT, f"{text!r} has a zero character or a lone surrogate")
    return text.encode()


def _read(function: Callable[..., int]) -> str | None:
    """The text that a function gives out."""
    capacity = 200
    while True:
        buffer, length = ctypes.create_string_buffer(capacity), c_size_t()
        status = function(buffer, capacity, byref(length))
        if status != _BUFFER:
            return None if _check(status) == _NONE else buffer.value.decode()
        capacity = length.value + 100  # it may grow meanwhile


def _set_logging_level(level: int) -> None:
    _check(_library.orbiq_set_logging_mode(sum(level > each for each in _LEVELS)))


def describe(*, bundle_identifier: str | None = None, bundle_name: str | None = None,
             short_version: str | None = None, authorization_server: str | None = None,
             library_directory: str | None = None, ca_bundle: str | None = None,
             main_screen: tuple[float, float, float, float] | None = None,
             user_interface_idiom: int | None = None, durable: bool = False,
             assume_reachable: bool = False,
             advertising_identifier: Callable[[], str | None] | None = None,
             logger: logging.Logger | None = None, logging_level: int | None = None) -> None:
    """Describes the application and the device, before the first tagger. The last description counts.

    What is left out has the default of the same field of `orbiq::HostDescription`; the screen is
    width and height in points, scale, and native scale or 0. `advertising_identifier` is asked at
    each hit, on the thread that sends it; an error there leaves the hit without one. `logger` gets
    the log; it must not call this module. `logging_level` is the library's own threshold, as a level
    of `logging`, and counts from the start on; without one, only errors are logged. Raises
    `DescriptionRefused`."""
    taker = logger or logging.getLogger("orbiq")

    def log(_context: int, mode: int, text: bytes, _length: int, _time: float) -> None:
        line = text.decode(errors="replace")
        taker.log(_LEVELS[min(mode, 2)], "%s", re.sub(r"^\((INFO|WARNING|ERROR)\) : ", "", line))

    def identify(_context: int, buffer: "ctypes._Pointer[c_char]", capacity: int) -> bool:
        text = advertising_identifier() if advertising_identifier else None
        data = _encoded(text or "") + b"\0"
        if text is None or len(data) > capacity:
            return False
        ctypes.memmove(buffer, data, len(data))
        return True

    sink, identifier = _LogSink(log), _AdvertisingIdentifier(identify)
    host = Handle(_library.orbiq_host_new())
    try:
        for which, value in enumerate((bundle_identifier, bundle_name, short_version,
                                       authorization_server, library_directory, ca_bundle)):
            if value is not None:
                _check(_library.orbiq_host_set_text(host, which, _encoded(value)))
        if main_screen is not None:
            _check(_library.orbiq_host_set_main_screen(host, *main_screen))
        if user_interface_idiom is not None:
            _check(_library.orbiq_host_set_user_interface_idiom(host, user_interface_idiom))
        _check(_library.orbiq_host_set_durable(host, durable))
        _check(_library.orbiq_host_set_assume_reachable(host, assume_reachable))
        _check(_library.orbiq_host_set_log_sink(host, sink, None))
        if advertising_identifier is not None:
            _check(_library.orbiq_host_set_advertising_identifier(host, identifier, None))
        _kept.append((sink, identifier))
        reason = ctypes.create_string_buffer(1000)
        status = _library.orbiq_host_describe(host, reason, len(reason))
        if status == _REFUSED:
            raise DescriptionRefused(status, reason.value.decode(errors="replace"))
        _check(status)
        if logging_level is not None:
            _set_logging_level(logging_level)
    finally:
        _library.orbiq_host_free(host)


class Tagger:
    """Counts audience events for one customer account, which its serial names.

    The process has one tagger for each serial; a further object of this class stands for the same."""

    def __init__(self, serial: str) -> None:
        self.serial = serial
        self._handle = Handle()
        _check(_library.orbiq_tagger_with_serial(_encoded(serial), byref(self._handle)))

    def send_hit(self) -> None:
        """Counts one event. Returns at once; what becomes of the hit, `statistics` tells."""
        _check(_library.orbiq_tagger_send_hit(self._handle))

    @property
    def use_idfa(self) -> bool:
        """Whether each hit's parameters hold the advertising identifier; true at first.

        They are saved and logged, and this version sends none of them."""
        use = c_bool()
        _check(_library.orbiq_tagger_get_use_idfa(self._handle, byref(use)))
        return use.value

    @use_idfa.setter
    def use_idfa(self, use: bool) -> None:
        _check(_library.orbiq_tagger_set_use_idfa(self._handle, use))

    def set_logging_level(self, level: int) -> None:
        """Changes `logging_level` of `describe` later, for the whole library."""
        _set_logging_level(level)


def flush(timeout: float = 5) -> bool:
    """Waits until every hit accepted so far is settled, at most so many seconds: True if they are.

    Sends nothing earlier. For a process that ends soon after its last hit."""
    status = _library.orbiq_flush(timeout)
    return status != _TIMEOUT and _check(status) == 0


@dataclasses.dataclass(frozen=True)
class Statistics:
    """What became of every hit: `accepted` is the sum of the eight counts that follow it."""

    accepted: int
    sent: int
    refused: int
    answered_with_another_status: int
    given_up: int
    pushed_out: int
    discarded_at_start: int
    discarded_at_network_return: int
    pending: int
    additions_waiting_high_water: int
    #: Seconds since 1970 (UTC); 0 before the first success.
    last_success: float
    #: Why the last hit that failed did, or why all wait; None before the first failure.
    last_failure: str | None


def statistics() -> Statistics:
    """The counts since the process began."""
    counts = _Statistics()
    _check(_library.orbiq_get_statistics(byref(counts), ctypes.sizeof(counts)))
    return Statistics(**{name: getattr(counts, name) for name, _ in _Statistics._fields_},
                      last_failure=_read(_library.orbiq_last_failure))


def will_enter_foreground() -> None:
    """To be called when the application comes back to the foreground: the queue is looked at again."""
    _check(_library.orbiq_post_will_enter_foreground())


def device_identifier() -> str:
    """The device's identifier: 36 characters, made and kept at the first call. May wait for the disk.

    One thread at a time, as is the next."""
    return _read(_library.orbiq_device_identifier) or ""


def reset_device_identifier() -> None:
    """Forgets the identifier; the next one is another."""
    _check(_library.orbiq_device_identifier_reset())


def version() -> str:
    """The library's version, such as "1.0.0"."""
    return str(_library.orbiq_version().decode()).removeprefix("orbiq ")
