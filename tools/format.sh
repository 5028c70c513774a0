#!/bin/sh
# Formats all C++ sources; with --check changes nothing and fails when something would change.
set -eu
cd "$(dirname "$0")/.."
case "${1-}" in
--check) mode='--dry-run --Werror' ;;
'') mode='-i' ;;
*)
    echo "usage: $0 [--check]" >&2
    exit 2
    ;;
esac
# shellcheck disable=SC2086 # two words
git ls-files -z --cached --others --exclude-standard -- '*.cpp' '*.hpp' '*.h' | xargs -0 clang-format $mode
