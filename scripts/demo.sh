#!/bin/sh
# Builds the module and shows it at work: a private PostgreSQL cluster, a search server with sample
# documents, real queries and their rows. On a bare Debian 12 it installs what it needs.
#
#   scripts/demo.sh                  the tour
#   scripts/demo.sh "SELECT ..."     a query of your own on the foreign table "books"
#   scripts/demo.sh --keep           leaves everything running and prints how to connect and to stop
#
# ELASTICSEARCH_URL=http://host:port uses that cluster in place of the bundled search server.
set -eu

cd "$(dirname "$0")/.."
. scripts/packages.sh
answer_help "$0" "$@"
root=$PWD

# shellcheck disable=SC2086  # the lists are meant to be split
install_packages $BUILD_PACKAGES $PYTHON_PACKAGES

# A build folder of its own: the tests' settings stay as they are.
build=$root/build/demo
log=$build/build.log
mkdir -p "$build"
echo "Building the module ..." >&2
if ! { cd "$root" && cmake --preset release -B "$build" -DBUILD_TESTING=OFF &&
    cmake --build "$build" --parallel "$(nproc)" --target VeltranePgFdw3_0; } >"$log" 2>&1; then
    cat "$log" >&2
    exit 1
fi

exec /usr/bin/python3 -B "$root/demo/demo.py" --module "$build/libVeltranePgFdw3_0.so" "$@"
