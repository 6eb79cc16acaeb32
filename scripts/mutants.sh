#!/usr/bin/env bash
# Tests the tests: one operator, constant, condition or statement is changed at one place, and some test should
# notice. usage: scripts/mutants.sh [--rooms R,R...] [--count N] [--seed S] [--jobs J] [--list]
# A table at the end has the share that was noticed; below it stand those that were not. Those that nobody can notice
# are in tests/mutants.equivalent, with the reason.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/common.sh

scripts/setup.sh mutants
python3 -B scripts/mutants.py "$@"
