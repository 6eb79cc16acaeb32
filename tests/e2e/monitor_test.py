"""notifymon as people use it for days: it ends when told, tells how it stands with its devices, and hands out what
they need."""
import json
import os
import pathlib
import signal
import socket
import time
import unittest

from programs import LIMIT, Client, Device, Program, RoadTest, wrapper


def send(address, *texts, echoed=False):
    """Datagrams of a stranger's to HOST:PORT."""
    host, port = address.split(":")
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
        sender.settimeout(LIMIT)
        for text in texts:
            sender.sendto(text.encode(), (host, int(port)))
            if echoed:
                sender.recv(1000)


class MonitorTest(RoadTest):
    def setUp(self):
        if wrapper("QOMA_NOTIFYMON") or wrapper("QOMA_MFPSIM"):
            self.skipTest("signals, pipes and a shell of POSIX's")
        self.shared = self.folder().path

    def monitor(self, *arguments, ready=True):
        program = self.start(Program, "QOMA_NOTIFYMON", *arguments)
        if ready:
            program.expect("ready$", "err")
        return program

    def address(self, device):
        return device.expect(r"entry added: .*NETADDR=([\d.]+:\d+);").group(1)


class EndTest(MonitorTest):
    """The promise is two seconds; a busy machine gets a little more."""
    BOUND = 2 + LIMIT / 20

    def hook(self, text):
        """A command that leaves its number, and that of a child, where we find them."""
        return f"echo $$ >> {self.shared}/pids; {text}"

    def hooks(self):
        path = self.shared / "pids"
        return [int(line) for line in path.read_text().split()] if path.exists() else []

    def wait_for_hook(self):
        deadline = time.monotonic() + LIMIT
        while not self.hooks():
            self.assertLess(time.monotonic(), deadline)
            time.sleep(0.01)

    def assert_ends(self, client, end):
        begin = time.monotonic()
        end(client.process)
        code = client.wait()
        self.assertLess(time.monotonic() - begin, self.BOUND, client.lines["err"])
        for pid in self.hooks():
            status = pathlib.Path(f"/proc/{pid}/status")
            self.assertTrue(not status.exists() or "State:\tZ" in status.read_text(), "a command is left behind")
        return code

    def test_a_command_and_what_waits_for_it_hold_up_nothing(self):
        for name, text, end in (
                ("children", "sleep 60 & echo $! >> {0}; sleep 60", lambda p: p.send_signal(signal.SIGINT)),
                ("deaf", "trap '' TERM; sleep 60 & echo $! >> {0}; wait; wait",
                 lambda p: p.send_signal(signal.SIGTERM)),
                ("timeout", "sleep 60", lambda p: None)):
            with self.subTest(name):
                device = self.device()
                (self.shared / "pids").unlink(missing_ok=True)
                more = ("--timeout", "2") if name == "timeout" else ()
                client = self.client(device, "--exec", self.hook(text.format(self.shared / "pids")), *more)
                for _ in range(8):
                    device.tell("pick 1")
                self.wait_for_hook()
                for number in range(1, 9):
                    device.expect(f"kick {number} echoed")
                if more:
                    time.sleep(2)
                self.assertEqual(0, self.assert_ends(client, end))
                self.assertEqual(1, len(client.all()), "nothing is handed out any more")
                # An echo says that the agent has it; the last ones may still be on their way to the queue.
                self.assertRegex(client.lines["err"][-1], "[1-7] notifications that waited are dropped")

    @unittest.skipIf("TSAN_OPTIONS" in os.environ, "ThreadSanitizer's own end waits for the thread that is inside a write")
    def test_a_mute_device_and_a_reader_that_reads_nothing_hold_up_nothing(self):
        device = self.device()
        entries = [argument for number in range(8) for argument in ("--option", f"entry {number}")]
        client = self.client(device, *entries)
        device.tell("mute on")
        device.tell("help")  # and that has been carried out
        device.expect("mute")
        self.assertEqual(0, self.assert_ends(client, lambda p: p.send_signal(signal.SIGINT)))
        device.kill()

        device = self.device()
        reader, writer = os.pipe()
        silent = self.start(Program, "QOMA_NOTIFYMON", "--port", device.port, stdout=writer)
        silent.expect("ready$", "err")
        address = self.address(device)
        send(address, *[f"{number} {'x' * 300}" for number in range(500)], echoed=True)
        self.assert_ends(silent, lambda p: p.send_signal(signal.SIGTERM))
        os.close(reader)
        os.close(writer)

    def test_a_second_ctrl_c_ends_at_once(self):
        device = self.device()
        client = self.client(device, "--exec", self.hook("trap '' TERM; while :; do sleep 1; done"))
        device.tell("pick 1")
        self.wait_for_hook()
        client.process.send_signal(signal.SIGINT)
        time.sleep(0.3)
        begin = time.monotonic()
        self.assertEqual(1, self.assert_ends(client, lambda p: p.send_signal(signal.SIGINT)))
        self.assertLess(time.monotonic() - begin, 1)

    def test_what_waits_is_bounded_and_what_is_dropped_is_said(self):
        device = self.device()
        client = self.client(device, "--exec", f"while ! [ -e {self.shared}/go ]; do sleep 0.1; done")
        send(self.address(device), *[f"{number};" for number in range(1300)], echoed=True)
        device.tell("fax")
        (self.shared / "go").touch()
        said = int(client.expect(r"(\d+) events were dropped", "err").group(1))
        client.expect("FAX", limit=4 * LIMIT)
        # An echo goes out before its notification waits, so on a busy machine the last ones come while the hook runs.
        gone = [thing for thing in client.everything() if thing["kind"] == "dropped"]
        heard = [n["text"] for n in client.all()]
        numbers = [int(text) for text in heard[:-1]]
        self.assertEqual((0, said, ""), (numbers[0], gone[0]["count"], heard[-1]))
        self.assertEqual(sorted(set(numbers)), numbers)
        self.assertEqual(1300, len(numbers) + sum(thing["count"] for thing in gone))

    def test_a_pipe_that_nobody_reads(self):
        device = self.device()
        target = self.shared / "jobs"
        os.mkfifo(target)
        for program in ([], ["doctor"]):
            client = self.monitor(*program, "--port", device.port, "--discover", target, "--timeout", 10, ready=False)
            begin = time.monotonic()
            self.assertEqual(1, client.wait())
            self.assertLess(time.monotonic() - begin, 10 + self.BOUND)
            self.assertIn("nobody reads from it", "\n".join(client.lines["out"] + client.lines["err"]))


class TruthTest(MonitorTest):
    def states(self, client):
        return [thing["state"] for thing in client.everything() if thing["kind"] == "link"]

    def test_a_silent_and_a_foreign_device(self):
        device = self.device()
        client = self.client(device)
        connected = json.loads(client.expect("^{.*}$").group(0))
        self.assertEqual(("link", "connected", "127.0.0.1", f"127.0.0.1:{device.port}", ["select", "fax"],
                          ["notifymon"]), tuple(connected[key] for key in (
                              "kind", "state", "device", "address", "subscribed", "entries")))
        device.process.send_signal(signal.SIGSTOP)
        begin = time.monotonic()
        client.expect("127.0.0.1: .*lost.*no answer", "err")
        self.assertLess(time.monotonic() - begin, 15)
        device.process.send_signal(signal.SIGCONT)
        client.expect("subscribed again", "err")
        device.kill()
        client.expect("the link is lost", "err")
        stranger = self.device("--model", "SOMETHING ELSE", port=device.port)
        client.expect("another product line .1307", "err")
        stranger.kill()
        device = self.device(port=device.port)
        client.expect("subscribed again", "err")
        device.tell("pick 1")
        client.next("eCT_SELECT_NOTIFY") if client.next()["kind"] == "eCT_LINK_RECOVERED" else None
        self.assertEqual(["connected", "lost", "back", "lost", "lost", "back"], self.states(client))
        self.assertEqual(0, client.interrupt())

    def test_a_silenced_listener_is_replaced(self):
        device = self.device()
        client = self.client(device, "--on", "select")
        for text, how in (("", "empty datagram"), ("KICKSEQ=-1;", "KICKSEQ=-1")):
            send(self.address(device), text)
            client.expect(f"silenced: .*{how}", "err")
            client.expect("subscribed again", "err")
            if text:
                self.assertEqual(text, client.next()["option"])
            device.tell("pick 1")
            self.assertEqual("notifymon", client.next("eCT_SELECT_NOTIFY")["text"])
        self.assertEqual(3, len(client.all()), "nothing comes of what it sends to itself")

    def test_several_devices_that_come_later(self):
        ports = []
        for _ in range(2):
            with socket.socket() as closed:
                closed.bind(("127.0.0.1", 0))
                ports.append(closed.getsockname()[1])
        addresses = [f"127.0.0.1:{port}" for port in ports]
        client = self.monitor("--wait", "--address", addresses[0], "--address", addresses[1], "--on", "select",
                              "--format", "%%%{device} %{text} %{sequence}", ready=False)
        for _ in addresses:
            client.expect(r"waiting for the device at 127\.0\.0\.1:\d+: .*1225", "err")
        devices = [self.device(port=port) for port in ports]
        client.expect("ready$", "err")
        for device, address in zip(devices, addresses):
            device.tell("pick 1")
            client.expect(f"^%{address} notifymon 1$")
        self.assertEqual(0, client.interrupt())

    def test_commands_get_the_fields_and_leave_the_output_alone(self):
        device = self.device()
        command = 'cat; echo "to $NOTIFY_TEXT $NOTIFY_DEVICE $NOTIFY_SEQUENCE $NOTIFY_TIME"'
        client = self.monitor("--port", device.port, "--option", "Paper; Archive", "--exec", command, "--count", 1)
        device.tell("pick 1")
        client.expect(r"^to Paper; Archive 127\.0\.0\.1 1 20\d\d-.*Z$", "err")
        self.assertEqual(0, client.wait())
        self.assertEqual(["eCT_SELECT_NOTIFY"], [line.split()[0] for line in client.lines["out"]])


if __name__ == "__main__":
    unittest.main(verbosity=2)
