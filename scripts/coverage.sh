#!/bin/sh
# Measures what of src/ the unit and the system tests run: builds with counters, runs the tests, prints per file the lines
# and the branches with what is missing, and the totals. Installs what is missing first, and says so.
#
#   coverage.sh
#   coverage.sh --help   prints this, and does nothing else
#
# Works in build/coverage of the checkout; report/index.html in there has the same beside the code. A daemon that a test
# kills writes no counters, so what only such a daemon ran counts as missing. Ends with the status of the tests.
set -eu

case $#${1:-} in
0) ;;
1-h | 1--help) sed -n '2,/^set /s/^# \{0,1\}//p' "$0"; exit 0 ;;
*) echo "coverage.sh does not take '$*'. See scripts/coverage.sh --help" >&2; exit 2 ;;
esac

cd "$(dirname "$0")/.."
. scripts/packages.sh

# shellcheck disable=SC2086 # a list of words
install_packages $build_packages libgtest-dev python3 python3-pytest sqlite3 faketime strace util-linux gcovr

echo '== Build: coverage'
cmake --preset coverage >/dev/null
cmake --build --preset coverage
find build/coverage -name '*.gcda' -delete # a run counts for itself

echo '== Tests: coverage'
status=0
ctest --preset coverage --label-regex '^(unit|system)$' --parallel "$(nproc)" || status=$?

# Branches that are only there to pass an exception on are left out: no line of the source has them.
report() {
    gcovr --root . --filter src/ --exclude-throw-branches "$@"
}
report --json build/coverage/coverage.json build/coverage
for table in '' --branches; do
    # shellcheck disable=SC2086 # none or one
    report --add-tracefile build/coverage/coverage.json $table
done
mkdir -p build/coverage/report
report --add-tracefile build/coverage/coverage.json --html-details build/coverage/report/index.html --print-summary
exit "$status"
