#!/usr/bin/env bash
# core_pattern.sh BUILD: the kernel hands tarn-core the crash of a process, which is recorded, and whose core goes where
# it went before. Takes root where the kernel's own paths are; what the kernel does with cores is as it was afterwards.
set -euo pipefail
build=$(realpath "$1")
[[ $(id -u) -eq 0 ]] || { echo "the kernel's settings take root: expected user 0, found $(id -u)"; exit 1; }
[[ ! -e /etc/sysctl.d/60-tarn-core.conf ]] || { echo 'tarn-core is installed here: expected that it is not'; exit 1; }

pattern=$(</proc/sys/kernel/core_pattern) limit=$(</proc/sys/kernel/core_pipe_limit) made=
scratch=$(mktemp -d /tmp/core.XXXXXX) # a short path: the kernel takes 127 bytes
restore() {
    "$scratch/tarn-core" --remove >/dev/null
    echo "$limit" >/proc/sys/kernel/core_pipe_limit
    echo "$pattern" >/proc/sys/kernel/core_pattern
    rm -rf "$scratch" ${made:+"$made"}
}
trap restore EXIT
cp "$build/tarn-core" "$build/tarn-unwind" "$scratch"
chmod 755 "$scratch"
install -d -m 777 "$scratch/cores"
faults=/var/lib/tarn-faults
if [[ ! -d $faults ]]; then
    install -d -m 755 "$faults"
    made=$faults
elif [[ ! -e $faults/blackbox-65534 ]]; then
    made=$faults/blackbox-65534
fi

echo "$scratch/cores/%s.%u" >/proc/sys/kernel/core_pattern
"$scratch/tarn-core" --install >/dev/null
(
    ulimit -c unlimited
    cd "$scratch/cores"
    setpriv --reuid 65534 --regid 65534 --clear-groups sh -c 'kill -SEGV $$; true' 'of this test' || true
) 2>/dev/null
core=$(echo "$scratch"/cores/11.65534*)
readelf -h "$core" | grep -q 'CORE (Core file)' || { echo "$core: expected a core file"; exit 1; }
[[ $(stat -c %u "$core" "$faults/blackbox-65534" | sort -u) == 65534 ]] || { echo 'expected files of user 65534'; exit 1; }
grep -q 'kill -SEGV $$; true of this test' "$faults/blackbox-65534" || { echo 'expected a record of the crash'; exit 1; }
echo 'the crash is recorded, its core passed on'
