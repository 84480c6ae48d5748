#!/usr/bin/env bash
# package.sh PACKAGES: the Debian packages in that directory install into a clean system of Debian's packages, and what
# is in them starts there as its units have it. Takes root, and Debian's servers.
set -euo pipefail
here=$(realpath "$(dirname "$0")")
packages=("$(realpath "$1")"/*.deb)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
[[ $(id -u) -eq 0 ]] || { echo "a clean system takes root: expected user 0, found $(id -u)"; exit 1; }

# From where this machine has its packages.
root=$scratch/root
mapfile -t sources < <(find /etc/apt/sources.list /etc/apt/sources.list.d -name '*.list' -o -name '*.sources' 2>/dev/null)
mmdebstrap --variant=apt --hook-dir=/usr/share/mmdebstrap/hooks/file-mirror-automount \
    --include=mount "${packages[@]/#/--include=}" "$(. /etc/os-release && echo "$VERSION_CODENAME")" "$root" "${sources[@]}" \
    2>"$scratch/install.log" || { cat "$scratch/install.log"; exit 1; }
echo 'installed'

units=(tarnd.service tarn-master.service tarn-relay.service tarn-web.service)
systemd-analyze verify --man=no --root="$root" "${units[@]}"
for unit in "${units[@]}"; do
    [[ -L $root/etc/systemd/system/multi-user.target.wants/$unit ]] || { echo "$unit: expected it to be enabled"; exit 1; }
    systemd-analyze security --offline=true --threshold=40 --no-pager "$root/lib/systemd/system/$unit" | tail -n 1
done

cc -Wall -Wextra -Werror -o "$root/usr/local/bin/filtered" "$here/filtered.c" -lseccomp
cp "$here/start.sh" "$root/usr/local/bin/"
for unit in "${units[@]}"; do
    "$here/system_calls.sh" "$root/lib/systemd/system/$unit" >"$root/usr/local/share/$unit.calls"
done
# Processes of its own, all of which end with the first.
unshare --mount --pid --fork --kill-child bash -euc "
    mount --bind '$root' '$root'
    mount -t proc proc '$root/proc'
    chroot '$root' /usr/local/bin/start.sh"

chroot "$root" dpkg --purge tarn-web tarn-relay tarn-host >/dev/null
left=$(cd "$root" && ls -d etc/tarn etc/tarn-relay run/tarn var/lib/tarn* var/log/tarn etc/systemd/system/*/tarn* 2>/dev/null || true)
[[ -z $left ]] || { echo "found $left after the packages were purged, expected nothing"; exit 1; }
echo 'purged'
