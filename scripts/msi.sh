#!/usr/bin/env bash
# Makes an .msi of what a .zip of package.sh holds: it goes below Program Files, its bin into the PATH of all users,
# and a newer one takes an older one's place. usage: SOURCE_DATE_EPOCH=SECONDS scripts/msi.sh ZIP MSI
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/common.sh

zip=$(realpath "$1") msi=$(realpath "$2")
name=$(basename "$zip" .zip)
version=${name#qoma-}
version=${version%%-*}
arch=x64 template=x64 programs=ProgramFiles64Folder win64=yes
[[ $name == *-x64 ]] || arch=x86 template=Intel programs=ProgramFilesFolder win64=no

scratch=$(mktemp -d)
at_exit 'rm -rf "$scratch"'
uuid_of() { python3 -c 'import sys, uuid; print(str(uuid.uuid5(uuid.NAMESPACE_OID, sys.argv[1])).upper())' "$1"; }
# The tools would write down the hour.
frozen() { faketime -f "$(date -d "@$SOURCE_DATE_EPOCH" '+%F %T')" "$@"; }

# wixl finds files by relative names only.
source=$PWD/cmake/qoma.wxs
cd "$scratch"
cmake -E tar x "$zip"
find "$name" -type f | LC_ALL=C sort |
    wixl-heat --prefix "$name/" --var var.Source --component-group Files --directory-ref INSTALLDIR --win64 |
    awk '{ # it draws names for folders
        while (match($0, /"dir[0-9A-F]+"/)) {
            drawn = substr($0, RSTART, RLENGTH)
            if (!(drawn in name)) name[drawn] = "\"folder" ++count "\""
            sub(drawn, name[drawn])
        }
        print
    }' >files.wxs
frozen wixl -o "$msi" -a "$arch" -D Win64="$win64" -D Programs="$programs" -D Version="$version" \
    -D Product="$(uuid_of "product $name")" -D Upgrade="$(uuid_of "upgrade $arch")" \
    -D Folders="$(uuid_of "folders $arch")" -D Source="$name" "$source" files.wxs

# wixl knows no environment: the table goes in by hand, and the steps that set PATH and take it back. Folders that
# hold only folders have to be named, or they would be left behind.
printf 'Environment\tName\tValue\tComponent_\ns72\tl255\tL255\ts72\nEnvironment\tEnvironment\nPath\t=-*PATH\t%s\t%s\n' \
    '[~];[INSTALLDIR]bin' Folders >Environment.idt
step="INSERT INTO InstallExecuteSequence (Action, Sequence) VALUES"
queries=(-q "$step ('RemoveEnvironmentStrings', 3300)" -q "$step ('WriteEnvironmentStrings', 5200)")
while read -r folder; do
    queries+=(-q "INSERT INTO CreateFolder (Directory_, Component_) VALUES ('$folder', 'Folders')")
done < <(msiinfo export "$msi" Directory | tr -d '\r' | awk -F '\t' 'NR > 3 && $1 ~ /^folder/ { print $1 }')
frozen msibuild "$msi" -i Environment.idt "${queries[@]}" \
    -s "QOMA $version" "QOMA developers" "$template;1033" "{$(uuid_of "package $(sha256sum <"$zip")")}"
