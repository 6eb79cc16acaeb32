#!/usr/bin/env bash
# Makes a wheel of the Python package with the modules of a build in it, which pip installs without a network.
# usage: SOURCE_DATE_EPOCH=SECONDS scripts/wheel.sh default|windows-i686|windows-x64 FOLDER
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/common.sh

preset=$1 folder=$(realpath "$2")
case $preset in
windows-i686) tag=win32 ;;
windows-x64) tag=win_amd64 ;;
*) tag=linux_$(uname -m) ;;
esac
scratch=$(mktemp -d)
at_exit 'rm -rf "$scratch"'

quietly "installing what goes into it" cmake --install "build/$preset" --strip --prefix "$scratch/tree"
umask 022
mkdir -p "$scratch/python/qoma"
install -m 644 python/pyproject.toml python/setup.py "$scratch/python/"
find "$scratch/tree" \( -name QOMANoAgC.so -o -name QOMADolC.so -o -name QOMANoAgC.dll -o -name QOMADolC.dll \) \
    -exec install -m 644 -t "$scratch/python/qoma" python/qoma/*.py python/qoma/py.typed {} +
# Debian's own, whose tools are installed with it.
(cd "$scratch/python" && quietly "packing the wheel" /usr/bin/python3 setup.py bdist_wheel --plat-name "$tag" -d "$folder")
