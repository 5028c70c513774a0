#!/bin/sh
# A device's life, quickly: many changes while everything is restarted, killed, upgraded and disturbed, and again and again
# a quiet moment in which configuration, kernel and status must agree. Builds what it needs; in namespaces of its own.
# usage: tools/soak.sh MINUTES [SEED]   the order of events is another one with another seed
set -eu
cd "$(dirname "$0")/.."
case "${1-}" in
'' | *[!0-9]*)
    echo "usage: $0 MINUTES [SEED]: expected a whole number of minutes, found '${1-}'" >&2
    exit 2
    ;;
esac
tools/install-deps.sh build running tests
cmake --preset release >/dev/null
cmake --build --preset release --target moatkeeper moatctl
PYTHONPATH=tests MOATKEEPER_SOAK_MINUTES=$1 MOATKEEPER_SEED=${2-1} \
    /usr/bin/python3 tests/system/soak_test.py --daemon build/release/daemon/moatkeeper
