"""Whom a hub hands events to, each of them real: a broker, a web server, a desktop's bus, and who reads its metrics."""
import contextlib
import http.server
import json
import os
import queue
import shlex
import shutil
import socket
import ssl
import subprocess
import threading
import time
import unittest
import urllib.request

from programs import LIMIT, Program, RoadTest

BROKER = shutil.which("mosquitto", path=os.environ.get("PATH", "") + ":/usr/sbin")


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def until(what, limit=None):
    """Waits for what() to be true, which it is then."""
    end = time.monotonic() + (limit or LIMIT)
    while not (result := what()):
        if time.monotonic() > end:
            raise AssertionError("it did not come to that")
        time.sleep(0.02)
    return result


class Certificates:
    """An authority of our own, and what it vouches for."""

    def __init__(self, folder, *names):
        self.folder = folder
        self.run("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", "ca.key", "-out", "ca.pem", "-days", "2",
                 "-subj", "/CN=test authority")
        (folder / "names").write_text("subjectAltName=DNS:localhost,IP:127.0.0.1\n")
        for name in names:
            self.run("req", "-newkey", "rsa:2048", "-nodes", "-keyout", f"{name}.key", "-out", f"{name}.csr",
                     "-subj", f"/CN={name}")
            self.run("x509", "-req", "-in", f"{name}.csr", "-CA", "ca.pem", "-CAkey", "ca.key", "-CAcreateserial",
                     "-out", f"{name}.pem", "-days", "2", "-extfile", "names")
            (folder / f"{name}.key").chmod(0o644)  # the broker may give root's rights up

    def run(self, *arguments):
        subprocess.run(["openssl", *arguments], cwd=self.folder, check=True, capture_output=True)


class Broker:
    """A broker with a folder of its own, which forgets what it had when it is killed."""

    def __init__(self, test, *lines):
        self.folder = test.folder().path
        self.folder.chmod(0o755)
        self.lines = lines or ["allow_anonymous true"]
        self.process = self.port = None
        test.addCleanup(self.kill)
        self.start()

    def start(self):
        """At the port that it had before, or at any that nobody takes first."""
        for port in [self.port] if self.port else [free_port() for _ in range(5)]:
            settings = self.folder / "mosquitto.conf"
            settings.write_text("\n".join([f"listener {port} 127.0.0.1", "persistence false", *self.lines]) + "\n")
            with (self.folder / "log").open("a") as log:
                self.process = subprocess.Popen([BROKER, "-c", str(settings)], stdout=log, stderr=log)
            if until(lambda: self.process.poll() is not None or self.listens(port)) and self.process.poll() is None:
                self.port = port
                return
        raise AssertionError("the broker does not start: " + (self.folder / "log").read_text())

    def listens(self, port):
        with contextlib.suppress(OSError):
            socket.create_connection(("127.0.0.1", port)).close()
            return True

    def kill(self):
        if self.process:
            self.process.kill()
            self.process.wait()
            self.process = None


class HubTest(RoadTest):
    def office_device(self):
        """A device that can be asked for its panel."""
        control = self.folder().path / "device"
        device = self.device("--control", control)
        device.control = control
        return device

    def hub(self, device, sinks, name="hub"):
        """A hub that hears the device's picks over the network; the rest of its settings are the sinks."""
        folder = self.folder().path
        (folder / "hub.toml").write_text(
            f'hub = "{name}"\n[journal]\nfile = "journal.db"\n'
            f'[[device]]\nname = "hall"\naddress = "127.0.0.1"\nport = {device.port}\n{sinks}')
        return self.start(Program, "QOMA_NOTIFYHUB", "--settings", folder / "hub.toml")

    def pick(self, device, times=1, entry="notifyhub"):
        """Picks the hub's entry, and waits for the device to be rid of it."""
        until(lambda: self.entries(device))
        for _ in range(times):
            device.tell(f"pick {entry}")
            device.expect("kick .* echoed")

    def entries(self, device):
        """How many entries are on the device's panel."""
        program = shlex.split(os.environ["QOMA_MFPSIM"])
        panel = subprocess.check_output([*program, "tell", device.control, "panel"], text=True, timeout=LIMIT)
        return panel.count("NETADDR=")


@unittest.skipUnless(BROKER, "there is no mosquitto")
class BrokerTest(HubTest):
    def subscriber(self, broker, *arguments, topic="qoma/#"):
        """Prints "RETAINED TOPIC PAYLOAD" for each message."""
        os.environ["QOMA_SUBSCRIBER"] = "mosquitto_sub"
        return self.start(Program, "QOMA_SUBSCRIBER", "-p", broker.port, "-h", "localhost", "-q", 1, "-t", topic,
                          "-F", "%r %t %p", *arguments)

    def event(self, subscriber):
        """The next event, which is none that the broker had kept."""
        return json.loads(subscriber.expect(r"^0 qoma/office/hall/panel\.picked (.*)").group(1))

    def sink(self, broker, more=""):
        return (f'[[sink]]\nname = "broker"\ntype = "mqtt"\nhost = "localhost"\nport = {broker.port}\n'
                f'first_pause = "100ms"\n{more}')

    def test_over_tls_to_a_broker_that_asks_who_one_is(self):
        folder = self.folder().path
        folder.chmod(0o755)
        Certificates(folder, "server", "client")
        subprocess.run(["mosquitto_passwd", "-c", "-b", str(folder / "users"), "joe", "secret"], check=True)
        (folder / "users").chmod(0o644)
        broker = Broker(self, f"cafile {folder}/ca.pem", f"certfile {folder}/server.pem",
                        f"keyfile {folder}/server.key", "require_certificate true", f"password_file {folder}/users")
        (folder / "right").write_text("secret\n")
        (folder / "wrong").write_text("guess\n")
        identity = (f'tls = true\nca_file = "{folder}/ca.pem"\ncert_file = "{folder}/client.pem"\n'
                    f'key_file = "{folder}/client.key"\nuser = "joe"\npassword_file = "{folder}/')
        device = self.office_device()
        hub = self.hub(device, self.sink(broker, identity + 'wrong"\n'))
        hub.expect(r'refuses the connection: user "joe" or the password is not right', "err")
        hub.kill()
        hub = self.hub(device, self.sink(broker, identity + 'right"\n'))
        subscriber = self.subscriber(broker, "--cafile", folder / "ca.pem", "--cert", folder / "client.pem", "--key",
                                     folder / "client.key", "-u", "joe", "-P", "secret")
        subscriber.expect("qoma/office/hall/availability online$")
        self.pick(device)
        self.assertEqual("notifyhub", self.event(subscriber)["data"]["text"])
        hub.kill()
        subscriber.expect("0 qoma/office/availability offline$")  # its will

    def test_what_happens_while_it_is_away_comes_in_order_and_crosses_a_bridge(self):
        far = Broker(self)
        near = Broker(self, "allow_anonymous true", "connection far", f"address 127.0.0.1:{far.port}",
                      "topic qoma/# out 1", "restart_timeout 1", "cleansession false")
        device = self.office_device()
        hub = self.hub(device, self.sink(near, "home_assistant = true\n"))
        subscribers = self.subscriber(near), self.subscriber(far)
        for subscriber in subscribers:
            subscriber.expect("qoma/office/hall/availability online$")
        self.pick(device)
        first = [self.event(subscriber) for subscriber in subscribers]
        self.assertEqual(first[0], first[1])
        near.kill()
        self.pick(device, 3)
        hub.expect("no connection to localhost", "err")
        near.start()
        subscribers[0].kill()
        late = self.subscriber(far), self.subscriber(near, topic="homeassistant/device/+/config")
        numbers = []
        while len(numbers) < 3:  # at least once: a repeat has the number of what it repeats
            event = self.event(subscribers[1])
            numbers += [event["id"]] if event["id"] not in numbers + [first[0]["id"]] else []
        self.assertEqual(sorted(numbers), numbers)
        # A broker that forgets has been told all that stays there, and no event is among it.
        self.assertEqual("hall", json.loads(late[1].expect("config (.*)").group(1))["device"]["name"])
        late[0].expect("^1 qoma/office/availability online$")
        late[0].expect("^1 qoma/office/hall/availability online$")
        self.assertFalse([line for line in late[0].lines["out"] if line.startswith("1") and "picked" in line])

    def test_one_that_stands_by_takes_over_and_gives_back(self):
        broker = Broker(self)
        device = self.office_device()
        first = self.hub(device, self.sink(broker), "first")
        subscriber = self.subscriber(broker)
        subscriber.expect("qoma/office/hall/availability online$")
        # One that cannot stand by says so, though it has no event to lose.
        strict = Broker(self, "allow_anonymous false")
        self.hub(device, self.sink(strict, "standby = true\n"), "third").expect("it wants a user", "err")
        second = self.hub(device, self.sink(broker, "standby = true\n"), "second")
        second.expect("ready", "err")
        self.pick(device)
        self.event(subscriber)
        self.assertEqual(1, self.entries(device), "the second has put its entry beside the first's")
        first.kill()
        subscriber.expect("qoma/office/availability offline$")
        subscriber.expect("qoma/office/active second$")
        subscriber.expect("qoma/office/availability online$")
        until(lambda: self.entries(device) == 1)
        self.pick(device)
        self.event(subscriber)
        first = self.hub(device, self.sink(broker), "first")
        subscriber.expect("qoma/office/active first$")
        first.expect("hall: link connected", "err")
        second.expect("gives back", "err")
        until(lambda: self.entries(device) == 1)
        self.pick(device)
        self.event(subscriber)
        events = [line for line in subscriber.lines["out"] if "panel.picked" in line]
        self.assertEqual(3, len(events), events)


class Web(http.server.BaseHTTPRequestHandler):
    def do_POST(self):
        body = self.rfile.read(int(self.headers["Content-Length"]))
        self.server.got.put((self.headers, json.loads(body)))
        self.send_response(self.server.answers.pop(0) if self.server.answers else 200)
        self.send_header("Content-Length", "0")
        self.end_headers()

    def log_message(self, *_):
        pass


class WebhookTest(HubTest):
    def test_over_tls_until_it_is_taken(self):
        folder = self.folder().path
        Certificates(folder, "server")
        Certificates(other := self.folder().path)
        server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Web)
        server.got, server.answers = queue.Queue(), [503, 200]
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(folder / "server.pem", folder / "server.key")
        server.socket = context.wrap_socket(server.socket, server_side=True)
        threading.Thread(target=server.serve_forever, daemon=True).start()
        self.addCleanup(server.server_close)
        self.addCleanup(server.shutdown)
        (folder / "header").write_text("Authorization: Bearer secret\n")
        sinks = "".join(f'[[sink]]\nname = "{name}"\ntype = "webhook"\nurl = "https://localhost:{server.server_port}/"\n'
                        f'ca_file = "{authority}/ca.pem"\nheader_file = "{folder}/header"\nfirst_pause = "50ms"\n'
                        for name, authority in (("right", folder), ("wrong", other)))
        device = self.office_device()
        hub = self.hub(device, sinks)
        self.pick(device)
        got = [server.got.get(timeout=LIMIT) for _ in range(2)]
        self.assertEqual(got[0][1], got[1][1], "a retry is not the same event")
        self.assertEqual("Bearer secret", got[1][0]["Authorization"])
        self.assertTrue(got[1][0]["Content-Type"].startswith("application/cloudevents+json"))
        hub.expect("wrong: .*certificate", "err")
        self.assertTrue(server.got.empty(), "one who does not trust the server has told it all the same")


class DesktopTest(HubTest):
    """A desktop of our own: a bus, and a server of notifications that does what its command line says."""
    SERVER = """
import dbus, dbus.mainloop.glib, dbus.service, json, sys
from gi.repository import GLib
NAME = "org.freedesktop.Notifications"
class Server(dbus.service.Object):
    @dbus.service.method(NAME, out_signature="as")
    def GetCapabilities(self):
        return dbus.Array(sys.argv[1:], signature="s")
    @dbus.service.method(NAME, in_signature="susssasa{sv}i", out_signature="u")
    def Notify(self, app, replaces, icon, title, body, actions, hints, expires):
        print(json.dumps([title, body]), flush=True)
        return 7
dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
bus = dbus.SessionBus()
name = dbus.service.BusName(NAME, bus)
server = Server(bus, "/org/freedesktop/Notifications")
print("serves", flush=True)
GLib.MainLoop().run()
"""

    def run_server(self, *capabilities):
        os.environ["QOMA_DESKTOP"] = "/usr/bin/python3"
        server = self.start(Program, "QOMA_DESKTOP", "-c", self.SERVER, *capabilities)
        server.expect("serves")
        return server

    def test_what_the_desktop_shows_depends_on_what_it_can(self):
        os.environ["QOMA_BUS"] = "dbus-daemon"
        bus = self.start(Program, "QOMA_BUS", "--session", "--nofork", "--print-address")
        address = bus.expect("(unix:.*)").group(1)
        os.environ["DBUS_SESSION_BUS_ADDRESS"] = address
        device = self.office_device()
        hub = self.hub(device, f'entries = ["<b>Q&A</b>"]\n[[sink]]\nname = "bubbles"\ntype = "desktop"\n'
                               f'bus = "{address}"\nfirst_pause = "50ms"\nlongest_pause = "100ms"\n'
                               '[[rule]]\ntype = ["panel.picked"]\nsink = ["bubbles"]\n')
        self.pick(device, entry="Q&A")
        hub.expect("bubbles: .*ServiceUnknown", "err")  # nobody shows it yet
        for capabilities, shown in ((("body", "body-markup"), ["hall", "&lt;b&gt;Q&amp;A&lt;/b&gt; was picked"]),
                                    (("body",), ["hall", "<b>Q&A</b> was picked"]),
                                    (("sound",), ["hall: <b>Q&A</b> was picked", ""])):
            server = self.run_server(*capabilities)
            self.assertEqual(shown, [text.replace(" at the panel", "") for text in
                                     json.loads(server.expect(r"^\[.*").group(0))])
            server.kill()
            self.pick(device, entry="Q&A")


class MetricsTest(HubTest):
    def test_what_prometheus_reads(self):
        device = self.office_device()
        hub = self.hub(device, '[[sink]]\nname = "hook"\ntype = "webhook"\nurl = "http://127.0.0.1:1/"\n'
                         f'first_pause = "50ms"\n[metrics]\nport = 0\n')
        url = hub.expect("metrics at (http.*/)metrics", "err").group(1)
        self.pick(device, times=2)

        def read(what):
            with contextlib.suppress(OSError), urllib.request.urlopen(url + what) as answer:
                return answer.read().decode()

        def values():
            return dict(line.rsplit(" ", 1) for line in (read("metrics") or "").splitlines() if line[0] != "#")
        until(lambda: values().get('qoma_hub_events_total{device="hall",type="panel.picked"}') == "2")
        until(lambda: float(values()['qoma_hub_sink_retries_total{sink="hook"}']) > 1)
        have = values()
        self.assertEqual(("1", "0"), (have['qoma_hub_device_up{device="hall"}'], have['qoma_hub_sink_up{sink="hook"}']))
        self.assertGreaterEqual(float(have['qoma_hub_sink_waiting_events{sink="hook"}']), 2)
        self.assertEqual({"status": "ok"}, json.loads(read("healthz")))
        checked = subprocess.run(["promtool", "check", "metrics"], input=read("metrics"), text=True, capture_output=True)
        self.assertEqual((0, ""), (checked.returncode, checked.stdout + checked.stderr))
