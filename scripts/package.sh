#!/bin/sh
# Builds the Debian package on a Debian 12 machine; installs what is missing first, and says so.
#
#   package.sh [FOLDER]     puts the package into FOLDER (default: build/package), in place of older ones
#
# Builds in a copy of the checkout, which stays as it is.
set -eu
cd "$(dirname "$0")/.."
. scripts/packages.sh

case ${1:-} in
-h | --help) sed -n 's/^# \{0,1\}//; 2,/^ *$/p; 4,6p' "$0"; exit 0 ;;
-*) echo "usage: scripts/package.sh [FOLDER]" >&2; exit 2 ;;
esac
[ $# -le 1 ] || { echo "usage: scripts/package.sh [FOLDER]" >&2; exit 2; }

# shellcheck disable=SC2086 # a list of words
install_packages $build_packages build-essential debhelper

target=${1:-build/package}
mkdir -p "$target"
target=$(cd "$target" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/quarrow"
tar --create --exclude=./build --exclude=./.git --exclude=./debian . | tar --extract --directory "$work/quarrow"
cp -r packaging/debian "$work/quarrow/debian"
(cd "$work/quarrow" && dpkg-buildpackage --build=binary --unsigned-source --unsigned-changes) >"$work/log" 2>&1 || {
    tail -n 40 "$work/log" >&2
    exit 1
}
rm -f "$target"/quarrow*.deb
mv "$work"/quarrow*.deb "$target"
ls "$target"/quarrow*.deb
