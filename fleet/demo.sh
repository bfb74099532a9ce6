#!/bin/sh
# Shows a fleet at work on one Debian 12 machine: installs what is missing, and says so, builds the daemon and quarrowctl,
# starts two database servers on loopback and three appliances, each with volumes, a daemon and a pusher of its own. Kills a
# server in mid-load and a pusher in mid-send, brings them back, compares every live row of the fleet with the disks, asks ten
# questions and stops everything.
#
#   demo.sh         all of that, in a few minutes
#   demo.sh --help  prints this, and does nothing else
#
# Everything runs in a mount namespace of its own, with all files in a folder in memory that goes with it. Only packages and
# build/quickstart of the checkout stay behind. Ends with 0 when every row was right.
set -eu
checkout=$(dirname "$(dirname "$(readlink -f "$0")")")
. "$checkout/scripts/packages.sh"
. "$checkout/fleet/server_packages.sh"

case $#${1:-} in
0) ;;
1-h | 1--help) sed -n '2,/^set /s/^# \{0,1\}//p' "$0"; exit 0 ;;
*) echo "demo.sh does not take '$*'. See fleet/demo.sh --help" >&2; exit 2 ;;
esac

# shellcheck disable=SC2086 # a list of words
install_packages $build_packages python3 util-linux
install_servers
echo "Building the daemon and quarrowctl"
cd "$checkout"
cmake --preset release -DQUARROW_TESTS=OFF -B build/quickstart >/dev/null
cmake --build build/quickstart --target quarrow quarrowctl -- --quiet
exec /usr/bin/python3 -B fleet/demo/run.py "$checkout/build/quickstart"
