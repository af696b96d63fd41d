#!/usr/bin/env bash
# Builds the Debian package of the extension with Debian's hardening flags, has lintian check it, and prints its
# path. On a bare Debian 12 it installs what it needs. Fails when lintian finds an error.
#
#   scripts/package.sh     for the server of pg_config; PG_CONFIG names another one
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh

answer_help "$0" "$@"

# shellcheck disable=SC2086  # the list is meant to be split
install_packages $BUILD_PACKAGES dpkg-dev file lintian

build=$PWD/build/package
log=$build/build.log
flags() { DEB_BUILD_MAINT_OPTIONS=hardening=+bindnow dpkg-buildflags --get "$1"; }

make_package() {
    cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBUILD_TESTING=OFF \
        -DPG_CONFIG="$(command -v "${PG_CONFIG:-pg_config}")" \
        -DCMAKE_CXX_FLAGS="$(flags CXXFLAGS) $(flags CPPFLAGS)" -DCMAKE_MODULE_LINKER_FLAGS="$(flags LDFLAGS)"
    cmake --build "$build" --parallel "$(nproc)"
    rm -f "$build"/*.deb
    cpack --config "$build/CPackConfig.cmake" -B "$build"
}

umask 022 # the package's folders get their permissions from it
mkdir -p "$build"
echo "Building the package ..." >&2
make_package >"$log" 2>&1 & # a process of its own, so that its first failing command ends it
if ! wait $!; then
    cat "$log" >&2
    exit 1
fi
# The tag is for packages on their way into Debian's own archive.
lintian --allow-root --fail-on error --suppress-tags initial-upload-closes-no-bugs "$build"/*.deb >&2
echo "$build"/*.deb
