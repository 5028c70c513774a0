#!/bin/sh
# The guided tour: installs what is missing, builds, and shows what the daemon does to a bridge of its own.
# usage: tools/demo.sh [--installed]
#   --installed   with the moatkeeper and moatctl that are installed, from packages that were made elsewhere, say: no build,
#                 and nothing that only a build needs
set -eu
cd "$(dirname "$0")/.."
case "${1-}" in
--installed)
    tools/install-deps.sh running
    build=$(mktemp -d)
    trap 'rm -r "$build"' EXIT
    trap 'exit 1' HUP INT TERM
    for place in daemon/moatkeeper moatctl/moatctl; do
        program=$(command -v "${place#*/}") || {
            echo "demo: ${place#*/} is not installed; without --installed it is built" >&2
            exit 1
        }
        mkdir "$build/${place%/*}"
        ln -s "$program" "$build/$place"
    done
    ;;
'')
    tools/install-deps.sh build running
    build=build/release
    echo "Building the daemon and its tools; the first time that takes minutes. With packages that were made elsewhere" \
        "(tools/packages.sh), $0 --installed needs no build."
    cmake --preset release -DMOATKEEPER_TESTS=OFF >/dev/null # what tests need is not there
    cmake --build --preset release --target moatkeeper moatctl moatkeeper_lines
    ;;
*)
    echo "usage: $0 [--installed]: expected nothing else, found '$1'" >&2
    exit 2
    ;;
esac
/usr/bin/python3 demo/tour.py "$build"
