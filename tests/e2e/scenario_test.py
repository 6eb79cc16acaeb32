"""Scenarios: what mfpsim's scripts say of clients, good and bad, and of their own mistakes."""
import os
import pathlib
import subprocess
import sys
import time
import unittest
import xml.etree.ElementTree as xml

from programs import Device, RoadTest

HERE = pathlib.Path(__file__).parent


def bad_client(test, device, *arguments):
    """Starts a client that is bad in that manner, or good."""
    client = subprocess.Popen([sys.executable, HERE / "bad_client.py", str(device.port), *arguments])
    test.addCleanup(client.wait, 30)


class ScenarioTest(RoadTest):
    def run_script(self, text, *arguments):
        """The exit code of a script, and what it said on the standard error."""
        folder = self.folder()
        path = folder.path / "script"
        path.write_text(text)
        device = self.device("--script", folder.name("QOMA_MFPSIM", path), *arguments)
        code = device.wait()
        return code, "\n".join(device.lines["err"]), device

    def judge(self, start_client):
        """What becomes of client.scenario: the exit code, the failed lines, and the cases that failed."""
        report = self.folder().path / "report.xml"
        device = self.device("--script", HERE / "client.scenario", "--junit", report)
        start_client(device)
        code = device.wait()
        failed = [case.get("name") for case in xml.parse(report).iter("testcase") if case.find("failure") is not None]
        return code, "\n".join(device.lines["err"]), failed

    def test_our_client_passes_and_three_bad_ones_fail_where_they_are_bad(self):
        def bad(manner):
            return lambda device: bad_client(self, device, manner)

        for name, start, failure, case in (
                ("ours", lambda device: self.client(device, "--option", "Paper Archive", ready=False), None, None),
                ("good", bad("good"), None, None),
                ("mute", bad("mute"), "expected and did not come: echo within 400ms", "echoes every pick, and soon"),
                ("slow", bad("slow"), "expected and did not come: echo within 400ms", "echoes every pick, and soon"),
                ("forgetful", bad("forgetful"), "expected and did not come: entry Paper Archive within 5s",
                 "subscribes again after the link was cut")):
            with self.subTest(name):
                code, said, failed = self.judge(start)
                if failure:
                    self.assertEqual(1, code)
                    self.assertIn(failure, said)
                    self.assertRegex(said, r"client\.scenario:\d+: ")
                    self.assertIn(case, failed)
                else:
                    self.assertEqual((0, "", []), (code, said, failed))

    def test_lines_that_fail_are_named_with_what_happened_instead(self):
        for script, said in (
                ("button\n\nexpect claim by 7 within 100ms # nobody\nquit", "script:3: expected and did not come: "
                 "claim by 7 within 100ms\n  button: pressed"),
                ("button\nexpect-no event button within 100ms", "script:2: not expected, and came: event button"),
                ("expect dinner", "script:1: nobody can expect dinner"),
                ("expect event kick-eaten", "script:1: there is no event kick-eaten"),
                ("expect echo within soon", "script:1: within takes a time"),
                ("adf on\nrepeat 2\nbutton", "script:2: repeat without end"),
                ("end", "script:1: end without repeat"),
                ("pick ${QOMA_NO_SUCH_NAME}", "script:1: there is no variable QOMA_NO_SUCH_NAME"),
                ("at noon button", "script:1: at takes a time and a command"),
                ('pick "x', "script:1: a quote is not closed")):
            with self.subTest(script):
                folder = self.folder()
                path = folder.path / "script"
                path.write_text(script)
                done = subprocess.run([os.environ["QOMA_MFPSIM"].strip("'"), "--port", "0", "--script", path],
                                      capture_output=True, text=True, timeout=30)
                self.assertEqual(1, done.returncode)
                self.assertIn(said, done.stderr)

    def test_times_rounds_and_variables(self):
        os.environ["QOMA_SCENARIO_STATE"] = "on"
        began = time.monotonic()
        code, said, device = self.run_script("repeat 2\nrepeat 3\nbutton\nend\nfax\nend\n"
                                             "at 0.8s adf ${QOMA_SCENARIO_STATE}\n"
                                             "expect event feeder state=on\nadf ${QOMA_NOT_SET:-off}\nquit")
        self.assertEqual((0, ""), (code, said))
        self.assertGreaterEqual(time.monotonic() - began, 0.8)
        happened = "\n".join(device.lines["out"])
        self.assertEqual([6, 2, 1, 1], [happened.count(line) for line in
                                        ("button: pressed", "fax: waits", "feeder: on", "feeder: off")])


if __name__ == "__main__":
    unittest.main()
