#!/bin/sh
# Builds Quarrow for other architectures on a Debian 12 machine of amd64 and runs its tests; installs what is missing first,
# and says so. Only root can do that.
#
#   ports.sh [ARCHITECTURE...]    of i386, armhf, arm64 and s390x; without ARCHITECTURE, all four
#   ports.sh --help               prints this, and does nothing else
#
# What is made for i386 runs on the processor as it is, the system tests too. The others have their unit tests run in an
# emulator, which takes several times as long. The cross compilers, the foreign libraries and the emulator go into a root
# file system of their own in build/ports/root. It is kept for the next time, and so are the builds beside it. Nothing else
# on the machine changes.
# Ends with the results of each, skipped tests with their reasons, and with status 1 when a build or a test failed.
set -eu

known='i386 armhf arm64 s390x'
case ${1:-} in
-h | --help) sed -n '2,/^set /s/^# \{0,1\}//p' "$0"; exit 0 ;;
esac
for port in "$@"; do
    case " $known " in
    *" $port "*) ;;
    *) echo "ports.sh does not know '$port', only $known. See scripts/ports.sh --help" >&2; exit 2 ;;
    esac
done
# shellcheck disable=SC2086 # a list of words
[ $# -gt 0 ] || set -- $known

cd "$(dirname "$0")/.."
. scripts/packages.sh
if [ "$(id -u)" != 0 ]; then
    echo 'ports.sh makes a root file system and enters it: only root can do that.' >&2
    exit 1
elif [ "$(dpkg --print-architecture)" != amd64 ]; then
    echo "ports.sh takes Debian's cross compilers for amd64, and this machine is $(dpkg --print-architecture)." >&2
    exit 1
fi
install_packages debootstrap util-linux python3

root=$PWD/build/ports/root
if [ ! -e "$root/.complete" ]; then
    echo "== A Debian 12 in build/ports/root"
    rm -rf "$root"
    mkdir -p "$root"
    debootstrap --variant=minbase bookworm "$root" >build/ports/root.log 2>&1 || {
        tail -n 5 build/ports/root.log >&2
        exit 1
    }
    mkdir "$root/quarrow"
    : > "$root/.complete"
fi

# Runs a command in the root file system, in the checkout. No process of it stays behind, also when this script is killed. It is
# no chroot, in which there are no user namespaces to be had.
in_root() {
    # shellcheck disable=SC2016 # expanded by the inner shell
    setpriv --pdeathsig KILL unshare --mount --propagation private --pid --fork --kill-child sh -euc '
        root=$1
        shift
        mount --bind "$root" "$root"
        mount -t proc proc "$root/proc"
        mount --rbind /dev "$root/dev"
        mount --bind . "$root/quarrow"
        cd "$root"
        pivot_root . .
        umount --lazy .
        exec /usr/bin/env -i -C /quarrow PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
            CCACHE_DIR=/quarrow/build/ports/ccache CCACHE_SLOPPINESS=pch_defines,time_macros "$@"
    ' sh "$root" "$@"
}

# What the build and the tests want, of the build machine or of the PORT whose COMPILER is given.
prepare() { # PORT COMPILER
    # shellcheck disable=SC2016 # expanded by the inner shell
    in_root sh -euc '. scripts/packages.sh; dpkg --add-architecture "$1"; shift; install_packages "$@"' sh "$1" \
        "g++-$2" "libsqlite3-dev:$1" "libxml2-dev:$1" "libfmt-dev:$1" "libgtest-dev:$1" "libfaketime:$1" \
        ccache cmake ninja-build libcli11-dev nlohmann-json3-dev node-d3-axis node-d3-hierarchy node-d3-scale node-d3-selection \
        qemu-user-static make python3 python3-pytest sqlite3 faketime strace jq bash-completion util-linux
}

try() { # PORT: builds it and runs its tests
    build=build/ports/$1
    rm -f "$build/results.xml"
    case $1 in
    i386) compiler=i686-linux-gnu ;;
    armhf) compiler=arm-linux-gnueabihf ;;
    arm64) compiler=aarch64-linux-gnu ;;
    s390x) compiler=s390x-linux-gnu ;;
    esac
    prepare "$1" "$compiler" || {
        echo "ports.sh: not all packages for $1 are to be had" >&2
        return 1
    }
    echo "== Build: $1"
    in_root cmake --preset release -B "$build" --toolchain cmake/debian-port.cmake -DQUARROW_PORT="$1" \
        -DCMAKE_CXX_COMPILER_LAUNCHER=ccache >/dev/null || return
    in_root cmake --build "$build" || return
    echo "== Tests: $1"
    # -rs: the reason of each skip
    in_root env PYTEST_ADDOPTS=-rs ctest --test-dir "$build" --parallel "$(nproc)" --label-exclude '^(fault|browser|fleet)$' \
        --output-on-failure --output-junit results.xml
}

status=0
for port in "$@"; do
    try "$port" || status=1
done
for port in "$@"; do
    echo "== Results: $port"
    /usr/bin/python3 scripts/port_results.py "build/ports/$port/results.xml" || status=1
done
exit "$status"
