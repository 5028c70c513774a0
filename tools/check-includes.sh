#!/bin/sh
# Dependencies point one way: daemon -> handler -> records -> platform. Fails, naming file and line, when one
# of them includes anything but the standard library, the folders behind it and platform/.
set -eu
cd "${1:-$(dirname "$0")/..}"

# Every <header> without a dot is the standard library's; of the system's only getopt's is taken.
standard='<[a-z_]+>|<unistd\.h>'
status=0

check() { # folder, the folders that it may include
    folder=$1
    shift
    allowed=$(printf '%s/|' "$@")
    found=$(grep -rnE '^[[:space:]]*#[[:space:]]*include' "$folder" --include='*.cpp' --include='*.h' --include='*.hpp' |
        grep -vE "#[[:space:]]*include[[:space:]]*($standard|\"(${allowed%|})[^\"]*\")") || return 0
    printf '%s\n' "$found"
    printf '%s/ may include the standard library and %s only\n\n' "$folder" "$*"
    status=1
}

check platform platform
check records records platform
check handler handler records platform
check daemon daemon handler platform
exit $status
