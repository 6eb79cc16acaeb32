"""notifymon doctor: a road without faults, and each fault by its name."""
import re
import socket
import unittest

from programs import Program, RoadTest, example_settings


class DoctorTest(RoadTest):
    def setUp(self):
        self.shared = self.folder()
        self.client_name = lambda name: self.shared.name("QOMA_NOTIFYMON", name)
        self.text = example_settings(self.client_name("notifymon.log"))

    def doctor(self, *arguments, settings=None):
        """Exit code and findings. With settings, under a name that they have values for."""
        if settings:
            (self.shared.path / "my.reg").write_text(settings)
            arguments += "--registry", self.client_name("my.reg"), "--diagnostics", "notifymon"
        program = self.start(Program, "QOMA_NOTIFYMON", "doctor", *arguments)
        return program.wait(), program.lines["out"]

    def areas(self, lines, mark):
        return [match.group(1) for line in lines if (match := re.match(mark + r"\s+(\w+)", line))]

    def test_a_road_without_faults(self):
        jobs = self.shared.path / "jobs"
        jobs.touch()
        device = self.device("--print-path", self.shared.name("QOMA_MFPSIM", "jobs"))
        code, lines = self.doctor("--port", device.port, "--discover", self.client_name("jobs"), "--verbose",
                                  settings=self.text)
        self.assertEqual(["settings", "diagnostics", "log", "port", "device", "panel", "address", "echo", "discovery"],
                         self.areas(lines, "ok"))
        self.assertEqual((0, ["viewer"]), (code, self.areas(lines, "warning")), lines)
        for setting in (r"File: Level = 2 (set)", r"File: Base Category Mask = 0xffffffffffffffff (set)",
                        r'notifymon: Id String = "[NOTIFYMON]: " (set)', r'Base Category\6: Short Name = "E" (set)',
                        r"Custom Category: Display Level = 0 (default)"):
            self.assertTrue(any(line.endswith(setting) for line in lines), (setting, lines))
        self.assertFalse((self.shared.path / "notifymon.log").exists())
        device.expect("entry deleted: notifymon doctor;")
        _, lines = self.doctor("--port", device.port, settings=self.text)
        self.assertLess(len(lines), 20, "without --verbose nobody has to read every setting")
        code, lines = self.doctor("--port", device.port, "--local")
        self.assertEqual((0, ["device", "panel", "address"]), (code, self.areas(lines, "ok")[-3:]))

    def test_the_way_from_the_device_for_the_entries_of_a_run_and_who_disturbs_it(self):
        device = self.device()
        options = ("--port", device.port, "--option", "Paper", "--on", "select", "--json", "--count", 3, "--exec", "no")
        doctor = self.start(Program, "QOMA_NOTIFYMON", "doctor", "--pick", *options)
        doctor.expect('pick "Paper" at the device now')
        address, port = device.expect(r"entry added: Paper;NETADDR=([\d.]+):(\d+);").groups()
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as stranger:
            stranger.sendto(b"KICKSEQ=-1;", (address, int(port)))
        doctor.expect("^warning  listener: it was silenced: .*KICKSEQ=-1")
        device.expect("entry added: Paper;")
        device.tell("pick Paper")
        doctor.expect("^ok       pick: ")
        self.assertEqual(0, doctor.wait())

    def test_each_fault_is_named_with_what_to_do(self):
        with socket.socket() as closed:
            closed.bind(("127.0.0.1", 0))
            free = closed.getsockname()[1]
        stranger = self.device("--model", "SOMETHING ELSE")
        device = self.device()
        lost = self.client_name("missing/notifymon.log")
        for port, settings, arguments, fault in (
                (free, self.text, (), r"device: .*\(1225\)"),
                (stranger.port, self.text, (), r"device: .*\(1307\)"),
                (device.port, self.text + "[broken\n", (), r"settings refused: .*my\.reg:\d+: "),
                (device.port, None, ("--registry", self.client_name("missing.reg")), "settings: .*no such file"),
                (device.port, self.text.replace(self.client_name("notifymon.log"), lost), (), "log: .*error 3"),
                (device.port, self.text, ("--discover", self.client_name("missing")), r"discovery: .*\(110\)")):
            with self.subTest(fault=fault):
                code, lines = self.doctor("--port", port, *arguments, settings=settings)
                faults = [number for number, line in enumerate(lines) if line.startswith("FAILURE")]
                self.assertEqual((1, fault.partition(":")[0].split()[0]),
                                 (code, self.areas(lines, "FAILURE")[0]), lines)
                self.assertRegex(lines[faults[0]], "^FAILURE  " + fault)
                self.assertRegex(lines[faults[0] + 1], "^ +do: ")
                self.assertEqual(1, len(faults), "one fault is one failure")
        title = '"Title"="' + "x" * 64 + '"'
        _, lines = self.doctor("--port", device.port, settings=self.text.replace('"Title"="TraceDeck"', title))
        self.assertTrue(any(line.endswith("(default, what is set is too long)") for line in lines), lines)


if __name__ == "__main__":
    unittest.main(verbosity=2)
