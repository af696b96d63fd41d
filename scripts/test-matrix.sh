#!/usr/bin/env bash
# Builds the module, warnings being errors, and runs its tests on several PostgreSQL versions, each in a
# Debian of its own time: its server, its compiler, its libraries.
#
#   scripts/test-matrix.sh             all versions: 13 15 17 18
#   scripts/test-matrix.sh 13 17       these
#
# One line per version at the end; the exit status is 0 when everything passed. Needs root, or sudo. The Debian
# folders (about 1.5 GB each) stay in build/matrix, or in $VELTRANE_MATRIX_DIR, so that the next run is quick;
# remove the folder of a Debian release to have it made anew. They come from the mirrors of the machine's own
# apt sources; $VELTRANE_MATRIX_MIRROR names one to be tried first, for releases that those no longer carry.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cache=$(realpath -m "${VELTRANE_MATRIX_DIR:-$root/build/matrix}")
tree=/srv/veltrane # where the source lies inside a Debian folder
all_versions=(13 15 17 18)
debian= # the Debian folder in use

release_of() {
    case $1 in
    13) echo bullseye ;;
    15) echo bookworm ;;
    17) echo trixie ;;
    18) echo forky ;;
    *) return 1 ;;
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

install_inside() { # VERSION
    local packages="cmake ninja-build g++ postgresql-$1 postgresql-server-dev-$1 libcurl4-openssl-dev
        libutfcpp-dev zlib1g-dev libgtest-dev python3-pytest python3-psycopg2"
    local done_before=$debian/var/lib/veltrane-packages
    [ "$(cat "$done_before" 2>/dev/null)" != "$packages" ] || return 0

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
    # shellcheck disable=SC2086  # the list is meant to be split
    in_debian apt-get -q -y --no-install-recommends -o Dpkg::Options::=--force-unsafe-io \
        -o Dpkg::Options::=--force-confold install $packages
    in_debian apt-get clean
    echo "$packages" >"$done_before"
}

prepare() { # VERSION RELEASE
    if [ ! -e "$debian/var/lib/veltrane-bootstrapped" ]; then
        bootstrap "$2"
        touch "$debian/var/lib/veltrane-bootstrapped"
    fi
    mount -t proc proc "$debian/proc"
    mount --rbind /dev "$debian/dev" # the server needs /dev/shm as well
    install_inside "$1"
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
        "-DPG_CONFIG=/usr/lib/postgresql/$1/bin/pg_config"
    in_debian cmake --build "$tree/build/matrix-$1" --parallel "$(nproc)"
}

run_sql_tests() { # VERSION
    find "$debian/tmp" -mindepth 1 -delete # what a run that was killed has left
    in_debian env --chdir="$tree" "PG_CONFIG=/usr/lib/postgresql/$1/bin/pg_config" \
        "VELTRANE_MODULE=$tree/build/matrix-$1/libVeltranePgFdw3_0.so" \
        /usr/bin/python3 -B -m pytest -q -p no:cacheprovider tests/sql \
        --ignore=tests/sql/test_instructions.py # what Debian 12's compiler makes of the source
}

# All steps for one version. Leaves in RELEASE.result how far it came.
run_version() { # VERSION
    local release result output summary unit_status=0 sql_status=0
    release=$(release_of "$1")
    debian=$cache/$release
    result=$cache/$release.result
    output=$cache/$release.pytest
    echo "no Debian folder" >"$result"
    prepare "$1" "$release"
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

server_version() { # VERSION
    in_debian "/usr/lib/postgresql/$1/bin/postgres" --version 2>/dev/null | awk '{print $3}'
}

run_matrix() { # VERSION...
    local version release log result lines=() failed=0
    for version in "$@"; do
        release=$(release_of "$version")
        debian=$cache/$release
        log=$cache/$release.log
        say "PostgreSQL $version ($release) ..."
        # A process of its own, so that its first failing command ends it.
        if bash "${BASH_SOURCE[0]}" --inside-one "$version" >"$log" 2>&1; then
            result=$(<"$cache/$release.result")
        else
            failed=1
            tail -n 60 "$log" >&2
            result="FAILED, $(<"$cache/$release.result") (all of it: $log)"
        fi
        lines+=("PostgreSQL $(server_version "$version" || echo "$version") ($release): $result")
    done
    printf '%s\n' "${lines[@]}"
    return $failed
}

# ---- start ---------------------------------------------------------------------------------------------

case "${1:-}" in
--inside)
    shift
    run_matrix "$@"
    exit
    ;;
--inside-one)
    run_version "$2"
    exit
    ;;
-h | --help)
    sed -n '2,/^set/{/^#/s/^# \{0,1\}//p}' "$0"
    exit
    ;;
esac

[ $# -gt 0 ] || set -- "${all_versions[@]}"
for version in "$@"; do
    if ! release_of "$version" >/dev/null; then
        say "usage: ${0##*/} [VERSION...], out of ${all_versions[*]}"
        exit 2
    fi
done
if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || { say "Needs root, or sudo, to make and to enter the Debian folders."; exit 1; }
    exec sudo --preserve-env=VELTRANE_MATRIX_DIR,VELTRANE_MATRIX_MIRROR bash "${BASH_SOURCE[0]}" "$@"
fi
# shellcheck source=scripts/packages.sh
. "$root/scripts/packages.sh"
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
