#!/usr/bin/env python3
"""A hub's way from the device's datagram to a broker's subscriber, beside `notifymon --json | mosquitto_pub -l -q 1`,
in turns at the same device and broker. usage: bench/hub.py FOLDER [--smoke]

FOLDER holds the programs; what is journalled goes to the disk that it is on. The datagrams come from here, in the
device's place: it would wait for people.
"""
import argparse
import contextlib
import json
import os
import re
import select
import shlex
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time

LIMIT = 30  # s, for a program to be ready
BROKER = shutil.which("mosquitto", path=os.environ.get("PATH", "") + ":/usr/sbin")


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_for(what):
    end = time.monotonic() + LIMIT
    while not (result := what()):
        if time.monotonic() > end:
            sys.exit("bench: a program does not get ready")
        time.sleep(0.02)
    return result


class Office:
    """A device, a broker, and what was started beside them."""

    def __init__(self, folder, programs):
        self.folder, self.programs, self.started = folder, programs, []
        self.broker, self.device = free_port(), free_port()
        settings = os.path.join(folder, "mosquitto.conf")
        # As it comes, except that it keeps as many messages waiting as we send.
        with open(settings, "w") as file:
            file.write(f"listener {self.broker} 127.0.0.1\nallow_anonymous true\nmax_queued_messages 100000\n")
        self.start(BROKER, "-c", settings)
        self.start(self.program("mfpsim"), "--port", self.device, "--control", self.control())
        wait_for(lambda: os.path.exists(self.control()))

    def program(self, name):
        return os.path.join(self.programs, name)

    def control(self):
        return os.path.join(self.folder, "device")

    def start(self, *command, **options):
        options.setdefault("stdout", subprocess.DEVNULL)
        process = subprocess.Popen([str(part) for part in command], stdin=subprocess.PIPE,
                                   stderr=subprocess.DEVNULL, start_new_session=True, **options)
        self.started.append(process)
        return process

    def subscribe(self, topic):
        process = self.start("mosquitto_sub", "-p", self.broker, "-t", topic, "-q", 1, "-F", "%p", stdout=subprocess.PIPE)
        os.set_blocking(process.stdout.fileno(), False)
        return process

    def entry(self, text):
        """What the device would send for this entry, without its number."""
        def find():
            panel = subprocess.run([self.program("mfpsim"), "tell", self.control(), "panel"], text=True, capture_output=True)
            return re.search(f"{text};NETADDR=.*", panel.stdout)
        return wait_for(find).group(0)

    def end(self):
        for process in reversed(self.started):
            os.killpg(process.pid, signal.SIGKILL)  # a pipe is more than its shell
            process.wait()


class Way:
    """From a datagram to a subscriber's line."""

    def __init__(self, office, entry, topic, window):
        self.window = window  # events on their way at most
        self.text = office.entry(entry)
        address, port = re.search(r"NETADDR=([0-9.]+):(\d+);", self.text).groups()
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.connect((address, int(port)))
        self.socket.setblocking(False)
        self.subscriber = office.subscribe(topic)
        self.number, self.rest = 0, b""
        wait_for(self.warm)

    def warm(self):
        self.send()
        time.sleep(0.1)
        self.take_echoes()
        return self.lines()

    def send(self):
        self.number += 1
        self.socket.send(f"{self.text}KICKSEQ={self.number};".encode())

    def take_echoes(self):
        c = 0
        try:
            while True:
                self.socket.recv(512)
                c += 1
        except BlockingIOError:
            return c

    def lines(self):
        """The numbers that have come to the subscriber."""
        piece = self.subscriber.stdout.read()
        *whole, self.rest = (self.rest + (piece or b"")).split(b"\n")
        numbers = [re.search(rb"KICKSEQ=(\d+)", line) for line in whole]  # some lines are about the link
        return [int(number.group(1)) for number in numbers if number]

    def wait(self, timeout=LIMIT):
        return select.select([self.socket, self.subscriber.stdout], [], [], timeout)[0]

    def latencies(self, count):
        """Of picks 20 ms apart, in ms."""
        result = []
        for _ in range(count):
            time.sleep(0.02)
            begin = time.perf_counter()
            self.send()
            while self.number not in self.lines():
                if not self.wait():
                    sys.exit("bench: an event does not arrive")
                self.take_echoes()
            result.append((time.perf_counter() - begin) * 1000)
        return result

    def rate(self, count):
        """Events a second, as fast as they are taken: 50 without an echo, and no more on their way
        to the subscriber than the programs keep."""
        begin, first = time.perf_counter(), self.number
        echoed = arrived = 0
        seen = set()
        while len(seen) < count:
            while self.number - first < count and self.number - first - echoed < 50 and \
                    self.number - first - len(seen) < self.window:
                self.send()
            if not self.wait():
                sys.exit(f"bench: {count - len(seen)} of {count} events do not arrive")
            echoed += self.take_echoes()
            seen.update(number for number in self.lines() if number > first)
        return count / (time.perf_counter() - begin)


def hub(office, round):
    settings = os.path.join(office.folder, "hub.toml")
    with open(settings, "w") as file:
        file.write(f'hub = "bench"\n[journal]\nfile = "journal{round}.db"\n[[device]]\nname = "d"\naddress = "127.0.0.1"\n'
                   f'port = {office.device}\nentries = ["hub"]\n[[sink]]\nname = "broker"\ntype = "mqtt"\n'
                   f'host = "127.0.0.1"\nport = {office.broker}\n')
    office.start(office.program("notifyhub"), "--settings", settings)
    return Way(office, "hub", "qoma/office/d/panel.picked", 5000)


def pipe(office):
    program = shlex.quote(office.program("notifymon"))
    office.start("sh", "-c", f"{program} --json --address 127.0.0.1 --port {office.device} --option pipe | "
                             f"mosquitto_pub -p {office.broker} -l -q 1 -t pipe")
    return Way(office, "pipe", "pipe", 900)  # notifymon drops what is more than 1000 behind


def fsync_ms(folder):
    """The median of what the disk takes to keep a page."""
    times = []
    with open(os.path.join(folder, "page"), "wb") as file:
        for _ in range(100):
            begin = time.perf_counter()
            os.write(file.fileno(), b"x" * 4096)
            os.fdatasync(file.fileno())
            times.append((time.perf_counter() - begin) * 1000)
    return statistics.median(times)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("folder")
    parser.add_argument("--smoke", action="store_true")
    options = parser.parse_args()
    if not BROKER or not os.path.exists(os.path.join(options.folder, "notifyhub")):
        print("| hub | | | | | no mosquitto, or no notifyhub |")
        return
    with contextlib.suppress(OSError):
        os.nice(-15)  # where it is allowed: other work on the machine then disturbs less
    rounds, paced, many = (1, 20, 500) if options.smoke else (5, 200, 20000)
    with tempfile.TemporaryDirectory(dir=options.folder) as folder:
        office = Office(folder, options.folder)
        try:
            ways = {"hub": hub(office, 0), "pipe": pipe(office)}
            waits, rates, disk = {"hub": [], "pipe": []}, {"hub": [], "pipe": []}, []
            for _ in range(rounds):
                disk.append(fsync_ms(folder))
                for name, way in ways.items():
                    waits[name] += way.latencies(paced)
                    rates[name].append(way.rate(many))
        finally:
            office.end()
    report(waits, rates, statistics.median(disk), options.smoke)


def report(waits, rates, disk, smoke):
    def verdict(met):
        return "not judged" if smoke else "met" if met else "MISSED"
    p50 = {name: statistics.median(all) for name, all in waits.items()}
    p99 = {name: statistics.quantiles(all, n=100)[98] for name, all in waits.items()}
    rate = {name: statistics.median(all) for name, all in rates.items()}
    print(f"\nthe hub, datagram to subscriber; the disk keeps a page in {disk:.2f} ms\n\n"
          "| path | hub | notifymon and mosquitto_pub | goal | |\n|---|---|---|---|---|")
    print(f"| p50 | {p50['hub']:.2f} ms | {p50['pipe']:.2f} ms | ≤ {disk + 2:.2f} ms | {verdict(p50['hub'] <= disk + 2)} |")
    print(f"| p99 | {p99['hub']:.2f} ms | {p99['pipe']:.2f} ms | | |")
    print(f"| events a second | {rate['hub']:.0f} | {rate['pipe']:.0f} | ≥ the pipe's | {verdict(rate['hub'] >= rate['pipe'])} |")


main()
