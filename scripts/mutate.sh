#!/usr/bin/env bash
# Plants random one-line faults in a copy of the sources, one after the other, and tells which of them no test
# notices. A fault that changes nothing (a capacity, a branch that only saves time) survives rightly; any other
# survivor wants a test.
#
#   scripts/mutate.sh [--seed N] [--count N] [FILE...]    20 faults, in all sources, by default
#
# Prints a line for each survivor and, at the end, how many faults the compiler, the unit tests and the SQL tests
# noticed. The same seed plants the same faults. The working tree stays as it is; what runs lies in build/mutate.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh

answer_help "$0" "$@"

# shellcheck disable=SC2086  # the lists are meant to be split
install_packages $BUILD_PACKAGES $PYTHON_PACKAGES libgtest-dev python3-pytest
exec /usr/bin/python3 -B scripts/mutate.py "$@"
