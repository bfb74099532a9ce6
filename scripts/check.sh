#!/bin/sh
# Looks for faults that no test asks for: shellcheck, pyflakes and mandoc read the scripts and the manual pages, each header
# of src/ is compiled alone, cppcheck reads src/, clang-tidy all of src/, tests/ and bench/, and valgrind watches a run of the
# daemon. Whatever one of them finds is fatal, and so is a walk that takes more instructions than is recorded. Installs what
# is missing first, and says so; builds in build/release, and looks up in build/check and build/fuzz how files are compiled.
#
#   check.sh
#   check.sh --help   prints this, and does nothing else
set -eu

case $#${1:-} in
0) ;;
1-h | 1--help) sed -n '2,/^set /s/^# \{0,1\}//p' "$0"; exit 0 ;;
*) echo "check.sh does not take '$*'. See scripts/check.sh --help" >&2; exit 2 ;;
esac

cd "$(dirname "$0")/.."
. scripts/packages.sh

# shellcheck disable=SC2086 # a list of words
install_packages $build_packages libgtest-dev python3 util-linux shellcheck pyflakes3 mandoc cppcheck clang clang-tidy valgrind

echo '== shellcheck'
git ls-files -z '*.sh' .ci/run packaging/systemd/quarrow-check packaging/systemd/quarrow-generator \
    'packaging/debian/*.post*' packaging/debian/tests ':!packaging/debian/tests/control' | xargs -0 shellcheck -x
shellcheck -s bash packaging/quarrowctl.bash-completion

echo '== Manual pages'
mandoc -T lint -W warning packaging/*.[1-8]

echo '== pyflakes'
git ls-files -z '*.py' fleet/push | xargs -0 pyflakes3

echo '== Headers that can be read alone'
# shellcheck disable=SC2016 # expanded by the inner shell
find src -name '*.h' -printf '%P\0' | xargs -0 -P "$(nproc)" -I '{}' sh -c '
    echo "#include \"$1\"" | g++ -std=c++17 -fsyntax-only -D_GNU_SOURCE -I src $2 -x c++ - && exit
    echo "src/$1 does not compile alone" >&2
    exit 1' sh '{}' "$(pkg-config --cflags sqlite3 libxml-2.0)"

echo '== Build: release'
cmake --preset release >/dev/null
cmake --build --preset release --target quarrow
# How each file is compiled, for clang-tidy: it cannot read what g++ has precompiled.
cmake --preset release -B build/check -DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON >/dev/null
cmake --preset fuzz -DQUARROW_BENCH=ON >/dev/null

echo '== cppcheck'
# passedByValue: signatures are a contract with embedding programs. readdirCalled: its replacement is deprecated, and each
# directory has one reader.
cppcheck --enable=warning,performance,portability --inline-suppr --error-exitcode=1 --quiet --std=c++17 --language=c++ \
    --library=posix -D_GNU_SOURCE -I src --suppress=passedByValue --suppress=readdirCalled src

echo '== clang-tidy'
# tests/.clang-tidy says what is not looked for in the tests.
git ls-files -z 'src/*.cpp' 'tests/unit/*.cpp' | xargs -0 -P "$(nproc)" -n 4 clang-tidy -p build/check --quiet
git ls-files -z 'tests/fuzz/*.cpp' 'bench/*.cpp' | xargs -0 -P "$(nproc)" -n 3 clang-tidy -p build/fuzz --quiet

echo '== valgrind'
/usr/bin/python3 scripts/memcheck.py build/release/quarrow

echo '== Instructions'
/usr/bin/python3 scripts/instructions.py build/release/quarrow
