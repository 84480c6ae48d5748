#!/usr/bin/env bash
# Runs a command where programs for 32-bit ARM run as if this machine's processor could: the kernel has qemu-user run
# them, and their libraries are those of a folder made by cmake/sysroot.sh. This holds in a user and a mount namespace
# of the command's own, and for nobody else. The kernel needs to be 6.7 or newer.
#   cmake/emulated.sh SYSROOT COMMAND...
set -euo pipefail

die() {
    printf 'emulated: %s\n' "$*" >&2
    exit 1
}

# Here one may mount, but only here.
inside() {
    local sysroot=$1 etc=$1.etc qemu elf
    qemu=$(command -v qemu-arm) || die "qemu-arm is missing: package qemu-user"
    mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc || die "the kernel has no binfmt_misc for namespaces"
    # An executable or a shared object, 32 bits, little-endian, for ARM.
    elf='\x7fELF\x01\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x28\x00'
    elf+=':\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff'
    echo ":arm:M::$elf:$qemu:PF" >/proc/sys/fs/binfmt_misc/register
    # Where Debian's qemu looks for libraries, whatever the environment is.
    mkdir -p "$etc/qemu-binfmt"
    ln -sfn "$sysroot" "$etc/qemu-binfmt/arm"
    mount -t overlay overlay -o "lowerdir=$etc:/etc" /etc || die "the kernel has no overlays for namespaces"
}

if [[ $1 == --inside ]]; then
    read -r _ # the ids are known
    inside "$2" </dev/null
    shift 2
    exec setpriv --inh-caps=-all --ambient-caps=-all "$@" </dev/null
fi

sysroot=$(realpath "$1")
shift
if [[ $(id -u) -ne 0 ]]; then
    exec unshare --user --mount --map-current-user --keep-caps "$0" --inside "$sysroot" "$@" <<<known
fi
# root has all users there too. Who they are can be told only from outside.
pipes=$(mktemp -d)
trap 'rm -rf "$pipes"' EXIT
mkfifo "$pipes/unshared" "$pipes/known"
# shellcheck disable=SC2016 # the shell inside expands it
unshare --user --mount sh -c 'echo >"$1/unshared"; shift; exec "$@"' sh "$pipes" \
    "$0" --inside "$sysroot" "$@" <"$pipes/known" &
exec 3>"$pipes/known"
read -r _ <"$pipes/unshared"
for map in uid_map gid_map; do
    echo '0 0 4294967295' >"/proc/$!/$map"
done
echo known >&3
exec 3>&-
wait $!
