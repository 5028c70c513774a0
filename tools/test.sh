#!/bin/sh
# Builds the release preset and runs all its tests, after installing whatever is missing for that.
# usage: tools/test.sh [PRESET...]   further presets to build and test, e.g. asan
set -eu
cd "$(dirname "$0")/.."
tools/install-deps.sh

# Each test that could not run here, with its reason as GoogleTest, unittest or the test's script wrote it.
showSkipped() { # log of ctest
    awk '
        / Testing: / { name = $3 }
        reasonFollows { print "skipped: " name ": " $0; reasonFollows = 0 }
        /: Skipped$/ { reasonFollows = 1 }
        /^skipped: / { print "skipped: " name ": " substr($0, 10) }
        / \.\.\. skipped / { print "skipped: " name ": " $0 }
    ' "$1"
}

for preset in release "$@"; do
    echo "== $preset: build"
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset"
    echo "== $preset: test"
    ctest --preset "$preset" -j $((3 * $(nproc))) # most of the time of most tests is waiting
    showSkipped "build/$preset/Testing/Temporary/LastTest.log"
done
