#!/bin/sh
# Runs a command in a mount namespace of its own, in which an empty /tmp and a /usr/local/quarrow with a MIME table are
# private. The machine's own stay as they are. Without privileges the command is root of a user namespace of its own.
#
#   in-private-mounts.sh [--mime-types FILE] [--keep FOLDER]... -- COMMAND [ARGUMENT]...
#
#   --mime-types FILE  is copied to /usr/local/quarrow/mime_types.txt (default: the one of this checkout)
#   --keep FOLDER      an absolute path that stays visible although it is below /tmp; the checkout and the current
#                      folder always do
set -eu

script=$(readlink -f "$0")
checkout=$(dirname "$(dirname "$script")")

if [ "${QUARROW_PRIVATE_MOUNTS:-}" != entered ]; then
    map=
    [ "$(id -u)" = 0 ] || map=--map-root-user
    QUARROW_PRIVATE_MOUNTS=entered exec unshare --mount --propagation private $map "$script" "$@"
fi
unset QUARROW_PRIVATE_MOUNTS

mime_types=$checkout/data/mime_types.txt
here=$(pwd -P)
kept="$checkout
$here"

show() { # SOURCE TARGET: the folder, file or link SOURCE at TARGET as well
    if [ -L "$1" ]; then
        cp -P "$1" "$2"
    elif [ -d "$1" ]; then
        mkdir -p "$2"
        mount -n --no-canonicalize --rbind "$1" "$2"
    else
        : > "$2"
        mount -n --no-canonicalize --bind "$1" "$2"
    fi
}

while [ $# -gt 0 ]; do
    case $1 in
    --mime-types) mime_types=$2; shift 2 ;;
    --keep) kept="$kept
$2"; shift 2 ;;
    --) shift; break ;;
    *) break ;;
    esac
done

exec 9< /tmp # the machine's own, to be reached when the private one lies over it
mount -n -t tmpfs -o mode=1777 tmpfs /tmp
printf '%s\n' "$kept" | sort | while IFS= read -r path; do # parents first: they bring what is below them
    case $path in
    /tmp/*) [ -d "$path" ] || show "/proc/self/fd/9/${path#/tmp/}" "$path" ;;
    esac
done

# Furnished on a stage and then moved to its place, for it is made of what it will cover.
mkdir /tmp/.stage
mount -n -t tmpfs -o mode=755 tmpfs /tmp/.stage
for entry in /usr/local/*; do
    [ "$entry" = /usr/local/quarrow ] || show "$entry" "/tmp/.stage/${entry##*/}"
done
mkdir /tmp/.stage/quarrow
cp "$mime_types" /tmp/.stage/quarrow/mime_types.txt
mount -n --move /tmp/.stage /usr/local
rmdir /tmp/.stage

exec 9<&-
cd "$here"
exec "$@"
