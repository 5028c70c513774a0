#!/bin/sh
# Dependencies point one way: daemon -> handler -> records -> platform. Fails, naming file and line, when one
# of them includes anything but the standard library, the folders behind it and platform/.
set -eu
cd "$(dirname "$0")/.."

# Every <header> without a dot is the standard library's; of the others only these are allowed.
posix='getopt\.h|signal\.h|unistd\.h'

check() { # folder, folders that it may include
    grep -nE '^[[:space:]]*#[[:space:]]*include' "$1"/*.cpp "$1"/*.h "$1"/*.hpp 2>/dev/null |
        grep -vE "#[[:space:]]*include[[:space:]]*(<[a-z_]+>|<($posix)>|\"($2)/[^\"]*\")" |
        sed "s|^|$1 may include the standard library, $2 only: |" || true
}

wrong=$(
    check platform 'platform'
    check records 'records|platform'
    check handler 'handler|records|platform'
    check daemon 'daemon|handler|platform'
)
[ -z "$wrong" ] || {
    printf '%s\n' "$wrong" >&2
    exit 1
}
