"""Checks that the module exports the functions that its header declares, under these names, and nothing else."""
import argparse
import pathlib
import re
import subprocess


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


parser = argparse.ArgumentParser()
for option in ("--nm", "--objdump", "--header"):
    parser.add_argument(option, required=True)
parser.add_argument("module")
args = parser.parse_args()

wanted = set(re.findall(r"^\S.*QOMA_CALL (qoma_\w+)\(", pathlib.Path(args.header).read_text(), re.M))
if args.module.lower().endswith(".dll"):
    table = run(args.objdump, "-p", args.module).split("[Ordinal/Name Pointer] Table", 1)[1]
    found = set(re.findall(r"^\s*\[\s*\d+\][^\n]*?(\S+)$", table, re.M))
else:
    found = {line.split()[-1] for line in run(args.nm, "-D", "--defined-only", args.module).splitlines()}
for name in sorted(found ^ wanted):
    print("should not be exported:" if name in found else "not exported:", name)
raise SystemExit(0 if len(wanted) > 10 and found == wanted else 1)
