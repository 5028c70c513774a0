#!/bin/sh
# Installs what moatkeeper needs on Debian 12. This is the one list of packages.
# usage: tools/install-deps.sh [GROUP...]   build, running, tests, packages, checks,
#   fresh-root; without one all but the last
# Does nothing when everything is there. Never starts or enables the services that come with the packages.
set -eu

packagesFor() { # group
    case $1 in
    build) echo cmake g++ libcli11-dev libmnl-dev ninja-build rapidjson-dev ;;
    running) echo ebtables iproute2 iptables openvswitch-common python3 util-linux ;; # and the tour
    tests) echo git libgmock-dev libgtest-dev mandoc mount nftables strace systemd ;;
    packages) echo debhelper dpkg-dev file lintian ;;
    checks) echo ccache clang clang-format clang-tidy gcovr git gnuplot-nox libclang-rt-14-dev llvm mandoc shellcheck ;;
    fresh-root) echo debootstrap git util-linux ;;
    *)
        echo "install-deps: no group '$1', expected build, running, tests, packages, checks or fresh-root" >&2
        return 2
        ;;
    esac
}

isInstalled() { # package
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

[ $# -gt 0 ] || set -- build running tests packages checks
missing=
for group in "$@"; do
    packages=$(packagesFor "$group")
    for package in $packages; do
        isInstalled "$package" || missing="$missing $package"
    done
done
[ -n "$missing" ] || exit 0

if [ "$(id -u)" != 0 ]; then
    echo "install-deps: missing:$missing; run $0 as root" >&2
    exit 1
fi

# Packages must not start services while they are being installed; who has a policy already keeps it.
policy=/usr/sbin/policy-rc.d
if [ ! -e $policy ]; then
    trap 'rm -f $policy' EXIT
    trap 'exit 1' HUP INT TERM
    printf '#!/bin/sh\nexit 101\n' >$policy
    chmod 755 $policy
fi

echo "install-deps: installing$missing"
export DEBIAN_FRONTEND=noninteractive
set -- -o DPkg::Lock::Timeout=300 --no-install-recommends -y
apt-get -qq "$@" update
# A terminal is shown how far it is.
# shellcheck disable=SC2086 # a list of words
if [ -t 1 ]; then
    apt-get -q "$@" install $missing
else
    apt-get -qq "$@" install $missing >/dev/null
fi
