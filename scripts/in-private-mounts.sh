#!/bin/sh
# Runs a command in a mount namespace of its own, in which an empty /tmp, a /usr/local/quarrow with a MIME table and, when
# asked for, a /dev with a log socket are private. The machine's own stay as they are. Without privileges the command is
# root of a user namespace of its own.
#
#   in-private-mounts.sh [--mime-types FILE] [--log SOCKET] [--keep FOLDER]... -- COMMAND [ARGUMENT]...
#   in-private-mounts.sh --help   prints this, and does nothing else
#
#   --mime-types FILE  is copied to /usr/local/quarrow/mime_types.txt (default: the one of this checkout)
#   --log SOCKET       an absolute path to which /dev/log leads; without this option the command logs to the machine's log.
#                      What is logged while nothing listens there is lost
#   --keep FOLDER      an absolute path that stays visible although it is below /tmp; the checkout and the current
#                      folder always do
set -eu

script=$(readlink -f "$0")
checkout=${script%/*/*}

refuse() {
    echo "in-private-mounts.sh: $*. See scripts/in-private-mounts.sh --help" >&2
    exit 2
}

case ${1:-} in
-h | --help) sed -n '2,/^set /s/^# \{0,1\}//p' "$0"; exit 0 ;;
esac

if [ "${QUARROW_PRIVATE_MOUNTS:-}" != entered ]; then
    map=
    [ "$(id -u)" = 0 ] || map=--map-root-user
    QUARROW_PRIVATE_MOUNTS=entered exec unshare --mount --propagation private $map "$script" "$@"
fi
unset QUARROW_PRIVATE_MOUNTS

mime_types=$checkout/data/mime_types.txt
log=
here=$(pwd -P)
kept="$checkout
$here"

show() { # SOURCE TARGET: the folder, file or link SOURCE at TARGET as well
    if [ -L "$1" ]; then
        cp -P "$1" "$2"
    elif [ -d "$1" ]; then
        [ -d "$2" ] || mkdir -p "$2"
        mount -n --no-canonicalize --rbind "$1" "$2"
    else
        : > "$2"
        mount -n --no-canonicalize --bind "$1" "$2"
    fi
}

while [ $# -gt 0 ]; do
    case $1 in
    --mime-types | --log | --keep) [ $# -gt 1 ] || refuse "$1 wants a path" ;;
    esac
    case $1 in
    --mime-types) mime_types=$2; shift 2 ;;
    --log) log=$2; shift 2 ;;
    --keep) kept="$kept
$2"; shift 2 ;;
    --) shift; break ;;
    -*) refuse "there is no option $1" ;;
    *) break ;;
    esac
done
[ $# -gt 0 ] || refuse 'there is no command to run'
case $log in
/* | '') ;;
*) refuse "the log socket $log is not an absolute path" ;;
esac
if { [ ! -f "$mime_types" ] && [ "$mime_types" != /dev/null ]; } || [ ! -r "$mime_types" ]; then
    echo "in-private-mounts.sh: the MIME table $mime_types cannot be read" >&2
    exit 1
fi

exec 9< /tmp # the machine's own, to be reached when the private one lies over it
mount -n -t tmpfs -o mode=1777 tmpfs /tmp
case "
$kept" in
*"
/tmp/"*)
    printf '%s\n' "$kept" | sort | while IFS= read -r path; do # parents first: they bring what is below them
        case $path in
        /tmp/*) [ -d "$path" ] || show "/proc/self/fd/9/${path#/tmp/}" "$path" ;;
        esac
    done
    ;;
esac

# A file system in memory is furnished on a stage and then moved to its place, for it is made of what it will cover.
raise_stage() {
    mkdir /tmp/.stage
    mount -n -t tmpfs -o mode=755 tmpfs /tmp/.stage
}
move_stage_to() {
    mount -n --move /tmp/.stage "$1"
    rmdir /tmp/.stage
}

# Made in one step: every unit test comes through here, and most of its time is for starting programs.
make_folders_on_stage() { # PATH...: one for each that is a folder, and /quarrow
    for entry; do
        shift
        if [ -d "$entry" ] && [ ! -L "$entry" ] && [ "$entry" != /usr/local/quarrow ]; then
            set -- "$@" "/tmp/.stage/${entry##*/}"
        fi
    done
    mkdir /tmp/.stage/quarrow "$@"
}

raise_stage
make_folders_on_stage /usr/local/*
for entry in /usr/local/*; do
    [ "$entry" = /usr/local/quarrow ] || show "$entry" "/tmp/.stage/${entry##*/}"
done
cp "$mime_types" /tmp/.stage/quarrow/mime_types.txt
move_stage_to /usr/local

if [ -n "$log" ]; then
    raise_stage
    for name in null zero full random urandom tty shm; do
        [ ! -e "/dev/$name" ] || show "/dev/$name" "/tmp/.stage/$name"
    done
    ln -s /proc/self/fd /tmp/.stage/fd
    for link in stdin:0 stdout:1 stderr:2; do
        ln -s "fd/${link#*:}" "/tmp/.stage/${link%:*}"
    done
    ln -s "$log" /tmp/.stage/log
    move_stage_to /dev
fi

exec 9<&-
cd "$here"
exec "$@"
