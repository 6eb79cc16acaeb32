"""notifyhub: what is heard is kept, and reaches everybody, whoever hangs, breaks or is killed meanwhile."""
import collections
import contextlib
import http.server
import json
import os
import pathlib
import re
import resource
import shutil
import signal
import socket
import subprocess
import threading
import time
import unittest

import jsonschema

from hub_sinks_test import BROKER, Broker, until
from programs import LIMIT, Program, RoadTest

SCHEMA = json.loads((pathlib.Path(__file__).parents[2] / "docs" / "event.schema.json").read_text())
PICKS = int(os.environ.get("QOMA_HUB_PICKS", "200"))
AWAY = float(os.environ.get("QOMA_HUB_AWAY", "2"))  # seconds that the broker is gone


class HubTest(RoadTest):
    def setUp(self):
        self.path = self.folder().path
        self.settings = self.path / "hub.toml"

    def device(self, name, *arguments, **options):
        device = super().device(*arguments, **options)
        device.device = name
        return device

    def write(self, devices, sinks, more="", local=False):
        text = f'site = "office"\n{more}\n'
        if "[journal]" not in more:
            text += '[journal]\nfile = "journal.db"\n'
        for device in devices:
            text += f'[[device]]\nname = "{device.device}"\nport = {device.port}\n' + (
                "local = true\n" if local else 'address = "127.0.0.1"\n')
        for name, lines in sinks.items():
            text += f'[[sink]]\nname = "{name}"\nfirst_pause = "50ms"\nlongest_pause = "500ms"\n{lines}\n'
        self.settings.write_text(text)

    def hub(self, *, ready=True, inside=()):
        hub = self.start(Program, "QOMA_NOTIFYHUB", "--settings", self.settings, inside=inside)
        if ready:
            hub.expect("ready, journal", "err")
        return hub

    def run_hub(self, *arguments):
        """Its exit code and what it printed, of a command that ends by itself."""
        program = self.start(Program, "QOMA_NOTIFYHUB", "--settings", self.settings, *arguments)
        return program.wait(), program.lines["out"], program.lines["err"]

    def journal(self, *arguments):
        code, out, err = self.run_hub("events", "--json", *arguments)
        self.assertEqual((0, []), (code, err))
        return [json.loads(line) for line in out]

    def collector(self, name):
        """A sink that writes what it gets to a file, and how to read that."""
        file = self.path / name
        file.touch()
        return (f'type = "exec"\ncommand = ["sh", "-c", "cat >> {file}"]',
                lambda: [json.loads(line) for line in file.read_text().splitlines(keepends=True) if line.endswith("\n")])

    def sequences(self, events, device=None):
        return [event["data"]["sequence"] for event in events if event["type"].endswith("panel.picked")
                and device in (None, event.get("subject"))]

    def wait_entry(self, device):
        device.tell("wait-entry notifyhub 100000")
        device.expect("entry added: notifyhub")

    def echoed(self, device):
        return [int(match.group(1)) for line in list(device.lines["out"])
                if (match := re.search(r"kick (\d+) echoed", line))]

    def pick(self, device, count, pause=0.0):
        for _ in range(count):
            device.tell("pick notifyhub")
            device.expect("kick .* echoed")
            time.sleep(pause)


class OfficeTest(HubTest):
    def test_every_event_is_as_the_schema_says(self):
        device = self.device("hall")
        self.write([device], {"out": 'type = "print"\njson = true'}, local=True)
        hub = self.hub()
        hub.expect("link.connected")
        for command, what in (("pick notifyhub", "panel.picked"), ("adf on", "feeder.changed"),
                              ("button", "button.pressed"), ("fax", "fax.waiting"), ("cut 200", "link.lost")):
            device.tell(command)
            hub.expect(what)
        hub.expect("link.back")
        events = [json.loads(line) for line in hub.lines["out"]]
        for event in events:
            jsonschema.validate(event, SCHEMA)
        self.assertEqual(sorted(event["id"] for event in events), [event["id"] for event in events])
        self.assertEqual(0, hub.interrupt())
        self.assertEqual(events, self.journal())
        self.assertEqual(events[1:2], self.journal("--type", "panel.*", "--device", "hall", "--since", "1h"))
        self.assertEqual([], self.journal("--since", "2090-01-01"))
        with self.assertRaises(jsonschema.ValidationError):
            jsonschema.validate({**events[1], "data": {}}, SCHEMA)

    def test_what_cannot_run_says_so_in_one_line(self):
        device = self.device("hall")
        self.write([device], {"out": 'type = "print"'})
        self.hub()
        for arguments, code, line in (
                ((), 73, "in use by another hub"), (("--no-such",), 64, "--no-such"),
                (("replay", "nobody", "--since", "1h"), 65, 'no sink of the name "nobody"'),
                (("replay", "out", "--since", "noon"), 64, "noon"), (("check", "/none"), 78, "cannot read /none")):
            got, out, err = self.run_hub(*arguments)
            self.assertEqual((code, [], 1), (got, out, len(err)), err)
            self.assertIn(line, err[0])
        self.settings.write_text("[journal]\nfile = 7\n")
        self.assertEqual((78, [], [f'notifyhub: {self.settings}:2: "file" in [journal] has to be a text in quotes, '
                                   'and is of the type integer']), self.run_hub())

    def test_settings_change_under_load_and_nothing_else_does(self):
        hall, store = self.device("hall"), self.device("store")
        first, read_first = self.collector("first")
        second, read_second = self.collector("second")
        self.write([hall], {"first": first})
        hub = self.hub()
        self.wait_entry(hall)
        stop = threading.Event()
        picks = []

        def load():  # never far ahead of a sink that starts a program for each
            while not stop.wait(0.01):
                if len(picks) - len(read_first()) < 20:
                    self.pick(hall, 1)
                    picks.append(1)
        thread = threading.Thread(target=load)
        thread.start()
        self.addCleanup(lambda: (stop.set(), thread.join()))
        for round_ in range(3):
            self.write([hall, store], {"first": first, "second": second})
            hub.process.send_signal(signal.SIGHUP)
            hub.expect("settings have been read again", "err")
            store.expect("entry added: notifyhub")
            goal = len(read_second()) + 5
            until(lambda: len(read_second()) >= goal)
            self.settings.write_text("site = [")
            hub.process.send_signal(signal.SIGHUP)
            hub.expect(r"hub.toml:1: .*the settings stay as they were", "err")
            self.write([hall], {"first": first})
            hub.process.send_signal(signal.SIGHUP)
            hub.expect("settings have been read again", "err")
            store.expect("entry removed|gone|closed|disconnected")
        stop.set()
        thread.join()
        until(lambda: len(self.sequences(read_first(), "hall")) == len(picks))
        self.assertEqual(list(range(1, len(picks) + 1)), self.sequences(read_first(), "hall"))
        self.assertEqual(1, sum("entry added" in line for line in hall.lines["out"]), "it was not touched")
        self.assertEqual(0, hub.interrupt())

    def test_a_disk_that_takes_nothing(self):
        device = self.device("hall")
        self.write([device], {"out": 'type = "print"\njson = true'}, '[journal]\nfile = "journal.db"\nwaiting = 100')
        hub = self.hub(inside=("sh", "-c", 'trap "" XFSZ; exec "$@"', "sh"))
        self.wait_entry(device)
        self.pick(device, 1)
        hub.expect('"sequence":1}')
        pid, unlimited = hub.process.pid, (resource.RLIM_INFINITY, resource.RLIM_INFINITY)
        resource.prlimit(pid, resource.RLIMIT_FSIZE, (1, resource.RLIM_INFINITY))
        self.pick(device, 60)
        hub.expect("the journal takes no events, they wait in memory", "err")
        self.pick(device, 90)
        hub.expect("the oldest are dropped, .* so far", "err")
        resource.prlimit(pid, resource.RLIMIT_FSIZE, unlimited)
        hub.expect("the journal takes events again", "err")
        hub.expect('"sequence":151}')
        events = [json.loads(line) for line in hub.lines["out"]][2:]
        for event in events:
            jsonschema.validate(event, SCHEMA)
        dropped = sum(event["data"]["count"] for event in events if event["type"].endswith("events.dropped"))
        self.assertEqual(50, dropped)
        self.assertEqual(list(range(52, 152)), self.sequences(events))
        self.assertEqual(0, hub.interrupt())


class ManagerTest(HubTest):
    """The manager's protocol against a socket of ours: a service manager does not run where tests run."""

    def test_what_is_handed_out_for_a_service(self):
        for name in ("chat-header", "mqtt-password"):
            (self.path / name).write_text("Name: secret\n")
        root = pathlib.Path(__file__).parents[2]
        check = self.start(Program, "QOMA_NOTIFYHUB", "check", root / "docs/notifyhub.toml",
                           inside=("env", f"CREDENTIALS_DIRECTORY={self.path}"))
        self.assertEqual(0, check.wait(), check.lines["err"])
        self.assertIn("2 devices, 3 sinks, 2 rules", check.lines["out"][0])
        if not shutil.which("systemd-analyze"):
            self.skipTest("there is no systemd-analyze")
        done = subprocess.run(["systemd-analyze", "security", "--offline=true", "--threshold=20", "--no-pager",
                               root / "hub/notifyhub.service"], text=True, capture_output=True)
        self.assertEqual(0, done.returncode, done.stdout[-3000:] + done.stderr)

    def test_what_a_service_tells_its_manager(self):
        device = self.device("hall")
        self.write([device], {"out": 'type = "print"'})
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
            manager.bind(str(self.path / "notify"))
            manager.settimeout(LIMIT)
            told = []

            def expect(*wanted):
                deadline = time.monotonic() + LIMIT
                while time.monotonic() < deadline:
                    told.append(manager.recv(4096).decode().split("\n"))
                    if all(any(re.fullmatch(text, line) for line in told[-1]) for text in wanted):
                        return
                self.fail(f"{wanted} was not told, but {told}")

            hub = self.hub(ready=False, inside=("env", f"NOTIFY_SOCKET={self.path}/notify", "WATCHDOG_USEC=1000000",
                                                "JOURNAL_STREAM=1:1"))
            expect("READY=1", "STATUS=. of 1 devices.*")
            hub.expect("^<5>ready", "err")
            expect("WATCHDOG=1")
            connected = "STATUS=1 of 1 devices connected, 1 sinks, 0 events wait"
            if not any(connected in lines for lines in told):
                expect(connected)
            hub.process.send_signal(signal.SIGHUP)
            expect("RELOADING=1", r"MONOTONIC_USEC=\d+")
            expect("READY=1", "STATUS=.*")
            hub.process.send_signal(signal.SIGTERM)
            expect("STOPPING=1", "STATUS=.*")
        self.assertEqual(0, hub.wait())


@unittest.skipUnless(BROKER, "there is no mosquitto")
class StoryTest(HubTest):
    """Five devices; the broker goes away, the hub is killed, one sink hangs. Then all that is in the journal has been
    everywhere, and nothing is missing there but what the crash took between an echo and the disk."""

    def web_server(self):
        got = []

        class Handler(http.server.BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def do_POST(self):
                got.append(json.loads(self.rfile.read(int(self.headers["Content-Length"]))))
                self.send_response(204)
                self.end_headers()

            def log_message(self, *_):
                pass
        server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        server.daemon_threads, server.block_on_close = True, False  # the hub keeps its connection
        server.handle_error = lambda *_: None  # which ends with the hub
        thread = threading.Thread(target=server.serve_forever)
        thread.start()
        self.addCleanup(lambda: (server.shutdown(), thread.join(), server.server_close()))
        return server.server_port, got

    def end_hanging(self):
        for line in (self.path / "hanging").read_text().splitlines():
            with contextlib.suppress(ProcessLookupError):
                os.kill(int(line), signal.SIGKILL)

    def all_pick(self, count, pause=0.0):
        threads = [threading.Thread(target=self.pick, args=(device, count, pause)) for device in self.devices]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()

    def subscriber(self, broker):
        os.environ["QOMA_SUBSCRIBER"] = "mosquitto_sub"
        return self.start(Program, "QOMA_SUBSCRIBER", "-p", broker.port, "-q", 1, "-t", "qoma/office/+/panel.picked",
                          "-i", "the-subscriber", "-c")

    def test_nothing_that_was_kept_is_lost(self):
        self.devices = [self.device(f"device-{number}") for number in range(5)]
        # It keeps its subscriber's session while it is away.
        broker = Broker(self, "allow_anonymous true", "persistence true", f"persistence_location {self.path}/", "user root")
        port, posted = self.web_server()
        collector, collected = self.collector("collected")
        # It must not keep the streams that the killed hub leaves.
        hanging = f"echo $$ >> {self.path}/hanging; exec sleep 1000 > /dev/null 2>&1"
        self.addCleanup(self.end_hanging)
        self.write(self.devices, {
            "broker": f'type = "mqtt"\nhost = "127.0.0.1"\nport = {broker.port}\nlimit = "2s"',
            "web": f'type = "webhook"\nurl = "http://127.0.0.1:{port}/"', "program": collector,
            "hangs": f'type = "exec"\ncommand = ["sh", "-c", "{hanging}"]\nlimit = "1000s"'})
        subscriber = self.subscriber(broker)
        hub = self.hub()
        for device in self.devices:
            self.wait_entry(device)
        each = PICKS // len(self.devices)
        self.all_pick(each // 3)
        broker.process.terminate()
        broker.process.wait()
        gone = time.monotonic()
        self.all_pick(each // 3, pause=0.02)
        for device in self.devices:  # and in the middle of these
            for _ in range(5):
                device.tell("pick notifyhub")
        self.devices[0].expect("kick .* echoed")
        hub.process.kill()
        hub.wait()
        hub = self.hub()
        for device in self.devices:
            self.wait_entry(device)
        self.all_pick(each - 2 * (each // 3) - 5)
        time.sleep(max(0, gone + AWAY - time.monotonic()))
        broker.start()
        self.addCleanup(subscriber.kill)

        kept = self.journal("--type", "panel.picked")
        ids = [event["id"] for event in kept]
        self.assertEqual(len(ids), len(set(ids)))
        received = lambda: [json.loads(line) for line in subscriber.lines["out"] if line.startswith("{")]
        lost = 0
        for device in self.devices:
            echoed, journalled = self.echoed(device), self.sequences(kept, device.device)
            self.assertEqual(sorted(journalled), journalled)
            self.assertLessEqual(set(journalled), set(echoed) | {max(echoed) + 1})
            missing = sorted(set(echoed) - set(journalled))
            lost += len(missing)
            # Only the last ones before the crash, behind which nothing of that run is kept.
            last = 2 * (each // 3) + 5
            self.assertEqual([n for n in echoed if missing and missing[0] <= n <= last], missing)
        for name, got in (("broker", received), ("web", lambda: posted), ("program", collected)):
            with self.subTest(name):
                try:
                    until(lambda: set(ids) <= {event["id"] for event in got()}, 2 * LIMIT)
                except AssertionError:
                    self.fail(f"{name} lacks {len(set(ids) - {event['id'] for event in got()})} of {len(ids)}: "
                              + "\n".join(hub.lines["err"][-10:]))
                events = list({event["id"]: event for event in got()}.values())  # the first of each
                for device in self.devices:
                    numbers = self.sequences(events, device.device)
                    self.assertEqual(sorted(numbers), numbers, "in their order")
        repeats = {name: sum(collections.Counter(event["id"] for event in got).values()) - len(set(
            event["id"] for event in got)) for name, got in (("broker", received()), ("web", posted), ("program", collected()))}
        print(f"{len(ids)} picks kept, {lost} echoed and lost with the crash, repeats {repeats}")
        self.assertEqual(0, hub.interrupt(), "\n".join(hub.lines["err"][-100:]))
