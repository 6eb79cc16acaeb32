"""The whole road with the real programs: from the device's panel to a line on the client's screen."""
import fcntl
import os
import re
import socket
import struct
import unittest

from programs import Client, Program, RoadTest, example_settings, wrapper


class NetworkTest(RoadTest):
    def test_pick_fax_and_recovery(self):
        device = self.device()
        client = self.client(device, "--option", "Paper Archive")
        device.tell("pick 1")
        pick = client.next()
        self.assertRegex(pick.pop("option"),
                         r"^Paper Archive;NETADDR=[\d.]+:\d+;SWINST=\d+;KICKSEQ=1;$")
        self.assertRegex(pick.pop("senderAddress"), r"^\d+\.\d+\.\d+\.\d+$")
        self.assertIsInstance(pick.pop("senderName"), str)
        self.assertRegex(pick.pop("time"), r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z$")
        self.assertEqual({"kind": "eCT_SELECT_NOTIFY", "notifyCode": 7, "nValue": 0, "dwValue": 0,
                          "device": "127.0.0.1", "text": "Paper Archive", "sequence": 1}, pick)
        device.tell("fax")
        fax = client.next()
        fax.pop("time")
        self.assertEqual({"kind": "eCT_FAX_UPLOAD_NOTIFY", "notifyCode": 0, "nValue": 0, "dwValue": 0,
                          "option": "", "senderAddress": "", "senderName": "", "device": "127.0.0.1", "text": "",
                          "sequence": None}, fax)
        device.tell("cut 200")
        client.next("eCT_LINK_RECOVERED")
        client.expect("subscribed again", "err")
        device.tell("pick 1")
        self.assertIn("KICKSEQ=2;", client.next("eCT_SELECT_NOTIFY")["option"])
        self.assertEqual(0, client.interrupt())
        self.assertEqual(4, len(client.all()))

    def test_a_device_that_was_killed_and_comes_back(self):
        device = self.device()
        client = self.client(device)
        device.kill()
        device = self.device(port=device.port)
        client.next("eCT_LINK_RECOVERED")
        client.expect("subscribed again", "err")
        device.tell("pick 1")
        client.next("eCT_SELECT_NOTIFY")

    def test_picks_arrive_once_and_never_backwards_over_a_bad_network(self):
        device = self.device()
        client = self.client(device, "--on", "select")
        for trouble in ("drop 2", "repeat 3"):
            device.tell(trouble)
            for _ in range(5):
                device.tell("pick 1")
                client.next("eCT_SELECT_NOTIFY")
        self.assertEqual(10, len(client.all()))
        device.tell("reorder 6")
        for _ in range(6):
            device.tell("pick 1")
        device.tell("fax")  # nothing of it: not subscribed
        device.tell("reorder 0")
        device.tell("pick 1")
        client.expect("KICKSEQ=17;")
        sequence = [int(re.search(r"KICKSEQ=(\d+);", n["option"]).group(1)) for n in client.all()]
        self.assertEqual(sorted(set(sequence)), sequence)


class LocalTest(RoadTest):
    def test_all_notifications_and_recovery(self):
        device = self.device()
        client = self.client(device, "--local", "--option", "One", "--option", "Two")
        device.tell("pick 2")
        pick = client.next("eCT_SELECT_NOTIFY")
        self.assertRegex(pick["option"], r"^Two;NETADDR=[^;:]+;SWINST=\d+;$")
        self.assertEqual(("", ""), (pick["senderAddress"], pick["senderName"]))
        for command, kind, code, value, word in (("adf on", "eCT_ADF_NOTIFY", 8, 1, 0),
                                                 ("adf off", "eCT_ADF_NOTIFY", 8, 0, 0),
                                                 ("button", "eCT_SCANNER_BUTTON_NOTIFY", 16, 0, 2),
                                                 ("fax", "eCT_FAX_UPLOAD_NOTIFY", 0, 0, 0)):
            device.tell(command)
            heard = client.next(kind)
            self.assertEqual((code, value, word), (heard["notifyCode"], heard["nValue"], heard["dwValue"]))
        device.tell("cut 200")
        client.next("eCT_LINK_RECOVERED")
        client.expect("subscribed again", "err")
        device.tell("pick 1")
        self.assertTrue(client.next("eCT_SELECT_NOTIFY")["option"].startswith("One;"))
        self.assertEqual(0, client.interrupt())

    def test_clients_hear_their_own_picks_and_take_their_entries_with_them(self):
        device = self.device()
        clients = [self.client(device, "--local", "--option", name) for name in ("A", "B", "C")]
        for number, client in enumerate(clients, 1):
            device.tell(f"pick {number}")
            self.assertTrue(client.next()["option"].startswith("ABC"[number - 1] + ";"))
        device.tell("fax")
        for client, end in zip(clients, (Client.interrupt, Client.kill, Client.interrupt)):
            client.expect("eCT_FAX_UPLOAD_NOTIFY")
            self.assertEqual(1, sum(n["kind"] == "eCT_SELECT_NOTIFY" for n in client.all()))
            end(client)
            device.expect("link \\d+ down")
        device.tell("panel")
        device.expect("(?i)no entries|empty")


class ClaimTest(RoadTest):
    """Eight clients, one button: a press has one taker at most."""
    PRESSES = int(os.environ.get("QOMA_CLAIM_PRESSES", "1000"))

    def test_no_press_is_reported_by_two(self):
        device = self.device()
        clients = []
        for _ in range(8):
            clients.append(self.client(device, "--local", "--on", "button,fax"))
            device.expect(f"trap on: FAX-UPLOAD .link {len(clients)}")
        for press in range(self.PRESSES):
            device.tell("button")
            if press % 2:  # every other one comes upon the heels of the one before
                device.expect("press claimed")
        device.tell("fax")  # nothing comes behind it
        for client in clients:
            client.expect("eCT_FAX_UPLOAD_NOTIFY")
        device.tell("quit")
        device.wait()
        text = "\n".join(device.lines["out"])
        taken = [press.count("press claimed") for press in text.split("button: pressed")[1:]]
        self.assertEqual(self.PRESSES, len(taken))
        by_client = [sum(n["kind"] == "eCT_SCANNER_BUTTON_NOTIFY" for n in client.all()) for client in clients]
        self.assertEqual([text.count(f"press claimed (link {n})") for n in range(1, 9)], by_client)
        self.assertLessEqual(sum(by_client), self.PRESSES)
        self.assertGreaterEqual(sum(by_client), self.PRESSES // 2)
        self.assertLessEqual(max(taken), 1)


class DiscoveryTest(RoadTest):
    def setUp(self):
        self.shared = self.folder()
        self.path = self.shared.path / "print path"
        self.target = self.shared.name("QOMA_NOTIFYMON", self.path)

    def printing_device(self):
        return self.device("--print-path", self.shared.name("QOMA_MFPSIM", self.path))

    def discover(self, device, *arguments):
        client = self.client(device, "--on", "select", "--count", "1", "--discover", self.target, *arguments)
        number = client.expect(r"discovery job number (\d+) written", "err").group(1)
        answer = client.next("eCT_SELECT_NOTIFY")
        self.assertEqual((int(number), "VELLUMAX 4000", ""), (answer["srvq"], answer["model"], answer["text"]))
        self.assertEqual(0, client.wait())

    def test_a_plain_file_takes_job_after_job(self):
        self.path.touch()
        device = self.printing_device()
        for arguments in ((), ("--local",), ()):
            self.discover(device, *arguments)

    def test_a_pipe_survives_malformed_jobs(self):
        if self.shared.start:
            self.skipTest("a pipe with a name in the file system is POSIX's")
        os.mkfifo(self.path)
        device = self.printing_device()
        head, tail = b"\x1b%-12345X@PJL SELECT=\"\x01\x15TYPE=<ECHO>;", b"\"\x1b%-12345X"
        for job in (head, head + b"NETADDR=1.2.3.4:5;" + b"x" * (1 << 20) + tail, head + b"SRVQ=1;" + tail,
                    head + b"NETADDR=not.a.number:x;SRVQ=1;" + tail):
            self.path.write_bytes(job)
            device.expect("job refused: ")
        self.discover(device)

    def test_targets_that_cannot_be_written(self):
        device = self.device()
        folder = self.shared.name("QOMA_NOTIFYMON", self.path.parent)
        targets = [(self.target, "110"), (folder, "110")]
        if not wrapper("QOMA_NOTIFYMON") and os.path.exists("/dev/full"):
            targets.append(("/dev/full", "29"))
        for target, words in targets:
            client = self.client(device, "--discover", target, ready=False)
            self.assertEqual(1, client.wait())
            self.assertIn(words, client.lines["err"][-1])
        self.assertFalse(self.path.exists(), "the target is never created")


class ProgramTest(RoadTest):
    def run_to_end(self, variable, *arguments):
        program = self.start(Program, variable, *arguments)
        return program.wait(), program.lines

    def test_bad_usage_is_one_line_and_code_2(self):
        for variable, arguments in (
                ("QOMA_NOTIFYMON", ["--port", "0"]),
                ("QOMA_NOTIFYMON", ["--on", "sun"]), ("QOMA_NOTIFYMON", ["--option", ""]),
                ("QOMA_NOTIFYMON", ["--local", "--address", "10.1.2.3"]), ("QOMA_NOTIFYMON", ["--address", "host:0"]),
                ("QOMA_NOTIFYMON", ["--option", "x" * 286]), ("QOMA_NOTIFYMON", ["--format", "%{sun}"]),
                ("QOMA_NOTIFYMON", ["--nonsense"]), ("QOMA_NOTIFYMON", ["stray"]),
                ("QOMA_MFPSIM", ["--port", "65536"]), ("QOMA_MFPSIM", ["--listen", "not an address"]),
                ("QOMA_MFPSIM", ["--script", "/does/not/exist"]), ("QOMA_MFPSIM", ["--nonsense"]),
                ("QOMA_TRACEDECK", ["--bogus"]), ("QOMA_TRACEDECK", ["--title"]), ("QOMA_TRACEDECK", ["stray"])):
            with self.subTest(variable=variable, arguments=arguments):
                code, lines = self.run_to_end(variable, *arguments)
                self.assertEqual((2, 1, 0), (code, len(lines["err"]), len(lines["out"])), lines)

    def test_failures_are_named(self):
        with socket.socket() as closed:
            closed.bind(("127.0.0.1", 0))
            free = closed.getsockname()[1]
        stranger = self.device("--model", "SOMETHING ELSE")
        feeder = self.device()
        for arguments, words in ((["--port", free], "listens"), (["--port", stranger.port], "1307"),
                                 (["--address", f"127.0.0.1:{free}"], f"connect to 127.0.0.1:{free}: nothing listens"),
                                 (["--port", feeder.port, "--on", "adf"], "not supported"),
                                 (["--port", feeder.port, "--registry", "missing", "--diagnostics", "x"], "missing"),
                                 (["--port", feeder.port, "--count", "1", "--timeout", "0.2"], "timed out")):
            with self.subTest(words=words):
                code, lines = self.run_to_end("QOMA_NOTIFYMON", *arguments)
                self.assertEqual(1, code)
                self.assertIn(words, "\n".join(lines["err"]))

        code, lines = self.run_to_end("QOMA_MFPSIM", "--port", feeder.port)
        self.assertEqual((1, f"mfpsim: cannot listen at 127.0.0.1:{feeder.port}: in use"), (code, lines["err"][-1]))

    def test_help_is_of_80_columns_and_names_the_port(self):
        for variable, *arguments in (("QOMA_NOTIFYMON",), ("QOMA_NOTIFYMON", "doctor"), ("QOMA_MFPSIM",), ("QOMA_TRACEDECK",)):
            with self.subTest(variable=variable, arguments=arguments):
                code, lines = self.run_to_end(variable, *arguments, "--help")
                self.assertEqual((0, []), (code, [line for line in lines["out"] if len(line) > 80]))
                self.assertEqual(variable != "QOMA_TRACEDECK", "19290" in "\n".join(lines["out"]))
                self.assertRegex(self.run_to_end(variable, "--version")[1]["out"][0], r"^\w+ \d+\.\d+\.\d+$")

    def test_a_script_drives_the_device(self):
        shared = self.folder()
        (shared.path / "script").write_text("wait-entry Here\npick 1\nwait 500\nquit\n")
        device = self.device("--script", shared.name("QOMA_MFPSIM", "script"))
        client = self.client(device, "--option", "Here", "--on", "select", "--count", "1")
        client.next("eCT_SELECT_NOTIFY")
        self.assertEqual((0, 0), (client.wait(), device.wait()))


class DiagnosticsTest(RoadTest):
    """The example settings, a log, and the viewer."""

    def test_log_viewer_reload_and_final_report(self):
        shared = self.folder()
        settings = shared.path / "my.reg"
        title = f"TraceDeck of {os.getpid()}"
        text = example_settings(shared.name("QOMA_NOTIFYMON", "notifymon.log"), title)
        settings.write_text(text)
        log = open(shared.path / "notifymon.log", "w+b")  # locks that a reader may take switch nothing off
        self.addCleanup(log.close)
        fcntl.fcntl(log, fcntl.F_OFD_SETLK, struct.pack("hhqqi", fcntl.F_RDLCK, os.SEEK_SET, 0, 0, 0))
        fcntl.flock(log, fcntl.LOCK_EX)
        deck = self.start(Program, "QOMA_TRACEDECK", "--title", title)
        deck.expect("showing what is sent to", "err")
        device = self.device()
        client = self.client(device, "--registry", shared.name("QOMA_NOTIFYMON", "my.reg"),
                             "--diagnostics", "notifymon")
        deck.expect(r'^\[NOTIFYMON\]: \[ 1\]> Entry: \(life\) CGReference::Init: Creating object "CCallbackQThread"$')
        settings.write_text(text.replace('"Level"=dword:00000001', '"Level"=dword:00000000'))
        client.expect("settings read again", "err")
        device.tell("pick 1")
        client.next("eCT_SELECT_NOTIFY")
        deck.expect("^.HOST. I: .*eCT_SELECT_NOTIFY")  # the program's own line
        settings.write_text(text + "[broken\n")
        client.expect("settings refused: .*:\\d+: ", "err")
        self.assertEqual(0, client.interrupt())
        deck.expect(r"RemoveEvtMgr: g_cMemory g_cbMemory g_cObjects = 0 0 0$")
        raw = (shared.path / "notifymon.log").read_bytes()
        lines = raw.decode().split("\r\n")
        self.assertEqual("", lines.pop(), "each line ends in CR and LF")
        self.assertNotIn("\n", "".join(lines))
        self.assertTrue(all(line.startswith("[NOTIFYMON]: ") for line in lines), lines)
        self.assertTrue(any("INC_OBJECT_COUNTER" in line for line in lines), "level 2 went to the log")
        self.assertEqual("[NOTIFYMON]:     I Info: RemoveEvtMgr: g_cMemory g_cbMemory g_cObjects = 0 0 0", lines[-1])
        self.assertEqual(0, deck.interrupt())


if __name__ == "__main__":
    unittest.main(verbosity=2)
