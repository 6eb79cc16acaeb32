"""Does what the README tells a newcomer to do, word for word, with an installed tree: the client is compiled and
hears a pick, the programs' command lines run. On a network of its own, so that ports and addresses are the README's.

usage: readme_test.py BUILD-FOLDER CMAKE COMPILER README    Exit code 77: there can be no such network here.
"""
import os
import pathlib
import re
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).parent.parent / "e2e"))
from programs import Device, Program  # noqa: E402

build, cmake, compiler, readme = sys.argv[1:5]
if "QOMA_INSIDE" not in os.environ:
    enter = ["unshare", "--net", "--mount"] + ([] if os.geteuid() == 0 else ["--map-root-user"])
    # The device's address is this machine's; who asks for a name is answered at once.
    setup = "mount --bind /dev/null /etc/resolv.conf && " + " && ".join("ip " + each for each in (
        "link set lo up", "link add out type veth peer name peer", "link set peer up", "link set out up",
        "address add 192.168.1.20/24 dev out", "route add default via 192.168.1.1"))
    if subprocess.run([*enter, "sh", "-c", setup], stderr=subprocess.DEVNULL).returncode != 0:
        sys.exit(77)
    os.execvpe("unshare", [*enter, "sh", "-c", f"{setup} && exec {shlex.join([sys.executable, '-B', *sys.argv])}"],
               os.environ | {"QOMA_INSIDE": "1"})

text = pathlib.Path(readme).read_text()
samples = re.findall(r"^```cpp\n(.*?)^```", text, re.MULTILINE | re.DOTALL)
plain = re.sub(r"^```.*?^```", "", text, flags=re.MULTILINE | re.DOTALL)
blocks = [re.sub("^    ", "", block, flags=re.MULTILINE).strip()
          for block in re.findall(r"(?:^    .*\n)+", plain, re.MULTILINE)]
lines = [line for block in blocks for line in block.splitlines()]
work = tempfile.TemporaryDirectory()
home = pathlib.Path(work.name)
prefix = home / "opt"
os.chdir(home)


def run(command, **variables):
    done = subprocess.run(["bash", "-c", command], env=os.environ | variables, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    assert done.returncode == 0, f"{command}\n{done.stdout}"


def lines_with(pattern):
    found = [line for line in lines if re.search(pattern, line)]
    assert found, f"the README has no line with {pattern}"
    return found


def check_links():
    """What is installed leads nowhere but to what is installed."""
    for document in (prefix / "share/doc/qoma").glob("*.md"):
        for target in re.findall(r"\]\(([^)#]+)[^)]*\)", document.read_text()):
            assert "://" in target or (document.parent / target).exists(), f"{document.name} links to {target}"


def hear_a_pick(client):
    """The README's client ends at Enter."""
    os.environ["QOMA_CLIENT"] = f"stdbuf -oL '{client}'"  # into a pipe it would print at its end only
    device, program = Device(port=19290), Program("QOMA_CLIENT")
    try:
        device.expect("entry added: Paper Archive;NETADDR=")
        device.tell("pick Paper Archive")
        program.expect("^kind 0: Paper Archive;.*KICKSEQ=1;")  # at Enter, what is still queued would be dropped
        program.tell("")
        assert program.wait() == 0
    finally:
        program.kill()
        device.kill()


def build_clients():
    assert len(samples) == 1, samples
    (home / "client.cpp").write_text(samples[0])
    (home / "CMakeLists.txt").write_text("\n".join([
        "cmake_minimum_required(VERSION 3.16)", "project(client LANGUAGES CXX)", *lines_with("^find_package"),
        "add_executable(client client.cpp)", *lines_with("^target_link_libraries")]))
    run(f"{cmake} -S . -B made -DCMAKE_PREFIX_PATH={prefix} -DCMAKE_CXX_COMPILER={compiler} && {cmake} --build made")
    hear_a_pick(home / "made/client")
    found = next(prefix.glob("lib/**/pkgconfig"))
    run(f"alias c++={compiler}; shopt -s expand_aliases\n{lines_with('pkg-config --cflags')[0]}", PKG_CONFIG_PATH=str(found))
    hear_a_pick(home / "a.out")


def start(line):
    """What a line starts, once it says that it is ready or has ended."""
    os.environ["QOMA_LINE"] = shlex.join(["bash", "-c", re.sub(r"\s&\s*(#.*)?$", "", line)])
    program = Program("QOMA_LINE")
    with program.changed:
        program.changed.wait_for(lambda: program.process.poll() is not None or any(
            re.search("ready$|listening on|showing what", said) for said in sum(program.lines.values(), [])), 20)
    return program


def end(line, program, by_itself=False):
    """It ends well by itself, or at Ctrl-C."""
    if program.process.poll() is None and not by_itself:
        program.process.send_signal(signal.SIGINT)
    code = program.wait()
    assert code == 0, f"{line}\nended with {code}:\n" + "\n".join(sum(program.lines.values(), []))


def try_block(block):
    """A paragraph's lines, one after the other; what is put into the background stays there for the rest. Who needs
    a device or an entry on its panel, and has none, gets one."""
    started, behind = [], []
    try:
        if "mfpsim" not in re.sub("#.*", "", block, flags=re.MULTILINE):
            started.append(Device("--listen", "0.0.0.0", "--print-path", "jobs.fifo", port=19290))
        for line in block.splitlines():
            waits = "wait-entry" in line
            if waits and behind:
                started.append(Program("QOMA_NOTIFYMON", "--option", "Paper Archive"))
            program = start(line)
            started.append(program)
            if re.search(r"&\s*(#.*)?$", line):
                behind.append((line, program))
                continue
            if waits and not behind:
                started.append(Program("QOMA_NOTIFYMON", "--option", "Paper Archive"))
            end(line, program, by_itself=waits)
        for line, program in behind:
            end(line, program)
    finally:
        for each in reversed(started):
            each.kill()


run(f"{cmake} --install {build} --strip --prefix {prefix}")
os.environ["PATH"] = f"{prefix}/bin:{os.environ['PATH']}"
os.environ["QOMA_MFPSIM"], os.environ["QOMA_NOTIFYMON"] = "mfpsim", "notifymon"
shutil.copy(prefix / "share/doc/qoma/example.reg", "my.reg")
os.mkfifo("jobs.fifo")
check_links()
names = "|".join(path.name for path in (prefix / "bin").iterdir())
ours = [block for block in blocks if re.match(rf"({names})\b", block)]
assert len(ours) > 2, blocks
build_clients()
for each in ours:
    try_block(each)
