"""Many devices in one process: each at its own address, on threads that do not grow with them."""
import json
import pathlib
import time
import urllib.request

from programs import Device, RoadTest


class FleetTest(RoadTest):
    def threads(self, device):
        status = pathlib.Path(f"/proc/{device.process.pid}/status").read_text()
        return int(status.split("Threads:")[1].split()[0])

    def test_each_device_is_itself_and_all_can_be_told(self):
        fleet = self.start(Device, "--fleet", "300", "--web", "0")
        url = fleet.expect(r"pages at (\S+)").group(1)
        clients = {n: self.client(fleet, "--address", f"127.0.1.{n}", "--option", f"Entry {n}") for n in (1, 7, 255)}
        before = self.threads(fleet)
        more = [self.client(fleet, "--address", "127.0.1.7", "--option", "Another") for _ in range(3)]
        self.assertEqual(before, self.threads(fleet))
        fleet.tell("7 pick entry")
        pick = clients[7].next("eCT_SELECT_NOTIFY")
        self.assertEqual(("Entry 7", "127.0.1.7"), (pick["option"].split(";")[0], pick["senderAddress"]))
        fleet.tell("all fax")
        for client in (*clients.values(), *more):
            client.next("eCT_FAX_UPLOAD_NOTIFY")
        self.assertEqual(1, len(clients[1].all()))
        fleet.tell("301 fax")
        fleet.expect("there is no device 301")
        with urllib.request.urlopen(url + "api/devices?filter=VX4-000007&limit=5") as answer:
            listed = json.load(answer)
        self.assertEqual((300, 1, 7, 4), (listed["total"], listed["matching"], listed["devices"][0]["number"],
                                          listed["devices"][0]["links"]))
        began = time.monotonic()
        self.assertEqual(0, fleet.interrupt())
        self.assertLess(time.monotonic() - began, 5)
