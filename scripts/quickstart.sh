#!/bin/sh
# Shows Quarrow at work on a Debian 12 machine: installs what is missing, and says so, builds the daemon, has it catalogue
# a folder and follow a change in it, and stops it.
#
#   quickstart.sh [FOLDER]    without FOLDER a small sample library is made in build/ of the checkout
#   quickstart.sh --help      prints this, and does nothing else
#
# The daemon runs in a mount namespace of its own. Outside the checkout only FOLDER/.quarrow stays behind: the catalogue.
set -eu
checkout=$(dirname "$(dirname "$(readlink -f "$0")")")
. "$checkout/scripts/packages.sh"

case ${1:-} in
-h | --help) sed -n '2,/^set /s/^# \{0,1\}//p' "$0"; exit 0 ;;
-*) echo "quickstart.sh: there is no option $1. See scripts/quickstart.sh --help" >&2; exit 2 ;;
esac
case $# in
0) folder=$checkout/build/sample-library ;;
1) folder=$1 ;;
*) echo "usage: scripts/quickstart.sh [FOLDER]" >&2; exit 2 ;;
esac
if [ $# = 1 ]; then
    if [ ! -e "$folder" ]; then
        echo "There is no folder $folder." >&2
        exit 1
    elif [ ! -d "$folder" ]; then
        echo "$folder is not a folder." >&2
        exit 1
    fi
    # Absolute, and a newline at its end would be lost without the dot.
    folder=$(cd -- "$folder" && pwd -P && printf .)
    folder=${folder%?.}
fi

# shellcheck disable=SC2086 # a list of words
install_packages $build_packages python3 util-linux
echo "Building the daemon and quarrowctl"
cd "$checkout"
cmake --preset release -DQUARROW_TESTS=OFF -B build/quickstart >/dev/null
cmake --build build/quickstart --target quarrow quarrowctl -- --quiet

if [ $# = 0 ]; then
    echo "Making a sample library in $folder"
    /usr/bin/python3 scripts/quickstart.py --make-sample "$folder"
fi
exec /usr/bin/python3 scripts/quickstart.py build/quickstart/quarrow "$folder"
