"""Tapes: what is recorded, what is not, and the device that a tape is again."""
import json
import re

from programs import RoadTest


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
