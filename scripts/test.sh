#!/usr/bin/env bash
# Builds and runs every test on a bare Debian 12: unit tests, the same under AddressSanitizer and
# UndefinedBehaviorSanitizer, and the SQL suite against a private cluster, once more with both sanitizers in
# the server.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh
answer_help "$0" "$@"

# shellcheck disable=SC2086  # the lists are meant to be split
install_packages $BUILD_PACKAGES $PYTHON_PACKAGES libgtest-dev python3-pytest valgrind

build() {
    cmake --preset "$1" -DWARNINGS_AS_ERRORS=ON >/dev/null
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

echo "== SQL tests of a module under AddressSanitizer and UndefinedBehaviorSanitizer, inside the server"
cmake --preset release -B build/asan-server -DSANITIZE=address,undefined -DWARNINGS_AS_ERRORS=ON >/dev/null
cmake --build build/asan-server --target VeltranePgFdw3_0 veltraneServerTests veltraneUserTests -- --quiet
preload=$(mktemp -d)
trap 'rm -rf "$preload"' EXIT
chmod 755 "$preload"
# AddressSanitizer starts with the first allocation and, on its way, asks the C library for texts. If the
# start of some library makes that allocation inside one of the C library's locks, the lock stays broken and
# the server hangs. So a library that starts before all others makes it.
g++ -x c++ -shared -fPIC -O0 -Wl,-z,initfirst -o "$preload/first.so" - <<'END'
#include <cstdlib>
__attribute__((constructor)) static void first() { std::free(std::malloc(1)); }
END
# The reports go into the server log, where every test looks for them. Leaks are not looked for: a backend
# ends without freeing everything. The expression compiler would take most of the time.
export VELTRANE_MODULE=build/asan-server/libVeltranePgFdw3_0.so PGOPTIONS="-c jit=off"
export ASAN_OPTIONS=detect_leaks=0:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1
VELTRANE_SERVER_PRELOAD="$(g++ -print-file-name=libasan.so) $(g++ -print-file-name=libstdc++.so.6)"
export VELTRANE_SERVER_PRELOAD="$VELTRANE_SERVER_PRELOAD $preload/first.so"
# Without the tests that are marked as not for it: tests/sql/conftest.py says which these are.
VELTRANE_FAILURES=3 /usr/bin/python3 -m pytest -q -p no:cacheprovider tests/sql -m "not unsanitized"
