#!/bin/sh
# Installs what moatkeeper needs on Debian 12. This is the one list of packages.
# usage: tools/install-deps.sh [GROUP...]   build, running, tests, packages, checks; all of these without one
#   browser          to test the page of moatctl report; the test is skipped without it
#   fresh-root       what tools/fresh-root.sh needs
#   arm64, armhf     to build for these and to run it; adds the architecture to those that dpkg installs
# Does nothing when everything is there. Never starts or enables the services that come with the packages.
set -eu

packagesFor() { # group
    case $1 in
    build) echo cmake g++ libcli11-dev libmnl-dev libssl-dev ninja-build rapidjson-dev ;;
    running) echo ebtables iproute2 iptables openvswitch-common python3 util-linux ;; # and the tour
    tests) echo git libgmock-dev libgtest-dev mandoc mount nftables openssl python3-prometheus-client strace systemd ;;
    browser) echo chromium chromium-driver python3-selenium tidy ;; # for the test of moatctl's page; large
    packages) echo debhelper dpkg-dev file lintian ;;
    checks) echo ccache clang clang-format clang-tidy gcovr git gnuplot-nox libclang-rt-14-dev lld llvm mandoc shellcheck ;;
    fresh-root) echo debootstrap git util-linux ;;
    arm64) crossPackagesFor arm64 g++-aarch64-linux-gnu ;;
    armhf) crossPackagesFor armhf g++-arm-linux-gnueabihf ;;
    *)
        echo "install-deps: no group '$1', expected build, running, tests, packages, checks, browser, fresh-root, arm64 or armhf" >&2
        return 2
        ;;
    esac
}

crossPackagesFor() { # architecture, compiler
    echo cmake libcli11-dev ninja-build python3 qemu-user rapidjson-dev "$2" \
        "libgmock-dev:$1" "libgtest-dev:$1" "libmnl-dev:$1" "libssl-dev:$1" "libstdc++6:$1"
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

for architecture in arm64 armhf; do
    case $missing in
    *":$architecture"*) dpkg --add-architecture $architecture ;;
    esac
done
echo "install-deps: installing$missing"
export DEBIAN_FRONTEND=noninteractive
set -- -o DPkg::Lock::Timeout=300 -o APT::Keep-Downloaded-Packages=false --no-install-recommends -y
# A mirror that is being renewed need not have changed what is wanted here.
apt-get -qq "$@" update || echo "install-deps: not all lists of packages could be renewed; going on with those there are" >&2
# A terminal is shown how far it is.
# shellcheck disable=SC2086 # a list of words
if [ -t 1 ]; then
    apt-get -q "$@" install $missing
else
    apt-get -qq "$@" install $missing >/dev/null
fi
