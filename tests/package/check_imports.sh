#!/usr/bin/env bash
# Windows: what we hand out needs nothing but the system and our own access library, so that a folder that is
# copied to another machine runs there. usage: check_imports.sh OBJDUMP PREFIX
set -euo pipefail

objdump=$1
prefix=$2
system='kernel32|msvcrt|advapi32|user32|ws2_32|ole32|oleaut32|shell32|winspool'
found=0
for file in QOMANoAg.dll QOMANoAgC.dll QOMADolC.dll notifymon.exe mfpsim.exe tracedeck.exe; do
    # A folder without a program must not pass for one that needs nothing.
    imports=$("$objdump" -p "$prefix/bin/$file" | sed -n 's/.*DLL Name: //p')
    if [[ -z $imports ]]; then
        echo "$file imports nothing at all" >&2
        found=1
    fi
    while read -r import; do
        if [[ ! ${import,,} =~ ^($system)\.(dll|drv)$ && $import != QOMADolC.dll && $import != QOMANoAg.dll ]]; then
            echo "$file needs $import" >&2
            found=1
        fi
    done <<<"$imports"
done
for library in libQOMANoAg.dll.a libQOMANoAgC.dll.a libQOMADolC.dll.a QOMANoAgC.lib QOMANoAgC.def; do
    if [[ ! -s $prefix/lib/$library ]]; then
        echo "$library is missing" >&2
        found=1
    fi
done
exit $found
