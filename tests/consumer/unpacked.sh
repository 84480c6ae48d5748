#!/usr/bin/env bash
# unpacked.sh PACKAGES CC TOOLCHAIN [RUNNER...]: what the Debian packages in that directory bring is found by other
# projects, as found.sh has it of what a build installs.
set -euo pipefail
packages=("$(realpath "$1")"/*.deb) cc=$2 toolchain=$3 host=1
shift 3
runner=("$@")
source "$(dirname "$0")/consume.sh"

for package in "${packages[@]}"; do
    dpkg-deb --extract "$package" "$scratch/root"
done
consume unpacked "$scratch/root/usr"
echo 'found by other projects'
