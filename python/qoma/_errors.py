"""An exception for each result of the agent's."""

from __future__ import annotations

from typing import ClassVar

from . import _native


class Error(Exception):
    """What the agent or its access library could not do. A result without a class of its own raises this one."""

    #: The result's number.
    code: int
    _by_code: ClassVar[dict[int, type[Error]]] = {}

    def __init_subclass__(cls, *, code: int) -> None:
        cls.code = code
        Error._by_code[code] = cls

    def __init__(self, what: str, code: int) -> None:
        super().__init__(f"{what}: {_native.strerror(code)} ({code})")
        self.code = code


class Refused(Error, code=5):
    """The device does not allow this."""


class Closed(Error, code=6):
    """The agent has been closed."""


class NoMemory(Error, MemoryError, code=8):
    """An allocation failed."""


class BadAnswer(Error, code=13):
    """The device's answer makes no sense."""


class WrongLength(Error, code=24):
    """The text is too long for the device."""


class WriteFault(Error, code=29):
    """The discovery job could not be written whole."""


class DeviceFailed(Error, code=31):
    """The device tried and failed."""


class NotSupported(Error, code=50):
    """There is no such notification over a network."""


class NotSubscribed(Error, code=51):
    """What is to be taken back is not subscribed to."""


class InvalidParameter(Error, ValueError, code=87):
    """An empty text, or what is no known kind."""


class OpenFailed(Error, code=110):
    """The target of the discovery job could not be opened."""


class Timeout(Error, TimeoutError, code=121):
    """The device gave no answer in time."""


class Busy(Error, code=170):
    """Another host has it."""


class NoSuchObject(Error, code=1168):
    """The device knows no such entry."""


class BadAddress(Error, code=1214):
    """There is no address, or a name that nobody knows."""


class ConnectRefused(Error, ConnectionRefusedError, code=1225):
    """Nothing listens at that address and port."""


class Unreachable(Error, ConnectionError, code=1231):
    """There is no way to the device."""


class LinkLost(Error, ConnectionError, code=1236):
    """The link broke; the agent tries to get it back."""


class AlreadyConnected(Error, code=1247):
    """The agent is connected."""


class VersionMismatch(Error, code=1306):
    """The device speaks another version of the protocol."""


class WrongProductLine(Error, code=1307):
    """The device is of another product line."""


class NoResources(Error, code=1450):
    """Too many agents, or the system gives no descriptor."""


class DeviceFull(Error, code=1816):
    """The panel takes no more entries."""


class NotConnected(Error, code=2250):
    """The agent has no link to a device."""


def check(result: int, what: str) -> None:
    """Raises what belongs to the result, if it is not 0; what says what was to be done."""
    if result != 0:
        raise Error._by_code.get(result, Error)(what, result)
