#!/bin/sh
# Builds for other processors, runs the unit and golden tests under QEMU, and tells the size of what is for the device.
# usage: tools/cross.sh [ARCHITECTURE...]   arm64, armhf; both by default
# Takes many minutes. It installs packages of these architectures: tools/fresh-root.sh --cross does it in a system of its own.
set -eu
cd "$(dirname "$0")/.."
[ $# -gt 0 ] || set -- arm64 armhf

# What is written in Python is the same everywhere. And QEMU adds a line of its own to the last words of a program that aborts;
# and as it makes vfork a fork, posix_spawn cannot tell why a program was not started.
notHere='check_includes|AssertHookDeathTest\.(AFailed|AnUncaught|AnyType|ReportsLeave)'
notHere="$notHere|Subprocess\.(AMissing|AProgramThatIsNot|WhatIsNoProgram)|ToolTest\.AMissingProgram"

for architecture; do
    tools/install-deps.sh "$architecture"
    cmake --preset "$architecture" >/dev/null
    cmake --build --preset "$architecture" --target moatkeeper moatctl tests/unit/all tests/golden/all
    log=build/$architecture/tests.log
    ctest --preset "$architecture" -L 'unit|golden' -E "$notHere" -j "$(nproc)" >"$log" 2>&1 || {
        cat "$log"
        exit 1
    }
    echo "$architecture: $(grep 'tests passed' "$log")"
    tool=$(sed -n 's/^CMAKE_STRIP:FILEPATH=//p' "build/$architecture/CMakeCache.txt")
    for program in daemon/moatkeeper moatctl/moatctl; do
        "$tool" -o "build/$architecture/stripped" "build/$architecture/$program"
        echo "$architecture: $program, stripped: $(stat -c %s "build/$architecture/stripped") bytes"
    done
done
