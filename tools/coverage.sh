#!/bin/sh
# Builds the coverage preset, runs the tests and prints line and branch coverage per file. Branches that only an
# exception takes are left out. usage: tools/coverage.sh [argument for ctest...]   e.g. -L 'unit|golden'
set -eu
cd "$(dirname "$0")/.."
tools/install-deps.sh

umask 000 # a test runs a program as an ordinary user, whose counts are to be added as well
cmake --preset coverage >/dev/null
cmake --build --preset coverage
find build/coverage -name '*.gcda' -delete
status=0
ctest --preset coverage -LE install -j "$(nproc)" "$@" || status=$?

folders='daemon handler records platform_linux text subprocess ebtables ovsdb nftables schema'
# shellcheck disable=SC2046,SC2086 # two words for each folder
gcovr -r . build/coverage -j "$(nproc)" --exclude-unreachable-branches --exclude-throw-branches \
    --gcov-ignore-parse-errors $(printf -- '--filter %s/ ' $folders) --json build/coverage/coverage.json
for mode in '' --branches; do
    if [ -z "$mode" ]; then echo; echo 'Lines'; else echo; echo 'Branches'; fi
    # shellcheck disable=SC2086 # nothing or one word
    gcovr -r . --add-tracefile build/coverage/coverage.json $mode
done
for folder in $folders; do
    [ -d "$folder" ] || continue
    printf '\n%s\n' "$folder"
    gcovr -r . --add-tracefile build/coverage/coverage.json --filter "$folder/" --print-summary --output build/coverage/summary.txt
done
exit $status
