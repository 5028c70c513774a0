#!/bin/sh
# Makes the Debian packages moatkeeper, moatkeeper-compiled, moatkeeper-tools and moatkeeper-dev.
# usage: tools/packages.sh [--from BUILD] [FOLDER]
#   --from BUILD   of a build folder as it is, instead of build/release, which is built first
#   FOLDER         where to put them, instead of build/packages; others there of these names are overwritten
#
# Installs what is missing for that, as root; otherwise needs no root. Leaves nothing in the sources, and gives the same
# packages for the same commit and preset, byte for byte.
set -eu
sources=$(realpath "$(dirname "$0")/..")
if [ "${1-}" = --from ]; then
    MOATKEEPER_BUILD=$(realpath "${2:?"packages: --from needs a build folder"}")
    export MOATKEEPER_BUILD
    shift 2
else
    "$sources/tools/install-deps.sh" build packages
fi
output=${1-$sources/build/packages}
mkdir -p "$output"
output=$(realpath "$output")

# All times in the packages. Outside of a clone it is the changelog's.
if [ -z "${SOURCE_DATE_EPOCH-}" ]; then
    SOURCE_DATE_EPOCH=$(git -C "$sources" log -1 --format=%ct 2>/dev/null) ||
        SOURCE_DATE_EPOCH=$(dpkg-parsechangelog -l "$sources/debian/changelog" -S Timestamp)
fi
export SOURCE_DATE_EPOCH LC_ALL=C.UTF-8 MOATKEEPER_SOURCES="$sources"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
trap 'exit 1' HUP INT TERM
umask 022
mkdir -p "$work/moatkeeper/debian"
cd "$work/moatkeeper"
find "$sources/debian" -maxdepth 1 ! -type d ! -name .gitignore -exec cp -L {} debian \;
debian/rules binary >"$work/log" 2>&1 || {
    tail -50 "$work/log" >&2
    echo "packages: debian/rules failed" >&2
    exit 1
}
mv "$work"/*.deb "$output"
