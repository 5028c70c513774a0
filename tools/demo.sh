#!/bin/sh
# The guided tour: installs what is missing, builds, and shows what the daemon does to a bridge of its own.
set -eu
cd "$(dirname "$0")/.."
tools/install-deps.sh

echo "Building ..."
log=$(mktemp)
trap 'rm -f "$log"' EXIT
{ cmake --preset release &&
    cmake --build --preset release --target moatkeeper moatctl moatkeeper_lines; } >"$log" 2>&1 || {
    tail -40 "$log" >&2
    echo "demo: the build failed, see above" >&2
    exit 1
}
/usr/bin/python3 demo/tour.py build/release
