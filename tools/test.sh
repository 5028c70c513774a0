#!/bin/sh
# Builds the release preset and runs all its tests, after installing whatever is missing for that.
# usage: tools/test.sh [PRESET...]   further presets to build and test, e.g. asan
set -eu
cd "$(dirname "$0")/.."
tools/install-deps.sh

if command -v ccache >/dev/null; then
    export CMAKE_CXX_COMPILER_LAUNCHER="${CMAKE_CXX_COMPILER_LAUNCHER-ccache}"
fi
for preset in release "$@"; do
    echo "== $preset: build"
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset"
    echo "== $preset: test"
    ctest --preset "$preset" -j $((2 * $(nproc))) # most of the time of most tests is waiting
done
