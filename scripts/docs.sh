#!/usr/bin/env bash
# Installs what is missing and makes the reference in build/docs/html out of the headers' comments. Anything
# that is not documented, or not rightly, fails it.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/common.sh

scripts/setup.sh docs
mkdir -p build
quietly "making the reference" doxygen docs/Doxyfile
quietly "making the internals' reference" doxygen docs/Doxyfile.internals
say "build/docs/html/index.html"
