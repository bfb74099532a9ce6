#!/bin/sh
# Builds Quarrow and runs its tests on a Debian 12 machine; installs what is missing first, and says so.
#
#   test.sh          the unit and the system tests, in under 10 minutes on 2 cores
#   test.sh --full   also the fault tests, those with a browser, those of the fleet, both sanitizer builds, fuzzing, static
#                    analysis, valgrind, the format check, and as root the Debian package in a booted container
#   test.sh --help   prints this, and does nothing else
#
# Works in build/ of the checkout. The tests run in mount namespaces of their own: nothing else on the machine changes.
# Ends with the summary of the last test run, and with its status when one of them failed.
set -eu

full=
case $#${1:-} in
0) ;;
1--full) full=yes ;;
1-h | 1--help) sed -n '2,/^set /s/^# \{0,1\}//p' "$0"; exit 0 ;;
*) echo "test.sh does not take '$*'. See scripts/test.sh --help" >&2; exit 2 ;;
esac

cd "$(dirname "$0")/.."
. scripts/packages.sh
. fleet/server_packages.sh

# shellcheck disable=SC2086 # lists of words
install_packages $build_packages libgtest-dev python3 python3-pytest sqlite3 faketime strace jq bash-completion util-linux \
    ${full:+clang-format clang libclang-rt-dev llvm btrfs-progs xfsprogs bindfs python3-fusepy \
    chromium chromium-driver python3-selenium openssl}

test_presets=release
if [ -n "$full" ]; then
    install_servers
    test_presets='asan tsan fuzz release'
    echo '== Format'
    git ls-files '*.cpp' '*.h' | xargs clang-format --dry-run --Werror
fi

for preset in $test_presets; do
    echo "== Build: $preset"
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset"
done

if [ -n "$full" ]; then
    scripts/check.sh
    echo '== Booted container'
    if [ "$(id -u)" = 0 ]; then
        scripts/boot-test.sh
    else
        echo 'Skipped: only root can boot a container'
    fi
fi

# One after the other, the plain build last: each prints its summary, and a failure stops here. Half the time of the faults
# and most of that of the system tests is waiting for the daemon: of the plain build twice as many run at once as there are
# processors. The sanitizers make the daemon work much longer, and the fuzzers never wait.
# Faults in the plain build alone: a sanitizer takes minutes for them, and some take its memory away. And what a browser or the
# fleet's database shows is the same in all of them.
apart='^(fault|browser|fleet)$'
for preset in $test_presets; do
    echo "== Tests: $preset"
    case $preset in
    asan | tsan) jobs=$((1 + $(nproc))) ;;
    fuzz) jobs=$(nproc) ;;
    release) jobs=$((2 * $(nproc))) ;;
    esac
    if [ "$preset$full" = releaseyes ]; then
        ctest --preset "$preset" --parallel "$jobs" --label-regex "$apart"
    fi
    ctest --preset "$preset" --parallel "$jobs" --label-exclude "$apart"
done
