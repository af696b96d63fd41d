#!/usr/bin/env bash
# Eight backends search, look up, scroll, rescan and fail on a private cluster, and the search server dies under
# them twice. Checks every result, and at the end memory, connections and scroll contexts; prints a summary. Then
# 20,000 random statements, others each time, give on the search wrapper's tables what they give on local copies.
#
#   scripts/soak.sh [MINUTES]     10 by default, for the first of the two
#
# VELTRANE_MODULE names the module to run; without it the release build is made.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh

answer_help "$0" "$@"
if ! [[ ${1:-10} =~ ^[0-9]+(\.[0-9]+)?$ ]]; then
    echo "usage: ${0##*/} [MINUTES]" >&2
    exit 2
fi

# shellcheck disable=SC2086  # the lists are meant to be split
install_packages $BUILD_PACKAGES $PYTHON_PACKAGES python3-pytest
if [ -z "${VELTRANE_MODULE:-}" ]; then
    cmake --preset release -DBUILD_TESTING=OFF -B build/soak >/dev/null
    cmake --build build/soak -- --quiet
    export VELTRANE_MODULE=build/soak/libVeltranePgFdw3_0.so
fi
VELTRANE_SOAK_MINUTES=${1:-10} /usr/bin/python3 -B -m pytest -q -s -p no:cacheprovider tests/sql/test_soak.py
seed=$(date +%s)
echo "20,000 random statements: VELTRANE_STATEMENTS=20000 VELTRANE_SEED=$seed"
VELTRANE_STATEMENTS=20000 VELTRANE_SEED=$seed /usr/bin/python3 -B -m pytest -q -p no:cacheprovider \
    tests/sql/test_search_statements.py
