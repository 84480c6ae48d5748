#!/usr/bin/env bash
# made.sh PACKAGES ARCHITECTURE: the Debian packages in that directory are as lintian wants them, for that architecture
# of Debian's or for all, and depend on what they need and nothing else.
set -euo pipefail
packages=("$(realpath "$1")"/*.deb) architecture=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

die() { printf '%s\n' "$*"; exit 1; }

# is WHAT FOUND EXPECTED
is() { [[ $2 == "$3" ]] || die "$1: found '$2', expected '$3'"; }

# As readelf has it.
declare -A machines=([amd64]='Advanced Micro Devices X86-64' [armhf]=ARM)
machine=${machines[$architecture]?found \'$architecture\', expected one of ${!machines[*]}}

# The first names of what a package depends on.
declare -A needs=(
    [libtarn-sysdiag]='libc6'
    [libtarn-sysdiag-dev]='libtarn-host libtarn-sysdiag tarn-agent'
    [libtarn-host]='libc6 libfmt9 libgcc-s1 libstdc++6'
    [tarn-agent]='libc6 libgcc-s1'
    [tarn-relay]='libc6 libfmt9 libgcc-s1 libnats3.4 libssl3 libstdc++6 libsystemd0 libtarn-host systemd systemd
        tarn-host'
    [tarn-web]='libc6 libcpp-httplib0.11 libfmt9 libgcc-s1 libjs-chart.js libnats3.4 libssl3 libstdc++6 libsystemd0
        libtarn-host systemd systemd tarn-host'
    [python3-tarn]='python3'
    [tarn-host]='libarchive13 libc6 libcap-ng0 libdw1 libelf1 libfmt9 libgcc-s1 libnats3.4 libproc2-0 libseccomp2
        libsqlite3-0 libssl3 libstdc++6 libsystemd0 libtarn-host libtarn-sysdiag procps systemd systemd'
)

lintian --allow-root --fail-on error,warning "${packages[@]}"
is 'packages' "${#packages[@]}" "${#needs[@]}"
for package in "${packages[@]}"; do
    name=$(dpkg-deb --field "$package" Package)
    [[ $name == python3-* ]] && expected=all || expected=$architecture
    is "$name, Architecture" "$(dpkg-deb --field "$package" Architecture)" "$expected"
    depends=$(dpkg-deb --field "$package" Depends | sed 's/, */\n/g' | awk '{ print $1 }' | LC_ALL=C sort | xargs)
    is "$name, Depends" "$depends" "$(xargs <<<"${needs[$name]}")"
    dpkg-deb --extract "$package" "$scratch/$name"
    while read -r file; do
        is "$file, machine" "$(readelf -h "$file" | sed -n 's/^ *Machine: *//p')" "$machine"
    done < <(find "$scratch/$name" -type f -exec sh -c 'head -c 4 "$1" | grep -q ELF && echo "$1"' sh {} \;)
done
echo "${#packages[@]} packages for $architecture: no errors, no warnings"
