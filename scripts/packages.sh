# shellcheck shell=sh
# Sourced by the scripts beside it: says what is missing on this Debian machine and installs it.

# install_packages PACKAGE...: with root rights, or through sudo. Without either, says what an administrator has to do.
install_packages() {
    missing=
    for package in "$@"; do
        dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing="$missing $package"
    done
    [ -n "$missing" ] || return 0
    if ! command -v apt-get >/dev/null; then
        echo "This is no Debian machine: there is no apt-get. What these packages of Debian 12 have is wanted:$missing" >&2
        return 1
    fi
    echo "Installing:$missing"
    if [ "$(id -u)" = 0 ]; then
        sudo=
    elif command -v sudo >/dev/null; then
        sudo=sudo
    else
        echo "These packages are missing and only root can install them. As root: apt-get install$missing" >&2
        return 1
    fi
    # A package list that is good enough spares the update, and works where the registry is out of reach.
    # shellcheck disable=SC2086 # a list of words
    $sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends $missing >/dev/null 2>&1 && return 0
    $sudo apt-get update -q >/dev/null
    # shellcheck disable=SC2086
    $sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends $missing >/dev/null
}

# shellcheck disable=SC2034 # used by the scripts that source this
build_packages="g++ cmake ninja-build pkg-config libsqlite3-dev libxml2-dev libcli11-dev libfmt-dev nlohmann-json3-dev \
    node-d3-axis node-d3-hierarchy node-d3-scale node-d3-selection"
