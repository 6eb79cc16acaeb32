"""Device and client on two hosts: two network namespaces, joined by a pair of virtual Ethernet devices.

What a pick's datagram met on its way stands in the device's log; what the client must have heard of it
follows from there.
"""
import re
import subprocess
import time
import unittest

from programs import LIMIT, Client, Device, RoadTest

DEVICE, CLIENT, CLIENT_LATER = "10.77.0.1", "10.77.0.2", "10.77.0.3"


class Host:
    """A network namespace without a name: it goes with the process that holds it, which ends when this one
    does, however that happens. So nothing is left behind, and runs side by side do not meet."""

    def __init__(self):
        self.holder = subprocess.Popen(["unshare", "--net", "sh", "-c", "echo && exec cat"], text=True,
                                       stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        if not self.holder.stdout.readline():
            reason = self.holder.communicate()[1].strip()
            raise unittest.SkipTest(f"no network namespaces: {reason}")
        self.inside = ["nsenter", f"--net=/proc/{self.holder.pid}/ns/net"]

    def run(self, command, fails=False):
        done = subprocess.run([*self.inside, *command.split()], text=True, capture_output=True, timeout=LIMIT)
        if done.returncode and not fails:
            raise AssertionError(f"{command}: {done.stderr}")
        return done.returncode == 0

    def end(self):
        self.holder.communicate()


class HostsTest(RoadTest):
    def setUp(self):
        self.device_host, self.client_host = self.host(), self.host()
        if not self.device_host.run("ip -V", fails=True):
            self.skipTest("no ip, which iproute2 has")
        peer = self.client_host.holder.pid
        self.device_host.run(f"ip link add wire type veth peer name wire netns {peer}")
        for host, address in ((self.device_host, DEVICE), (self.client_host, CLIENT)):
            host.run(f"ip address add {address}/24 dev wire")
            host.run("ip link set lo up")
            host.run("ip link set wire up")

    def host(self):
        host = Host()
        self.addCleanup(host.end)
        return host

    def start_device(self, *arguments, port=0):
        self.device = self.start(Device, "--listen", "0.0.0.0", *arguments, port=port, inside=self.device_host.inside)

    def start_client(self):
        self.client = self.start(Client, self.device, "--address", DEVICE, "--option", "Paper",
                                 inside=self.client_host.inside)

    def heard(self):
        """The numbers of the datagrams that the client has told of."""
        return [int(re.search(r"KICKSEQ=(\d+);", n["option"]).group(1))
                for n in self.client.all() if n["kind"] == "eCT_SELECT_NOTIFY"]

    def log(self, pattern):
        return [int(m.group(1)) for m in (re.search(pattern, line) for line in self.device.lines["out"]) if m]

    def pick_and_hear(self, number):
        self.device.tell("pick Paper")
        self.client.expect(f"KICKSEQ={number};")

    def recover(self):
        self.client.expect("eCT_LINK_RECOVERED")
        self.client.expect("subscribed again", "err")


class WireTest(HostsTest):
    PICKS = 40

    def expected(self):
        """A listener takes a number only if it is above the last one it took."""
        last, result = 0, []
        sent = None
        for line in self.device.lines["out"] + [""]:
            if sent and f"kick {sent} dropped" not in line and sent > last:
                last = sent
                result.append(sent)
            match = re.search(r"kick (\d+) sent to", line)
            sent = int(match.group(1)) if match else None
        return result

    def test_loss_repetition_disorder_and_delay(self):
        hosts = (self.device_host, self.client_host)
        # A kernel without netem gets a device that does the same to its datagrams and their echoes.
        bad_wire = all([host.run("tc qdisc add dev wire root netem delay 1ms", fails=True) for host in hosts])
        self.start_device(*() if bad_wire else ("--drop-odds", "0.2", "--repeat-odds", "0.2", "--reorder-odds", "0.1",
                                                "--lose-echo-odds", "0.2", "--seed", "5"))
        self.start_client()
        for host in hosts if bad_wire else ():  # from now on: to connect in time is no matter here
            host.run("tc qdisc change dev wire root netem delay 30ms 20ms loss 10% duplicate 20% reorder 25%")
        for _ in range(self.PICKS):
            self.device.tell("pick Paper")
        while len(self.log(r"kick (\d+) (?:echoed|given up)")) < self.PICKS:
            self.device.expect(r"kick \d+ (echoed|given up)")
        self.client.expect(f"KICKSEQ={self.expected()[-1]};")
        self.assertEqual(0, self.client.interrupt())
        self.assertEqual(self.expected(), self.heard())
        late = set(self.log(r"kick (\d+) held back")) | set(self.log(r"kick (\d+) given up"))
        self.assertLessEqual(set(range(1, self.PICKS + 1)) - late, set(self.heard()), "only these may be missed")
        self.assertGreater(len(self.heard()), self.PICKS // 2)


class ChangeTest(HostsTest):
    def test_the_clients_address_changes_and_the_device_starts_again(self):
        self.start_device()
        self.start_client()
        self.pick_and_hear(1)
        self.client_host.run(f"ip address del {CLIENT}/24 dev wire")
        self.client_host.run(f"ip address add {CLIENT_LATER}/24 dev wire")
        self.device.tell("pick Paper")  # goes to an address that nobody has any more
        self.device.expect("kick 2 given up")
        self.recover()
        self.device.expect("link 1 down")
        self.pick_and_hear(3)
        self.assertIn(f"NETADDR={CLIENT_LATER}:", self.client.all()[-1]["option"])

        # Nobody tells the client that the device is gone: its host is not to be reached at the time.
        self.device_host.run("ip link set wire down")
        self.device.kill()
        self.start_device(port=self.device.port)
        self.device_host.run("ip link set wire up")
        self.recover()
        self.pick_and_hear(1)
        self.pick_and_hear(2)
        self.assertEqual([1, 3, 1, 2], self.heard())


class DownTest(HostsTest):
    def test_the_link_is_down_for_ten_seconds(self):
        self.start_device()
        self.start_client()
        self.pick_and_hear(1)
        self.client_host.run("ip link set wire down")
        up_again = time.monotonic() + 10
        self.device.tell("pick Paper")
        self.device.expect("kick 2 given up")
        time.sleep(max(0, up_again - 2 - time.monotonic()))
        self.device.tell("pick Paper")  # its tries go on until the link is up
        time.sleep(max(0, up_again - time.monotonic()))
        self.client_host.run("ip link set wire up")
        self.device.expect("kick 3 (echoed|given up)")
        # The link to the device has lived through it, or has been made again: which, hangs on the moment.
        while not any(n["kind"] == "eCT_FAX_UPLOAD_NOTIFY" for n in self.client.all()):
            self.device.tell("fax")
            time.sleep(0.5)
        self.pick_and_hear(4)
        self.assertNotIn(2, self.heard())
        self.assertEqual(sorted(set(self.heard())), self.heard())
        if 3 not in self.heard():
            self.assertIn(3, self.log(r"kick (\d+) given up"))
            self.client.expect("eCT_LINK_RECOVERED")
        self.assertEqual(0, self.client.interrupt())


if __name__ == "__main__":
    unittest.main(verbosity=2)
