#!/usr/bin/env bash
# Builds and runs every test on a bare Debian 12: unit tests, the same under AddressSanitizer and
# UndefinedBehaviorSanitizer, and the SQL suite against a private cluster.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh

# shellcheck disable=SC2086  # the lists are meant to be split
install_packages $BUILD_PACKAGES $PYTHON_PACKAGES libgtest-dev python3-pytest

build() {
    cmake --preset "$1" >/dev/null
    cmake --build --preset "$1" -- --quiet
}

echo "== Unit tests"
build release
ctest --test-dir build/release --output-on-failure

echo "== Unit tests under AddressSanitizer and UndefinedBehaviorSanitizer"
build asan
ctest --test-dir build/asan --output-on-failure

echo "== SQL tests"
/usr/bin/python3 -m pytest -q -p no:cacheprovider tests/sql
