"""Checks that the module exports the members of CNotifyAgent and nothing else.

The members are those of the version script. Constructors and destructors have several mangled names
each, so what is compared are the demangled ones. The 32-bit word is `unsigned int` in the script, and
`unsigned long` in every signature of a DLL.
"""
import argparse
import pathlib
import re
import subprocess


def run(*command, text=None):
    return subprocess.run(command, input=text, check=True, capture_output=True, text=True).stdout


parser = argparse.ArgumentParser()
for option in ("--nm", "--objdump", "--map"):
    parser.add_argument(option, required=True)
parser.add_argument("module")
args = parser.parse_args()

wanted = set(re.findall(r'"(CNotifyAgent::.*)";', pathlib.Path(args.map).read_text()))
if args.module.lower().endswith(".dll"):
    table = run(args.objdump, "-p", args.module).split("[Ordinal/Name Pointer] Table", 1)[1]
    names = re.findall(r"^\s*\[\s*\d+\][^\n]*?(\S+)$", table, re.M)
    wanted = {name.replace("unsigned int", "unsigned long") for name in wanted}
else:
    names = [line.split()[-1] for line in run(args.nm, "-D", "--defined-only", args.module).splitlines()]
found = set(run("c++filt", text="\n".join(names)).splitlines())
for name in sorted(found - wanted):
    print("should not be exported:", name)
for name in sorted(wanted - found):
    print("not exported:", name)
raise SystemExit(0 if len(wanted) == 32 and found == wanted else 1)
