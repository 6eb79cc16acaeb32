"""The software device's panel: scripts, the control socket, the terminal, and who else is at the door."""
import json
import os
import pty
import re
import select
import socket
import subprocess
import time
import unittest

from programs import LIMIT, Program, RoadTest


class ScriptTest(RoadTest):
    def test_what_was_done_before_quit_is_heard(self):
        folder = self.folder().path
        for name, act, kind in (("pick", "pick ARCHIVE  # in any case", "eCT_SELECT_NOTIFY"),
                                ("button", "button", "eCT_SCANNER_BUTTON_NOTIFY")):
            script = folder / name
            script.write_text(f"wait-entry # any\n{act}\nquit\n")
            for link in ([], [], ["--local"], ["--local"], ["--local"]):
                if kind != "eCT_SELECT_NOTIFY" and not link:
                    continue
                device = self.device("--script", script)
                client = self.client(device, *link, "--option", "Paper Archive", "--count", "1", ready=False)
                self.assertEqual([kind], [client.next()["kind"]])
                self.assertEqual((0, 0), (client.wait(), device.wait()))

    def test_quit_does_not_wait_for_who_never_answers(self):
        device = self.device()
        self.client(device, "--local")
        device.tell("refuse-claim 9")
        device.tell("button")  # a press that nobody gets
        start = time.monotonic()
        device.tell("quit")
        self.assertEqual(0, device.wait())
        self.assertLess(time.monotonic() - start, 15)


class ControlTest(RoadTest):
    def told(self, path, *command):
        """Exit code, answer and error of a command."""
        program = os.environ["QOMA_MFPSIM"].strip("'")
        done = subprocess.run([program, "tell", path, *command], capture_output=True, text=True, timeout=LIMIT)
        return done.returncode, done.stdout, done.stderr

    def test_scripts_give_commands_and_read_the_log(self):
        path = self.folder().path / "sim"
        self.device("--control", path).kill()
        self.assertTrue(path.is_socket(), "left over")
        device = self.device("--control", path)
        self.assertEqual(0o600, path.stat().st_mode & 0o777)
        client = self.client(device, "--local", "--option", "Paper #2", "--option", "\x1b[31m\x9b\u202ered")
        self.assertEqual(0, self.told(path, "pick", "PAPER #2")[0])
        self.assertTrue(client.next()["option"].startswith("Paper #2;"))
        self.assertEqual((1, "", "mfpsim: there is no entry 7\n"), self.told(path, "pick", "7"))
        self.assertEqual((1, "", "mfpsim: a quote is not closed\n"), self.told(path, "pick", '"a'))
        status = self.told(path, "status")[1]
        self.assertRegex(status, r"links: 1\n  link 1: local LINK1, 2 entries, UI-SELECT-OPTION, ")
        self.assertRegex(status, "feeder: off\nfax: none\nbutton: no press waits\nkicks on their way: 0\n")
        shown = "\n".join(device.lines["out"]) + self.told(path, "panel")[1]
        self.assertIn("\\x1B[31m", shown)
        self.assertNotRegex(shown, "[\x1b\x80-\x9f\u202e]")
        self.assertEqual((0, ""), self.told(path, "quit")[:2])
        self.assertEqual(0, device.wait())
        self.assertFalse(path.exists())

    def test_json(self):
        device = self.start(Program, "QOMA_MFPSIM", "--port", "0", "--json")
        device.port = int(json.loads(device.expect("listening").string)["address"].split(":")[1])
        self.client(device, "--option", "Paper \u202eArchive")
        device.tell("panel")
        device.tell("pick paper")
        events = {}
        while "kick-echoed" not in events:
            event = json.loads(device.expect("^{.*}$").group(0))
            self.assertRegex(event["time"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z$")
            events[event["event"]] = event
        self.assertTrue(events["picked"]["text"].startswith("Paper \u202eArchive;"))
        self.assertTrue(events["answer"]["text"].startswith("1: Paper"))
        self.assertEqual((1, 1), (events["entry-added"]["link"], events["kick-sent"]["sequence"]))
        self.assertTrue(all(line.isascii() for line in device.lines["out"]))


class Terminal:
    """A shell at a terminal of its own."""

    def __init__(self):
        self.child, self.end = pty.fork()
        if self.child == 0:
            os.execvpe("bash", ["bash", "--norc", "-i"], {**os.environ, "TERM": "xterm", "PS1": "$ "})
        self.text = ""

    def type(self, text):
        os.write(self.end, text.encode())

    def expect(self, pattern):
        """Waits for what matches, and takes all before it away."""
        deadline = time.monotonic() + LIMIT
        while not (match := re.search(pattern, self.text)):
            if not select.select([self.end], [], [], max(0, deadline - time.monotonic()))[0]:
                raise AssertionError(f"{pattern!r} was not shown, but {self.text!r}")
            self.text += os.read(self.end, 4096).decode(errors="replace")
        self.text = self.text[match.end():]
        return match

    def close(self):
        os.close(self.end)
        os.waitpid(self.child, 0)


class TerminalTest(RoadTest):
    def setUp(self):
        self.terminal = self.start_terminal()
        self.path = self.folder().path / "sim"
        self.command = f"{os.environ['QOMA_MFPSIM']} --port 0 --control {self.path}"

    def start_terminal(self):
        terminal = Terminal()
        self.addCleanup(terminal.close)
        return terminal

    def test_a_line_is_edited_below_the_log(self):
        self.terminal.type(self.command + "\n")
        self.terminal.expect(r"\d\d:\d\d:\d\d\.\d{3} listening on ")
        self.terminal.expect("mfpsim> ")
        self.terminal.type("stat\t")
        self.terminal.expect("us")
        subprocess.run([os.environ["QOMA_MFPSIM"].strip("'"), "tell", self.path, "fax"], timeout=LIMIT, check=True,
                       capture_output=True)
        self.terminal.expect(r"\d fax: waits\r\n")
        self.terminal.expect("mfpsim> status")
        self.terminal.type("\n")
        self.terminal.expect("fax: waits\r\nbutton")
        self.terminal.type("\x1b[A")
        self.terminal.expect("status")
        self.terminal.type("\n")
        self.terminal.expect("misbehaviour: none")
        self.terminal.type("\x04")
        self.terminal.expect("panel is closed, the device runs on")
        self.terminal.type("\x03")
        self.terminal.expect(r"\$ ")

    def test_it_serves_in_the_background(self):
        for redirection in ("", " > /dev/null"):
            self.terminal.type(f"{self.command}{redirection} &\n")
            deadline = time.monotonic() + LIMIT
            while not self.path.exists() and time.monotonic() < deadline:
                time.sleep(0.05)
            for _ in range(3):
                self.terminal.type("jobs\n")
                self.terminal.expect(r"\[1\]\+ +(?!Stopped)Running")
            self.terminal.type(f"{os.environ['QOMA_MFPSIM']} tell {self.path} quit; wait; echo went $?\n")
            self.terminal.expect("went 0\r\n")


class DoorTest(RoadTest):
    def test_who_says_nothing_keeps_nobody_out(self):
        device = self.device()
        address = ("127.0.0.1", device.port)
        for _ in range(600):
            socket.create_connection(address, LIMIT).close()
        self.client(device).interrupt()
        silent = []
        self.addCleanup(lambda: [s.close() for s in silent])
        for _ in range(600):
            silent.append(socket.create_connection(address, LIMIT))
        self.client(device).interrupt()
        silent[-1].settimeout(LIMIT)
        self.assertEqual(b"", silent[-1].recv(1), "it is not waited for")


if __name__ == "__main__":
    unittest.main(verbosity=2)
