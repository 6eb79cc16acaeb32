"""Tapes: what is recorded, what is not, and the device that a tape is again."""
import json
import re

from programs import Program, RoadTest
from scenario_test import bad_client


def lines_of(path):
    return [json.loads(line) for line in path.read_text().splitlines()]


class TapeTest(RoadTest):
    def test_a_tape_carries_no_secret_unless_it_is_told_to(self):
        secrets = ["Taxes 2025", "mywidget", "127.0.0.1"]
        for masks, kept in (((), []), (("--mask", "addresses,names"), secrets[:1]), (("--mask", "none"), secrets)):
            with self.subTest(masks):
                folder = self.folder().path
                device = self.device("--record", folder / "device", *masks)
                local = self.client(device, "--local", "--address", "mywidget", "--option", "Taxes 2025",
                                    "--record", folder / "local", *masks)
                network = self.client(device, "--record", folder / "network", *masks)
                for command in ("pick 1", "pick 2", "button", "fax"):
                    device.tell(command)
                for client in (local, network):
                    client.expect("eCT_FAX")
                    client.interrupt()
                device.tell("quit")
                self.assertEqual(0, device.wait())
                tapes = [path.read_text() for path in folder.iterdir()]
                plain = "".join(tapes) + "".join(bytes.fromhex(digits).decode(errors="replace") for digits in
                                                 re.findall(r'"payload":"([0-9a-f]*)"', tapes[0] + tapes[1] + tapes[2]))
                self.assertEqual(kept, [secret for secret in secrets if secret in plain])
                self.assertIn("KICKSEQ=1;", plain)

    def test_a_full_disk_ends_the_tape_and_nothing_else(self):
        folder = self.folder().path
        device = self.device("--record", folder / "device", inside=("prlimit", "--fsize=2000"))
        client = self.client(device, "--record", folder / "client", inside=("prlimit", "--fsize=700"))
        for _ in range(5):
            device.tell("pick 1")
            client.next("eCT_SELECT_NOTIFY")
        for program in (device, client):
            program.expect(r"the tape \S+ ends after \d+ lines: the disk is full", "err")


class ReplayTest(RoadTest):
    # What it does is waited for: what a client misses on a busy day it may hear on the next.
    SOAK = """wait-entry Alpha
wait-entry Beta
repeat 2
    repeat 6
        pick Alpha
        expect echo within 20s
        pick Beta
        wait 40
        button
        expect claim within 20s
        wait 40
        fax
        wait 40
        adf on
        wait 40
        adf off
        button
        expect event token-freed within 20s
    end
    drop 1
    pick Alpha
    expect echo within 20s
    pick Alpha
    expect echo within 20s
    cut 300
    expect gone Alpha within 20s
    wait-entry Alpha 20000
    wait-entry Beta 20000
    late 100
end
wait 200
quit
"""

    def heard(self, device, *clients):
        """What clients with these arguments hear from a device until its end, and its exit code."""
        folder = self.folder().path
        clients = [self.client(device, *arguments, "--record", folder / str(n), ready=False)
                   for n, arguments in enumerate(clients)]
        code = device.wait()
        for client in clients:
            client.interrupt()
        tapes = [lines_of(folder / str(n))[1:] for n in range(len(clients))]
        return code, [[{**line, "t": 0} for line in tape if line["kind"] not in ("link", "dropped")] for tape in tapes]

    def test_a_soak_is_heard_again_in_the_same_order(self):
        folder = self.folder().path
        (folder / "soak").write_text(self.SOAK)
        # What one hears over one road has an order.
        clients = ("--option", "Alpha", "--on", "select"), ("--local", "--option", "Beta")
        recorded = self.heard(self.device("--script", folder / "soak", "--record", folder / "tape"), *clients)
        self.assertEqual(0, recorded[0])
        self.assertGreaterEqual(min(map(len, recorded[1])), 18)
        for order in (clients, clients[::-1]):
            code, again = self.heard(self.device("--replay", folder / "tape", "--speed", "20"), *order)
            self.assertEqual(recorded, (code, again if order is clients else again[::-1]))

    def test_a_client_that_departs_is_told_of_in_a_line(self):
        tape = self.folder().path / "tape"
        device = self.device("--record", tape, "--mask", "none")
        client = self.client(device, "--option", "Alpha")
        device.tell("pick 1")
        client.next("eCT_SELECT_NOTIFY")
        device.tell("quit")
        self.assertEqual(0, device.wait())
        for manner, entry, said in (("mute", ("Alpha",), r"tape:\d+: the client departs from the tape: no echo comes"),
                             ("good", ("Other",), r"set UI-ADD-OPTION Other\S*; on the tape comes, in line \d+, set UI-ADD-OPTION Alpha")):
            with self.subTest(manner):
                device = self.device("--replay", tape, "--speed", "100")
                bad_client(self, device, manner, *entry)
                device.expect(said, "err")
                if manner == "mute":
                    self.assertEqual(1, device.wait())

    def test_a_line_that_is_broken_is_named(self):
        head = '{"tape":1,"program":"mfpsim 1.0.0","devices":1,"masked":[]}\n'
        frame = '{"t":1,"device":1,"link":1,"from":"client","kind":7,"number":0,"payload":"%s"}\n'
        for text, said in (("", "1: the tape is empty"), ("x\n", "1: this is no JSON object"),
                           ('{"tape":2}\n', "1: this is no tape of mfpsim"), (head + "[]\n", "2: this is no JSON object"),
                           (head + '{"t":-1}\n', '2: "t" is no such number'), (head + frame % "0g", '2: "payload" is not of pairs'),
                           (head + frame % "0", '2: "payload" is not of pairs'), (head, "tape: no client is on this tape"),
                           (head + '{"t":1,"device":2,"event":"cut","ms":1}\n', '2: "device" is no such number'),
                           (head + '{"t":1,"device":1,"event":"fire"}\n', '2: there is no event "fire"')):
            with self.subTest(text):
                tape = self.folder().path / "tape"
                tape.write_text(text)
                device = self.start(Program, "QOMA_MFPSIM", "--replay", tape)
                self.assertEqual((1, 1), (device.wait(), len(device.lines["err"])))
                self.assertIn(said, device.lines["err"][0])
