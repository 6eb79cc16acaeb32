"""Agents, what they subscribe to, and what they hear."""

from __future__ import annotations

import asyncio
import collections
import dataclasses
import enum
import os
import re
import threading
import time
import weakref
from types import TracebackType
from typing import AsyncIterator, Iterator, Optional

from . import _native
from ._errors import Closed, Error, LinkLost, NoSuchObject, NotConnected, NotSubscribed, WrongProductLine, check


class Kind(enum.IntEnum):
    """What an event is about."""

    #: A user picked one of the entries on the device's panel.
    SELECT = 0
    #: The document feeder changed: Event.value is 1 for loaded, 0 for empty. Local links only.
    FEEDER = 1
    #: The scan button was pressed, and this host has the press. Local links only.
    BUTTON = 2
    #: The link was lost and is back.
    RECOVERED = 3
    #: A fax waits for upload.
    FAX = 4


_KINDS = frozenset(Kind)
_FLAGS = {Kind.FEEDER: 2, Kind.BUTTON: 4, Kind.FAX: 8}


@dataclasses.dataclass(frozen=True)
class Event:
    """Something that happened at the device."""

    kind: Kind
    #: With a selection the text of the entry.
    text: str = ""
    #: With a selection the entry, unless it has been deleted since.
    entry: Optional[Entry] = None
    #: With the feeder 1 or 0.
    value: int = 0
    #: With a selection the whole text as the device sent it.
    option: str = ""
    #: A selection's sender over a network, as dotted address and host name; the name may be empty.
    sender_address: str = ""
    sender_name: str = ""
    #: How many events were lost right before this one, as more than 1024 waited, and of which kinds.
    lost: int = 0
    lost_kinds: frozenset[Kind] = frozenset()
    #: With RECOVERED what could not be subscribed to again; the next recovery tries again.
    errors: tuple[Error, ...] = ()


def _check_unless_gone(result: int, what: str) -> None:
    """Raises what belongs to the result, unless that says that the device holds nothing of ours any more."""
    try:
        check(result, what)
    except (LinkLost, NotConnected, WrongProductLine, NoSuchObject, NotSubscribed, Closed):
        pass


class _Held:
    """Something that the device holds for us, until delete, the end of its block or that of the agent."""

    def __init__(self, agent: Agent) -> None:
        self._agent = agent

    def _make(self) -> None:
        raise NotImplementedError

    def _take_back(self) -> None:
        raise NotImplementedError

    def delete(self) -> None:
        """Takes it back; once is enough. What the device has lost anyway counts as taken back."""
        with self._agent._lock:
            if self in self._agent._held:
                self._take_back()
                self._agent._held.remove(self)

    def __exit__(
        self, kind: Optional[type[BaseException]], error: Optional[BaseException], trace: Optional[TracebackType]
    ) -> None:
        self.delete()


class Entry(_Held):
    """An entry on the device's panel. Agent.add makes it."""

    def __init__(self, agent: Agent, text: str) -> None:
        super().__init__(agent)
        self._text = text
        self._instance = 0

    @property
    def text(self) -> str:
        """What the panel shows."""
        return self._text

    @property
    def instance(self) -> int:
        """The number that the entry has at present."""
        return self._instance

    def rename(self, text: str) -> None:
        """Replaces the entry by one with another text. When that fails, it may be gone, and is then made again
        with the next recovery."""
        with self._agent._lock:
            old = self._text
            result, self._instance = _native.modify(self._agent._handle, old, text, self._instance)
            check(result, f"cannot rename the entry {old!r} to {text!r}")
            self._text = text

    def _make(self) -> None:
        result, self._instance = _native.add(self._agent._handle, _native.FLAG_SELECT, self._text)
        check(result, f"cannot add the entry {self._text!r}")

    def _take_back(self) -> None:
        result = _native.delete(self._agent._handle, _native.FLAG_SELECT, self._text, self._instance)
        _check_unless_gone(result, f"cannot delete the entry {self._text!r}")

    def __enter__(self) -> Entry:
        return self

    def __repr__(self) -> str:
        return f"<qoma.Entry {self._text!r}>"


class Subscription(_Held):
    """What Agent.subscribe has subscribed to."""

    def __init__(self, agent: Agent, kinds: tuple[Kind, ...]) -> None:
        super().__init__(agent)
        #: What it is about.
        self.kinds = kinds
        self._made: list[Kind] = []

    def _make(self) -> None:
        for kind in self.kinds:
            result, _ = _native.add(self._agent._handle, _FLAGS[kind], None)
            check(result, f"cannot subscribe to {kind.name}")
            self._made.append(kind)

    def _take_back(self) -> None:
        for kind in tuple(self._made):
            result = _native.delete(self._agent._handle, _FLAGS[kind], None, 0)
            _check_unless_gone(result, f"cannot end the subscription to {kind.name}")
            self._made.remove(kind)

    def __enter__(self) -> Subscription:
        return self


class Agent:
    """One device, connected.

    address: over a network the device's dotted IPv4 address or host name; with local the name that this client
    wants to have at the device, if any. port: the device's TCP port, if it is not the usual one. local: a device at
    this machine. resubscribe: whether subscriptions are made again after a recovery.

    Raises what belongs to the result when the device cannot be had. The end of the block closes it, and so does
    the end of the program.
    """

    def __init__(
        self, address: Optional[str] = None, *, port: Optional[int] = None, local: bool = False, resubscribe: bool = True
    ) -> None:
        self._resubscribe = resubscribe
        self._lock = threading.RLock()  # held while the device is told of a change, and for changes of _held
        self._held: list[_Held] = []
        self._waiting = threading.Lock()  # over the two below
        self._waiters = 0
        self._descriptor = -1
        self._put_back: collections.deque[_native.Notification] = collections.deque()
        result, handle = _native.create()
        check(result, "cannot make an agent")
        assert handle is not None
        self._handle = handle
        self._end = weakref.finalize(self, _native.destroy, handle)
        try:
            way = _native.LOCAL if local else _native.NETWORK
            result = _native.connect(handle, address, _native.NO_PORT if port is None else port, way)
            check(result, f"cannot connect to {'the local device' if local else address}")
            result, self._descriptor = _native.descriptor(handle)
            check(result, "cannot wait for events")
        except BaseException:
            self._end()
            raise
        self._end_descriptor = weakref.finalize(self, _native.close_descriptor, self._descriptor)

    def close(self) -> None:
        """Disconnects. Everybody who waits for events is let go; once is enough."""
        self._end()
        with self._waiting:
            if self._waiters == 0:
                self._end_descriptor()

    @property
    def closed(self) -> bool:
        """Whether it has been closed."""
        return not self._end.alive

    def add(self, text: str) -> Entry:
        """Puts an entry on the device's panel. It is there until it is deleted or the agent is closed."""
        entry = Entry(self, text)
        with self._lock:
            entry._make()
            self._held.append(entry)
        return entry

    def subscribe(self, *kinds: Kind) -> Subscription:
        """Subscribes to events other than selections and recoveries, to all of them or to none."""
        if not kinds or not all(kind in _FLAGS for kind in kinds):
            raise ValueError("subscribe takes Kind.FEEDER, Kind.BUTTON and Kind.FAX; add is for entries")
        subscription = Subscription(self, kinds)
        with self._lock:
            try:
                subscription._make()
            except Error:
                try:
                    subscription._take_back()
                except Error:
                    pass  # the first one tells
                raise
            self._held.append(subscription)
        return subscription

    def discover(self, target: str | os.PathLike[str]) -> int:
        """Writes a discovery job to a file, device or pipe that exists. The events that answer hold "SRVQ=" with
        the number that this returns."""
        result, sequence = _native.discover(self._handle, os.fspath(target))
        check(result, f"cannot write a discovery job to {target}")
        return sequence

    def restart(self) -> None:
        """Disconnects and connects again; RECOVERED follows."""
        check(_native.restart(self._handle), "cannot restart the link")

    def poll(self, timeout: Optional[float] = None) -> Optional[Event]:
        """The next event; None when none came in time (seconds; 0 does not wait, None waits for as long as it
        takes). Raises Closed when the agent is closed."""
        end = None if timeout is None else time.monotonic() + timeout
        while True:
            notification = self._take()
            if notification is not None:
                return self._event(notification)
            left = None if end is None else end - time.monotonic()
            if left is not None and left <= 0:
                return None
            number = self._begin_wait()
            try:
                _native.wait(number, left)
            finally:
                self._end_wait()

    async def wait(self) -> Event:
        """The next event, for asyncio: other tasks run meanwhile. What is cancelled loses none."""
        loop = asyncio.get_running_loop()
        while True:
            notification = self._take()
            if notification is not None:
                if not self._has_lost_subscriptions(notification):
                    return self._event(notification)
                try:
                    return await loop.run_in_executor(None, self._event, notification)
                except asyncio.CancelledError:
                    self._put_back.append(notification)
                    raise
            number = self._begin_wait()
            try:
                await _wait_in_loop(loop, number)
            finally:
                self._end_wait()

    def __iter__(self) -> Iterator[Event]:
        """The events, until the agent is closed."""
        while True:
            try:
                event = self.poll()
            except Closed:
                return
            if event is not None:
                yield event

    async def _events(self) -> AsyncIterator[Event]:
        while True:
            try:
                event = await self.wait()
            except Closed:
                return
            yield event

    def __aiter__(self) -> AsyncIterator[Event]:
        """As iterating, for asyncio."""
        return self._events()

    def __enter__(self) -> Agent:
        return self

    def __exit__(
        self, kind: Optional[type[BaseException]], error: Optional[BaseException], trace: Optional[TracebackType]
    ) -> None:
        self.close()

    def _take(self) -> Optional[_native.Notification]:
        try:
            return self._put_back.popleft()
        except IndexError:
            pass
        while True:
            result, notification = _native.poll(self._handle)
            if result == _native.NOTHING:
                return None
            check(result, "cannot ask for events")
            if notification.kind in _KINDS:
                return notification  # a later module may know more of them

    def _begin_wait(self) -> int:
        with self._waiting:
            if self.closed:
                check(Closed.code, "cannot wait for events")
            self._waiters += 1
        return self._descriptor

    def _end_wait(self) -> None:
        with self._waiting:
            self._waiters -= 1
            if self._waiters == 0 and self.closed:
                self._end_descriptor()

    def _has_lost_subscriptions(self, notification: _native.Notification) -> bool:
        kinds: int = 1 << notification.kind | notification.lost_kinds
        return self._resubscribe and bool(kinds & 1 << Kind.RECOVERED)

    def _event(self, notification: _native.Notification) -> Event:
        errors = self._subscribe_again() if self._has_lost_subscriptions(notification) else ()
        kind = Kind(notification.kind)
        option = notification.option.decode(errors="replace")
        text = option.rpartition(";NETADDR=")[0] or option
        return Event(
            kind=kind,
            text=text,
            entry=self._entry_of(text, option) if kind == Kind.SELECT else None,
            value=notification.value,
            option=option,
            sender_address=notification.sender_address.decode(errors="replace"),
            sender_name=notification.sender_name.decode(errors="replace"),
            lost=notification.lost,
            lost_kinds=frozenset(kind for kind in Kind if notification.lost_kinds >> kind & 1),
            errors=errors,
        )

    def _subscribe_again(self) -> tuple[Error, ...]:
        errors: list[Error] = []
        with self._lock:
            for held in self._held:
                # What was made between the recovery and now is there already, and would be there twice.
                try:
                    held._take_back()
                    held._make()
                except Error as error:
                    errors.append(error)
        return tuple(errors)

    def _entry_of(self, text: str, option: str) -> Optional[Entry]:
        """The one with this number, or at least with this text: a pick from before a recovery has an old number."""
        entries = [held for held in tuple(self._held) if isinstance(held, Entry) and held.text in (text, text + ";")]
        numbers = [int(number) for number in re.findall(r"SWINST=(\d+);", option)[-1:]]
        return next((entry for entry in entries if entry.instance in numbers), entries[0] if entries else None)


async def _wait_in_loop(loop: asyncio.AbstractEventLoop, number: int) -> None:
    """Until the descriptor is ready. It may return earlier."""
    if os.name == "nt":
        await loop.run_in_executor(None, _native.wait, number, None)
        return
    ready: asyncio.Future[None] = loop.create_future()

    def set_ready() -> None:
        if not ready.done():
            ready.set_result(None)

    # One of its own for each: a loop knows one reader of a number.
    own = os.dup(number)
    loop.add_reader(own, set_ready)
    try:
        await ready
    finally:
        loop.remove_reader(own)
        os.close(own)
