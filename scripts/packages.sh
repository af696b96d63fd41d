# Sourced by the other scripts: installs Debian packages that are not there yet, as root or through sudo.

BUILD_PACKAGES="g++ cmake ninja-build pkg-config postgresql-15 postgresql-server-dev-15 libcurl4-openssl-dev libutfcpp-dev zlib1g-dev"

install_packages() {
    local missing=() package
    for package in "$@"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    local as_root=()
    [ "$(id -u)" = 0 ] || as_root=(sudo)
    echo "Installing: ${missing[*]}"
    "${as_root[@]}" apt-get update -qq
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
        "${missing[@]}" >/dev/null
}
