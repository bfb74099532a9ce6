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
. "$checkout/scripts/source-copy.sh"

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

# What is made is put beside the older one first: it takes its place whole, or not at all.
mkdir -p -- "$target"
fresh=$(mktemp -d -- "$target/.new.XXXXXX")
work=
trap 'rm -rf "$work" "$fresh"' EXIT
trap 'exit 1' HUP INT TERM
work=$(mktemp -d)
copy_source "$checkout" "$work/quarrow"
cp -a "$work/quarrow" "$work/untouched"
(cd "$work/quarrow" && dpkg-buildpackage --build=binary --unsigned-source --unsigned-changes) >"$work/log" 2>&1 || {
    tail -n 40 "$work/log" >&2
    exit 1
}
# What a build leaves is removed again: the next one in the same tree begins as this one has begun.
(cd "$work/quarrow" && debian/rules clean) >"$work/log" 2>&1 || {
    tail -n 40 "$work/log" >&2
    exit 1
}
diff -r --no-dereference "$work/untouched" "$work/quarrow" >&2 || {
    echo "package.sh: 'debian/rules clean' does not leave the source as it was" >&2
    exit 1
}
mv "$work"/quarrow*.deb "$fresh"
rm -f "$target"/quarrow*.deb
mv "$fresh"/quarrow*.deb "$target"
ls "$target"/quarrow*.deb
