"""Who may come in: another user, another host, and what a device sent."""
import os
import pathlib
import re
import shutil
import socket
import struct
import subprocess
import sys
import unittest

from hosts_test import Host
from programs import LIMIT, Program, RoadTest, example_settings


def as_user(user, work, *arguments):
    """What work returns, a text, in a process of that user's."""
    end, child_end = os.pipe()
    child = os.fork()
    if child == 0:
        try:
            os.setgroups([])
            os.setgid(user)
            os.setuid(user)
            os.write(child_end, work(*arguments).encode())
        finally:
            os._exit(0)
    os.close(child_end)
    with open(end) as pipe:
        text = pipe.read()
    os.waitpid(child, 0)
    return text


def connect(path):
    with socket.socket(socket.AF_UNIX) as caller:
        caller.connect(str(path))


def burgle(paths):
    """All that one may want to do with a path; tells what could be done."""
    done = []
    for path in paths:
        for attempt in (lambda: os.listdir(path), lambda: open(path, "rb").read(1), lambda: open(path, "r+b").write(b"x"),
                        lambda: open(f"{path}/mine", "x"), lambda: os.unlink(path), lambda: connect(path)):
            try:
                attempt()
                done.append(str(path))
            except OSError:
                pass
    return " ".join(done)


def call(window):
    """Says a message to the window of that socket, and waits for the answer."""
    with socket.socket(socket.AF_UNIX) as caller:
        caller.settimeout(LIMIT)
        caller.connect(str(window))
        try:
            caller.sendall(struct.pack("<IIQ", 0x314D5751, 6, 0) + b"burgle")
            return f"answer {caller.recv(8)}"
        except OSError as error:
            return f"no answer: {error}"


def run_dirs(user):
    return [pathlib.Path(base, f"qoma-{user}") for base in ("/dev/shm", "/tmp")]


class UsersTest(RoadTest):
    """Two users without names, who own nothing. Their numbers are of this run alone."""

    def setUp(self):
        if os.geteuid() != 0:
            self.skipTest("only root can be two other users")
        self.owner = 700000 + 2 * os.getpid()
        self.stranger = self.owner + 1
        deck = os.environ["QOMA_TRACEDECK"].strip("'")
        if not as_user(self.owner, lambda: "yes" if os.access(deck, os.X_OK) else ""):
            self.skipTest("another user cannot reach the programs")
        for user in (self.owner, self.stranger):
            for path in run_dirs(user):
                self.addCleanup(shutil.rmtree, path, ignore_errors=True)
        self.home = self.folder().path
        os.chown(self.home, self.owner, self.owner)
        self.as_owner = ["setpriv", f"--reuid={self.owner}", f"--regid={self.owner}", "--clear-groups"]
        self.title = f"Doors {self.owner}"
        self.settings = self.home / "my.reg"
        self.settings.write_text(example_settings(self.home / "notifymon.log", self.title))

    def deck(self):
        return self.start(Program, "QOMA_TRACEDECK", "--title", self.title, inside=self.as_owner)

    def monitor(self, device, **options):
        return self.client(device, "--registry", self.settings, "--diagnostics", "notifymon",
                           inside=self.as_owner, **options)

    def test_another_user_finds_the_doors_closed(self):
        deck = self.deck()
        deck.expect("showing what is sent to", "err")
        device = self.device()
        client = self.monitor(device)
        deck.expect("CCallbackQThread")
        run_dir = run_dirs(self.owner)[0]
        self.assertEqual((0o700, self.owner), (run_dir.stat().st_mode & 0o777, run_dir.stat().st_uid))
        things = sorted(run_dir.iterdir())
        self.assertTrue(any(thing.is_socket() for thing in things), things)
        self.assertTrue(any(re.match("(local|global)\\.", thing.name) for thing in things), things)
        self.assertEqual("", as_user(self.stranger, burgle, [run_dir, *things]))
        window = next(thing for thing in things if thing.is_socket())
        self.assertIn("answer", as_user(self.owner, call, window), "the owner is heard")

        # With the directory's door left open, the viewer still looks who comes.
        for path in (run_dir, window):
            path.chmod(0o777)
        self.assertRegex(as_user(self.stranger, call, window), "^(no answer|answer b''$)")
        run_dir.chmod(0o700)
        device.tell("pick 1")
        client.next("eCT_SELECT_NOTIFY")
        deck.expect("^.HOST. I: .*eCT_SELECT_NOTIFY")
        self.assertEqual(1, sum("burgle" in line for line in deck.lines["out"]), "the owner's alone")

    def test_a_run_directory_that_somebody_else_has_made_is_refused(self):
        for path in run_dirs(self.owner):
            path.mkdir(mode=0o777)
            os.chown(path, self.stranger, self.stranger)
        deck = self.deck()
        self.assertEqual(1, deck.wait())
        self.assertIn("error 5", deck.lines["err"][-1])
        # A link to a directory of the owner's own is a stranger's choice of place all the same.
        for path in run_dirs(self.owner):
            path.rmdir()
            path.symlink_to(self.home)
            self.addCleanup(path.unlink, missing_ok=True)
        self.assertEqual(1, self.deck().wait())
        device = self.device()
        self.monitor(device)  # diagnostics never fail their caller
        self.assertEqual([], [p for path in run_dirs(self.owner) for p in path.iterdir()
                              if re.match("(local|global|window)[.-]", p.name)])

    def test_settings_that_somebody_else_can_write_are_refused(self):
        device = self.device()
        for user, mode, words in ((self.stranger, 0o644, "belongs to another user"),
                                  (self.owner, 0o646, "can be written by every user")):
            os.chown(self.settings, user, user)
            self.settings.chmod(mode)
            client = self.monitor(device, ready=False)
            self.assertEqual(1, client.wait())
            self.assertIn(words, client.lines["err"][0])


class DataTest(RoadTest):
    def test_who_listens_where(self):
        host = Host()
        self.addCleanup(host.end)
        if not host.run("ip -V", fails=True):
            self.skipTest("no ip, which iproute2 has")
        host.run("ip link set lo up")
        host.run("ip address add 10.77.0.9/32 dev lo")

        def listeners():
            """Of all programs on that host: protocol and address. 0A is a TCP socket that listens."""
            found = []
            for name in ("tcp", "tcp6", "udp", "udp6"):
                table = subprocess.check_output([*host.inside, "cat", f"/proc/net/{name}"], text=True)
                for line in table.splitlines()[1:]:
                    _, local, _, state = line.split()[:4]
                    if name.startswith("udp") or state == "0A":
                        found.append((name, local.split(":")[0]))
            return sorted(found)

        any_host, loopback = "00000000", "0100007F"
        for arguments, address, expected in (([], None, loopback), (["--listen", "0.0.0.0"], "10.77.0.9", any_host)):
            device = self.device(*arguments, inside=host.inside)
            own = [("tcp", expected), ("udp", any_host)]
            self.assertEqual(own, listeners())
            reach = [*host.inside, sys.executable, "-c",
                     f"import socket; socket.create_connection(('10.77.0.9', {device.port}), 5)"]
            self.assertEqual(address is not None, subprocess.run(reach, capture_output=True).returncode == 0)
            for kind, more in ((["--local"], []), ([], [("udp", any_host)])):
                client = self.client(device, *kind, inside=host.inside)
                self.assertEqual(sorted(own + more), listeners(), "a client opens its datagram port and nothing else")
                self.assertEqual(0, client.interrupt())
            device.kill()

    def test_what_a_device_sent_is_data(self):
        folder = self.folder()
        out, trap = folder.path / "out", folder.path / "trap"
        device = self.device()
        settings = folder.path / "my.reg"
        settings.write_text(example_settings(folder.path / "../x.log"))
        command = f'printf "%s\\n" "$NOTIFY_KIND $NOTIFY_CODE $NOTIFY_OPTION" >> {out}'
        client = self.client(device, "--count", "2", "--exec", command, "--registry", settings,
                             "--diagnostics", "notifymon")
        address, port = device.expect("NETADDR=([0-9.]+):([0-9]+);").groups()
        texts = [f"%n%n%s%s%99999d;$(touch {trap})`touch {trap}`;|touch {trap};../../{trap};\x1b[2J\x07\"\\;KICKSEQ=1;",
                 f"';touch {trap};'\n&& touch {trap}\r\n%1$n{{}};KICKSEQ=2;"]
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            for text in texts:
                sender.sendto(text.encode(), (address, int(port)))
        self.assertEqual(texts, [client.next("eCT_SELECT_NOTIFY")["option"] for _ in texts])
        self.assertEqual(0, client.wait())
        self.assertEqual("".join(f"eCT_SELECT_NOTIFY 7 {text}\n" for text in texts), out.read_bytes().decode())
        self.assertEqual([], list(folder.path.rglob("trap*")))


if __name__ == "__main__":
    unittest.main(verbosity=2)
