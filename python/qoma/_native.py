"""The functions of the module QOMANoAgC (qoma_notify.h), as they are."""

from __future__ import annotations

import ctypes
import os
import pathlib
import select
from typing import Optional

FOREVER = 0xFFFFFFFF
NOTHING = 258
NO_PORT = 255
LOCAL, NETWORK = 0, 1
FLAG_SELECT = 1

_MAJOR = 1
_NAME = "QOMANoAgC.dll" if os.name == "nt" else "QOMANoAgC.so"


class Notification(ctypes.Structure):
    """A notification; size has to be set."""

    _fields_ = [
        ("size", ctypes.c_uint32),
        ("kind", ctypes.c_int32),
        ("notify_code", ctypes.c_uint32),
        ("value", ctypes.c_int32),
        ("word", ctypes.c_uint32),
        ("lost", ctypes.c_uint32),
        ("lost_kinds", ctypes.c_uint32),
        ("option", ctypes.c_char * 352),
        ("sender_address", ctypes.c_char * 16),
        ("sender_name", ctypes.c_char * 260),
    ]


def _places() -> list[pathlib.Path]:
    """Where the module may be: as told, beside this file (a wheel), in the tree that this package is installed in,
    in the system's."""
    told = os.environ.get("QOMA_LIBRARY")
    if told:
        return [pathlib.Path(told)]
    here = pathlib.Path(__file__).resolve().parent
    places = [here / _NAME]
    for prefix in (*here.parents, pathlib.Path("/usr/local"), pathlib.Path("/usr")):
        for pattern in (f"lib/*/qoma/{_NAME}", f"lib/qoma/{_NAME}", f"bin/{_NAME}"):
            places += sorted(prefix.glob(pattern))
    return places


def _load() -> ctypes.CDLL:
    places = _places()
    for place in places:
        if place.is_file():
            return ctypes.CDLL(str(place))
    raise ImportError(f"{_NAME} is not to be found ({places[0]} and the usual places); QOMA_LIBRARY can name it")


_library = _load()
_handle = ctypes.c_void_p
_text = ctypes.c_char_p
_number = ctypes.c_uint32
_number_out = ctypes.POINTER(_number)
for _function, _arguments in {
    "qoma_version": [],
    "qoma_strerror": [_number],
    "qoma_create": [_handle, _handle, ctypes.POINTER(_handle)],
    "qoma_destroy": [_handle],
    "qoma_connect": [_handle, _text, _number, _number],
    "qoma_restart": [_handle],
    "qoma_add": [_handle, _number, _text, _number_out],
    "qoma_delete": [_handle, _number, _text, _number],
    "qoma_modify": [_handle, _text, _text, _number_out],
    "qoma_discover": [_handle, _text, _number_out],
    "qoma_poll": [_handle, _number, ctypes.POINTER(Notification)],
    "qoma_descriptor": [_handle, ctypes.POINTER(ctypes.c_ssize_t)],
}.items():
    getattr(_library, _function).argtypes = _arguments
    getattr(_library, _function).restype = _number
_library.qoma_strerror.restype = _text

if _library.qoma_version() >> 16 != _MAJOR:
    raise ImportError(f"{_library._name} is of another major version than this package")


def version() -> str:
    number: int = _library.qoma_version()
    return f"{number >> 16}.{number >> 8 & 255}.{number & 255}"


def strerror(result: int) -> str:
    text: bytes = _library.qoma_strerror(result)
    return text.decode()


def encode(text: str) -> bytes:
    """The text for a function. ValueError for one with a zero inside, which would end it there."""
    if "\0" in text:
        raise ValueError("a text with a zero in it")
    return text.encode()


# Each returns the result, and with it what comes out.


def create() -> tuple[int, Optional[int]]:
    handle = _handle()
    result: int = _library.qoma_create(None, None, ctypes.byref(handle))
    return result, handle.value


def destroy(handle: int) -> int:
    result: int = _library.qoma_destroy(handle)
    return result


def connect(handle: int, address: Optional[str], port: int, way: int) -> int:
    result: int = _library.qoma_connect(handle, None if address is None else encode(address), port, way)
    return result


def restart(handle: int) -> int:
    result: int = _library.qoma_restart(handle)
    return result


def add(handle: int, flags: int, option: Optional[str]) -> tuple[int, int]:
    instance = _number()
    result: int = _library.qoma_add(handle, flags, None if option is None else encode(option), ctypes.byref(instance))
    return result, instance.value


def delete(handle: int, flags: int, option: Optional[str], instance: int) -> int:
    result: int = _library.qoma_delete(handle, flags, None if option is None else encode(option), instance)
    return result


def modify(handle: int, old_option: str, new_option: str, instance: int) -> tuple[int, int]:
    number = _number(instance)
    result: int = _library.qoma_modify(handle, encode(old_option), encode(new_option), ctypes.byref(number))
    return result, number.value


def discover(handle: int, target: str) -> tuple[int, int]:
    sequence = _number()
    result: int = _library.qoma_discover(handle, encode(target), ctypes.byref(sequence))
    return result, sequence.value


def poll(handle: int) -> tuple[int, Notification]:
    """What waits already."""
    notification = Notification(size=ctypes.sizeof(Notification))
    result: int = _library.qoma_poll(handle, 0, ctypes.byref(notification))
    return result, notification


def descriptor(handle: int) -> tuple[int, int]:
    """On POSIX one of the caller's own, which outlives the agent: nobody is to wait on another one's number."""
    number = ctypes.c_ssize_t()
    result: int = _library.qoma_descriptor(handle, ctypes.byref(number))
    return result, os.dup(number.value) if result == 0 and os.name != "nt" else number.value


def close_descriptor(number: int) -> None:
    if os.name != "nt":
        os.close(number)


def wait(number: int, seconds: Optional[float]) -> None:
    """Until the descriptor is ready, that long at most; Ctrl-C ends it. It may return earlier."""
    if os.name != "nt":
        poller = select.poll()
        poller.register(number, select.POLLIN)
        poller.poll(None if seconds is None else seconds * 1000)
    else:  # no wait there ends by Ctrl-C
        limit = 0.1 if seconds is None else min(seconds, 0.1)
        ctypes.CDLL("kernel32").WaitForSingleObject(ctypes.c_void_p(number), int(limit * 1000))
