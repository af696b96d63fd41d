#!/usr/bin/env bash
# Builds the module, warnings being errors, and runs its tests on several PostgreSQL versions, each in a
# Debian of its own time: its server, its compiler, its libraries. Installs the Debian package for version 15 in
# a Debian that has nothing but its dependencies, and lets it answer a query there. Runs the tests once more on a
# server 15 with assertions, built from Debian's source package.
#
#   scripts/test-matrix.sh             all of it: 13 15 17 18 assert package
#   scripts/test-matrix.sh 13 package  these
#
# One line for each at the end; the exit status is 0 when everything passed. Needs root, or sudo. The Debian
# folders (about 1.5 GB each) stay in build/matrix, or in $VELTRANE_MATRIX_DIR, so that the next run is quick;
# remove the folder of a Debian release to have it made anew. They come from the mirrors of the machine's own
# apt sources; $VELTRANE_MATRIX_MIRROR names one to be tried first, for releases that those no longer carry.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cache=$(realpath -m "${VELTRANE_MATRIX_DIR:-$root/build/matrix}")
tree=/srv/veltrane # where the source lies inside a Debian folder
all_tests=(13 15 17 18 assert package)
package_version=15
debian= # the Debian folder in use

# Where a test takes place; for a version, also the name of the Debian release.
folder_of() { # TEST
    case $1 in
    13) echo bullseye ;;
    15 | assert) echo bookworm ;;
    17) echo trixie ;;
    18) echo forky ;;
    package) echo package ;;
    *) return 1 ;;
    esac
}

# Where the tests of one leave what they have to tell.
notes_of() { # TEST
    case $1 in
    assert) echo "$cache/assert" ;;
    *) echo "$cache/$(folder_of "$1")" ;;
    esac
}

# The server that a test is for, inside its Debian folder.
server_of() { # TEST
    case $1 in
    assert) echo /opt/assert ;;
    *) echo "/usr/lib/postgresql/$1" ;;
    esac
}

say() { echo "$*" >&2; }

# in_debian COMMAND...: runs a command inside the current Debian folder ($debian), with nothing of the caller's
# environment: a proxy or a locale from outside must not decide over a test.
in_debian() {
    env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive \
        chroot "$debian" "$@" </dev/null
}

# ---- making a Debian folder ----------------------------------------------------------------------------

# The package mirrors of this machine, in order.
mirrors() {
    local targets
    [ -z "${VELTRANE_MATRIX_MIRROR:-}" ] || echo "$VELTRANE_MATRIX_MIRROR"
    # shellcheck disable=SC2016  # the names are for apt
    targets() { apt-get indextargets --format '$(REPO_URI) $(RELEASE)' 'Origin: Debian' 'Created-By: Packages'; }
    targets=$(targets)
    if [ -z "$targets" ]; then # apt knows its sources from the first update on
        apt-get -qq update >&2
        targets=$(targets)
    fi
    # Security updates have mirrors of their own, which hold no complete release.
    awk '$2 !~ /security/ && !seen[$1]++ {print $1}' <<<"$targets"
}

# Tries every mirror; for releases so old that their keys are retired, also with those.
bootstrap() { # RELEASE
    local mirror keyring script=sid
    [ ! -e "/usr/share/debootstrap/scripts/$1" ] || script=$1
    for keyring in /usr/share/keyrings/debian-archive-{keyring,removed-keys}.gpg; do
        for mirror in $(mirrors); do
            rm -rf "$debian"
            say "debootstrap $1 from $mirror with $keyring"
            # Certificates: for mirrors behind https.
            debootstrap --variant=minbase --include=ca-certificates --keyring="$keyring" "$1" "$debian" \
                "$mirror" "/usr/share/debootstrap/scripts/$script" && return
            [ ! -e "$debian/debootstrap/debootstrap.log" ] || tail -n 20 "$debian/debootstrap/debootstrap.log"
        done
    done
    say "$1 could not be had from any mirror of this machine's apt sources; VELTRANE_MATRIX_MIRROR can name one."
    return 1
}

# Installs the newest versions of packages, or package files, in the current Debian folder.
install_inside() { # PACKAGE...
    # No service is started and no cluster is made: the tests make their own.
    printf '#!/bin/sh\nexit 101\n' >"$debian/usr/sbin/policy-rc.d"
    chmod +x "$debian/usr/sbin/policy-rc.d"
    mkdir -p "$debian/etc/postgresql-common"
    echo "create_main_cluster = false" >"$debian/etc/postgresql-common/createcluster.conf"
    if ! in_debian apt-get -q update; then
        say "Once more, in case it was only a mirror that lags behind: without a look at the expiry date"
        in_debian apt-get -q -o Acquire::Check-Valid-Until=false update
    fi
    in_debian dpkg --configure -a # what a run that was killed has left
    # Durable writes would only cost time: a folder that a crash left half done is completed by the next run.
    in_debian apt-get -q -y --no-install-recommends -o Dpkg::Options::=--force-unsafe-io \
        -o Dpkg::Options::=--force-confold install "$@"
    in_debian apt-get clean
}

mount_inside() {
    mount -t proc proc "$debian/proc"
    mount --rbind /dev "$debian/dev" # the server needs /dev/shm as well
}

# Builds the server with assertions, as long as its version is not there yet.
build_assertions() {
    local source=/usr/src/assert options="--enable-cassert --with-libxml --without-readline" version made
    printf 'deb-src %s %s main\n' "$(mirrors | head -n 1)" "$(folder_of assert)" \
        >"$debian/etc/apt/sources.list.d/source.list"
    in_debian apt-get -q update
    install_inside dpkg-dev gcc make bison flex perl pkgconf libicu-dev libxml2-dev zlib1g-dev
    version=$(in_debian apt-cache showsrc --only-source postgresql-15 | awk '/^Version:/ {print $2; exit}')
    made="$version $options"
    [ "$(cat "$debian/opt/assert/made" 2>/dev/null)" != "$made" ] || return 0
    rm -rf "${debian:?}$source" "$debian/opt/assert"
    mkdir -p "$debian$source"
    in_debian env --chdir=$source apt-get -q source "postgresql-15=$version"
    in_debian bash -c "cd $source/*/ && ./configure --prefix=/opt/assert $options \
        CFLAGS='-O1 -g' && make -j$(nproc) && make install"
    echo "$made" >"$debian/opt/assert/made"
}

# Makes the folder in which a version is built and tested the current one, and completes it.
prepare() { # TEST
    local release packages done_before version=${1/assert/15}
    release=$(folder_of "$1")
    debian=$cache/$release
    if [ ! -e "$debian/var/lib/veltrane-bootstrapped" ]; then
        bootstrap "$release"
        touch "$debian/var/lib/veltrane-bootstrapped"
    fi
    mountpoint -q "$debian/proc" || mount_inside
    packages="cmake ninja-build g++ postgresql-$version postgresql-server-dev-$version libcurl4-openssl-dev
        libutfcpp-dev zlib1g-dev libgtest-dev python3-pytest python3-psycopg2"
    done_before=$debian/var/lib/veltrane-packages
    if [ "$(cat "$done_before" 2>/dev/null)" != "$packages" ]; then
        # shellcheck disable=SC2086  # the list is meant to be split
        install_inside $packages
        echo "$packages" >"$done_before"
    fi
    [ "$1" != assert ] || build_assertions
}

# ---- building and testing ------------------------------------------------------------------------------

# The working tree as it is now, uncommitted work included. A file that has not changed keeps its time, any other
# gets the time of now, later than everything built from it: only what has changed is compiled again.
copy_source() {
    local old=$debian$tree new=$debian$tree.new file
    rm -rf "$new"
    mkdir -p "$new" "$old/build"
    (
        cd "$root"
        git -c "safe.directory=$root" ls-files -z --cached --others --exclude-standard |
            while IFS= read -r -d '' file; do
                [ ! -e "$file" ] || printf '%s\0' "$file" # it may be deleted, but not in the index yet
            done |
            tar --create --null --no-recursion --files-from=-
    ) | tar --extract --touch --no-same-owner --directory="$new"
    find "$new" -type f -printf '%P\0' | while IFS= read -r -d '' file; do
        ! cmp --silent "$old/$file" "$new/$file" || touch --reference="$old/$file" "$new/$file"
    done
    mv "$old/build" "$new/build"
    rm -rf "$old"
    mv "$new" "$old"
}

build() { # VERSION
    in_debian cmake -S "$tree" -B "$tree/build/matrix-$1" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DWARNINGS_AS_ERRORS=ON "-DPG_CONFIG=$(server_of "$1")/bin/pg_config"
    in_debian cmake --build "$tree/build/matrix-$1" --parallel "$(nproc)"
}

run_sql_tests() { # VERSION
    find "$debian/tmp" -mindepth 1 -delete # what a run that was killed has left
    in_debian env --chdir="$tree" "PG_CONFIG=$(server_of "$1")/bin/pg_config" \
        "VELTRANE_MODULE=$tree/build/matrix-$1/libVeltranePgFdw3_0.so" \
        /usr/bin/python3 -B -m pytest -q -p no:cacheprovider tests/sql \
        --ignore=tests/sql/test_instructions.py # what Debian 12's compiler makes of the source
}

# All steps for one version. Leaves in RELEASE.result how far it came.
run_version() { # VERSION
    local result output summary unit_status=0 sql_status=0
    result=$(notes_of "$1").result
    output=$(notes_of "$1").pytest
    echo "no Debian folder" >"$result"
    prepare "$1"
    echo "no copy of the source" >"$result"
    copy_source
    echo "does not build" >"$result"
    build "$1"
    echo "tests did not run" >"$result"
    in_debian env --chdir="$tree/build/matrix-$1" ctest --output-on-failure || unit_status=$?
    run_sql_tests "$1" | tee "$output" || sql_status=$?
    # "3 failed, 392 passed in 61.20s (0:01:01)", between "=" when something failed
    summary=$(sed -n 's/^=* *\([0-9].*[a-z]\) in [0-9.]*s.*$/\1/p' "$output" | tail -n 1)
    rm "$output"
    summary=${summary:-no result}
    [ "$unit_status" -eq 0 ] || summary="unit tests failed, SQL tests: $summary"
    echo "$summary" >"$result"
    return $((unit_status || sql_status))
}

# ---- the package -----------------------------------------------------------------------------------------

# Does what the package's users do, and leaves the answer in /tmp/answer: the id and the author of a document.
ask_in_fresh_cluster() { # PORT
    cat >"$debian/tmp/query.sql" <<END
CREATE EXTENSION veltranepgfdw;
CREATE SERVER search FOREIGN DATA WRAPPER veltranepgfdw;
CREATE FOREIGN TABLE books
    (docname text, doccontent bytea, score real, doctype text, highlights bytea, param text)
    SERVER search
    OPTIONS (connectortype 'elasticsearch', address '127.0.0.1', port '$1', indexlist 'books',
             batchsize '100');
SELECT docname, veltranepgfdw_jsonb(doccontent)->>'author' FROM books
    WHERE param = 'query={"match":{"text":"whale"}}' ORDER BY score DESC LIMIT 1;
END
    in_debian runuser -u postgres -- env HOME=/tmp pg_virtualenv -v "$package_version" \
        psql -X -q -A -t -v ON_ERROR_STOP=1 -f /tmp/query.sql -o /tmp/answer
}

# Builds the package in the folder of its version, where the search server runs as well, and takes it to a fresh
# Debian. Leaves in package.result how far it came.
run_package() {
    local result=$cache/package.result builder file port server answer
    echo "does not build" >"$result"
    prepare "$package_version"
    copy_source
    file=$debian$(in_debian "$tree/scripts/package.sh")
    builder=$debian

    echo "cannot be installed" >"$result"
    debian=$cache/package
    bootstrap "$(folder_of "$package_version")"
    mount_inside
    trap 'umount --recursive --lazy "$debian/proc" "$debian/dev"; rm -rf --one-file-system "$debian"' EXIT
    cp "$file" "$debian/tmp"
    install_inside "/tmp/${file##*/}"

    echo "the query failed" >"$result"
    # It ends with the shell that waits for it, whose number is the one known here.
    exec {port_line}< <(debian=$builder in_debian setpriv --pdeathsig TERM \
        env --chdir="$tree/demo" python3 -B -m searchserver --documents books.ndjson)
    server=$!
    read -r port <&"$port_line"
    ask_in_fresh_cluster "$port"
    kill "$server"
    answer=$(<"$debian/tmp/answer")
    say "The answer: $answer"
    [ "$answer" = "moby-dick|Herman Melville" ]
    echo "${file##*/}: installed, extension created, query answered" >"$result"
}

# ---- all tests -------------------------------------------------------------------------------------------

run_one() { # TEST
    if [ "$1" = package ]; then
        run_package
    else
        run_version "$1"
    fi
}

title_of() { # TEST
    local version
    debian=$cache/$(folder_of "$1")
    if [ "$1" = package ]; then
        echo "Debian package ($(folder_of "$package_version"))"
    else
        version=$(in_debian "$(server_of "$1")/bin/postgres" --version 2>/dev/null | awk '{print $3}') || true
        [ "$1" != assert ] || version="${version:-15}, assertions on"
        echo "PostgreSQL ${version:-$1} ($(folder_of "$1"))"
    fi
}

run_tests() { # TEST...
    local test log result lines=() failed=0
    for test in "$@"; do
        say "$(title_of "$test") ..."
        log=$(notes_of "$test").log
        # A process of its own, so that its first failing command ends it.
        if bash "${BASH_SOURCE[0]}" --inside-one "$test" >"$log" 2>&1; then
            result=$(<"${log%.log}.result")
        else
            failed=1
            tail -n 60 "$log" >&2
            result="FAILED, $(<"${log%.log}.result") (all of it: $log)"
        fi
        lines+=("$(title_of "$test"): $result")
    done
    printf '%s\n' "${lines[@]}"
    return $failed
}

# shellcheck source=scripts/packages.sh
. "$root/scripts/packages.sh"

# ---- start ---------------------------------------------------------------------------------------------

case "${1:-}" in
--inside)
    shift
    run_tests "$@"
    exit
    ;;
--inside-one)
    run_one "$2"
    exit
    ;;
-h | --help)
    cd "$root"
    answer_help "$0" "$1"
    ;;
esac

[ $# -gt 0 ] || set -- "${all_tests[@]}"
for test in "$@"; do
    if ! folder_of "$test" >/dev/null; then
        say "usage: ${0##*/} [TEST...], out of ${all_tests[*]}"
        exit 2
    fi
done
if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || { say "Needs root, or sudo, to make and to enter the Debian folders."; exit 1; }
    exec sudo --preserve-env=VELTRANE_MATRIX_DIR,VELTRANE_MATRIX_MIRROR bash "${BASH_SOURCE[0]}" "$@"
fi
install_packages debootstrap debian-archive-keyring git
mkdir -p "$cache"
exec 9>"$cache/lock"
flock --nonblock 9 || { say "Another run uses $cache."; exit 1; }

# The work is done in namespaces of its own. No one else sees its mounts, so that removing a Debian folder never
# reaches into the machine's own /dev; and when this shell ends, by Ctrl-C or by any other signal, the kernel
# ends every process in there, servers included, and the mounts go with the last of them. In the background,
# because a shell heeds no signal while it waits for a command in the foreground; which makes the command ignore
# SIGINT, something that tests must not inherit.
env --default-signal=INT,QUIT setpriv --pdeathsig KILL \
    unshare --mount --pid --fork --kill-child bash "${BASH_SOURCE[0]}" --inside "$@" &
wait $!
