#!/bin/sh
# Looks for faults that no test asks for: cppcheck and clang-tidy, the clang analyzer's checks among it, read src/, and
# valgrind watches a run of the daemon. Installs what is missing first, and says so; builds in build/release.
set -eu
cd "$(dirname "$0")/.."
. scripts/packages.sh

# shellcheck disable=SC2086 # a list of words
install_packages $build_packages libgtest-dev python3 util-linux cppcheck clang-tidy valgrind

echo '== Build: release'
cmake --preset release >/dev/null # the tests too: clang-tidy looks up how each file is compiled
cmake --build --preset release --target quarrow

echo '== cppcheck'
# passedByValue: signatures are a contract with embedding programs. readdirCalled: its replacement is deprecated, and each
# directory has one reader.
cppcheck --enable=warning,performance,portability --inline-suppr --error-exitcode=1 --quiet --std=c++17 --language=c++ \
    --library=posix -D_GNU_SOURCE -I src --suppress=passedByValue --suppress=readdirCalled src

echo '== clang-tidy'
find src -name '*.cpp' -print0 | xargs -0 -P "$(nproc)" -n 4 clang-tidy -p build/release --quiet

echo '== valgrind'
/usr/bin/python3 scripts/memcheck.py build/release/quarrow
