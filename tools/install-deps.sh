#!/bin/sh
# Installs what building, testing and running moatkeeper needs, on Debian 12. This is the one list of packages.
# Does nothing when everything is there. Never starts or enables the services that come with the packages.
set -eu

build='cmake g++ git make ninja-build rapidjson-dev libcli11-dev'
tests='libbenchmark-dev libgmock-dev libgtest-dev iproute2 nftables procps python3 python3-scapy strace util-linux'
checks='ccache clang clang-format clang-tidy gcovr gnuplot-nox libclang-rt-14-dev llvm mandoc shellcheck'
running='ebtables iptables openvswitch-common openvswitch-switch'
packages="$build $tests $checks $running"

isInstalled() {
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

missing=
for package in $packages; do
    isInstalled "$package" || missing="$missing $package"
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
switchIsNew=true
if isInstalled openvswitch-switch; then switchIsNew=false; fi

echo "install-deps: installing$missing"
export DEBIAN_FRONTEND=noninteractive
apt-get -qq -o DPkg::Lock::Timeout=300 update
# shellcheck disable=SC2086 # a list of words
apt-get -qq -o DPkg::Lock::Timeout=300 install --no-install-recommends $missing >/dev/null

# Only the database server of this package is used, started by hand; the switch must not start with the machine.
if $switchIsNew; then
    update-rc.d openvswitch-switch disable >/dev/null 2>&1 || true
    deb-systemd-helper disable openvswitch-switch.service >/dev/null 2>&1 || true
fi
