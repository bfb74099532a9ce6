#!/bin/sh
# Tries the Debian package under a real systemd, in a booted container, on a Debian 12 machine; installs what is missing first,
# and says so. Only root can do that.
#
#   boot-test.sh [PYTEST-OPTION...]
#   boot-test.sh --help               prints this, and does nothing else
#
# Builds the package into build/package, and keeps the container's root file system in build/boot for the next time. Changes
# nothing else.
set -eu

case ${1:-} in
-h | --help) sed -n '2,/^set /s/^# \{0,1\}//p' "$0"; exit 0 ;;
esac

[ "$(id -u)" = 0 ] || { echo "boot-test.sh: only root can boot a container" >&2; exit 1; }

cd "$(dirname "$0")/.."
. scripts/packages.sh

install_packages python3 python3-pytest util-linux e2fsprogs systemd-container debootstrap
scripts/package.sh >&2
mkdir -p build/boot
export QUARROW_PACKAGES="$PWD/build/package" QUARROW_BOOT_ROOT="$PWD/build/boot/root"
cd tests/boot
exec unshare --mount --propagation private /usr/bin/python3 -B -m pytest -q -rs -p no:cacheprovider "$@"
