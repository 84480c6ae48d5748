#!/usr/bin/env bash
# Makes or renews a folder with Debian's libraries of another architecture, for cross compilers: the packages that
# packages.txt has in its group sysroot, and what they depend on. apt works with a root of its own below build/, so that
# this machine keeps its architectures and its packages; it takes Debian's main suites from where this machine does, and
# checks their signatures as it does.
#   cmake/sysroot.sh ARCHITECTURE      prints the folder: build/sysroot/ARCHITECTURE
set -euo pipefail
cd "$(dirname "$0")/.."

architecture=${1:?expected a name of an architecture, such as armhf}
sysroot=$PWD/build/sysroot/$architecture
apt=$sysroot.apt

die() {
    printf 'sysroot: %s\n' "$*" >&2
    exit 1
}

packages() { awk '$1 !~ /^#/ && "," $2 "," ~ /,sysroot,/ { print $1 }' packages.txt; }

# The lines of a list of sources: Debian's own, main, as this machine names them.
sources() {
    apt-get indextargets --format '$(REPO_URI) $(RELEASE) $(SIGNED_BY)' \
        'Created-By: Packages' 'Origin: Debian' 'Label: Debian' 'Component: main' | sort -u |
        while read -r uri suite key; do
            [[ $key == /* ]] && key=" signed-by=$key" || key=''
            printf 'deb [arch=%s%s] %s %s main\n' "$architecture" "$key" "$uri" "$suite"
        done
}

# apt, which knows nothing of what is installed here.
own_apt() {
    apt-get -qq -o APT::Architecture="$architecture" -o APT::Architectures="$architecture" \
        -o Dir::State="$apt/state" -o Dir::State::status="$apt/status" -o Dir::Cache="$apt/cache" \
        -o Dir::Etc::sourcelist="$apt/sources.list" -o Dir::Etc::sourceparts=/dev/null \
        -o Dir::Etc::preferencesparts=/dev/null -o APT::Update::Post-Invoke-Success= -o APT::Sandbox::User=root \
        -o APT::Install-Recommends=false "$@"
}

# What dpkg would know of a package here: dpkg-shlibdeps asks it which package a library is of, by the library's path as
# this machine sees it.
enter() {
    local database=$sysroot/var/lib/dpkg control=$apt/control name file
    name=$(dpkg-deb --show --showformat '${Package}' "$1")
    [[ $(dpkg-deb --field "$1" Multi-Arch) != same ]] || name+=:$architecture
    { dpkg-deb --field "$1" | sed '/^Package:/a Status: install ok installed'; echo; } >>"$database/status"
    dpkg-deb --fsys-tarfile "$1" | tar --list | sed "s#^[.]#$sysroot#; s#/\$##" >"$database/info/$name.list"
    rm -rf "$control"
    dpkg-deb --control "$1" "$control"
    for file in symbols shlibs; do
        [[ ! -f $control/$file ]] || mv "$control/$file" "$database/info/$name.$file"
    done
}

# Absolute links would lead out of it.
link_inside() {
    local link target
    find "$sysroot" -type l -lname '/*' -printf '%p %l\n' | while read -r link target; do
        ln -sfnr "$sysroot$target" "$link"
    done
}

if [[ -f $sysroot/made-of && $(packages) == "$(cat "$sysroot/made-of")" ]]; then
    echo "$sysroot"
    exit
fi
rm -rf "$sysroot" "$apt"
mkdir -p "$sysroot/var/lib/dpkg/info" "$apt"/{state/lists/partial,cache/archives/partial}
: >"$apt/status"
echo 1 >"$sysroot/var/lib/dpkg/info/format" # files there are named with architectures
sources >"$apt/sources.list"
[[ -s $apt/sources.list ]] || die "apt knows no suite of Debian's; run apt-get update"
own_apt update >&2
# shellcheck disable=SC2046 # words
own_apt install --download-only --yes $(packages) >&2
for package in "$apt"/cache/archives/*.deb; do
    dpkg-deb --extract "$package" "$sysroot"
    enter "$package"
done
link_inside
rm -rf "$apt"
packages >"$sysroot/made-of"
echo "$sysroot"
