"""A newcomer's first hour: installs into an empty prefix, moves that elsewhere, checks that each public header
stands on its own, builds examples/client with CMake and with pkg-config, and has each of the two hear a pick.

For Windows the wrapper runs the programs, and the client finds its modules beside it.
"""
import argparse
import os
import pathlib
import shlex
import shutil
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).parent.parent / "e2e"))
from programs import Device, Program  # noqa: E402

parser = argparse.ArgumentParser()
for option in ("--build", "--cmake", "--compiler", "--objdump"):
    parser.add_argument(option, required=True)
for option in ("--toolchain", "--wrapper"):
    parser.add_argument(option, default="")
args = parser.parse_args()
windows = bool(args.wrapper)
suffix = ".exe" if windows else ""
work = tempfile.TemporaryDirectory()
home = pathlib.Path(work.name)
prefix = home / "moved"


def run(*command, **variables):
    done = subprocess.run([str(c) for c in command], env=os.environ | variables, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    if done.returncode != 0:
        raise SystemExit(f"{shlex.join(str(c) for c in command)}\n{done.stdout}")
    return done.stdout


def install():
    run(args.cmake, "--install", args.build, "--strip", "--prefix", home / "first")
    (home / "first").rename(prefix)
    return next(prefix.glob("lib/**/pkgconfig"))


def check_headers():
    headers = list((prefix / "include/qoma").rglob("*.h"))
    for header in headers:
        run(args.compiler, "-std=c++17", "-Wall", "-Wextra", "-Wpedantic", "-Werror", "-fsyntax-only",
            "-I", prefix / "include/qoma", "-x", "c++", "-include", header, os.devnull)
    assert len(headers) > 5, headers


def build_clients(pkgconfig):
    example = shutil.copytree(prefix / "share/doc/qoma/examples/client", home / "client")
    where = ([f"-DCMAKE_TOOLCHAIN_FILE={args.toolchain}", f"-DQOMANoAg_DIR={pkgconfig.parent}/cmake/QOMANoAg"]
             if windows else [f"-DCMAKE_PREFIX_PATH={prefix}", f"-DCMAKE_CXX_COMPILER={args.compiler}"])
    run(args.cmake, "-S", example, "-B", home / "cmake", *where)
    run(args.cmake, "--build", home / "cmake")
    run("make", "-C", example, f"CXX={args.compiler}", f"LDFLAGS={'-static' if windows else ''}",
        PKG_CONFIG_PATH=str(pkgconfig), PKG_CONFIG_LIBDIR=str(pkgconfig))
    (home / "make").mkdir()
    (example / f"client{suffix}").rename(home / f"make/client{suffix}")
    for kind in ("cmake", "make") if windows else ():
        for module in (prefix / "bin").glob("*.dll"):
            shutil.copy(module, home / kind)


def hear_a_pick(kind):
    os.environ["QOMA_MFPSIM"] = shlex.join(filter(None, [args.wrapper, str(prefix / "bin/mfpsim") + suffix]))
    os.environ["QOMA_CLIENT"] = shlex.join(filter(None, [args.wrapper, str(home / kind / "client") + suffix]))
    device = Device()
    client = Program("QOMA_CLIENT", "127.0.0.1", device.port)
    try:
        device.expect("entry added: Paper Archive;NETADDR=")
        device.tell("pick Paper Archive")
        client.expect("^kind 0: Paper Archive;.*KICKSEQ=1;")
        client.tell("")
        assert client.wait() == 0
        device.expect("entry (deleted|gone with link .*): Paper Archive;")
        device.tell("quit")
        assert device.wait() == 0
    finally:
        client.kill()
        device.kill()


pkgconfig = install()
check_headers()
for program in ("notifymon", "mfpsim", "tracedeck"):
    run(*filter(None, [args.wrapper, prefix / "bin" / (program + suffix), "--help"]))
if windows:
    run(pathlib.Path(__file__).parent / "check_imports.sh", args.objdump, prefix)
build_clients(pkgconfig)
for kind in ("cmake", "make"):
    hear_a_pick(kind)
work.cleanup()
