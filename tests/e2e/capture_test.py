"""The dissector for Wireshark, on a capture of a device and its clients. Needs tshark, and the right to capture."""
import pathlib
import shutil
import struct
import subprocess
import sys
import time
import unittest

from bad_client import Link, kFaxUpload, kHello
from programs import LIMIT, RoadTest

DISSECTOR = pathlib.Path(__file__).parents[2] / "tools" / "wireshark" / "qoma.lua"
KINDS = {1, 2, 3, 4, 5, 6, 7, 16} | {kind | 0x80 for kind in (1, 2, 3, 4, 5, 6, 7)}


@unittest.skipUnless(shutil.which("tshark"), "no tshark")
class CaptureTest(RoadTest):
    def capture(self, path):
        """Captures until the result is called; packets arrive in the file as they come."""
        tshark = subprocess.Popen(["tshark", "-i", "lo", "-w", path, "-q", "tcp or udp"], stdout=subprocess.DEVNULL,
                                  stderr=subprocess.PIPE, text=True)
        self.addCleanup(tshark.stderr.close)
        self.addCleanup(tshark.wait)
        self.addCleanup(tshark.terminate)
        for line in tshark.stderr:
            if "Capturing on" in line:
                break
        else:
            self.skipTest("no right to capture")
        end = time.monotonic() + LIMIT
        while not path.exists() and time.monotonic() < end:
            time.sleep(0.05)
        time.sleep(0.5)  # between its word and the first packet; it has no other
        return tshark

    def fields(self, path, shown, *names):
        """The fields of the packets that the filter shows; one that is there several times is a list."""
        command = ["tshark", "-X", f"lua_script:{DISSECTOR}", "-r", path, "-Y", shown, "-T", "fields"]
        out = subprocess.run(command + [word for name in names for word in ("-e", name)], capture_output=True,
                             text=True, check=True, timeout=120).stdout
        return [[value.split(",") if value else [] for value in line.split("\t")] for line in out.splitlines()]

    def test_every_kind_is_known_and_what_is_garbled_is_flagged(self):
        path = self.folder().path / "capture.pcapng"
        tshark = self.capture(path)
        device = self.device("--lose-echo", "1")
        option = f"Paper Archive {device.port}"  # others may be at it beside us
        client = self.client(device, "--option", option)
        local = self.client(device, "--local")
        device.tell("pick paper")
        client.next("eCT_SELECT_NOTIFY")
        device.expect("kick 1 echoed")
        device.tell("button")
        local.next("eCT_SCANNER_BUTTON_NOTIFY")
        link = Link(device.port)
        self.addCleanup(link.socket.close)
        link.ask(kHello, b"QDLK" + struct.pack("<HBB", 1, 4, 0))
        serial = bytes((4, 1, 1, 3, 3))
        for kind, payload in ((2, b""), (3, serial + b"\4"), (5, bytes((5,)) + kFaxUpload + struct.pack("<BH", 1, 7)),
                              (6, bytes((5,)) + kFaxUpload), (7, b""), (4, serial + struct.pack("<BI", 4, 1) + b"x")):
            link.ask(kind, payload)
        device.tell("garbage")
        device.expect("garbage sent")
        client.next("eCT_LINK_RECOVERED")
        time.sleep(0.5)
        tshark.terminate()
        tshark.wait(LIMIT)

        port = f"tcp.port == {device.port}"
        frames = self.fields(path, f"qoma && {port}", "qoma.kind", "qoma.object", "qoma.text", "qoma.result")
        self.assertEqual(KINDS, {int(kind) for row in frames for kind in row[0]})
        self.assertIn("UI-ADD-OPTION", {name for row in frames for name in row[1]})
        self.assertTrue(any("Paper Archive" in text for row in frames for text in row[2]))
        self.assertIn("5", {result for row in frames for result in row[3]})  # the serial number is not to be set
        flagged = self.fields(path, f"(_ws.malformed || _ws.expert.group == Malformed) && {port}", "qoma.kind",
                              "_ws.expert.message")
        self.assertTrue(flagged)
        self.assertEqual({"A length that no frame has: 2779096485"}, {row[1][0] for row in flagged})
        kicks = self.fields(path, f'qomakick.text contains "{option};"', "qomakick.sequence", "qomakick.echo_of",
                            "qomakick.again")
        self.assertEqual([["1"]] * 4, [row[0] for row in kicks])
        self.assertEqual(["sent", "echo", "sent again", "echo"],
                         ["echo" if echo_of else "sent again" if again else "sent" for _, echo_of, again in kicks])


if __name__ == "__main__":
    sys.exit(unittest.main())
