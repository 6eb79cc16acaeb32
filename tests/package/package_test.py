"""A newcomer's first hour: installs into an empty prefix, moves that elsewhere, checks that each public header
stands on its own, builds the examples in C++ and C with CMake and with pkg-config, makes a wheel and installs it, and
has each example hear a pick.

For Windows the wrapper runs the programs, and a client finds its modules beside it; the one in C is also linked by
the import library that other compilers take. The other languages are tried on this system alone.
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
for option in ("--build", "--cmake", "--compiler", "--c-compiler", "--objdump"):
    parser.add_argument(option, required=True)
for option in ("--toolchain", "--wrapper"):
    parser.add_argument(option, default="")
args = parser.parse_args()
windows = bool(args.wrapper)
suffix = ".exe" if windows else ""
work = tempfile.TemporaryDirectory()
home = pathlib.Path(work.name)
prefix = home / "moved"
examples = prefix / "share/doc/qoma/examples"


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
    for compiler, standard in ((args.compiler, "c++17"), (args.c_compiler, "c99")):
        run(compiler, f"-std={standard}", "-Wall", "-Wextra", "-Wpedantic", "-Werror", "-fsyntax-only",
            "-x", standard.rstrip("0123456789"), prefix / "include/qoma_notify.h")
    headers = list((prefix / "include/qoma").rglob("*.h"))
    for header in headers:
        run(args.compiler, "-std=c++17", "-Wall", "-Wextra", "-Wpedantic", "-Werror", "-fsyntax-only",
            "-I", prefix / "include/qoma", "-x", "c++", "-include", header, os.devnull)
    assert len(headers) > 5, headers


def build_client(pkgconfig, name, compilers):
    """By CMake and by its Makefile; what it was built by is the name of the folder."""
    example = shutil.copytree(examples / name, home / name)
    where = ([f"-DCMAKE_TOOLCHAIN_FILE={args.toolchain}", f"-DQOMANoAg_DIR={pkgconfig.parent}/cmake/QOMANoAg"]
             if windows else [f"-DCMAKE_PREFIX_PATH={prefix}", f"-DCMAKE_CXX_COMPILER={args.compiler}"])
    run(args.cmake, "-S", example, "-B", home / f"{name}-cmake", *where)
    run(args.cmake, "--build", home / f"{name}-cmake")
    run("make", "-C", example, *compilers, f"LDFLAGS={'-static' if windows else ''}",
        PKG_CONFIG_PATH=str(pkgconfig), PKG_CONFIG_LIBDIR=str(pkgconfig))
    (home / f"{name}-make").mkdir()
    (example / f"client{suffix}").rename(home / f"{name}-make/client{suffix}")
    return [f"{name}-cmake", f"{name}-make"]


def link_by_import_library():
    (home / "c-lib").mkdir()
    run(args.c_compiler, "-std=c99", "-static", "-I", prefix / "include", examples / "c/client.c",
        prefix / "lib/QOMANoAgC.lib", "-o", home / "c-lib/client.exe")
    return ["c-lib"]


def make_wheel():
    """Installed without a network; the folder that it is in then."""
    run(pathlib.Path(__file__).parents[2] / "scripts/wheel.sh", pathlib.Path(args.build).name, home, SOURCE_DATE_EPOCH="1700000000")
    run("/usr/bin/python3", "-m", "pip", "install", "--no-index", "--target", home / "wheel", next(home.glob("*.whl")))
    return home / "wheel"


def hear_a_pick(*command, end=lambda client: client.tell("") or client.wait(), **variables):
    os.environ["QOMA_MFPSIM"] = shlex.join(filter(None, [args.wrapper, str(prefix / "bin/mfpsim") + suffix]))
    os.environ["QOMA_CLIENT"] = shlex.join(filter(None, [*(f"{k}={v}" for k, v in variables.items()), *map(str, command)]))
    if variables:
        os.environ["QOMA_CLIENT"] = "env " + os.environ["QOMA_CLIENT"]
    device = Device()
    client = Program("QOMA_CLIENT", "127.0.0.1", device.port)
    try:
        device.expect("entry added: Paper Archive;NETADDR=")
        device.tell("pick Paper Archive")
        client.expect("^kind 0: Paper Archive;.*KICKSEQ=1;")
        assert end(client) == 0
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
folders = [*build_client(pkgconfig, "client", [f"CXX={args.compiler}"]),
           *build_client(pkgconfig, "c", [f"CC={args.c_compiler}"]), *(link_by_import_library() if windows else [])]
for folder in folders:
    for module in (prefix / "bin").glob("*.dll"):
        shutil.copy(module, home / folder)
    hear_a_pick(args.wrapper, home / folder / f"client{suffix}")
if not windows:
    for package in (prefix / "lib/python3/dist-packages", make_wheel()):
        hear_a_pick("/usr/bin/python3", "-B", examples / "python/client.py", end=Program.interrupt, PYTHONPATH=package)
    run("make", "-C", shutil.copytree(examples / "csharp", home / "csharp"))
    hear_a_pick("mono", home / "csharp/Client.exe", LD_LIBRARY_PATH=pkgconfig.parent / "qoma")
work.cleanup()
