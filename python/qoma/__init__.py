"""Notifications from a multifunction peripheral.

    import qoma

    with qoma.Agent("192.168.1.20") as agent:
        agent.add("Paper Archive")
        for event in agent:
            print(event.kind, event.text)

An agent is connected when it has been made, and disconnected when its block ends. Any thread may call anything.
What happens at the device is asked for, by iterating (also ``async for``) or with Agent.poll; no thread that is
not Python's own ever calls in. After a link was lost and found again, everything that was subscribed to is
subscribed to again before Kind.RECOVERED is handed out. Each result of the agent's has its exception, below Error.
"""

from ._agent import Agent, Entry, Event, Kind, Subscription
from ._errors import (
    AlreadyConnected,
    BadAddress,
    BadAnswer,
    Busy,
    Closed,
    ConnectRefused,
    DeviceFailed,
    DeviceFull,
    Error,
    InvalidParameter,
    LinkLost,
    NoMemory,
    NoResources,
    NoSuchObject,
    NotConnected,
    NotSubscribed,
    NotSupported,
    OpenFailed,
    Refused,
    Timeout,
    Unreachable,
    VersionMismatch,
    WriteFault,
    WrongLength,
    WrongProductLine,
)
from ._native import version

__version__ = version()

__all__ = [
    "Agent",
    "AlreadyConnected",
    "BadAddress",
    "BadAnswer",
    "Busy",
    "Closed",
    "ConnectRefused",
    "DeviceFailed",
    "DeviceFull",
    "Entry",
    "Error",
    "Event",
    "InvalidParameter",
    "Kind",
    "LinkLost",
    "NoMemory",
    "NoResources",
    "NoSuchObject",
    "NotConnected",
    "NotSubscribed",
    "NotSupported",
    "OpenFailed",
    "Refused",
    "Subscription",
    "Timeout",
    "Unreachable",
    "VersionMismatch",
    "WriteFault",
    "WrongLength",
    "WrongProductLine",
]
