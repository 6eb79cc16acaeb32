"""Checks that the module exports the members of CNotifyAgent and nothing else.

Constructors and destructors have several mangled names each, so what is compared are the demangled
ones. `unsigned long` counts as `unsigned int`: both are the 32-bit word of their system.
"""
import argparse
import re
import subprocess
import sys

MEMBERS = """
CNotifyAgent(unsigned int (*)(CallbackType, CallbackDataType*), unsigned int)
CNotifyAgent(CNotifyAgent const&)
~CNotifyAgent()
operator=(CNotifyAgent const&)
Init(char const*, unsigned int, int)
Shutdown()
RestartDolRtl()
Add(unsigned int*, unsigned int, char const*)
Delete(unsigned int, unsigned int, char const*)
Modify(unsigned int*, char const*, char const*)
ReadTraps()
InitiateSrvQDiscovery(unsigned int*, char const*)
DeviceIsAVellumax()
IsDeviceInitialized()
AddTrap(unsigned int)
DeleteTrap(unsigned int)
SupportedOverNetwork(unsigned int)
ResetScannerButtonOff()
UISelectOption(unsigned int, char const*)
AddUIOptionTrap(unsigned int*, char const*)
DeleteUIOptionTrap(unsigned int, char const*)
InsertNetAddr(char const*, CString*, unsigned int*, int, char const*)
NetAddrIsOurs(char const*)
PerformCallback(CallbackType, int, unsigned int, char*, char*, char*)
StartupSupportThreads()
ShutdownSupportThreads()
StartupWinSock()
ShutdownWinSock()
CreateSocket()
CloseSocket()
ReceiveDatagrams()
GetKickSeq(char*, unsigned int*)
""".split("\n")[1:-1]


def run(*command, text=None):
    return subprocess.run(command, input=text, check=True, capture_output=True, text=True).stdout


def names_of_dll(objdump, path):
    table = run(objdump, "-p", path).split("[Ordinal/Name Pointer] Table", 1)
    return re.findall(r"^\s*\[\s*\d+\][^\n]*?(\S+)$", table[1], re.M) if len(table) == 2 else []


def names_of_elf(nm, path):
    return [line.split()[-1] for line in run(nm, "-D", "--defined-only", path).splitlines()]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--nm", required=True)
    parser.add_argument("--objdump", required=True)
    parser.add_argument("module")
    args = parser.parse_args()
    if args.module.lower().endswith(".dll"):
        names = names_of_dll(args.objdump, args.module)
    else:
        names = names_of_elf(args.nm, args.module)
    demangled = run("c++filt", text="\n".join(names)).replace("unsigned long", "unsigned int")
    found = set(demangled.splitlines())
    wanted = {"CNotifyAgent::" + member for member in MEMBERS}
    for name in sorted(found - wanted):
        print("should not be exported:", name)
    for name in sorted(wanted - found):
        print("not exported:", name)
    print(len(found & wanted), "members of", len(wanted))
    return 0 if len(wanted) == 32 and found == wanted else 1


sys.exit(main())
