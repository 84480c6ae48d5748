#!/bin/sh
# Unpacks Debian's nanopb for ARM into a folder: nanopb_arm.sh FOLDER. It needs no root, and leaves the workstation
# without a second architecture.
set -eu
[ $# -eq 1 ] || { echo "usage: nanopb_arm.sh FOLDER" >&2; exit 2; }
mkdir -p "$1/apt/state/lists/partial" "$1/apt/cache/archives/partial"
cd "$1"
apt() {
    apt-get -qq -o APT::Architecture=armhf -o APT::Architectures=armhf -o APT::Sandbox::User= \
        -o "Dir::State=$PWD/apt/state" -o "Dir::Cache=$PWD/apt/cache" "$@"
}
apt update || echo "nanopb_arm.sh: some package lists are missing; going on with the others" >&2
apt download libnanopb-dev:armhf
dpkg-deb -x libnanopb-dev_*_armhf.deb .
rm -r apt libnanopb-dev_*_armhf.deb
test -f usr/lib/arm-linux-gnueabihf/libprotobuf-nanopb.a
