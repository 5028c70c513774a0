#!/bin/bash
# clang-tidy over the sources of products, as the asan preset compiles them; that must be built.
# usage: tools/tidy.sh [FOLDER...]   all products' folders otherwise, which takes many minutes
set -euo pipefail
cd "$(dirname "$0")/.."

folders=("$@")
[ $# -gt 0 ] || folders=(daemon handler records platform_linux platform_fake text subprocess ebtables ovsdb nftables schema
    moatctl)
[ -e build/asan/compile_commands.json ] || {
    echo "tools/tidy.sh: build/asan is missing: cmake --preset asan && cmake --build --preset asan" >&2
    exit 1
}
log=$(mktemp)
trap 'rm -f "$log"' EXIT
pattern=$(IFS='|' && echo "^$PWD/(${folders[*]})/")
if ! run-clang-tidy -quiet -p build/asan -j "$(nproc)" "$pattern" >"$log" 2>/dev/null; then
    grep -E 'warning:|error:' "$log" | sort -u
    exit 1
fi
