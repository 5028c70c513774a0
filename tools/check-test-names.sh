#!/bin/sh
# Names of tests are for people: at most 100 columns, printable, and the same at each listing. A GoogleTest parameter that
# cannot print itself makes a name of its bytes in memory.
# usage: tools/check-test-names.sh BUILD_FOLDER
set -eu
list() {
    ctest --test-dir "$1" -N | sed -nE 's/^ *Test +#[0-9]+: //p'
}
first=$(list "$1")
if [ -z "$first" ]; then
    echo "$1: no tests are listed" >&2
    exit 1
fi
if [ "$first" != "$(list "$1")" ]; then
    echo "$1: two listings of the tests differ" >&2
    exit 1
fi
if printf '%s\n' "$first" | grep -E '.{101,}|[^[:print:]]|-byte object <'; then
    echo "$1: these names of tests are longer than 100 columns or not for people" >&2
    exit 1
fi
