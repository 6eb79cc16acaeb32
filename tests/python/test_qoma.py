"""The package qoma against the real mfpsim."""
import asyncio
import collections
import os
import pathlib
import re
import signal
import subprocess
import sys
import threading

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "e2e"))
from programs import LIMIT, Device  # noqa: E402

import qoma  # noqa: E402
from qoma import Kind  # noqa: E402


@pytest.fixture
def device():
    device = Device()
    yield device
    device.kill()


@pytest.fixture(params=[{"local": True}, {"address": "127.0.0.1"}], ids=["local", "network"])
def agent(request, device):
    with qoma.Agent(port=device.port, **request.param) as agent:
        yield agent


def local(device, **options):
    return qoma.Agent(port=device.port, local=True, **options)


def test_entries_are_picked_renamed_and_delete_themselves(device, agent):
    with agent.add("Paper Archive") as entry:
        device.expect("entry added: Paper Archive;")
        device.tell("pick 1")
        event = agent.poll(LIMIT)
        assert (event.kind, event.text, event.entry) == (Kind.SELECT, "Paper Archive", entry)
        assert f";SWINST={entry.instance};" in event.option
        assert bool(event.sender_address) == ("KICKSEQ" in event.option)
        entry.rename("Tax; Returns;")
        device.expect("entry deleted: Paper Archive;")
        device.tell("pick 1")
        event = agent.poll(LIMIT)
        assert (event.text, event.entry) == ("Tax; Returns", entry)
    device.expect("entry deleted: Tax; Returns;")
    entry.delete()
    agent.add("To the end")
    agent.close()
    device.expect("entry gone .*: To the end;")


def test_all_other_kinds_come_over_a_local_link(device):
    with local(device) as agent, agent.subscribe(Kind.FEEDER, Kind.BUTTON, Kind.FAX) as subscription:
        for command, kind, value in (("adf on", Kind.FEEDER, 1), ("adf off", Kind.FEEDER, 0),
                                     ("button", Kind.BUTTON, 0), ("fax", Kind.FAX, 0)):
            device.tell(command)
            event = agent.poll(LIMIT)
            assert (event.kind, event.value, event.entry, event.text) == (kind, value, None, "")
        subscription.delete()
        device.tell("fax")
        assert agent.poll(0.05) is None


def test_what_fails_raises_what_belongs_to_it(device):
    with pytest.raises(qoma.ConnectRefused, match=r"127.0.0.1.*nothing listens.*\(1225\)") as caught:
        qoma.Agent("127.0.0.1", port=1)
    assert isinstance(caught.value, ConnectionRefusedError) and caught.value.code == 1225
    with pytest.raises(qoma.BadAddress):
        qoma.Agent()
    with qoma.Agent("127.0.0.1", port=device.port) as agent:
        for error, work in ((qoma.NotSupported, lambda: agent.subscribe(Kind.FAX, Kind.FEEDER)),
                            (qoma.InvalidParameter, lambda: agent.add("")),
                            (qoma.OpenFailed, lambda: agent.discover("there/is/no/such/file")),
                            (ValueError, lambda: agent.subscribe(Kind.SELECT)),
                            (ValueError, lambda: agent.add("a\0b"))):
            with pytest.raises(error):
                work()
        device.expect("trap off: FAX-UPLOAD")  # all of them or none
    for work in (agent.restart, lambda: agent.add("x"), lambda: agent.poll(1)):
        with pytest.raises(qoma.Closed):
            work()
    assert list(agent) == []
    other_line = Device("--model", "SOMETHING ELSE")
    try:
        with pytest.raises(qoma.WrongProductLine):
            local(other_line)
    finally:
        other_line.kill()


def test_after_a_cut_everything_is_there_once(device, agent):
    entry = agent.add("Paper Archive")
    agent.subscribe(Kind.FAX)
    deleted = agent.add("Deleted meanwhile")
    device.tell("cut 200")
    device.expect("link .* up")
    device.expect("link .* up")  # of the same client again: its entries are gone, and it does not know that yet
    deleted.delete()
    before = agent.add("Before the recovery is heard of")
    event = agent.poll(LIMIT)
    assert (event.kind, event.errors) == (Kind.RECOVERED, ())
    device.tell("panel")
    device.expect("^1: ")
    device.expect("^2: ")
    device.tell("fax")
    assert agent.poll(LIMIT).kind == Kind.FAX
    for wanted in (entry, before):
        device.tell(f"pick {wanted.text}")
        assert agent.poll(LIMIT).entry is wanted
    assert not any(line.startswith("3: ") for line in device.lines["out"])


def test_who_does_not_want_that_does_it_by_hand(device):
    with local(device, resubscribe=False) as agent:
        agent.subscribe(Kind.FAX)
        agent.restart()
        device.tell("fax")
        assert agent.poll(LIMIT).kind == Kind.RECOVERED
        assert agent.poll(0.05) is None
        agent.subscribe(Kind.FAX)
        device.tell("fax")
        assert agent.poll(LIMIT).kind == Kind.FAX


def test_a_lost_recovery_is_made_up_for(device):
    with local(device) as agent:
        agent.subscribe(Kind.FEEDER)
        agent.restart()
        agent.subscribe(Kind.FAX)
        with local(device) as observer:  # what has come here has come there, or nearly so
            observer.subscribe(Kind.FAX)
            for _ in range(15):
                device.process.stdin.write("fax\n" * 100)
                device.process.stdin.flush()
                assert all(observer.poll(LIMIT) for _ in range(100))
        events = []
        while sum(1 + event.lost for event in events) < 1501:
            events.append(agent.poll(LIMIT))
        assert events[0].lost_kinds == {Kind.RECOVERED, Kind.FAX}
        device.tell("fax")  # once more: it is subscribed to once
        assert agent.poll(LIMIT).kind == Kind.FAX
        assert agent.poll(0.05) is None


def test_a_thousand_picks(device, agent):
    agent.add("Paper Archive")
    device.process.stdin.write("pick 1\n" * 1000)
    device.process.stdin.flush()
    options = [agent.poll(LIMIT).option for _ in range(1000)]
    sequence = [int(n) for n in re.findall(r"KICKSEQ=(\d+);", "".join(options))]
    assert sequence in ([], list(range(1, 1001)))
    assert agent.poll(0) is None


def test_a_thousand_lives_leave_nothing(device):
    def held():
        status = pathlib.Path("/proc/self/status").read_text()
        return (len(os.listdir("/proc/self/fd")), int(re.search(r"Threads:\s*(\d+)", status)[1]),
                int(re.search(r"VmRSS:\s*(\d+)", status)[1]))

    def live(count):
        for n in range(count):
            agent = qoma.Agent(None if n % 2 else "127.0.0.1", port=device.port, local=bool(n % 2))
            agent.add("Short")
            assert agent.poll(0) is None
            if n % 3:
                agent.close()
            del agent  # with its entry, which knows it

    import gc
    live(50)
    gc.collect()
    before = held()
    live(1000)
    gc.collect()
    after = held()
    assert after[:2] <= before[:2]
    assert after[2] < before[2] + 8192  # KiB


def test_threads_share_the_events_and_are_let_go(device):
    agent = local(device)
    agent.subscribe(Kind.FEEDER)
    heard = collections.Counter()
    all_heard = threading.Event()

    def listen():
        for event in agent:
            heard[event.value] += 1
            if sum(heard.values()) == 200:
                all_heard.set()

    threads = [threading.Thread(target=listen) for _ in range(4)]
    for thread in threads:
        thread.start()
    device.process.stdin.write("adf on\nadf off\n" * 100)
    device.process.stdin.flush()
    assert all_heard.wait(LIMIT)
    agent.close()
    for thread in threads:
        thread.join(LIMIT)
        assert not thread.is_alive()
    assert heard == {0: 100, 1: 100}


def test_asyncio(device):
    async def work():
        with local(device) as one, qoma.Agent("127.0.0.1", port=device.port) as other:
            one.subscribe(Kind.FAX)
            other.add("Paper Archive")
            with pytest.raises(asyncio.TimeoutError):
                await asyncio.wait_for(one.wait(), 0.05)
            device.tell("fax")
            device.tell("pick 1")
            kinds = await asyncio.wait_for(asyncio.gather(one.wait(), other.wait()), LIMIT)
            assert [event.kind for event in kinds] == [Kind.FAX, Kind.SELECT]
            one.restart()
            device.tell("late 300")
            device.tell("panel")
            device.expect("Paper Archive")
            with pytest.raises(asyncio.TimeoutError):  # while it subscribes again
                await asyncio.wait_for(one.wait(), 0.1)
            device.tell("late 0")
            assert (await asyncio.wait_for(one.wait(), LIMIT)).kind == Kind.RECOVERED
            heard = []

            async def listen(agent):
                async for event in agent:
                    heard.append(event.kind)

            tasks = [asyncio.create_task(listen(one)) for _ in range(2)]
            one.restart()
            while len(heard) < 1:
                await asyncio.sleep(0.01)
            device.tell("fax")
            while len(heard) < 2:
                await asyncio.sleep(0.01)
            one.close()
            await asyncio.wait_for(asyncio.gather(*tasks), LIMIT)
            assert heard == [Kind.RECOVERED, Kind.FAX]

    asyncio.run(work())


@pytest.mark.parametrize("waiting", ["list(agent)", "asyncio.run(agent.wait())"])
def test_ctrl_c_ends_a_wait_at_once(device, waiting):
    program = subprocess.Popen(
        [sys.executable, "-c", f"import asyncio, qoma\nwith qoma.Agent('127.0.0.1', port={device.port}) as agent:\n"
                               f"    agent.add('Interrupted')\n    print('ready', flush=True)\n    {waiting}"],
        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    try:
        assert program.stdout.readline() == "ready\n"
        program.send_signal(signal.SIGINT)
        _, errors = program.communicate(timeout=LIMIT)
        assert "KeyboardInterrupt" in errors
        device.expect("entry gone .*: Interrupted;")
    finally:
        program.kill()
