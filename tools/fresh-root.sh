#!/bin/bash
# Tries the README's two commands where nothing is installed: makes a minimal Debian 12 in a folder, puts the last commit
# there, once in an ordinary folder and once in one of mode 700 under /root, and runs tools/demo.sh and tools/test.sh in
# both, then makes the packages there, installs, removes and purges them; in the end those of the two must be equal, byte for
# byte. Packages of others come from where this machine has its own. Takes about half an hour and 4 GB, needs root, asks
# nothing.
# usage: tools/fresh-root.sh [--slow | --long | --cross] [FOLDER]
#   --slow   in the end also, in the first clone, the commands of the documents that measure; half an hour more
#   --long   the same with all other commands that take long; hours
#   --cross  instead, builds and tests for other processors, in the first clone
#   FOLDER   where to make it, instead of a new folder in TMPDIR; it is removed in the end
#
# Everything happens in mount and process namespaces of its own, and they and the folder go with this script, even when
# it is killed.
# shellcheck disable=SC2016 # what stands in single quotes is for apt, and for another shell
set -euo pipefail
suite=bookworm
project=$(realpath "$(dirname "$0")/..")
logs=$project/build/fresh-root
clones=(/srv/moatkeeper /root/closed/moatkeeper)

fail() {
    echo "fresh-root: $1" >&2
    exit 1
}

# The Debian archives that this machine uses for the suite and its updates, a line for each component.
archives() { # format
    apt-get indextargets --format "\$(CODENAME) $1" 'Created-By: Packages' 'Origin: Debian' |
        sed -nE "s/^$suite(-[a-z]+)? //p" | sort -u
}

makeRoot() {
    local mirror
    mirror=$(archives '$(CODENAME) $(REPO_URI)' | sed -n "s/^$suite //p" | head -1)
    [ -n "$mirror" ] || fail "apt knows no Debian archive with $suite"
    eval "$(apt-config shell http_proxy Acquire::http::Proxy https_proxy Acquire::https::Proxy)"
    http_proxy=${http_proxy-} https_proxy=${https_proxy-} \
        debootstrap --variant=minbase $suite "$root" "$mirror" >"$logs/debootstrap.log" 2>&1 ||
        fail "debootstrap: $(tail -1 "$logs/debootstrap.log")"
    archives 'deb $(REPO_URI) $(RELEASE) $(COMPONENT)' >"$root/etc/apt/sources.list"
    { apt-config dump | grep -E '^Acquire::https?::Proxy' || true; } >"$root/etc/apt/apt.conf.d/proxy"
    # Packages start no services here: the network is the machine's.
    printf '#!/bin/sh\nexit 101\n' >"$root/usr/sbin/policy-rc.d"
    chmod 755 "$root/usr/sbin/policy-rc.d"
    echo 'APT::Get::Assume-Yes "true";' >"$root/etc/apt/apt.conf.d/assume-yes" # nobody is there to ask
    cp -L /etc/resolv.conf /etc/hosts "$root/etc/"

    mkdir -m 700 "$root/root/closed"
    local clone
    for clone in "${clones[@]}"; do
        git clone -q --no-hardlinks "$project" "$root$clone"
    done
}

# Makes the folder the root of this mount namespace, as on a machine of its own, and runs a program there.
enterRoot() { # program, argument...
    mount --bind "$root" "$root"
    cd "$root"
    mount -t proc proc proc
    mount --rbind /sys sys
    mount --rbind /dev dev
    mount -t tmpfs tmpfs dev/shm
    mount -t tmpfs tmpfs run
    mkdir old
    pivot_root . old
    umount -l /old
    rmdir /old
    exec env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 "$@"
}

# Each command of a kind in one clone. What it writes goes to a log; its duration and the log's end are shown.
try() { # clone, kind
    local clone=$1 kind=$2 command begin log status
    local -a commands
    mapfile -t commands < <(sed -n "s/^$kind  *//p" "$project/tests/install/commands.txt")
    for command in "${commands[@]}"; do
        begin=$SECONDS
        status=0
        number=$((number + 1))
        log=$logs/$number.log
        # A mount namespace of its own each time, so that nothing is mounted twice.
        unshare --mount --propagation private -- \
            "$0" --enter "$root" "$clone" "$command" >"$log" 2>&1 </dev/null || status=$?
        echo "== $command, in $clone: status $status after $((SECONDS - begin)) s; the end of $log:"
        tail -25 "$log"
        [ $status = 0 ] || fail "failed: $command, in $clone"
    done
}

# Two builds of one commit, in folders of other names.
comparePackages() {
    local package first second
    for package in "$root${clones[0]}"/build/packages/*.deb; do
        first=$(sha256sum <"$package")
        second=$(sha256sum <"$root${clones[1]}/build/packages/${package##*/}")
        [ "$first" = "$second" ] || fail "${package##*/} is another one in ${clones[1]}"
        echo "== ${package##*/} is the same in both: ${first%% *}"
    done
}

case "${1-}" in
--enter)
    root=$2
    enterRoot sh -c "cd $3 && $4"
    ;;
--inside)
    root=$2
    number=0
    makeRoot
    echo "== a minimal $suite after $SECONDS s"
    if [ "$3" = --cross ]; then
        try "${clones[0]}" cross
        exit
    fi
    for clone in "${clones[@]}"; do
        try "$clone" fresh
    done
    comparePackages
    case "$3" in --slow | --long) try "${clones[0]}" "${3#--}" ;; esac
    exit
    ;;
esac

more=
case "${1-}" in
--slow | --long | --cross)
    more=$1
    shift
    ;;
esac
[ "$(id -u)" = 0 ] || fail 'must be run as root'
"$project/tools/install-deps.sh" fresh-root
if [ $# -gt 0 ]; then
    mkdir "$1" || exit 1
    folder=$(realpath "$1")
else
    folder=$(mktemp -d)
fi
mkdir -p "$logs"
chmod 755 "$folder"

# The folder goes when the last process that has this pipe open is gone: the script and all that it started.
exec 9> >(exec setsid bash -c 'trap "" HUP INT TERM; cat >/dev/null; rm -rf --one-file-system "$1"' - "$folder")
remover=$!
status=0
setpriv --pdeathsig KILL unshare --mount --propagation private --pid --fork --kill-child --mount-proc -- \
    "$project/tools/fresh-root.sh" --inside "$folder" "$more" || status=$?
exec 9>&-
wait $remover || true
[ $status = 0 ] || fail "failed with status $status; the logs are in $logs"
echo "== all ended with 0 after $SECONDS s"
