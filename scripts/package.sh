#!/bin/sh
# Builds the Debian package on a Debian 12 machine; installs what is missing first, and says so.
#
#   package.sh [FOLDER]    puts it into FOLDER, in place of an older one; without FOLDER, into build/package of the checkout
#   package.sh --help      prints this, and does nothing else
#
# Builds in a copy of the checkout, which stays as it is.
set -eu
checkout=$(dirname "$(dirname "$(readlink -f "$0")")")
. "$checkout/scripts/packages.sh"

case ${1:-} in
-h | --help) sed -n '2,/^set /s/^# \{0,1\}//p' "$0"; exit 0 ;;
-*) echo "package.sh: there is no option $1. See scripts/package.sh --help" >&2; exit 2 ;;
esac
case $# in
0) target=$checkout/build/package ;;
1) target=$1 ;;
*) echo "usage: scripts/package.sh [FOLDER]" >&2; exit 2 ;;
esac

# shellcheck disable=SC2086 # a list of words
install_packages $build_packages build-essential debhelper

mkdir -p "$target"
target=$(cd "$target" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
trap 'exit 1' HUP INT TERM
mkdir "$work/quarrow"
tar --create --file "$work/checkout.tar" --directory "$checkout" --exclude=./build --exclude=./.git --exclude=./debian .
tar --extract --file "$work/checkout.tar" --directory "$work/quarrow"
cp -r "$checkout/packaging/debian" "$work/quarrow/debian"
(cd "$work/quarrow" && dpkg-buildpackage --build=binary --unsigned-source --unsigned-changes) >"$work/log" 2>&1 || {
    tail -n 40 "$work/log" >&2
    exit 1
}
rm -f "$target"/quarrow*.deb
mv "$work"/quarrow*.deb "$target"
ls "$target"/quarrow*.deb
