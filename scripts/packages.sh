# Sourced by the other scripts: what they share. Installs Debian packages that are not there yet, as root or through
# sudo.

BUILD_PACKAGES="g++ cmake ninja-build postgresql-15 postgresql-server-dev-15 libcurl4-openssl-dev
    libutfcpp-dev zlib1g-dev"
PYTHON_PACKAGES="python3 python3-psycopg2"

# install_packages PACKAGE...
install_packages() {
    missing=
    for package in "$@"; do
        dpkg-query -W -f='${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed ||
            missing="$missing $package"
    done
    [ -n "$missing" ] || return 0
    echo "Installing:$missing" >&2
    as_root=
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null || { echo "Needs root, or sudo, to install these packages." >&2; exit 1; }
        as_root=sudo
    fi
    $as_root apt-get -qq update >&2
    # shellcheck disable=SC2086  # the list is meant to be split
    $as_root env DEBIAN_FRONTEND=noninteractive apt-get -qq -y --no-install-recommends install $missing >/dev/null
}

# answer_help "$0" "$@": prints the comment at the top of a script that is asked for --help, and ends it. The current
# folder is that of the project.
answer_help() {
    case "${2:-}" in
    -h | --help)
        sed -n '2,/^set/{/^#/s/^# \{0,1\}//p}' "scripts/${1##*/}"
        exit
        ;;
    esac
}
