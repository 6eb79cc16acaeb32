"""The programs as processes: starting them, giving them commands, waiting for what they print.

QOMA_MFPSIM and QOMA_NOTIFYMON hold the command lines that start them, which may begin with a wrapper.
"""
import json
import os
import pathlib
import re
import shlex
import signal
import subprocess
import tempfile
import threading
import unittest

# Generous: a busy machine, a sanitizer or Wine must not fail a test.
LIMIT = float(os.environ.get("QOMA_E2E_LIMIT", "30"))


def wrapper(variable):
    """What runs the program if it is one of another system: the first word of a command line with more."""
    command = shlex.split(os.environ[variable])
    return command[0] if len(command) > 1 else None


class Folder:
    """A folder for files that programs share. Those of another system start in a folder that their wrapper
    knows, and find the files by their names from there."""

    def __init__(self):
        wrappers = [w for w in map(wrapper, ("QOMA_MFPSIM", "QOMA_NOTIFYMON")) if w]
        self.start = subprocess.check_output([wrappers[0], "--folder"], text=True).strip() if wrappers else None
        self.folder = tempfile.TemporaryDirectory(dir=self.start)
        self.cleanup = self.folder.cleanup
        self.path = pathlib.Path(self.folder.name)

    def name(self, variable, name):
        """The file's name for the program of the variable."""
        path = self.path / name
        return path.relative_to(self.start).as_posix() if wrapper(variable) else str(path)


class Program:
    """A running program. Lines of both its streams are kept in the order of their arrival. With inside, a
    command line that runs another one elsewhere, it runs there. Its output may go to a descriptor instead."""

    def __init__(self, variable, *arguments, inside=(), stdout=subprocess.PIPE):
        command = [*inside, *shlex.split(os.environ[variable])] + [str(a) for a in arguments]
        self.name = variable.removeprefix("QOMA_").lower()
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=stdout,
                                        stderr=subprocess.PIPE, text=True, errors="replace")
        self.changed = threading.Condition()
        self.lines = {"out": [], "err": []}
        self.taken = {"out": 0, "err": 0}
        self.readers = [threading.Thread(target=self._read, args=(name, stream))
                        for name, stream in (("out", self.process.stdout), ("err", self.process.stderr)) if stream]
        for reader in self.readers:
            reader.start()

    def _read(self, name, stream):
        for line in stream:
            with self.changed:
                self.lines[name].append(line.rstrip("\r\n"))
                self.changed.notify_all()

    def expect(self, pattern, stream="out", limit=None):
        """The match of the next line that holds the pattern; lines before it are passed over."""
        def find():
            for index in range(self.taken[stream], len(self.lines[stream])):
                match = re.search(pattern, self.lines[stream][index])
                if match:
                    self.taken[stream] = index + 1
                    return match
            return None
        with self.changed:
            match = self.changed.wait_for(find, limit or LIMIT)
        if not match:
            raise AssertionError(f"{self.name} did not print {pattern!r} on {stream}; it printed\n"
                                 + "\n".join(self.lines["out"] + self.lines["err"]))
        return match

    def tell(self, line):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()

    def wait(self):
        """The exit code, once the program has ended by itself."""
        try:
            code = self.process.wait(LIMIT)
        except subprocess.TimeoutExpired:
            raise AssertionError(f"{self.name} does not end; it printed\n"
                                 + "\n".join(self.lines["out"] + self.lines["err"])) from None
        for reader in self.readers:
            reader.join(LIMIT)
        return code

    def interrupt(self):
        """Ctrl-C, and the exit code."""
        self.process.send_signal(signal.SIGINT)
        return self.wait()

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
        self.wait()
        for stream in filter(None, (self.process.stdin, self.process.stdout, self.process.stderr)):
            stream.close()


class Device(Program):
    def __init__(self, *arguments, port=0, inside=()):
        super().__init__("QOMA_MFPSIM", "--port", port, *arguments, inside=inside)
        self.port = int(self.expect(r"listening on [^ ]*:(\d+)").group(1))


class Client(Program):
    """notifymon with --json, subscribed."""

    def __init__(self, device, *arguments, ready=True, inside=()):
        super().__init__("QOMA_NOTIFYMON", "--json", "--port", device.port, *arguments, inside=inside)
        if ready:
            self.expect("ready$", "err")

    def next(self, kind=None):
        """The next notification; with a kind, it has to be of that kind."""
        while (notification := json.loads(self.expect("^{.*}$").group(0)))["kind"] in ("link", "dropped"):
            pass
        if kind and notification["kind"] != kind:
            raise AssertionError(f"{kind} expected, {notification} arrived")
        return notification

    def everything(self):
        """All that was printed so far."""
        return [json.loads(line) for line in self.lines["out"] if line.startswith("{")]

    def all(self):
        """All notifications so far."""
        return [thing for thing in self.everything() if thing["kind"] not in ("link", "dropped")]


def example_settings(log, title="TraceDeck"):
    """The settings of the documentation, with this log and viewer."""
    text = (pathlib.Path(__file__).parents[2] / "docs" / "example.reg").read_text()
    return text.replace("notifymon.log", str(log)).replace('"Title"="TraceDeck"', f'"Title"="{title}"')


class RoadTest(unittest.TestCase):
    """What a case starts and makes goes with it."""

    def start(self, make, *arguments, **options):
        program = make(*arguments, **options)
        self.addCleanup(program.kill)
        return program

    def device(self, *arguments, **options):
        return self.start(Device, *arguments, **options)

    def client(self, device, *arguments, **options):
        return self.start(Client, device, *arguments, **options)

    def folder(self):
        folder = Folder()
        self.addCleanup(folder.cleanup)
        return folder
