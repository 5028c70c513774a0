#!/bin/sh
# The guided tour: installs what is missing, builds, and shows what the daemon does to a bridge of its own.
set -eu
cd "$(dirname "$0")/.."
tools/install-deps.sh build running

echo "Building the daemon and its tools; the first time that takes minutes."
cmake --preset release -DMOATKEEPER_TESTS=OFF >/dev/null # what tests need is not there
cmake --build --preset release --target moatkeeper moatctl moatkeeper_lines
/usr/bin/python3 demo/tour.py build/release
